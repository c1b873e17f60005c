#include <filesystem>
#include <ostream>
#include <string>

#include "commandLines.h"
#include "fakePlatform.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using FW::AdapterPolicyMap;
using FW::FW_POLICY;
using FW::FW_POLICY_ALLOW;
using FW::FW_POLICY_DENY;
using FW::FW_POLICY_NONE;
using FW::FW_PROTO_ICMP;
using FW::FWRULE;
using FW::RuleList;
using FW::TARNFW_IPTABLES_RULES;

using Texts = std::vector<std::string>;

bool loopbackIsRefused = false;

}  // namespace

extern "C" {

// The compiler's check of IPv4 addresses goes through here (the linker's --wrap).
//
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names
int __real_BlTLIBIsIpAddr(const char* text);
int __wrap_BlTLIBIsIpAddr(const char* text);
int __wrap_BlTLIBIsIpAddr(const char* text) {
  if (loopbackIsRefused && std::string(text) == "127.0.0.1") return 0;
  return __real_BlTLIBIsIpAddr(text);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

}  // extern "C"

namespace {

// --- the preamble ---

struct PreambleRow {
  const char* name;
  bool withState;
  const char* exempt;
  const char* lines;
};

void PrintTo(const PreambleRow& row, std::ostream* out) {
  *out << (row.withState ? "with state, " : "without state, ") << row.exempt;
}

// clang-format off
const PreambleRow kPreambleRows[] = {
    {"WithState", true, "",
     "v4 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"},
    {"WithoutState", false, "",
     "v4 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"},
    {"V4AddressIsExemptInV4Only", true, "10.0.0.5",
     "v4 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A INPUT_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"},
    {"LoopbackAddressIsExempt", true, "127.0.0.1",
     "v4 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A INPUT_FIREWALL ! -s 127.0.0.1 -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL ! -s 127.0.0.1 -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"},
    {"V6AddressIsExemptInV6Only", true, "fe80::1",
     "v4 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL ! -s fe80::1 -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL ! -s fe80::1 -m state --state ESTABLISHED,RELATED -j ACCEPT\n"},
    {"ExemptAddressWithoutStateAddsNothing", false, "10.0.0.5",
     "v4 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v4 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
     "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"},
};
// clang-format on

class Preamble : public fake::MachineTest, public testing::WithParamInterface<PreambleRow> {};

TEST_P(Preamble, BeginsEveryDocument) {
  Json::Value cmds;
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(GetParam().withState, {}, {}, cmds,
                                                             GetParam().exempt));
  EXPECT_EQ(GetParam().lines, commandLines(cmds));
  EXPECT_EQ("", trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, Preamble, testing::ValuesIn(kPreambleRows),
                         [](const auto& row) { return std::string(row.param.name); });

// The connection-state lines alone, of a platform that takes an address otherwise than ours does.
std::string stateLines(const std::string& exempt) {
  Json::Value cmds;
  EXPECT_TRUE(
      TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(/*withState=*/true, {}, {}, cmds, exempt));
  std::string lines;
  for (const char* family : {"v4", "v6"}) {
    for (const Json::Value& line : cmds[family]["global"]) {
      if (line.asString().find("--state") == std::string::npos) continue;
      lines.append(family).append(" ").append(line.asString()).append("\n");
    }
  }
  return lines;
}

class ExemptAddressOfAPlatform : public fake::MachineTest {};

TEST_F(ExemptAddressOfAPlatform, LoopbackNeedsNoFamily) {
  fake::machine().answers = {{"ipv4 127.0.0.1", 0}};
  EXPECT_EQ(
      "v4 -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v4 -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v6 -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v6 -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n",
      stateLines("127.0.0.1"));
}

TEST_F(ExemptAddressOfAPlatform, EachFamilyIsAskedForItself) {
  fake::machine().answers = {{"ipv6 10.0.0.5", 1}};
  EXPECT_EQ(
      "v4 -A INPUT_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v4 -A FORWARD_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v6 -A INPUT_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v6 -A FORWARD_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT\n",
      stateLines("10.0.0.5"));
}

struct InvalidRow {
  const char* name;
  const char* exempt;
  const char* trace;
};

void PrintTo(const InvalidRow& row, std::ostream* out) { *out << row.exempt; }

// clang-format off
const InvalidRow kInvalidRows[] = {
    {"Word", "not-an-ip", "err fwIptables:661 Invalid input argument 'not-an-ip' which is not an IP address."},
    {"Blank", " ", "err fwIptables:661 Invalid input argument ' ' which is not an IP address."},
    {"V4WithABlank", "10.0.0.5 ", "err fwIptables:661 Invalid input argument '10.0.0.5 ' which is not an IP address."},
    {"V4WithOptions", "10.0.0.5 -j ACCEPT", "err fwIptables:661 Invalid input argument '10.0.0.5 -j ACCEPT' which is not an IP address."},
    {"V4Subnet", "10.0.0.0/8", "err fwIptables:661 Invalid input argument '10.0.0.0/8' which is not an IP address."},
    {"V4InThreeParts", "10.0.5", "err fwIptables:661 Invalid input argument '10.0.5' which is not an IP address."},
    {"V4TooLarge", "10.0.0.256", "err fwIptables:661 Invalid input argument '10.0.0.256' which is not an IP address."},
    {"V6WithAZone", "fe80::1%eth0", "err fwIptables:661 Invalid input argument 'fe80::1%eth0' which is not an IP address."},
    {"V6Subnet", "fe80::/10", "err fwIptables:661 Invalid input argument 'fe80::/10' which is not an IP address."},
    {"V6InBrackets", "[fe80::1]", "err fwIptables:661 Invalid input argument '[fe80::1]' which is not an IP address."},
    {"AlmostLoopback", "127.0.0.1x", "err fwIptables:661 Invalid input argument '127.0.0.1x' which is not an IP address."},
    {"FormatCharacters", "%s%n", "err fwIptables:661 Invalid input argument '%s%n' which is not an IP address."},
};
// clang-format on

class InvalidExemptAddress : public fake::MachineTest,
                             public testing::WithParamInterface<InvalidRow> {};

TEST_P(InvalidExemptAddress, FailsBeforeAnythingIsDone) {
  fake::machine().interfaces = {"eth0"};
  for (const bool withState : {true, false}) {
    for (const char* before : {"null", R"({"v4":{"eth0":["-A OLD"]},"v6":null})"}) {
      Json::Value cmds = toJson(before);
      EXPECT_FALSE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
          withState, {{"eth0", {FWRULE()}}}, {{"eth0", FW_POLICY_DENY}}, cmds, GetParam().exempt));
      EXPECT_EQ(before, toText(cmds));
      EXPECT_EQ(GetParam().trace, trace::take());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, InvalidExemptAddress, testing::ValuesIn(kInvalidRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- profiles ---

// A profile on the machine of the fixture: eth0, eth1, the PPPoE link ppp0, the VPN server's tun0;
// no wlan0; services ssh; countries US (both families) and DE (IPv4).
struct ProfileRow {
  const char* name;
  RuleList rules;
  AdapterPolicyMap policies;
  bool result;
  const char* v4;  // lines after the preamble
  const char* v6;
  const char* trace;
};

void PrintTo(const ProfileRow& row, std::ostream* out) { *out << row.name; }

// A rule of both families for every packet, which the rows then narrow.
template <class Narrow>
FWRULE rule(Narrow narrow) {
  FWRULE made;
  made.ipType = 2;
  made.ipGroup = 5;
  made.portGroup = 3;
  made.chainList = {"INPUT_FIREWALL"};
  narrow(made);
  return made;
}

constexpr char kPreambleV4[] =
    "v4 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
    "v4 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n";
constexpr char kPreambleV6[] =
    "v6 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
    "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
    "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
    "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
    "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
    "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
    "v6 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
    "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
    "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
    "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
    "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
    "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n";

constexpr char kInterfaces[] = "interfaces 32 8\nsupport support_wireless";

// clang-format off
const ProfileRow kProfileRows[] = {
    {"DefaultPolicyWithoutRules", {}, {{"eth0", FW_POLICY_DENY}}, true,
     "v4 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j DROP\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n",
     "v6 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j DROP\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n", kInterfaces},
    {"DefaultPolicyAllow", {}, {{"eth0", FW_POLICY_ALLOW}}, true,
     "v4 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j RETURN\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j RETURN\n",
     "v6 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j RETURN\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j RETURN\n", kInterfaces},
    {"DefaultPolicyNoneGivesNoLine", {}, {{"eth0", FW_POLICY_NONE}, {"global", FW_POLICY_NONE}}, true, "", "", kInterfaces},
    {"DefaultPolicyOfGlobalFollowsThePreamble", {}, {{"global", FW_POLICY_DENY}}, true,
     "v4 global: -t filter -A FORWARD_FIREWALL -j DROP\n"
     "v4 global: -t filter -A INPUT_FIREWALL -j DROP\n",
     "v6 global: -t filter -A FORWARD_FIREWALL -j DROP\n"
     "v6 global: -t filter -A INPUT_FIREWALL -j DROP\n", ""},
    {"RulesWithoutDefaultPolicy", {{"eth0", {rule([](FWRULE& r) { r.ipType = 0; })}}}, {}, true,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j RETURN\n", "", kInterfaces},
    {"DefaultPolicyComesLast", {{"eth0", {rule([](FWRULE& r) { r.ipType = 0; })}}}, {{"eth0", FW_POLICY_DENY}}, true,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j RETURN\n"
     "v4 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j DROP\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n",
     "v6 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j DROP\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n", kInterfaces},
    {"AdapterWithAnEmptyListOfRules", {{"eth0", {}}}, {}, true, "", "", ""},
    {"DisabledRuleGivesNothing", {{"eth0", {rule([](FWRULE& r) { r.enable = false; })}}}, {}, true, "", "", ""},
    {"DisabledRuleIsNotLookedInto", {{"eth0", {rule([](FWRULE& r) { r.enable = false; r.policy = static_cast<FW_POLICY>(7); r.ipGroup = 9; r.portGroup = 9; })}}}, {}, true, "", "", ""},
    {"RuleWithoutPolicyGivesNothing", {{"eth0", {rule([](FWRULE& r) { r.policy = FW_POLICY_NONE; r.blLog = true; })}}}, {}, true, "", "", kInterfaces},
    {"RuleOrderIsThatOfTheProfile",
     {{"eth0", {rule([](FWRULE& r) { r.ipType = 0; r.ipGroup = 0; r.ipList = {"10.0.0.9"}; }),
                rule([](FWRULE& r) { r.ipType = 0; r.ipGroup = 0; r.ipList = {"10.0.0.1"}; r.policy = FW_POLICY_DENY; }),
                rule([](FWRULE& r) { r.ipType = 0; r.ipGroup = 0; r.ipList = {"10.0.0.5"}; r.ruleID = -1; })}}}, {}, true,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -s 10.0.0.9 -j RETURN\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -s 10.0.0.1 -j DROP\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -s 10.0.0.5 -j RETURN\n", "", kInterfaces},
    {"AdaptersHaveListsOfTheirOwn",
     {{"eth1", {rule([](FWRULE& r) { r.ipType = 0; })}}, {"eth0", {rule([](FWRULE& r) { r.ipType = 1; })}}, {"global", {rule([](FWRULE& r) { r.ipType = 0; })}}},
     {{"eth1", FW_POLICY_DENY}}, true,
     "v4 global: -t filter -A INPUT_FIREWALL -j RETURN\n"
     "v4 eth1: -t filter -A INPUT_FIREWALL -i eth1 -j RETURN\n"
     "v4 eth1: -t filter -A FORWARD_FIREWALL -i eth1 -j DROP\n"
     "v4 eth1: -t filter -A INPUT_FIREWALL -i eth1 -j DROP\n",
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j RETURN\n"
     "v6 eth1: -t filter -A FORWARD_FIREWALL -i eth1 -j DROP\n"
     "v6 eth1: -t filter -A INPUT_FIREWALL -i eth1 -j DROP\n", kInterfaces},
    {"AbsentAdapterVanishes", {{"eth7", {rule([](FWRULE&) {})}}, {"eth70", {rule([](FWRULE& r) { r.policy = static_cast<FW_POLICY>(7); })}}}, {{"eth7", FW_POLICY_DENY}, {"wlan0", FW_POLICY_DENY}}, true, "", "", kInterfaces},
    {"PppInterfaceIsReachedThroughPppoeOnly",
     {{"ppp0", {rule([](FWRULE& r) { r.policy = static_cast<FW_POLICY>(7); })}}, {"pppoe", {rule([](FWRULE& r) { r.ipType = 0; })}}},
     {{"ppp0", FW_POLICY_DENY}, {"pppoe", FW_POLICY_DENY}}, true,
     "v4 pppoe: -t filter -A INPUT_FIREWALL -i ppp0 -j RETURN\n"
     "v4 pppoe: -t filter -A FORWARD_FIREWALL -i ppp0 -j DROP\n"
     "v4 pppoe: -t filter -A INPUT_FIREWALL -i ppp0 -j DROP\n",
     "v6 pppoe: -t filter -A FORWARD_FIREWALL -i ppp0 -j DROP\n"
     "v6 pppoe: -t filter -A INPUT_FIREWALL -i ppp0 -j DROP\n", "pppoe"},
    {"VpnHasALineForEachInterface", {{"vpn", {rule([](FWRULE& r) { r.ipType = 0; r.adapterDirect = 0; })}}}, {{"vpn", FW_POLICY_DENY}}, true,
     "v4 vpn: -t filter -A INPUT_FIREWALL -o tun0 -j RETURN\n"
     "v4 vpn: -t filter -A FORWARD_FIREWALL -i tun0 -j DROP\n"
     "v4 vpn: -t filter -A INPUT_FIREWALL -i tun0 -j DROP\n",
     "v6 vpn: -t filter -A FORWARD_FIREWALL -i tun0 -j DROP\n"
     "v6 vpn: -t filter -A INPUT_FIREWALL -i tun0 -j DROP\n", "interfaces 32 8\nsupport support_wireless\npppoe"},
    {"LogLinesPrecedeEachVerdict", {{"eth0", {rule([](FWRULE& r) { r.blLog = true; r.policy = FW_POLICY_DENY; })}}}, {}, true,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j LOG\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n",
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j LOG\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n", kInterfaces},
    {"RuleWithoutChainGivesNothing", {{"eth0", {rule([](FWRULE& r) { r.chainList.clear(); })}}}, {}, true, "", "", kInterfaces},
    {"AddressGroupOfNothingGivesNothing", {{"eth0", {rule([](FWRULE& r) { r.ipGroup = 2; r.ipList = {"10.0.0.1"}; })}}}, {}, true, "", "", kInterfaces},
    {"IcmpIsOfEitherFamily", {{"eth0", {rule([](FWRULE& r) { r.portGroup = 1; r.protocol = FW_PROTO_ICMP; })}}}, {}, true,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -p icmp  -j RETURN\n",
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -p icmpv6  -j RETURN\n", kInterfaces},
    {"CountriesOfEachFamily", {{"eth0", {rule([](FWRULE& r) { r.ipGroup = 3; r.ipList = {"DE", "US"}; })}}}, {}, true,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -m geoip --source-country DE,US -j RETURN\n",
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -m geoip --source-country US -j RETURN\n", kInterfaces},
    {"CountriesWithoutDataGiveNothing", {{"eth0", {rule([](FWRULE& r) { r.ipGroup = 3; r.ipList = {"FR"}; })}}}, {}, true, "", "", kInterfaces},
    {"ServicesAreReadOncePerCompilation",
     {{"eth0", {rule([](FWRULE& r) { r.ipType = 0; r.portGroup = 0; r.portList = {"ssh"}; })}}, {"eth1", {rule([](FWRULE& r) { r.ipType = 0; r.portGroup = 2; r.portList = {"nosuch", "ssh"}; })}}}, {}, true,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 22 -j RETURN\n"
     "v4 eth1: -t filter -A INPUT_FIREWALL -i eth1 -p tcp --dport 22 -j RETURN\n", "",
     "interfaces 32 8\nsupport support_wireless\nservices enum\nservices free"},
    {"ServiceWithoutPortsGivesNothing", {{"eth0", {rule([](FWRULE& r) { r.portGroup = 0; r.portList = {"nosuch"}; })}}}, {}, true, "", "",
     "interfaces 32 8\nsupport support_wireless\nservices enum\nservices free"},
    {"ExplicitPortsWithoutAPortGiveNothing", {{"eth0", {rule([](FWRULE& r) { r.portGroup = 1; })}}}, {}, true, "", "", kInterfaces},

    {"UnknownAddressGroupIsReportedAndLeftOut", {{"eth0", {rule([](FWRULE& r) { r.ipGroup = 9; })}}}, {{"eth0", FW_POLICY_DENY}}, true,
     "v4 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j DROP\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n",
     "v6 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j DROP\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n",
     "interfaces 32 8\nsupport support_wireless\nerr fwIptables:417 Unknown ip group 9"},
    {"UnknownPortGroupIsReportedAndLeftOut", {{"eth0", {rule([](FWRULE& r) { r.portGroup = 4; }), rule([](FWRULE& r) { r.ipType = 0; })}}}, {}, true,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j RETURN\n", "",
     "interfaces 32 8\nsupport support_wireless\nerr fwIptables:545 Unknown port group 4"},
    {"NoAddressIsReportedAndLeftOut", {{"eth0", {rule([](FWRULE& r) { r.name = "web"; r.ipGroup = 0; })}}}, {}, true, "", "",
     "interfaces 32 8\nsupport support_wireless\nerr fwIptables Rule \"web\" of adapter eth0 is left out: ip group 0 needs 1 addresses, not 0"},
    {"SubnetWithoutMaskIsReportedAndLeftOut", {{"eth0", {rule([](FWRULE& r) { r.name = "web"; r.ipGroup = 1; r.ipList = {"10.0.0.0"}; })}}}, {}, true, "", "",
     "interfaces 32 8\nsupport support_wireless\nerr fwIptables Rule \"web\" of adapter eth0 is left out: ip group 1 needs 2 addresses, not 1"},
    {"RangeWithoutEndIsReportedAndLeftOut", {{"global", {rule([](FWRULE& r) { r.ipGroup = 4; r.ipList = {"10.0.0.1"}; })}}}, {}, true, "", "",
     "err fwIptables Rule \"\" of adapter global is left out: ip group 4 needs 2 addresses, not 1"},
    {"DisabledRuleWithoutAddressIsNotReported", {{"eth0", {rule([](FWRULE& r) { r.enable = false; r.ipGroup = 0; })}}}, {}, true, "", "", ""},

    {"UnknownPolicyFailsAndKeepsTheLinesSoFar",
     {{"eth0", {rule([](FWRULE& r) { r.ipType = 0; }), rule([](FWRULE& r) { r.policy = static_cast<FW_POLICY>(7); }), rule([](FWRULE& r) { r.ipType = 1; })}}, {"eth1", {rule([](FWRULE&) {})}}},
     {{"eth0", FW_POLICY_DENY}}, false,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j RETURN\n", "",
     "interfaces 32 8\nsupport support_wireless\nerr fwIptables:574 Unknown policy 7\nerr fwIptables:733 Failed to policyToIptablesArg()"},
    {"UnknownDefaultPolicyFailsAfterTheRules", {{"eth0", {rule([](FWRULE& r) { r.ipType = 0; })}}}, {{"eth0", static_cast<FW_POLICY>(3)}, {"eth1", FW_POLICY_DENY}}, false,
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j RETURN\n", "",
     "interfaces 32 8\nsupport support_wireless\nerr fwIptables:574 Unknown policy 3\nerr fwIptables:733 Failed to policyToIptablesArg()"},
    {"UnknownDefaultPolicyOfAnAbsentAdapterIsNotLookedAt", {}, {{"eth7", static_cast<FW_POLICY>(3)}, {"ppp0", static_cast<FW_POLICY>(3)}}, true, "", "", kInterfaces},
};
// clang-format on

class Profiles : public fake::MachineTest, public testing::WithParamInterface<ProfileRow> {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    fake::machine().interfaces = {"eth0", "eth1", "ppp0", "tun0", "tun1000"};
    fake::machine().pppoe = "ppp0";
    fake::machine().services = {{"ssh", true, {}, {1, Texts{"22"}}}};
    std::filesystem::remove_all("/usr/share/xt_geoip");
    std::filesystem::create_directory("/usr/share/xt_geoip");
    files::write("/usr/share/xt_geoip/US.iv4", std::string(8, '\1'));
    files::write("/usr/share/xt_geoip/US.iv6", std::string(32, '\1'));
    files::write("/usr/share/xt_geoip/DE.iv4", std::string(8, '\1'));
  }
};

TEST_P(Profiles, Compile) {
  Json::Value cmds;
  EXPECT_EQ(GetParam().result, TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
                                   /*withState=*/false, GetParam().rules, GetParam().policies, cmds,
                                   /*stateExemptAddress=*/""));
  EXPECT_EQ(std::string(kPreambleV4) + GetParam().v4 + kPreambleV6 + GetParam().v6,
            commandLines(cmds));
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, Profiles, testing::ValuesIn(kProfileRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- machines that lack something ---

class Ruleset : public fake::MachineTest {};

TEST_F(Ruleset, SshFromASubnetAndNothingElseOnEth0) {
  fake::machine().interfaces = {"eth0"};
  FWRULE ssh;
  ssh.policy = FW_POLICY_ALLOW;
  ssh.adapterDirect = 1;
  ssh.table = "filter";
  ssh.chainList = {"INPUT_FIREWALL"};
  ssh.ipType = 0;
  ssh.ipDirect = 1;
  ssh.ipGroup = 1;
  ssh.ipList = {"192.168.1.0", "24"};
  ssh.portGroup = 1;
  ssh.protocol = FW::FW_PROTO_TCP;
  ssh.portDirect = 0;
  ssh.portList = {"22"};
  ssh.blLog = false;
  Json::Value cmds;
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
      /*withState=*/true, {{"eth0", {ssh}}}, {{"eth0", FW_POLICY_DENY}}, cmds,
      /*stateExemptAddress=*/""));
  // clang-format off
  EXPECT_EQ(
      "v4 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
      "v4 global: -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v4 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
      "v4 global: -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/24 -p tcp --dport 22 -j RETURN\n"
      "v4 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j DROP\n"
      "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n"
      "v6 global: -A INPUT_FIREWALL -i lo -j ACCEPT\n"
      "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
      "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
      "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
      "v6 global: -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
      "v6 global: -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
      "v6 global: -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v6 global: -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
      "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
      "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
      "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
      "v6 global: -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
      "v6 global: -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
      "v6 global: -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "v6 eth0: -t filter -A FORWARD_FIREWALL -i eth0 -j DROP\n"
      "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n",
      commandLines(cmds));
  // clang-format on
  EXPECT_EQ(kInterfaces, trace::take());
}

// The compilation goes on without the adapters: they cannot be told from absent ones.
TEST_F(Ruleset, UnlistableInterfacesLeaveGlobalAndPppoe) {
  fake::machine().pppoe = "ppp0";
  fake::machine().answers.insert({"interfaces 32 8", -2});
  Json::Value cmds;
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
      /*withState=*/false, {{"vpn", {rule([](FWRULE&) {})}}},
      {{"eth0", FW_POLICY_DENY}, {"global", FW_POLICY_ALLOW}, {"pppoe", FW_POLICY_DENY}}, cmds,
      /*stateExemptAddress=*/""));
  EXPECT_EQ(std::string(kPreambleV4) +
                "v4 global: -t filter -A FORWARD_FIREWALL -j RETURN\n"
                "v4 global: -t filter -A INPUT_FIREWALL -j RETURN\n"
                "v4 pppoe: -t filter -A FORWARD_FIREWALL -i ppp0 -j DROP\n"
                "v4 pppoe: -t filter -A INPUT_FIREWALL -i ppp0 -j DROP\n" +
                kPreambleV6 +
                "v6 global: -t filter -A FORWARD_FIREWALL -j RETURN\n"
                "v6 global: -t filter -A INPUT_FIREWALL -j RETURN\n"
                "v6 pppoe: -t filter -A FORWARD_FIREWALL -i ppp0 -j DROP\n"
                "v6 pppoe: -t filter -A INPUT_FIREWALL -i ppp0 -j DROP\n",
            commandLines(cmds));
  EXPECT_EQ(
      "interfaces 32 8\n"
      "err fwIptables:202 Failed to TLIBNetGetInterfaceInfo(-2) [0x0400 platform.c:12]\n"
      "err fwIptables:278 Failed to enabledAdapterEnum()\n"
      "pppoe\n"
      "interfaces 32 8\n"
      "err fwIptables:202 Failed to TLIBNetGetInterfaceInfo(-2) [0x0400 platform.c:12]\n"
      "err fwIptables:245 Failed to enabledAdapterEnum()",
      trace::take());
}

TEST_F(Ruleset, UnreadableServicesFailAndKeepTheLinesSoFar) {
  fake::machine().interfaces = {"eth0"};
  const FWRULE byService = rule([](FWRULE& r) {
    r.portGroup = 0;
    r.portList = {"ssh"};
  });
  const FWRULE all = rule([](FWRULE& r) { r.ipType = 0; });
  Json::Value cmds;
  EXPECT_FALSE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
      /*withState=*/false, {{"eth0", {all, byService, all}}}, {{"eth0", FW_POLICY_DENY}}, cmds,
      /*stateExemptAddress=*/""));
  EXPECT_EQ(std::string(kPreambleV4) + "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -j RETURN\n" +
                kPreambleV6,
            commandLines(cmds));
  EXPECT_EQ(
      "interfaces 32 8\n"
      "support support_wireless\n"
      "services enum\n"
      "err fwIptables:427 Failed to enum services\n"
      "err fwIptables:480 Failed to servToPorts()\n"
      "err fwIptables:526 Failed to servPortToCmd()\n"
      "err fwIptables:721 Failed to portToIptablesArg()",
      trace::take());
}

TEST_F(Ruleset, VpnRulesVanishWithoutAVpnInterface) {
  fake::machine().interfaces = {"eth0", "ppp0", "tun1000"};
  fake::machine().pppoe = "ppp0";
  Json::Value cmds;
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
      /*withState=*/false, {{"vpn", {rule([](FWRULE&) {})}}}, {{"vpn", FW_POLICY_DENY}}, cmds,
      /*stateExemptAddress=*/""));
  EXPECT_EQ(std::string(kPreambleV4) + kPreambleV6, commandLines(cmds));
  EXPECT_EQ("interfaces 32 8\nsupport support_wireless\npppoe", trace::take());
}

TEST_F(Ruleset, PppoeRulesVanishWithoutALink) {
  fake::machine().interfaces = {"eth0", "ppp0"};
  Json::Value cmds;
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
      /*withState=*/false, {{"pppoe", {rule([](FWRULE&) {})}}}, {{"pppoe", FW_POLICY_DENY}}, cmds,
      /*stateExemptAddress=*/""));
  EXPECT_EQ(std::string(kPreambleV4) + kPreambleV6, commandLines(cmds));
  EXPECT_EQ(
      "pppoe\n"
      "debug fwIptables:231 Failed to TARNPPPoeIntfGet()\n"
      "pppoe\n"
      "debug fwIptables:231 Failed to TARNPPPoeIntfGet()",
      trace::take());
}

// The loopback address passes even on a platform whose check does not take it for an address; it is
// then an address of neither family.
TEST_F(Ruleset, LoopbackIsAnAddressWhateverThePlatformSays) {
  loopbackIsRefused = true;
  Json::Value cmds;
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(/*withState=*/true, {}, {}, cmds,
                                                             "127.0.0.1"));
  loopbackIsRefused = false;
  Json::Value plain;
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(/*withState=*/true, {}, {}, plain));
  EXPECT_EQ(commandLines(plain), commandLines(cmds));
  EXPECT_EQ("", trace::take());
}

// --- the document that is handed in ---

TEST_F(Ruleset, LinesAreAppendedToTheDocument) {
  Json::Value cmds = toJson(R"({"v4":{"eth0":["-A OLD"],"global":["-A G4"]},"v6":null})");
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
      /*withState=*/false, {}, {{"global", FW_POLICY_DENY}}, cmds, /*stateExemptAddress=*/""));
  EXPECT_EQ(std::string("v4 global: -A G4\n") + kPreambleV4 +
                "v4 global: -t filter -A FORWARD_FIREWALL -j DROP\n"
                "v4 global: -t filter -A INPUT_FIREWALL -j DROP\n"
                "v4 eth0: -A OLD\n" +
                kPreambleV6 +
                "v6 global: -t filter -A FORWARD_FIREWALL -j DROP\n"
                "v6 global: -t filter -A INPUT_FIREWALL -j DROP\n",
            commandLines(cmds));
}

TEST_F(Ruleset, ShortFormExemptsNothing) {
  TARNFW_IPTABLES_RULES compiler;
  for (const bool withState : {true, false}) {
    Json::Value shortForm;
    Json::Value fullForm;
    EXPECT_TRUE(
        compiler.fwRulesToIptablesRules(withState, {}, {{"global", FW_POLICY_DENY}}, shortForm));
    EXPECT_TRUE(compiler.fwRulesToIptablesRules(withState, {}, {{"global", FW_POLICY_DENY}},
                                                fullForm, /*stateExemptAddress=*/""));
    EXPECT_EQ(commandLines(fullForm), commandLines(shortForm));
    EXPECT_EQ(withState ? 22U : 18U,
              shortForm["v4"]["global"].size() + shortForm["v6"]["global"].size());
  }
}

TEST_F(Ruleset, ArgumentsAreLeftAsTheyWere) {
  fake::machine().interfaces = {"eth0"};
  const RuleList rules = {{"eth0", {rule([](FWRULE& r) { r.ipType = 0; })}}};
  const AdapterPolicyMap policies = {{"eth0", FW_POLICY_DENY}, {"eth1", FW_POLICY_DENY}};
  TARNFW_IPTABLES_RULES compiler;
  Json::Value first;
  EXPECT_TRUE(compiler.fwRulesToIptablesRules(true, rules, policies, first));
  Json::Value second;
  EXPECT_TRUE(compiler.fwRulesToIptablesRules(true, rules, policies, second));
  EXPECT_EQ(commandLines(first), commandLines(second));
  EXPECT_EQ(1U, rules.size());
  EXPECT_EQ(1U, rules.at("eth0").size());
  EXPECT_EQ(kInterfaces, trace::take());
}

}  // namespace
