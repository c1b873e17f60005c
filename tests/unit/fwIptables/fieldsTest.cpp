#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "fakePlatform.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using FW::FW_POLICY;
using FW::FW_PORT_PROTOCOL;
using FW::FWRULE;
using FW::TARNFW_IPTABLES_RULES;

using Texts = std::vector<std::string>;

template <class Row>
std::string nameOf(const testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

// An empty argument document.
Json::Value emptyArguments() {
  Json::Value args;
  TARNFW_IPTABLES_RULES().iptablesRulesInit(args);
  return args;
}

// --- the documents themselves ---

struct InitRow {
  const char* name;
  const char* before;
  const char* arguments;  // after iptablesRulesInit
  const char* commands;   // after jIptablesCmdInit
};

void PrintTo(const InitRow& row, std::ostream* out) { *out << row.before; }

// clang-format off
const InitRow kInitRows[] = {
    {"NullBecomesAnEmptyDocument", "null",
     R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})",
     R"({"v4":null,"v6":null})"},
    {"ObjectGetsTheMissingMembers", "{}",
     R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})",
     R"({"v4":null,"v6":null})"},
    {"FragmentsOfAnEarlierRuleGo",
     R"({"adapter":["-i eth0"],"chain":["-A X"],"ip":{"v4":["-s 10.0.0.1"],"v6":[""],"v8":[]},"policy":["-j DROP"],"port":["","-p 47 "],"table":["-t nat"]})",
     R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})",
     R"({"adapter":["-i eth0"],"chain":["-A X"],"ip":{"v4":["-s 10.0.0.1"],"v6":[""],"v8":[]},"policy":["-j DROP"],"port":["","-p 47 "],"table":["-t nat"],"v4":null,"v6":null})"},
    {"LinesOfAnEarlierCompilationGo", R"({"v4":{"eth0":["-A X"]},"v6":{"eth0":["-A Y"]},"v8":1})",
     R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[],"v4":{"eth0":["-A X"]},"v6":{"eth0":["-A Y"]},"v8":1})",
     R"({"v4":null,"v6":null,"v8":1})"},
};
// clang-format on

class FieldsInit : public fake::MachineTest, public testing::WithParamInterface<InitRow> {};

TEST_P(FieldsInit, MakesArgumentDocument) {
  Json::Value args = toJson(GetParam().before);
  TARNFW_IPTABLES_RULES().iptablesRulesInit(args);
  EXPECT_EQ(GetParam().arguments, toText(args));
}

TEST_P(FieldsInit, MakesCommandDocument) {
  Json::Value cmds = toJson(GetParam().before);
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().jIptablesCmdInit(cmds));
  EXPECT_EQ(GetParam().commands, toText(cmds));
}

INSTANTIATE_TEST_SUITE_P(Rows, FieldsInit, testing::ValuesIn(kInitRows), nameOf<InitRow>);

// --- policy ---

struct PolicyRow {
  const char* name;
  int policy;
  bool result;
  const char* arguments;
  const char* trace;
};

void PrintTo(const PolicyRow& row, std::ostream* out) { *out << "policy " << row.policy; }

// clang-format off
const PolicyRow kPolicyRows[] = {
    {"AllowReturns", 0, true, R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":["-j RETURN"],"port":[],"table":[]})", ""},
    {"DenyDrops", 1, true, R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":["-j DROP"],"port":[],"table":[]})", ""},
    {"NoneGivesNoVerdict", 2, true, R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})", ""},
    {"ThreeIsUnknown", 3, false, R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})", "err fwIptables:574 Unknown policy 3"},
    {"SevenIsUnknown", 7, false, R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})", "err fwIptables:574 Unknown policy 7"},
    {"NegativeIsUnknown", -1, false, R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})", "err fwIptables:574 Unknown policy -1"},
};
// clang-format on

class FieldsPolicy : public fake::MachineTest, public testing::WithParamInterface<PolicyRow> {};

TEST_P(FieldsPolicy, Translates) {
  FWRULE rule;
  rule.policy = static_cast<FW_POLICY>(GetParam().policy);
  Json::Value args = emptyArguments();
  EXPECT_EQ(GetParam().result, TARNFW_IPTABLES_RULES().policyToIptablesArg(rule, args));
  EXPECT_EQ(GetParam().arguments, toText(args));
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, FieldsPolicy, testing::ValuesIn(kPolicyRows), nameOf<PolicyRow>);

// --- table and chain ---

struct TableRow {
  const char* name;
  const char* table;
  const char* arguments;
};

void PrintTo(const TableRow& row, std::ostream* out) { *out << row.table; }

// clang-format off
const TableRow kTableRows[] = {
    {"Filter", "filter", R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":["-t filter"]})"},
    {"Mangle", "mangle", R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":["-t mangle"]})"},
    {"EmptyLeavesTheOptionAndItsBlank", "", R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":["-t "]})"},
    {"BlanksAndOptionsStay", " nat  -j ACCEPT ", R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":["-t  nat  -j ACCEPT "]})"},
};
// clang-format on

class FieldsTable : public fake::MachineTest, public testing::WithParamInterface<TableRow> {};

TEST_P(FieldsTable, Translates) {
  FWRULE rule;
  rule.table = GetParam().table;
  Json::Value args = emptyArguments();
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().tableToIptablesArg(rule, args));
  EXPECT_EQ(GetParam().arguments, toText(args));
}

INSTANTIATE_TEST_SUITE_P(Rows, FieldsTable, testing::ValuesIn(kTableRows), nameOf<TableRow>);

struct ChainRow {
  const char* name;
  std::set<std::string> chains;
  const char* arguments;
};

void PrintTo(const ChainRow& row, std::ostream* out) { *out << testing::PrintToString(row.chains); }

// clang-format off
const ChainRow kChainRows[] = {
    {"OfANewRule", FWRULE().chainList, R"({"adapter":[],"chain":["-A FORWARD_FIREWALL","-A INPUT_FIREWALL"],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})"},
    {"One", {"INPUT_FIREWALL"}, R"({"adapter":[],"chain":["-A INPUT_FIREWALL"],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})"},
    {"SortedByByteWhateverTheOrder", {"b", "a", "Z", "INPUT_FIREWALL"}, R"({"adapter":[],"chain":["-A INPUT_FIREWALL","-A Z","-A a","-A b"],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})"},
    {"NoneGivesNoFragment", {}, R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})"},
    {"EmptyNameAndBlanksStay", {"", "X -j ACCEPT"}, R"({"adapter":[],"chain":["-A ","-A X -j ACCEPT"],"ip":{"v4":[],"v6":[]},"policy":[],"port":[],"table":[]})"},
};
// clang-format on

class FieldsChain : public fake::MachineTest, public testing::WithParamInterface<ChainRow> {};

TEST_P(FieldsChain, Translates) {
  FWRULE rule;
  rule.chainList = GetParam().chains;
  Json::Value args = emptyArguments();
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().chainToIptablesArg(rule, args));
  EXPECT_EQ(GetParam().arguments, toText(args));
}

INSTANTIATE_TEST_SUITE_P(Rows, FieldsChain, testing::ValuesIn(kChainRows), nameOf<ChainRow>);

// --- address ---

constexpr int kV4 = 0;
constexpr int kV6 = 1;
constexpr int kBoth = 2;
constexpr int kSource = 1;
constexpr int kDestination = 0;

struct AddressRow {
  const char* name;
  int ipGroup;
  int ipType;
  int ipDirect;
  Texts ipList;
  const char* ip;  // member "ip" of the argument document
  const char* trace;
};

void PrintTo(const AddressRow& row, std::ostream* out) {
  *out << "group " << row.ipGroup << ", type " << row.ipType << ", direction " << row.ipDirect
       << ", " << testing::PrintToString(row.ipList);
}

// The country files are those of the fixture: US has both families, DE has IPv4 only, JP has IPv6
// only, FR has files without a record, GB has none.
//
// clang-format off
const AddressRow kAddressRows[] = {
    {"AddressV4Source", 0, kV4, kSource, {"10.0.0.1"}, R"({"v4":["-s 10.0.0.1"],"v6":[]})", ""},
    {"AddressV4Destination", 0, kV4, kDestination, {"10.0.0.1"}, R"({"v4":["-d 10.0.0.1"],"v6":[]})", ""},
    {"AddressV6Source", 0, kV6, kSource, {"fd00::1"}, R"({"v4":[],"v6":["-s fd00::1"]})", ""},
    {"AddressV6Destination", 0, kV6, kDestination, {"fd00::1"}, R"({"v4":[],"v6":["-d fd00::1"]})", ""},
    {"AddressBothSource", 0, kBoth, kSource, {"host.example"}, R"({"v4":["-s host.example"],"v6":["-s host.example"]})", ""},
    {"AddressBothDestination", 0, kBoth, kDestination, {"host.example"}, R"({"v4":["-d host.example"],"v6":["-d host.example"]})", ""},
    {"OnlyTheFirstAddressCounts", 0, kV4, kSource, {"10.0.0.1", "10.0.0.2"}, R"({"v4":["-s 10.0.0.1"],"v6":[]})", ""},
    {"EmptyAddressLeavesTheOptionAndItsBlank", 0, kV4, kSource, {""}, R"({"v4":["-s "],"v6":[]})", ""},
    {"AddressIsNotValidated", 0, kV4, kSource, {"1.2.3.4 -j ACCEPT"}, R"({"v4":["-s 1.2.3.4 -j ACCEPT"],"v6":[]})", ""},
    {"NoAddressGivesNoFragment", 0, kBoth, kSource, {}, R"({"v4":[],"v6":[]})", ""},

    {"SubnetV4Source", 1, kV4, kSource, {"192.168.1.0", "24"}, R"({"v4":["-s 192.168.1.0/24"],"v6":[]})", ""},
    {"SubnetV4Destination", 1, kV4, kDestination, {"192.168.1.0", "24"}, R"({"v4":["-d 192.168.1.0/24"],"v6":[]})", ""},
    {"SubnetV6Source", 1, kV6, kSource, {"fd00::", "64"}, R"({"v4":[],"v6":["-s fd00::/64"]})", ""},
    {"SubnetV6Destination", 1, kV6, kDestination, {"fd00::", "64"}, R"({"v4":[],"v6":["-d fd00::/64"]})", ""},
    {"SubnetBothSource", 1, kBoth, kSource, {"net.example", "8"}, R"({"v4":["-s net.example/8"],"v6":["-s net.example/8"]})", ""},
    {"SubnetBothDestination", 1, kBoth, kDestination, {"net.example", "8"}, R"({"v4":["-d net.example/8"],"v6":["-d net.example/8"]})", ""},
    {"SubnetMaskStaysAsStored", 1, kV4, kSource, {"10.0.0.0", "255.0.0.0"}, R"({"v4":["-s 10.0.0.0/255.0.0.0"],"v6":[]})", ""},
    {"SubnetWithoutMaskGivesNoFragment", 1, kBoth, kSource, {"10.0.0.0"}, R"({"v4":[],"v6":[]})", ""},
    {"SubnetWithoutAnythingGivesNoFragment", 1, kBoth, kSource, {}, R"({"v4":[],"v6":[]})", ""},

    {"NothingGivesNoFragment", 2, kBoth, kSource, {"10.0.0.1"}, R"({"v4":[],"v6":[]})", ""},

    {"CountriesV4Source", 3, kV4, kSource, {"US", "DE"}, R"({"v4":["-m geoip --source-country US,DE"],"v6":[]})", ""},
    {"CountriesV4Destination", 3, kV4, kDestination, {"US", "DE"}, R"({"v4":["-m geoip --destination-country US,DE"],"v6":[]})", ""},
    {"CountriesV6Source", 3, kV6, kSource, {"JP", "US"}, R"({"v4":[],"v6":["-m geoip --source-country JP,US"]})", ""},
    {"CountriesV6Destination", 3, kV6, kDestination, {"JP", "US"}, R"({"v4":[],"v6":["-m geoip --destination-country JP,US"]})", ""},
    {"CountriesBothSource", 3, kBoth, kSource, {"US", "JP", "DE"}, R"({"v4":["-m geoip --source-country US,DE"],"v6":["-m geoip --source-country US,JP"]})", ""},
    {"CountriesBothDestination", 3, kBoth, kDestination, {"US", "JP", "DE"}, R"({"v4":["-m geoip --destination-country US,DE"],"v6":["-m geoip --destination-country US,JP"]})", ""},
    {"CountriesWithoutRecordsAreLeftOut", 3, kBoth, kSource, {"FR", "GB", "US"}, R"({"v4":["-m geoip --source-country US"],"v6":["-m geoip --source-country US"]})", ""},
    {"CountriesOfOneFamilyOnly", 3, kBoth, kSource, {"DE"}, R"({"v4":["-m geoip --source-country DE"],"v6":[]})", ""},
    {"CountriesWithoutAnyDataGiveNoFragment", 3, kBoth, kSource, {"FR", "GB"}, R"({"v4":[],"v6":[]})", ""},
    {"NoCountryIsReportedForEachFamily", 3, kBoth, kSource, {}, R"({"v4":[],"v6":[]})", "err fwGeoip There are no country\nerr fwGeoip There are no country"},
    {"NoCountryV4", 3, kV4, kSource, {}, R"({"v4":[],"v6":[]})", "err fwGeoip There are no country"},
    {"CountriesOfAnUnknownFamilyAreNotLookedUp", 3, 9, kSource, {}, R"({"v4":[],"v6":[]})", ""},

    {"RangeV4Source", 4, kV4, kSource, {"10.0.0.1", "10.0.0.9"}, R"({"v4":["-m iprange --src-range 10.0.0.1-10.0.0.9"],"v6":[]})", ""},
    {"RangeV4Destination", 4, kV4, kDestination, {"10.0.0.1", "10.0.0.9"}, R"({"v4":["-m iprange --dst-range 10.0.0.1-10.0.0.9"],"v6":[]})", ""},
    {"RangeV6Source", 4, kV6, kSource, {"fd00::1", "fd00::9"}, R"({"v4":[],"v6":["-m iprange --src-range fd00::1-fd00::9"]})", ""},
    {"RangeV6Destination", 4, kV6, kDestination, {"fd00::1", "fd00::9"}, R"({"v4":[],"v6":["-m iprange --dst-range fd00::1-fd00::9"]})", ""},
    {"RangeBothSource", 4, kBoth, kSource, {"a", "b"}, R"({"v4":["-m iprange --src-range a-b"],"v6":["-m iprange --src-range a-b"]})", ""},
    {"RangeBothDestination", 4, kBoth, kDestination, {"a", "b"}, R"({"v4":["-m iprange --dst-range a-b"],"v6":["-m iprange --dst-range a-b"]})", ""},
    {"ReversedRangeStays", 4, kV4, kSource, {"10.0.0.9", "10.0.0.1"}, R"({"v4":["-m iprange --src-range 10.0.0.9-10.0.0.1"],"v6":[]})", ""},
    {"RangeWithoutEndGivesNoFragment", 4, kBoth, kSource, {"10.0.0.1"}, R"({"v4":[],"v6":[]})", ""},
    {"RangeWithoutAnythingGivesNoFragment", 4, kBoth, kSource, {}, R"({"v4":[],"v6":[]})", ""},

    {"AnyAddressV4FillsBothFamilies", 5, kV4, kSource, {}, R"({"v4":[""],"v6":[""]})", ""},
    {"AnyAddressV6FillsBothFamilies", 5, kV6, kDestination, {}, R"({"v4":[""],"v6":[""]})", ""},
    {"AnyAddressBoth", 5, kBoth, kSource, {"10.0.0.1"}, R"({"v4":[""],"v6":[""]})", ""},
    {"AnyAddressOfAnUnknownFamilyFillsBothFamilies", 5, 7, kSource, {}, R"({"v4":[""],"v6":[""]})", ""},

    {"UnknownGroupIsReported", 9, kBoth, kSource, {"10.0.0.1", "24"}, R"({"v4":[],"v6":[]})", "err fwIptables:417 Unknown ip group 9"},
    {"SixIsUnknown", 6, kV4, kSource, {}, R"({"v4":[],"v6":[]})", "err fwIptables:417 Unknown ip group 6"},
    {"NegativeGroupIsUnknown", -1, kV4, kSource, {}, R"({"v4":[],"v6":[]})", "err fwIptables:417 Unknown ip group -1"},

    {"AnyDirectionButZeroIsTheSource", 0, kV4, 2, {"10.0.0.1"}, R"({"v4":["-s 10.0.0.1"],"v6":[]})", ""},
    {"NegativeDirectionIsTheSource", 3, kV4, -1, {"US"}, R"({"v4":["-m geoip --source-country US"],"v6":[]})", ""},
    {"NegativeDirectionIsTheSourceOfARange", 4, kV4, -1, {"a", "b"}, R"({"v4":["-m iprange --src-range a-b"],"v6":[]})", ""},
    {"UnknownFamilyGivesNoFragment", 0, 3, kSource, {"10.0.0.1"}, R"({"v4":[],"v6":[]})", ""},
    {"NegativeFamilyGivesNoFragment", 1, -1, kSource, {"10.0.0.0", "8"}, R"({"v4":[],"v6":[]})", ""},
};
// clang-format on

class FieldsAddress : public fake::MachineTest, public testing::WithParamInterface<AddressRow> {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    std::filesystem::remove_all(kCountries);
    std::filesystem::create_directory(kCountries);
    files::write(kCountries + "US.iv4", std::string(8, '\1'));
    files::write(kCountries + "US.iv6", std::string(32, '\1'));
    files::write(kCountries + "DE.iv4", std::string(16, '\1'));
    files::write(kCountries + "JP.iv6", std::string(32, '\1'));
    files::write(kCountries + "FR.iv4", "");
    files::write(kCountries + "FR.iv6", "");
  }

 private:
  const std::string kCountries = "/usr/share/xt_geoip/";
};

TEST_P(FieldsAddress, Translates) {
  FWRULE rule;
  rule.ipGroup = GetParam().ipGroup;
  rule.ipType = GetParam().ipType;
  rule.ipDirect = GetParam().ipDirect;
  rule.ipList = GetParam().ipList;
  Json::Value args = emptyArguments();
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().ipToIptablesArg(rule, args));
  EXPECT_EQ(std::string(R"({"adapter":[],"chain":[],"ip":)") + GetParam().ip +
                R"(,"policy":[],"port":[],"table":[]})",
            toText(args));
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, FieldsAddress, testing::ValuesIn(kAddressRows), nameOf<AddressRow>);

// --- port ---

struct PortRow {
  const char* name;
  int portGroup;
  int protocol;
  int portDirect;
  bool result;
  Texts portList;
  const char* port;  // member "port" of the argument document
  const char* trace;
};

void PrintTo(const PortRow& row, std::ostream* out) {
  *out << "group " << row.portGroup << ", protocol " << row.protocol << ", direction "
       << row.portDirect << ", " << testing::PrintToString(row.portList);
}

constexpr char kServicesFail[] =
    "services enum\n"
    "err fwIptables:427 Failed to enum services\n"
    "err fwIptables:480 Failed to servToPorts()\n"
    "err fwIptables:526 Failed to servPortToCmd()";

// clang-format off
const PortRow kPortRows[] = {
    {"ServiceNames", 0, 1, 0, true, {"ssh"}, R"(["-p tcp --dport 22"])", "services enum\nservices free"},
    {"ServiceNamesOfTheReservedForm", 2, 1, 0, true, {"ssh"}, R"(["-p tcp --dport 22"])", "services enum\nservices free"},
    {"ServiceIgnoresProtocolAndDirectionOfTheRule", 0, 2, 1, true, {"ssh"}, R"(["-p tcp --dport 22"])", "services enum\nservices free"},
    {"ServiceListWithoutNamesGivesNoFragment", 0, 1, 0, true, {}, "[]", "services enum\nservices free"},
    {"ExplicitTcpDestination", 1, 1, 0, true, {"22"}, R"(["-p tcp --dport 22"])", ""},
    {"ExplicitTcpSource", 1, 1, 1, true, {"22"}, R"(["-p tcp --sport 22"])", ""},
    {"AnyDirectionButZeroIsTheSource", 1, 1, -1, true, {"22"}, R"(["-p tcp --sport 22"])", ""},
    {"ExplicitUdp", 1, 2, 0, true, {"53"}, R"(["-p udp --dport 53"])", ""},
    {"ExplicitBothIsTcpThenUdp", 1, 3, 0, true, {"80", "443"}, R"(["-p tcp -m multiport --dports 80,443","-p udp -m multiport --dports 80,443"])", ""},
    {"ExplicitIcmp", 1, 4, 0, true, {}, R"(["-p icmp ","-p icmpv6 "])", ""},
    {"ExplicitIgmp", 1, 32, 0, true, {"1"}, R"(["-p igmp "])", ""},
    {"ExplicitUnknownProtocolGivesNoFragment", 1, 99, 0, true, {"22"}, "[]", ""},
    {"ExplicitListWithoutPortsGivesNoFragment", 1, 3, 0, true, {}, "[]", ""},
    {"AllPortsIgnoreTheList", 3, 1, 1, true, {"22"}, R"([""])", ""},
    {"UnknownGroupIsReported", 4, 1, 0, true, {"22"}, "[]", "err fwIptables:545 Unknown port group 4"},
    {"NegativeGroupIsUnknown", -1, 1, 0, true, {"22"}, "[]", "err fwIptables:545 Unknown port group -1"},
};

const PortRow kPortRowsWithoutServices[] = {
    {"ServiceNames", 0, 1, 0, false, {"ssh"}, "[]", kServicesFail},
    {"ServiceNamesOfTheReservedForm", 2, 1, 0, false, {"ssh"}, "[]", kServicesFail},
    {"ServiceListWithoutNames", 0, 1, 0, false, {}, "[]", kServicesFail},
    {"ExplicitPortsNeedNoServices", 1, 1, 0, true, {"22"}, R"(["-p tcp --dport 22"])", ""},
};
// clang-format on

class FieldsPort : public fake::MachineTest, public testing::WithParamInterface<PortRow> {
 protected:
  static void translate() {
    FWRULE rule;
    rule.portGroup = GetParam().portGroup;
    rule.protocol = static_cast<FW_PORT_PROTOCOL>(GetParam().protocol);
    rule.portDirect = GetParam().portDirect;
    rule.portList = GetParam().portList;
    Json::Value args = emptyArguments();
    EXPECT_EQ(GetParam().result, TARNFW_IPTABLES_RULES().portToIptablesArg(rule, args));
    EXPECT_EQ(
        std::string(R"({"adapter":[],"chain":[],"ip":{"v4":[],"v6":[]},"policy":[],"port":)") +
            GetParam().port + R"(,"table":[]})",
        toText(args));
    EXPECT_EQ(GetParam().trace, trace::take());
  }
};

TEST_P(FieldsPort, Translates) {
  fake::machine().services = {{"ssh", true, {}, {1, Texts{"22"}}}};
  translate();
}

INSTANTIATE_TEST_SUITE_P(Rows, FieldsPort, testing::ValuesIn(kPortRows), nameOf<PortRow>);

class FieldsPortWithoutServices : public FieldsPort {};

TEST_P(FieldsPortWithoutServices, Translates) { translate(); }

INSTANTIATE_TEST_SUITE_P(Rows, FieldsPortWithoutServices,
                         testing::ValuesIn(kPortRowsWithoutServices), nameOf<PortRow>);

// --- translators add to what is there ---

TEST(Fields, FragmentsAreAppended) {
  Json::Value args = toJson(
      R"({"adapter":["a"],"chain":["c"],"ip":{"v4":["4"],"v6":["6"]},"policy":["p"],"port":["o"],"table":["t"]})");
  FWRULE rule;
  rule.policy = FW::FW_POLICY_DENY;
  rule.chainList = {"INPUT_FIREWALL"};
  rule.ipGroup = 5;
  rule.portGroup = 3;
  TARNFW_IPTABLES_RULES compiler;
  EXPECT_TRUE(compiler.policyToIptablesArg(rule, args));
  EXPECT_TRUE(compiler.chainToIptablesArg(rule, args));
  EXPECT_TRUE(compiler.tableToIptablesArg(rule, args));
  EXPECT_TRUE(compiler.ipToIptablesArg(rule, args));
  EXPECT_TRUE(compiler.portToIptablesArg(rule, args));
  // clang-format off
  EXPECT_EQ(R"({"adapter":["a"],"chain":["c","-A INPUT_FIREWALL"],"ip":{"v4":["4",""],"v6":["6",""]},"policy":["p","-j DROP"],"port":["o",""],"table":["t","-t filter"]})",
            toText(args));
  // clang-format on
}

}  // namespace
