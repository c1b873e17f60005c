// The profile document: its reader, its writer, and what is lost between them on purpose.

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <json/value.h>

#include "fakePlatform.h"
#include "jsonText.h"
#include "recordText.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

using FW::FWPROFILE;
using FW::FWRULE;

using Document = fake::MachineTest;

// A rule whose fields all differ from a default rule's.
FWRULE unusualRule() {
  FWRULE rule;
  rule.ruleID = 77;
  rule.enable = false;
  rule.adapterDirect = 0;
  rule.policy = FW::FW_POLICY_DENY;
  rule.blLog = true;
  rule.labelList = {"z", "a", "z"};
  rule.name = "unusual";
  rule.table = "mangle";
  rule.chainList = {"OUTPUT_FIREWALL", "A_CHAIN"};
  rule.ipType = 2;
  rule.ipDirect = 0;
  rule.ipGroup = 1;
  rule.ipList = {"192.168.1.0", "24"};
  rule.portDirect = 1;
  rule.portGroup = 1;
  rule.protocol = FW::FW_PROTO_TCP_UDP;
  rule.portList = {"22", "6881-6889"};
  return rule;
}

FWRULE named(const std::string& name) {
  FWRULE rule;
  rule.name = name;
  return rule;
}

std::string styled(const Json::Value& value) {
  EXPECT_TRUE(jsonFileDump(value, "/tmp/styled.json"));
  return files::read("/tmp/styled.json");
}

// --- writing ---

TEST_F(Document, WrittenInFull) {
  FWPROFILE profile;
  profile.name = "office";
  profile.rules = {{"eth0", {FWRULE(), unusualRule()}}, {"empty", {}}, {"global", {FWRULE()}}};
  profile.adapterPolicyMap = {
      {"eth0", FW::FW_POLICY_DENY}, {"eth1", FW::FW_POLICY_ALLOW}, {"global", FW::FW_POLICY_NONE}};
  Json::Value document;
  FW::TARNFW_JSON_DB().profileToJson(profile, document);
  EXPECT_EQ(
      R"({
   "adapterPolicyMap" : {
      "eth0" : 1,
      "eth1" : 0,
      "global" : 2
   },
   "name" : "office",
   "rules" : {
      "eth0" : [
         {
            "adapterDirect" : 1,
            "blLog" : false,
            "chainList" : [ "FORWARD_FIREWALL", "INPUT_FIREWALL" ],
            "enable" : true,
            "ipDirect" : 1,
            "ipGroup" : 0,
            "ipList" : [],
            "ipType" : 0,
            "labelList" : [],
            "name" : "",
            "policy" : 0,
            "portDirect" : 0,
            "portGroup" : 0,
            "portList" : [],
            "protocol" : 1,
            "ruleIndex" : 0,
            "table" : "filter"
         },
         {
            "adapterDirect" : 0,
            "blLog" : true,
            "chainList" : [ "A_CHAIN", "OUTPUT_FIREWALL" ],
            "enable" : false,
            "ipDirect" : 0,
            "ipGroup" : 1,
            "ipList" : [ "192.168.1.0", "24" ],
            "ipType" : 2,
            "labelList" : [ "z", "a", "z" ],
            "name" : "unusual",
            "policy" : 1,
            "portDirect" : 1,
            "portGroup" : 1,
            "portList" : [ "22", "6881-6889" ],
            "protocol" : 3,
            "ruleIndex" : 1,
            "table" : "mangle"
         }
      ],
      "global" : [
         {
            "adapterDirect" : 1,
            "blLog" : false,
            "chainList" : [ "FORWARD_FIREWALL", "INPUT_FIREWALL" ],
            "enable" : true,
            "ipDirect" : 1,
            "ipGroup" : 0,
            "ipList" : [],
            "ipType" : 0,
            "labelList" : [],
            "name" : "",
            "policy" : 0,
            "portDirect" : 0,
            "portGroup" : 0,
            "portList" : [],
            "protocol" : 1,
            "ruleIndex" : 0,
            "table" : "filter"
         }
      ]
   }
}
)",
      styled(document));
}

struct WriteRow {
  const char* name;
  FWPROFILE profile;
  const char* document;
};

void PrintTo(const WriteRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<WriteRow> kWriteRows = {
    {"NothingAtAll", {"", {}, {}}, R"({"adapterPolicyMap":null,"name":"","rules":null})"},
    {"NoRules", {"a", {}, {{"global", FW::FW_POLICY_NONE}}}, R"({"adapterPolicyMap":{"global":2},"name":"a","rules":null})"},
    {"OnlyAdaptersWithoutRules", {"a", {{"eth0", {}}, {"eth1", {}}}, {}}, R"({"adapterPolicyMap":null,"name":"a","rules":null})"},
    {"PolicyOutOfRange", {"a", {}, {{"eth0", static_cast<FW::FW_POLICY>(-7)}}}, R"({"adapterPolicyMap":{"eth0":-7},"name":"a","rules":null})"},
};
// clang-format on

class Written : public Document, public testing::WithParamInterface<WriteRow> {};

TEST_P(Written, Profile) {
  Json::Value document;
  FW::TARNFW_JSON_DB().profileToJson(GetParam().profile, document);
  EXPECT_EQ(GetParam().document, toText(document));
}

INSTANTIATE_TEST_SUITE_P(Document, Written, testing::ValuesIn(kWriteRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Document, WriterReplacesTheOldMembers) {
  Json::Value document = toJson(R"({"adapterPolicyMap": {"old": 1}, "name": "old", "kept": true})");
  FW::TARNFW_JSON_DB().profileToJson({"new", {}, {}}, document);
  EXPECT_EQ(R"({"adapterPolicyMap":null,"kept":true,"name":"new","rules":null})", toText(document));
}

TEST_F(Document, RulesAreAppendedToAnAdapterThatIsThere) {
  Json::Value rules = toJson(R"({"eth0": ["first"]})");
  FW::TARNFW_JSON_DB().ruleListToJson({{"eth0", {FWRULE()}}, {"eth1", {}}}, rules);
  ASSERT_EQ(std::vector<std::string>{"eth0"}, rules.getMemberNames());
  ASSERT_EQ(2U, rules["eth0"].size());
  EXPECT_EQ("first", rules["eth0"][0].asString());
  EXPECT_EQ(0U, rules["eth0"][1]["ruleIndex"].asUInt());
}

// --- reading ---

FWRULE ruleReadFromNothing() {
  FWRULE rule;
  rule.enable = false;
  rule.adapterDirect = 0;
  rule.protocol = static_cast<FW::FW_PORT_PROTOCOL>(0);
  rule.table = "";
  rule.ipDirect = 0;
  return rule;
}

FWRULE unusualRuleAsRead() {
  FWRULE rule = unusualRule();
  rule.chainList = {"A_CHAIN", "FORWARD_FIREWALL", "INPUT_FIREWALL", "OUTPUT_FIREWALL"};
  return rule;
}

struct ReadRow {
  const char* name;
  const char* document;
  FWPROFILE profile;
};

void PrintTo(const ReadRow& row, std::ostream* out) { *out << row.name; }

constexpr char kUnusualRule[] = R"({"name": "office", "adapterPolicyMap": {"eth0": 1, "global": 2},
    "rules": {"eth0": [{
      "adapterDirect": 0, "blLog": true, "chainList": ["OUTPUT_FIREWALL", "A_CHAIN", "A_CHAIN"], "enable": false,
      "ipDirect": 0, "ipGroup": 1, "ipList": ["192.168.1.0", "24"], "ipType": 2, "labelList": ["z", "a", "z"],
      "name": "unusual", "policy": 1, "portDirect": 1, "portGroup": 1, "portList": ["22", "6881-6889"],
      "protocol": 3, "ruleID": 77, "ruleIndex": 5, "table": "mangle", "unknown": {}}]}})";

FWRULE withNumbersOutOfRange() {
  FWRULE rule = ruleReadFromNothing();
  rule.policy = static_cast<FW::FW_POLICY>(99);
  rule.ipType = -2147483647 - 1;
  rule.ipGroup = 6;
  rule.portGroup = 2147483647;
  rule.protocol = static_cast<FW::FW_PORT_PROTOCOL>(-1);
  return rule;
}

FWRULE withConvertedValues() {
  FWRULE rule = ruleReadFromNothing();
  rule.enable = true;
  rule.adapterDirect = 1;
  rule.name = "7";
  rule.table = "true";
  rule.ipType = 2;
  rule.ipList = {"24", ""};
  return rule;
}

// clang-format off
const std::vector<ReadRow> kReadRows = {
    {"Everything", kUnusualRule, {"office", {{"eth0", {unusualRuleAsRead()}}}, {{"eth0", FW::FW_POLICY_DENY}, {"global", FW::FW_POLICY_NONE}}}},
    {"EmptyObject", "{}", {"", {}, {}}},
    {"Nothing", "null", {"", {}, {}}},
    {"NullMembers", R"({"name": null, "rules": null, "adapterPolicyMap": null})", {"", {}, {}}},
    {"EmptyRule", R"({"rules": {"eth0": [{}]}})", {"", {{"eth0", {ruleReadFromNothing()}}}, {}}},
    {"NullRule", R"({"rules": {"eth0": [null]}})", {"", {{"eth0", {ruleReadFromNothing()}}}, {}}},
    {"AdapterWithoutRules", R"({"name": "a", "rules": {"eth0": [], "eth1": null}})", {"a", {}, {}}},
    {"OrderIsTheArraysNotRuleIndex", R"({"rules": {"eth0": [{"name": "first", "ruleIndex": 9, "enable": true, "adapterDirect": 1, "protocol": 1, "table": "filter", "ipDirect": 1}, {"name": "second", "ruleIndex": 0, "enable": true, "adapterDirect": 1, "protocol": 1, "table": "filter", "ipDirect": 1}]}})", {"", {{"eth0", {named("first"), named("second")}}}, {}}},
    {"NumbersOutOfRange", R"({"rules": {"eth0": [{"policy": 99, "ipType": -2147483648, "ipGroup": 6, "portGroup": 2147483647, "protocol": -1}]}, "adapterPolicyMap": {"eth0": 5}})", {"", {{"eth0", {withNumbersOutOfRange()}}}, {{"eth0", static_cast<FW::FW_POLICY>(5)}}}},
    {"ValuesThatTheJsonLibraryConverts", R"({"name": 12, "rules": {"eth0": [{"enable": 1, "adapterDirect": true, "name": 7, "table": true, "ipType": 2.9, "ipList": [24, null]}]}})", {"12", {{"eth0", {withConvertedValues()}}}, {}}},
};
// clang-format on

class Read : public Document, public testing::WithParamInterface<ReadRow> {};

TEST_P(Read, Profile) {
  FWPROFILE profile;
  FW::TARNFW_JSON_DB().jsonToProfile(toJson(GetParam().document), profile);
  EXPECT_EQ(describe(GetParam().profile), describe(profile));
}

INSTANTIATE_TEST_SUITE_P(Document, Read, testing::ValuesIn(kReadRows),
                         [](const auto& row) { return std::string(row.param.name); });

struct ThrowRow {
  const char* name;
  const char* document;
};

void PrintTo(const ThrowRow& row, std::ostream* out) { *out << row.name; }

const std::vector<ThrowRow> kThrowRows = {
    {"DocumentIsAnArray", "[]"},
    {"DocumentIsAText", R"("office")"},
    {"NameIsAnObject", R"({"name": {}})"},
    {"NameIsAnArray", R"({"name": ["office"]})"},
    {"RulesAreAnArray", R"({"rules": []})"},
    {"RulesAreAText", R"({"rules": "none"})"},
    {"PoliciesAreAnArray", R"({"adapterPolicyMap": [1]})"},
    {"PolicyIsAText", R"({"adapterPolicyMap": {"eth0": "deny"}})"},
    {"RuleIsANumber", R"({"rules": {"eth0": [1]}})"},
    {"RuleIsAnArray", R"({"rules": {"eth0": [[]]}})"},
    {"NumberIsAText", R"({"rules": {"eth0": [{"policy": "1"}]}})"},
    {"NumberBeyond32Bits", R"({"rules": {"eth0": [{"ipType": 2147483648}]}})"},
    {"RuleIdIsAList", R"({"rules": {"eth0": [{"ruleID": []}]}})"},
    {"FlagIsAText", R"({"rules": {"eth0": [{"enable": "yes"}]}})"},
    {"TextIsAList", R"({"rules": {"eth0": [{"table": ["filter"]}]}})"},
    {"ListHoldsAnObject", R"({"rules": {"eth0": [{"chainList": [{}]}]}})"},
};

class Throws : public Document, public testing::WithParamInterface<ThrowRow> {};

TEST_P(Throws, WhenReadAsAProfile) {
  FWPROFILE profile;
  EXPECT_THROW(FW::TARNFW_JSON_DB().jsonToProfile(toJson(GetParam().document), profile),
               Json::Exception);
}

INSTANTIATE_TEST_SUITE_P(Document, Throws, testing::ValuesIn(kThrowRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Document, ReaderAddsToWhatIsThere) {
  FWPROFILE profile;
  profile.name = "old";
  profile.rules = {{"eth0", {named("first")}}, {"eth1", {named("other")}}};
  profile.adapterPolicyMap = {{"eth0", FW::FW_POLICY_ALLOW}, {"eth1", FW::FW_POLICY_ALLOW}};
  FW::TARNFW_JSON_DB().jsonToProfile(
      toJson(
          R"({"name": "new", "rules": {"eth0": [{}]}, "adapterPolicyMap": {"eth0": 1, "eth2": 2}})"),
      profile);
  const FWPROFILE expected = {
      "new",
      {{"eth0", {named("first"), ruleReadFromNothing()}}, {"eth1", {named("other")}}},
      {{"eth0", FW::FW_POLICY_DENY}, {"eth1", FW::FW_POLICY_ALLOW}, {"eth2", FW::FW_POLICY_NONE}}};
  EXPECT_EQ(describe(expected), describe(profile));
}

// --- both ways ---

TEST_F(Document, RoundTripKeepsAllButRuleIdAndAddsTheDefaultChains) {
  const FWPROFILE profile = {
      "office",
      {{"empty", {}}, {"eth0", {unusualRule(), FWRULE()}}, {"global", {FWRULE()}}},
      {{"eth0", FW::FW_POLICY_DENY}, {"unused", FW::FW_POLICY_NONE}}};
  Json::Value document;
  FWPROFILE read;
  FW::TARNFW_JSON_DB().profileToJson(profile, document);
  FW::TARNFW_JSON_DB().jsonToProfile(document, read);

  FWRULE unusual = unusualRuleAsRead();
  unusual.ruleID = 0;
  const FWPROFILE expected = {"office",
                              {{"eth0", {unusual, FWRULE()}}, {"global", {FWRULE()}}},
                              {{"eth0", FW::FW_POLICY_DENY}, {"unused", FW::FW_POLICY_NONE}}};
  EXPECT_EQ(describe(expected), describe(read));
}

TEST_F(Document, RoundTripOfAnEmptyProfile) {
  Json::Value document;
  FWPROFILE read;
  FW::TARNFW_JSON_DB().profileToJson({"a", {}, {}}, document);
  FW::TARNFW_JSON_DB().jsonToProfile(document, read);
  EXPECT_EQ("profile [a]", describe(read));
}

// --- the records ---

TEST_F(Document, DefaultRule) {
  EXPECT_EQ(
      "ruleID 0, enable 1, adapterDirect 1, policy 0, blLog 0, labelList , name [], table [filter], "
      "chainList [FORWARD_FIREWALL][INPUT_FIREWALL], ipType 0, ipDirect 1, ipGroup 0, ipList , portDirect 0, "
      "portGroup 0, protocol 1, portList ",
      describe(FWRULE()));
}

TEST_F(Document, CopyOfARuleKeepsEveryFieldAndIsItsOwn) {
  const FWRULE rule = unusualRule();
  FWRULE copied(rule);
  FWRULE assigned;
  assigned = rule;
  EXPECT_EQ(describe(unusualRule()), describe(copied));
  EXPECT_EQ(describe(unusualRule()), describe(assigned));
  copied.ipList.clear();
  assigned.chainList.clear();
  EXPECT_EQ(describe(unusualRule()), describe(rule));
}

TEST_F(Document, CopyOfARuleWithoutChainsHasNone) {
  FWRULE rule;
  rule.chainList.clear();
  const FWRULE copied(rule);
  FWRULE assigned;
  assigned = rule;
  EXPECT_EQ(std::set<std::string>(), copied.chainList);
  EXPECT_EQ(std::set<std::string>(), assigned.chainList);
}

TEST_F(Document, NumbersOfTheEnumerations) {
  static_assert(sizeof(FW::FW_POLICY) == 4 && sizeof(FW::FW_PORT_PROTOCOL) == 4);
  EXPECT_EQ(0, FW::FW_POLICY_ALLOW);
  EXPECT_EQ(1, FW::FW_POLICY_DENY);
  EXPECT_EQ(2, FW::FW_POLICY_NONE);
  EXPECT_EQ(1, FW::FW_PROTO_TCP);
  EXPECT_EQ(2, FW::FW_PROTO_UDP);
  EXPECT_EQ(3, FW::FW_PROTO_TCP_UDP);
  EXPECT_EQ(4, FW::FW_PROTO_ICMP);
  EXPECT_EQ(32, FW::FW_PROTO_IGMP);
}

}  // namespace
