#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "fakePlatform.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "trace.h"

namespace {

using FW::FWRULE;
using FW::TARNFW_IPTABLES_RULES;

using Texts = std::vector<std::string>;

constexpr char kModelFile[] = "/etc.defaults/tarninfo.conf";

// --- one adapter on one machine ---

constexpr std::int32_t kIncoming = 1;
constexpr std::int32_t kOutgoing = 0;

struct AdapterRow {
  const char* name;
  Texts interfaces;
  const char* pppoe;  // empty: no PPPoE link
  const char* adapter;
  std::int32_t adapterDirect;
  bool enabled;              // adapterIsEnabled
  bool translated;           // adapterToIptablesArg
  const char* fragments;     // member "adapter" of the argument document
  const char* enabledTrace;  // of adapterIsEnabled
  const char* trace;         // of adapterToIptablesArg on the same object
};

void PrintTo(const AdapterRow& row, std::ostream* out) {
  *out << row.adapter << " on " << testing::PrintToString(row.interfaces);
}

const Texts kThirtyThree = {"e01", "e02", "e03", "e04", "e05", "e06", "e07", "e08", "e09",
                            "e10", "e11", "e12", "e13", "e14", "e15", "e16", "e17", "e18",
                            "e19", "e20", "e21", "e22", "e23", "e24", "e25", "e26", "e27",
                            "e28", "e29", "e30", "e31", "e32", "e33"};

constexpr char kInterfaces[] = "interfaces 32 8\nsupport support_wireless";
constexpr char kInterfacesThenPppoe[] = "interfaces 32 8\nsupport support_wireless\npppoe";
constexpr char kInterfacesThenNoPppoe[] =
    "interfaces 32 8\nsupport support_wireless\npppoe\ndebug fwIptables:231 Failed to TARNPPPoeIntfGet()";

// clang-format off
const AdapterRow kAdapterRows[] = {
    {"Incoming", {"eth0", "eth1"}, "", "eth0", kIncoming, true, true, R"(["-i eth0"])", kInterfaces, ""},
    {"Outgoing", {"eth0", "eth1"}, "", "eth0", kOutgoing, true, true, R"(["-o eth0"])", kInterfaces, ""},
    {"AnyDirectionButZeroIsIncoming", {"eth0"}, "", "eth0", 2, true, true, R"(["-i eth0"])", kInterfaces, ""},
    {"NegativeDirectionIsIncoming", {"eth0"}, "", "eth0", -1, true, true, R"(["-i eth0"])", kInterfaces, ""},
    {"AbsentIsNotEnabled", {"eth0"}, "", "eth1", kIncoming, false, true, R"(["-i eth1"])", kInterfaces, ""},
    {"NameIsComparedWhole", {"eth0", "eth10"}, "", "eth1", kIncoming, false, true, R"(["-i eth1"])", kInterfaces, ""},
    {"NameIsComparedLetterByLetter", {"eth0"}, "", "ETH0", kIncoming, false, true, R"(["-i ETH0"])", kInterfaces, ""},
    {"EmptyNameIsAbsent", {"eth0"}, "", "", kIncoming, false, true, R"(["-i "])", kInterfaces, ""},
    {"BlanksInANameStay", {"eth0"}, "", "eth0 -j ACCEPT", kIncoming, false, true, R"(["-i eth0 -j ACCEPT"])", kInterfaces, ""},
    {"ThirtySecondInterfaceIsSeen", kThirtyThree, "", "e32", kIncoming, true, true, R"(["-i e32"])", kInterfaces, ""},
    {"ThirtyThirdInterfaceIsNotSeen", kThirtyThree, "", "e33", kIncoming, false, true, R"(["-i e33"])", kInterfaces, ""},
    {"NameOfFifteenCharacters", {"interface-15chr"}, "", "interface-15chr", kOutgoing, true, true, R"(["-o interface-15chr"])", kInterfaces, ""},
    {"VpnInterfaceByItsOwnName", {"tun0"}, "", "tun0", kIncoming, true, true, R"(["-i tun0"])", kInterfaces, ""},

    {"GlobalNeedsNoInterface", {}, "", "global", kIncoming, true, true, R"([""])", "", ""},
    {"GlobalOutgoing", {"eth0"}, "", "global", kOutgoing, true, true, R"([""])", "", ""},
    {"GlobalIsComparedLetterByLetter", {"eth0"}, "", "Global", kIncoming, false, true, R"(["-i Global"])", kInterfaces, ""},

    {"PppoeIsTheLink", {"eth0", "ppp0"}, "ppp0", "pppoe", kIncoming, true, true, R"(["-i ppp0"])", "pppoe", ""},
    {"PppoeOutgoing", {}, "ppp7", "pppoe", kOutgoing, true, true, R"(["-o ppp7"])", "pppoe", ""},
    {"PppoeWithoutLinkFails", {"eth0", "ppp0"}, "", "pppoe", kIncoming, false, false, "[]",
     "pppoe\ndebug fwIptables:231 Failed to TARNPPPoeIntfGet()",
     "pppoe\ndebug fwIptables:231 Failed to TARNPPPoeIntfGet()\nerr fwIptables:315 pppoe interface is empty"},

    {"VpnIsEveryVpnInterface", {"ppp0", "ppp1", "tun0", "tun1000"}, "ppp0", "vpn", kIncoming, true, true, R"(["-i ppp1","-i tun0"])", kInterfacesThenPppoe, ""},
    {"VpnOutgoing", {"ppp0", "ppp1", "tun0", "tun1000"}, "ppp0", "vpn", kOutgoing, true, true, R"(["-o ppp1","-o tun0"])", kInterfacesThenPppoe, ""},
    {"VpnIsInTheOrderOfTheMachine", {"tun1", "eth0", "ppp3", "tun0"}, "ppp0", "vpn", kIncoming, true, true, R"(["-i tun1","-i ppp3","-i tun0"])", kInterfacesThenPppoe, ""},
    {"VpnWithoutPppoeLinkTakesEveryPpp", {"ppp0", "ppp1"}, "", "vpn", kIncoming, true, true, R"(["-i ppp0","-i ppp1"])", kInterfacesThenNoPppoe, ""},
    {"VpnLeavesOutTheLinkOnly", {"ppp0", "ppp00", "ppp"}, "ppp0", "vpn", kIncoming, true, true, R"(["-i ppp00","-i ppp"])", kInterfacesThenPppoe, ""},
    {"VpnKeepsTunnelsLikeTheReservedOne", {"tun100", "tun1000", "tun10000", "tun"}, "ppp0", "vpn", kIncoming, true, true, R"(["-i tun100","-i tun10000","-i tun"])", kInterfacesThenPppoe, ""},
    {"VpnKeepsATunnelThatIsThePppoeLink", {"tun3"}, "tun3", "vpn", kIncoming, true, true, R"(["-i tun3"])", kInterfacesThenPppoe, ""},
    {"VpnGoesByTheFirstThreeCharacters", {"xppp0", "pp", "tu", "tap0", "PPP1", "pppd", "tunl0"}, "ppp0", "vpn", kIncoming, true, true, R"(["-i pppd","-i tunl0"])", kInterfacesThenPppoe, ""},
    {"VpnWithoutInterfacesIsAnInterfaceOfThatName", {"eth0", "ppp0", "tun1000"}, "ppp0", "vpn", kIncoming, false, true, R"(["-i vpn"])", kInterfacesThenPppoe, ""},
    {"VpnOfAnInterfaceCalledVpnIsNotThatInterface", {"vpn"}, "ppp0", "vpn", kIncoming, false, true, R"(["-i vpn"])", kInterfacesThenPppoe, ""},

    {"NeighbouringDuplicatesCountOnce", {"tun0", "tun0", "tun0"}, "ppp0", "vpn", kIncoming, true, true, R"(["-i tun0"])", kInterfacesThenPppoe, ""},
    {"OtherDuplicatesStay", {"tun0", "eth0", "tun0"}, "ppp0", "vpn", kIncoming, true, true, R"(["-i tun0","-i tun0"])", kInterfacesThenPppoe, ""},

    {"MachineWithoutInterfaces", {}, "", "eth0", kIncoming, false, true, R"(["-i eth0"])", kInterfaces, ""},
    {"VpnOfAMachineWithoutInterfacesIsLookedUpAgain", {}, "", "vpn", kIncoming, false, true, R"(["-i vpn"])", kInterfacesThenNoPppoe, kInterfacesThenNoPppoe},
};
// clang-format on

class Adapters : public fake::MachineTest, public testing::WithParamInterface<AdapterRow> {};

TEST_P(Adapters, Translates) {
  fake::machine().interfaces = GetParam().interfaces;
  fake::machine().pppoe = GetParam().pppoe;
  TARNFW_IPTABLES_RULES compiler;

  EXPECT_EQ(GetParam().enabled, compiler.adapterIsEnabled(GetParam().adapter));
  EXPECT_EQ(GetParam().enabledTrace, trace::take());

  FWRULE rule;
  rule.adapterDirect = GetParam().adapterDirect;
  Json::Value args;
  compiler.iptablesRulesInit(args);
  EXPECT_EQ(GetParam().translated, compiler.adapterToIptablesArg(GetParam().adapter, rule, args));
  EXPECT_EQ(std::string(R"({"adapter":)") + GetParam().fragments +
                R"(,"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})",
            toText(args));
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, Adapters, testing::ValuesIn(kAdapterRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- wireless models ---

struct WirelessRow {
  const char* name;
  Texts capabilities;
  const char* value;  // of support_wireless in the model file, empty: absent
  Texts interfaces;
  const char* adapter;
  bool enabled;
  const char* trace;
};

void PrintTo(const WirelessRow& row, std::ostream* out) {
  *out << testing::PrintToString(row.capabilities) << ", \"" << row.value << "\"";
}

constexpr char kInterfacesThenModel[] =
    "interfaces 32 8\nsupport support_wireless\ncheck /etc.defaults/tarninfo.conf support_wireless=yes";

// clang-format off
const WirelessRow kWirelessRows[] = {
    {"CapabilityAndFileAddIt", {"support_wireless"}, "yes", {"eth0"}, "wlan0", true, kInterfacesThenModel},
    {"OthersAreKept", {"support_wireless"}, "yes", {"eth0"}, "eth0", true, kInterfacesThenModel},
    {"FileSaysNo", {"support_wireless"}, "no", {"eth0"}, "wlan0", false, kInterfacesThenModel},
    {"FileSaysYesInCapitals", {"support_wireless"}, "YES", {"eth0"}, "wlan0", false, kInterfacesThenModel},
    {"FileSaysNothing", {"support_wireless"}, "", {"eth0"}, "wlan0", false, kInterfacesThenModel},
    {"ModelHasNoCapability", {}, "yes", {"eth0"}, "wlan0", false, kInterfaces},
    {"AnotherCapability", {"support_5g"}, "yes", {"eth0"}, "wlan0", false, kInterfaces},
    {"ReportedInterfaceNeedsNeither", {}, "", {"eth0", "wlan0"}, "wlan0", true, kInterfaces},
    {"OnlyInterface", {"support_wireless"}, "yes", {}, "wlan0", true, kInterfacesThenModel},
};
// clang-format on

class Wireless : public fake::MachineTest, public testing::WithParamInterface<WirelessRow> {};

TEST_P(Wireless, AddsItsAdapter) {
  fake::machine().interfaces = GetParam().interfaces;
  fake::machine().capabilities = GetParam().capabilities;
  fake::machine().files[kModelFile]["support_wireless"] = GetParam().value;
  EXPECT_EQ(GetParam().enabled, TARNFW_IPTABLES_RULES().adapterIsEnabled(GetParam().adapter));
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, Wireless, testing::ValuesIn(kWirelessRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- what the platform cannot tell ---

struct FailureRow {
  const char* name;
  const char* adapter;
  bool enabled;
  bool translated;
  const char* fragments;
  const char* enabledTrace;
  const char* trace;
};

void PrintTo(const FailureRow& row, std::ostream* out) { *out << row.adapter; }

// clang-format off
const FailureRow kFailureRows[] = {
    {"Interface", "eth0", false, true, R"(["-i eth0"])",
     "interfaces 32 8\nerr fwIptables:202 Failed to TLIBNetGetInterfaceInfo(-3) [0x0400 platform.c:12]\nerr fwIptables:278 Failed to enabledAdapterEnum()", ""},
    {"Vpn", "vpn", false, false, "[]",
     "interfaces 32 8\nerr fwIptables:202 Failed to TLIBNetGetInterfaceInfo(-3) [0x0400 platform.c:12]\nerr fwIptables:245 Failed to enabledAdapterEnum()",
     "interfaces 32 8\nerr fwIptables:202 Failed to TLIBNetGetInterfaceInfo(-3) [0x0400 platform.c:12]\nerr fwIptables:245 Failed to enabledAdapterEnum()\nerr fwIptables:321 Failed to vpnAdatperEnum()"},
    {"Pppoe", "pppoe", true, true, R"(["-i ppp0"])", "pppoe", ""},
    {"Global", "global", true, true, R"([""])", "", ""},
};
// clang-format on

class UnlistableInterfaces : public fake::MachineTest,
                             public testing::WithParamInterface<FailureRow> {};

TEST_P(UnlistableInterfaces, AreReported) {
  fake::machine().interfaces = {"eth0", "tun0"};
  fake::machine().capabilities = {"support_wireless"};
  fake::machine().pppoe = "ppp0";
  fake::machine().answers.insert({"interfaces 32 8", -3});
  TARNFW_IPTABLES_RULES compiler;

  EXPECT_EQ(GetParam().enabled, compiler.adapterIsEnabled(GetParam().adapter));
  EXPECT_EQ(GetParam().enabledTrace, trace::take());

  Json::Value args;
  compiler.iptablesRulesInit(args);
  EXPECT_EQ(GetParam().translated,
            compiler.adapterToIptablesArg(GetParam().adapter, FWRULE(), args));
  EXPECT_EQ(GetParam().fragments, toText(args["adapter"]));
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, UnlistableInterfaces, testing::ValuesIn(kFailureRows),
                         [](const auto& row) { return std::string(row.param.name); });

class AdapterEnumerators : public fake::MachineTest {};

TEST_F(AdapterEnumerators, InterfacesAreListedOncePerObject) {
  fake::machine().interfaces = {"eth0"};
  TARNFW_IPTABLES_RULES compiler;
  EXPECT_TRUE(compiler.enabledAdapterEnum());
  EXPECT_EQ("interfaces 32 8\nsupport support_wireless", trace::take());

  fake::machine().interfaces = {"eth1"};
  EXPECT_TRUE(compiler.enabledAdapterEnum());
  EXPECT_TRUE(compiler.adapterIsEnabled("eth0"));
  EXPECT_FALSE(compiler.adapterIsEnabled("eth1"));
  EXPECT_EQ("", trace::take());
}

TEST_F(AdapterEnumerators, VpnInterfacesAreListedOncePerObject) {
  fake::machine().interfaces = {"tun0"};
  fake::machine().pppoe = "ppp0";
  TARNFW_IPTABLES_RULES compiler;
  EXPECT_TRUE(compiler.vpnAdatperEnum());
  EXPECT_EQ("interfaces 32 8\nsupport support_wireless\npppoe", trace::take());

  fake::machine().interfaces = {"tun1"};
  fake::machine().pppoe = "";
  fake::machine().answers.insert({"interfaces 32 8", -1});
  EXPECT_TRUE(compiler.vpnAdatperEnum());
  Json::Value args;
  compiler.iptablesRulesInit(args);
  EXPECT_TRUE(compiler.adapterToIptablesArg("vpn", FWRULE(), args));
  EXPECT_EQ(R"(["-i tun0"])", toText(args["adapter"]));
  EXPECT_EQ("", trace::take());
}

TEST_F(AdapterEnumerators, PppoeLinkIsLookedUpOnceItIsKnown) {
  TARNFW_IPTABLES_RULES compiler;
  compiler.pppoeAdaterGet();
  EXPECT_EQ("pppoe\ndebug fwIptables:231 Failed to TARNPPPoeIntfGet()", trace::take());
  EXPECT_FALSE(compiler.adapterIsEnabled("pppoe"));
  EXPECT_EQ("pppoe\ndebug fwIptables:231 Failed to TARNPPPoeIntfGet()", trace::take());

  fake::machine().pppoe = "ppp0";
  EXPECT_TRUE(compiler.adapterIsEnabled("pppoe"));
  EXPECT_EQ("pppoe", trace::take());

  fake::machine().pppoe = "ppp1";
  Json::Value args;
  compiler.iptablesRulesInit(args);
  EXPECT_TRUE(compiler.adapterToIptablesArg("pppoe", FWRULE(), args));
  EXPECT_EQ(R"(["-i ppp0"])", toText(args["adapter"]));
  EXPECT_EQ("", trace::take());
}

TEST_F(AdapterEnumerators, PppoeLinkWithoutANameIsNone) {
  fake::machine().answers.insert({"pppoe", 0});
  TARNFW_IPTABLES_RULES compiler;
  EXPECT_FALSE(compiler.adapterIsEnabled("pppoe"));
  EXPECT_EQ("pppoe", trace::take());

  Json::Value args;
  compiler.iptablesRulesInit(args);
  EXPECT_FALSE(compiler.adapterToIptablesArg("pppoe", FWRULE(), args));
  EXPECT_EQ("[]", toText(args["adapter"]));
  EXPECT_EQ("pppoe\nerr fwIptables:315 pppoe interface is empty", trace::take());
}

TEST_F(AdapterEnumerators, FailedListingIsTriedAgain) {
  fake::machine().interfaces = {"tun0"};
  fake::machine().pppoe = "ppp0";
  fake::machine().answers.insert({"interfaces 32 8", -1});
  TARNFW_IPTABLES_RULES compiler;
  EXPECT_FALSE(compiler.enabledAdapterEnum());
  EXPECT_EQ(
      "interfaces 32 8\n"
      "err fwIptables:202 Failed to TLIBNetGetInterfaceInfo(-1) [0x0400 platform.c:12]",
      trace::take());
  EXPECT_FALSE(compiler.vpnAdatperEnum());
  EXPECT_EQ(
      "interfaces 32 8\n"
      "err fwIptables:202 Failed to TLIBNetGetInterfaceInfo(-1) [0x0400 platform.c:12]\n"
      "err fwIptables:245 Failed to enabledAdapterEnum()",
      trace::take());

  fake::machine().answers.clear();
  EXPECT_TRUE(compiler.adapterIsEnabled("vpn"));
  EXPECT_EQ("interfaces 32 8\nsupport support_wireless\npppoe", trace::take());
}

TEST_F(AdapterEnumerators, AdapterThatFollowsAnotherAddsNothing) {
  Json::Value args;
  TARNFW_IPTABLES_RULES compiler;
  compiler.iptablesRulesInit(args);
  EXPECT_TRUE(compiler.adapterToIptablesArg("eth0", FWRULE(), args));
  EXPECT_TRUE(compiler.adapterToIptablesArg("eth1", FWRULE(), args));
  EXPECT_EQ(R"(["-i eth0"])", toText(args["adapter"]));
  EXPECT_TRUE(compiler.adapterToIptablesArg("global", FWRULE(), args));
  EXPECT_EQ(R"(["-i eth0",""])", toText(args["adapter"]));
}

}  // namespace
