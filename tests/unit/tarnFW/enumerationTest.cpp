// From a stored profile to its command document, and the adapters that rules may be filed under.

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <json/value.h>

#include "fakePlatform.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

template <class Row>
std::string rowName(const testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

// --- profile to command document ---

// clang-format off
constexpr char kSshRule[] = R"({"eth0": [{"enable": true, "adapterDirect": 1, "protocol": 1, "policy": 0, "blLog": false, "name": "ssh", "table": "filter", "labelList": [], "chainList": [], "ipType": 0, "ipDirect": 1, "ipGroup": 1, "ipList": ["192.168.1.0", "24"], "portDirect": 0, "portGroup": 1, "portList": ["22"]}]})";
constexpr char kUnknownPolicyRule[] = R"({"eth0": [{"enable": true, "adapterDirect": 1, "protocol": 1, "policy": 7, "name": "odd", "table": "filter", "ipType": 0, "ipGroup": 5, "portGroup": 3}]})";
constexpr char kServiceRule[] = R"({"eth0": [{"enable": true, "adapterDirect": 1, "protocol": 1, "policy": 0, "name": "web", "table": "filter", "ipType": 0, "ipGroup": 5, "portGroup": 0, "portList": ["http"]}]})";
// clang-format on

// How the compiler is reached: with connection state, without it, or with an address left out of
// it.
using Compile = bool (*)(const std::string& name, Json::Value& commands);

bool withState(const std::string& name, Json::Value& commands) {
  return FW::TARNFW().fwIptablesRulesEnum(name, commands, true);
}
bool withoutState(const std::string& name, Json::Value& commands) {
  return FW::TARNFW().fwIptablesRulesEnum(name, commands, false);
}
template <const char* Exempt>
bool exempting(const std::string& name, Json::Value& commands) {
  return FW::TARNFW().fwIptablesRulesEnum(name, commands, std::string(Exempt));
}
template <const char* Exempt>
bool exemptingLiteral(const std::string& name, Json::Value& commands) {
  return FW::TARNFW().fwIptablesRulesEnum(name, commands, Exempt);
}

// An address in memory that is written to, as a C string function leaves it.
template <const char* Exempt>
bool exemptingPointer(const std::string& name, Json::Value& commands) {
  std::string text = Exempt;
  return FW::TARNFW().fwIptablesRulesEnum(name, commands, text.data());
}
// 0 is no address.
bool withZero(const std::string& name, Json::Value& commands) {
  return FW::TARNFW().fwIptablesRulesEnum(name, commands, 0);
}

constexpr char kNobody[] = "";
constexpr char kClientV4[] = "10.0.0.5";
constexpr char kClientV6[] = "fe80::1";
constexpr char kNoAddress[] = "not-an-ip";

struct CompileRow {
  const char* name;
  const char* profile;  // the one that is compiled; "office" is the one that is stored
  const char* rules;
  Compile compile;
  std::string commands;
  const char* trace;
  bool result;

  friend void PrintTo(const CompileRow& row, std::ostream* out) { *out << row.name; }
};

class CompiledProfile : public fake::MachineTest, public testing::WithParamInterface<CompileRow> {};

TEST_P(CompiledProfile, IsTheCommandDocument) {
  const CompileRow& row = GetParam();
  fake::machine().interfaces = {"eth0"};
  files::writeProfile("1", "office", row.rules, R"({"eth0": 1, "global": 2})");
  Json::Value commands;
  EXPECT_EQ(row.result, row.compile(row.profile, commands));
  EXPECT_EQ(row.commands, toText(commands));
  EXPECT_EQ(row.trace, trace::take());
}

// clang-format off
// Preambles of the two families, with and without connection state, and a default policy.
const std::string kStateV4 =
  R"(["-A INPUT_FIREWALL -i lo -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -i lo -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT"])";
const std::string kStateV6 =
  R"(["-A INPUT_FIREWALL -i lo -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -i lo -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT"])";
const std::string kPlainV4 =
  R"(["-A INPUT_FIREWALL -i lo -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -i lo -j ACCEPT"])";
const std::string kPlainV6 =
  R"(["-A INPUT_FIREWALL -i lo -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",)"
  R"("-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -i lo -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",)"
  R"("-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT"])";
const std::string kDenied =
  R"(["-t filter -A FORWARD_FIREWALL -i eth0 -j DROP",)"
  R"("-t filter -A INPUT_FIREWALL -i eth0 -j DROP"])";

INSTANTIATE_TEST_SUITE_P(Table, CompiledProfile, testing::Values(
  CompileRow{"WithState", "office", kSshRule, withState,
    R"({"v4":{"eth0":["-t filter -A FORWARD_FIREWALL -i eth0 -s 192.168.1.0/24 -p tcp --dport 22 -j RETURN","-t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/24 -p tcp --dport 22 -j RETURN","-t filter -A FORWARD_FIREWALL -i eth0 -j DROP","-t filter -A INPUT_FIREWALL -i eth0 -j DROP"],"global":)" + kStateV4 + R"(},"v6":{"eth0":)" + kDenied + R"(,"global":)" + kStateV6 + R"(}})",
    "interfaces 32 8\n"
    "support support_wireless", true},
  CompileRow{"WithoutState", "office", "null", withoutState,
    R"({"v4":{"eth0":)" + kDenied + R"(,"global":)" + kPlainV4 + R"(},"v6":{"eth0":)" + kDenied + R"(,"global":)" + kPlainV6 + R"(}})",
    "interfaces 32 8\n"
    "support support_wireless", true},
  CompileRow{"ZeroIsWithoutState", "office", "null", withZero,
    R"({"v4":{"eth0":)" + kDenied + R"(,"global":)" + kPlainV4 + R"(},"v6":{"eth0":)" + kDenied + R"(,"global":)" + kPlainV6 + R"(}})",
    "interfaces 32 8\n"
    "support support_wireless", true},
  CompileRow{"NobodyExemptHasState", "office", "null", exempting<kNobody>,
    R"({"v4":{"eth0":)" + kDenied + R"(,"global":)" + kStateV4 + R"(},"v6":{"eth0":)" + kDenied + R"(,"global":)" + kStateV6 + R"(}})",
    "interfaces 32 8\n"
    "support support_wireless", true},
  CompileRow{"Ipv4ClientExempt", "office", "null", exemptingLiteral<kClientV4>,
    R"({"v4":{"eth0":)" + kDenied + R"(,"global":["-A INPUT_FIREWALL -i lo -j ACCEPT","-A INPUT_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT","-A FORWARD_FIREWALL -i lo -j ACCEPT","-A FORWARD_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT"]},"v6":{"eth0":)" + kDenied + R"(,"global":)" + kStateV6 + R"(}})",
    "interfaces 32 8\n"
    "support support_wireless", true},
  CompileRow{"PointerToAnAddressExempt", "office", "null", exemptingPointer<kClientV4>,
    R"({"v4":{"eth0":)" + kDenied + R"(,"global":["-A INPUT_FIREWALL -i lo -j ACCEPT","-A INPUT_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT","-A FORWARD_FIREWALL -i lo -j ACCEPT","-A FORWARD_FIREWALL ! -s 10.0.0.5 -m state --state ESTABLISHED,RELATED -j ACCEPT"]},"v6":{"eth0":)" + kDenied + R"(,"global":)" + kStateV6 + R"(}})",
    "interfaces 32 8\n"
    "support support_wireless", true},
  CompileRow{"Ipv6ClientExempt", "office", "null", exempting<kClientV6>,
    R"({"v4":{"eth0":)" + kDenied + R"(,"global":)" + kStateV4 + R"(},"v6":{"eth0":)" + kDenied + R"(,"global":["-A INPUT_FIREWALL -i lo -j ACCEPT","-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT","-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT","-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT","-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT","-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT","-A INPUT_FIREWALL ! -s fe80::1 -m state --state ESTABLISHED,RELATED -j ACCEPT","-A FORWARD_FIREWALL -i lo -j ACCEPT","-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT","-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT","-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT","-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT","-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT","-A FORWARD_FIREWALL ! -s fe80::1 -m state --state ESTABLISHED,RELATED -j ACCEPT"]}})",
    "interfaces 32 8\n"
    "support support_wireless", true},
  CompileRow{"UnknownProfile", "home", "null", withState, "null",
    "err fwDB Failed to profileGet home due to not exist\n"
    "err tarnFW Failed to profileGet(home)", false},
  CompileRow{"UnknownProfileOfATrial", "home", "null", exempting<kClientV4>, "null",
    "err fwDB Failed to profileGet home due to not exist\n"
    "err tarnFW Failed to profileGet(home)", false},
  CompileRow{"NamesAreExact", "Office", "null", withState, "null",
    "err fwDB Failed to profileGet Office due to not exist\n"
    "err tarnFW Failed to profileGet(Office)", false},
  CompileRow{"ExemptAddressIsNone", "office", "null", exempting<kNoAddress>, "null",
    "err fwIptables:661 Invalid input argument 'not-an-ip' which is not an IP address.\n"
    "err tarnFW Failed to fwRulesToIptablesRules()", false},
  CompileRow{"UnknownPolicy", "office", kUnknownPolicyRule, withoutState,
    R"({"v4":{"global":)" + kPlainV4 + R"(},"v6":{"global":)" + kPlainV6 + R"(}})",
    "interfaces 32 8\n"
    "support support_wireless\n"
    "err fwIptables:574 Unknown policy 7\n"
    "err fwIptables:733 Failed to policyToIptablesArg()\n"
    "err tarnFW Failed to fwRulesToIptablesRules()", false},
  CompileRow{"NoServiceDatabase", "office", kServiceRule, withoutState,
    R"({"v4":{"global":)" + kPlainV4 + R"(},"v6":{"global":)" + kPlainV6 + R"(}})",
    "interfaces 32 8\n"
    "support support_wireless\n"
    "services enum\n"
    "err fwIptables:427 Failed to enum services\n"
    "err fwIptables:480 Failed to servToPorts()\n"
    "err fwIptables:526 Failed to servPortToCmd()\n"
    "err fwIptables:721 Failed to portToIptablesArg()\n"
    "err tarnFW Failed to fwRulesToIptablesRules()", false}),
  rowName<CompileRow>);
// clang-format on

class Enumeration : public fake::MachineTest {};

TEST_F(Enumeration, LinesJoinThoseThatAreThere) {
  files::writeProfile("1", "office");
  Json::Value commands = toJson(R"({"v4": {"global": ["-F earlier"]}, "other": 1})");
  EXPECT_TRUE(FW::TARNFW().fwIptablesRulesEnum("office", commands, true));
  EXPECT_EQ(
      R"(["-F earlier","-A INPUT_FIREWALL -i lo -j ACCEPT","-A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT","-A FORWARD_FIREWALL -i lo -j ACCEPT","-A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT"])",
      toText(commands["v4"]["global"]));
  EXPECT_EQ("1", toText(commands["other"]));
  EXPECT_EQ("", trace::take());
}

TEST_F(Enumeration, UnknownProfileLeavesTheDocumentAlone) {
  files::writeProfile("1", "office");
  Json::Value commands = toJson(R"({"v4":{"global":["-F earlier"]}})");
  EXPECT_FALSE(FW::TARNFW().fwIptablesRulesEnum("home", commands, true));
  EXPECT_EQ(R"({"v4":{"global":["-F earlier"]}})", toText(commands));
  EXPECT_EQ(
      "err fwDB Failed to profileGet home due to not exist\n"
      "err tarnFW Failed to profileGet(home)",
      trace::take());
}

TEST_F(Enumeration, NoDocumentInTheDirectory) {
  Json::Value commands;
  EXPECT_FALSE(FW::TARNFW().fwIptablesRulesEnum("office", commands, true));
  EXPECT_EQ("null", toText(commands));
  EXPECT_EQ(
      "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
      "err fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\n"
      "err fwDB Failed to profileGet office due to not exist\n"
      "err tarnFW Failed to profileGet(office)",
      trace::take());
}

// --- adapters ---

struct AdapterRow {
  const char* name;
  std::vector<std::string> interfaces;
  std::vector<std::string> capabilities;
  const char* wireless;  // "support_wireless" of the model file
  std::set<std::string> adapters;
  const char* trace;

  friend void PrintTo(const AdapterRow& row, std::ostream* out) { *out << row.name; }
};

class Adapters : public fake::MachineTest, public testing::WithParamInterface<AdapterRow> {};

TEST_P(Adapters, AreInterfacesAndNamesOfGroups) {
  const AdapterRow& row = GetParam();
  fake::machine().interfaces = row.interfaces;
  fake::machine().capabilities = row.capabilities;
  fake::machine().files["/etc.defaults/tarninfo.conf"]["support_wireless"] = row.wireless;
  std::set<std::string> adapters;
  EXPECT_TRUE(FW::TARNFW().fwAdapterEnum(adapters));
  EXPECT_EQ(row.adapters, adapters);
  EXPECT_EQ(row.trace, trace::take());
}

// clang-format off
const std::vector<std::string> kThirtyThree = {
  "eth00", "eth01", "eth02", "eth03", "eth04", "eth05", "eth06", "eth07", "eth08", "eth09", "eth10",
  "eth11", "eth12", "eth13", "eth14", "eth15", "eth16", "eth17", "eth18", "eth19", "eth20", "eth21",
  "eth22", "eth23", "eth24", "eth25", "eth26", "eth27", "eth28", "eth29", "eth30", "eth31", "eth32"};

constexpr char kNotWireless[] = "interfaces 32 8\nsupport support_wireless";
constexpr char kWireless[] = "interfaces 32 8\nsupport support_wireless\ncheck /etc.defaults/tarninfo.conf support_wireless=yes";

INSTANTIATE_TEST_SUITE_P(Table, Adapters, testing::Values(
  AdapterRow{"NoInterface", {}, {}, "", {"global", "pppoe", "vpn"}, kNotWireless},
  AdapterRow{"Interfaces", {"eth1", "eth0", "br0", "tun0"}, {}, "", {"br0", "eth0", "eth1", "global", "pppoe", "tun0", "vpn"}, kNotWireless},
  AdapterRow{"SameNameTwice", {"eth0", "eth0"}, {}, "", {"eth0", "global", "pppoe", "vpn"}, kNotWireless},
  AdapterRow{"LongestName", {"fifteen_letters"}, {}, "", {"fifteen_letters", "global", "pppoe", "vpn"}, kNotWireless},
  AdapterRow{"InterfaceNamedLikeAGroup", {"vpn"}, {}, "", {"global", "pppoe", "vpn"}, kNotWireless},
  AdapterRow{"AtMostThirtyTwo", kThirtyThree, {}, "", {
    "eth00", "eth01", "eth02", "eth03", "eth04", "eth05", "eth06", "eth07", "eth08", "eth09", "eth10",
    "eth11", "eth12", "eth13", "eth14", "eth15", "eth16", "eth17", "eth18", "eth19", "eth20", "eth21",
    "eth22", "eth23", "eth24", "eth25", "eth26", "eth27", "eth28", "eth29", "eth30", "eth31", "global", "pppoe", "vpn"}, kNotWireless},
  AdapterRow{"WirelessModel", {"eth0"}, {"support_wireless"}, "yes", {"eth0", "global", "pppoe", "vpn", "wlan0"}, kWireless},
  AdapterRow{"WirelessModelWithTheInterface", {"eth0", "wlan0"}, {"support_wireless"}, "yes", {"eth0", "global", "pppoe", "vpn", "wlan0"}, kWireless},
  AdapterRow{"WirelessModelWhoseFileSaysNo", {"eth0"}, {"support_wireless"}, "no", {"eth0", "global", "pppoe", "vpn"}, kWireless},
  AdapterRow{"WirelessModelWhoseFileSaysYES", {"eth0"}, {"support_wireless"}, "YES", {"eth0", "global", "pppoe", "vpn"}, kWireless},
  AdapterRow{"WirelessModelWhoseFileSaysNothing", {"eth0"}, {"support_wireless"}, "", {"eth0", "global", "pppoe", "vpn"}, kWireless},
  AdapterRow{"ReportedWithoutTheCapability", {"wlan0"}, {"support_wireless"}, "no", {"global", "pppoe", "vpn", "wlan0"}, kWireless},
  AdapterRow{"FileOfAModelThatIsNotWireless", {"eth0"}, {}, "yes", {"eth0", "global", "pppoe", "vpn"}, kNotWireless},
  AdapterRow{"OtherCapability", {"eth0"}, {"support_bond"}, "yes", {"eth0", "global", "pppoe", "vpn"}, kNotWireless}),
  rowName<AdapterRow>);
// clang-format on

TEST_F(Enumeration, AdaptersJoinThoseThatAreThere) {
  fake::machine().interfaces = {"eth0"};
  std::set<std::string> adapters = {"old0", "eth0"};
  EXPECT_TRUE(FW::TARNFW().fwAdapterEnum(adapters));
  EXPECT_EQ((std::set<std::string>{"eth0", "global", "old0", "pppoe", "vpn"}), adapters);
  EXPECT_EQ("interfaces 32 8\nsupport support_wireless", trace::take());
}

TEST_F(Enumeration, InterfacesCannotBeListed) {
  fake::machine().interfaces = {"eth0"};
  fake::machine().answers = {{"interfaces 32 8", -5}};
  fake::machine().failure = {0x0d01, "netif.c", 314};
  std::set<std::string> adapters = {"old0"};
  EXPECT_FALSE(FW::TARNFW().fwAdapterEnum(adapters));
  EXPECT_EQ(std::set<std::string>{"old0"}, adapters);
  EXPECT_EQ(
      "interfaces 32 8\n"
      "err tarnFW Failed to TLIBNetGetInterfaceInfo(-5) [0x0D01 netif.c:314]",
      trace::take());
}

}  // namespace
