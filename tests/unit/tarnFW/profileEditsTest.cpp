// The edits of every stored profile: what stands in each document afterwards, which of them were
// written at all, and whether the live rules were reloaded.

#include <cerrno>
#include <filesystem>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <json/value.h>

#include "fakePlatform.h"
#include "jsonText.h"
#include "reloadSequence.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using FW::FW_POLICY;
using FW::FW_POLICY_ALLOW;
using FW::FW_POLICY_DENY;
using FW::FW_POLICY_NONE;
using FW::TARNFW_PROFILE;
using sequence::kAcceptSet;
using sequence::kDropSet;
using sequence::kFlush;
using sequence::kInterfacesRead;
using sequence::kLocked;
using sequence::kModulesAsked;
using sequence::lines;

// --- documents in the short form of this test ---

// A member that reads like an absent one.
bool readsAsAbsent(const Json::Value& member) {
  return member == Json::Value(0) || member == Json::Value(false) || member == Json::Value("") ||
         (member.isArray() && member.empty());
}

// A written rule without the members that say nothing: those that read as if they were absent, a
// "ruleIndex" that is the rule's position, and the two chains that every rule has.
Json::Value shortRule(const Json::Value& rule, Json::ArrayIndex position) {
  Json::Value result(Json::objectValue);
  for (const std::string& key : rule.getMemberNames()) {
    if (key == "ruleIndex" && rule[key].asUInt() == position) continue;
    if (key == "chainList" && rule[key] == toJson(R"(["FORWARD_FIREWALL", "INPUT_FIREWALL"])")) {
      continue;
    }
    if (!readsAsAbsent(rule[key]) || key == "ruleIndex") result[key] = rule[key];
  }
  return result;
}

std::string shortDocument(const std::string& text) {
  Json::Value document = toJson(text);
  for (const std::string& adapter : document["rules"].getMemberNames()) {
    Json::Value& rules = document["rules"][adapter];
    for (Json::ArrayIndex index = 0; index < rules.size(); ++index) {
      rules[index] = shortRule(rules[index], index);
    }
  }
  return document["name"].asString() + "\n  rules " + toText(document["rules"]) + "\n  policies " +
         toText(document["adapterPolicyMap"]) + "\n";
}

struct Profile {
  std::string name;
  std::string rules;
  std::string policies;
};

constexpr char kOff[] = R"({"profile": "office", "status": false})";
constexpr char kOn[] = R"({"profile": "office", "status": true})";

// A machine whose firewall is off, so that a reload is its lock and nothing else.
class Edits : public fake::MachineTest {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    files::writeSettings(kOff);
  }

  // Stores the profiles in the files 1.json, 2.json, ...
  void store(const std::vector<Profile>& profiles) {
    for (std::size_t index = 0; index < profiles.size(); ++index) {
      const Profile& profile = profiles[index];
      const std::string stem = std::to_string(index + 1);
      files::writeProfile(stem, profile.name, profile.rules, profile.policies);
      stored_[stem + ".json"] =
          files::profileDocument(profile.name, profile.rules, profile.policies);
    }
  }

  // Every profile document in file order; one that nobody wrote since is only named.
  std::string documents() const {
    std::string text;
    for (const std::string& file : files::list(files::kProfileDirectory)) {
      if (file == "firewall_settings.json" || file.find(".tmp") != std::string::npos) continue;
      const std::string now = files::read(files::kProfileDirectory + file);
      const auto before = stored_.find(file);
      const bool untouched = before != stored_.end() && before->second == now;
      text += untouched ? file + " untouched\n" : shortDocument(now);
    }
    return text;
  }

 private:
  std::map<std::string, std::string> stored_;  // file -> text
};

template <class Row>
std::string rowName(const testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

// Something stands where the profile in FILE would be written.
void makeReadOnly(const std::string& file) {
  std::filesystem::create_directory(files::kProfileDirectory + file + ".tmp");
}

constexpr char kReloadedWhileOff[] = "lock /tmp/firewall_iptables_exec.lock 1 30\nunlock 100";

// clang-format off
const std::string kNothingToScan = lines({
  "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/",
  "err fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/"});

std::string notWritten(const std::string& file) {
  return lines({
    "err utils Failed to open json file /usr/tarn/etc/firewall.d/" + file + ".tmp",
    "err fwDB Failed to profileDbDump()"});
}

// A reload of a profile without adapters on a firewall that is on: with connection-state lines.
const std::string kReloadedWhileOn = lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead,
  sequence::profile("", "", "eth1"), kAcceptSet, "unlock 100"});
// clang-format on

// Switches the firewall on with its kernel modules loaded and eth1 there.
void switchOn() {
  files::writeSettings(kOn);
  files::write("/tmp/iptables_serv_mod_list", "");
  fake::machine().files["/tmp/iptables_serv_mod_list"] = {{"firewall", "yes"}};
  fake::machine().interfaces = {"eth1"};
}

void nothing() {}
void lockIsHeld() {
  fake::machine().answers.emplace("lock /tmp/firewall_iptables_exec.lock 1 30",
                                  fake::Answer(0, ETIMEDOUT));
}

// --- the rule that a reservation makes ---

TEST_F(Edits, ReservedRuleHasEveryMember) {
  store({{"office", "null", "null"}});
  EXPECT_TRUE(TARNFW_PROFILE().profileAddServToReserve("eth0", "ssh", FW_POLICY_DENY, false));
  EXPECT_EQ(R"({
   "adapterPolicyMap" : {
      "eth0" : 0,
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
            "ipGroup" : 5,
            "ipList" : [],
            "ipType" : 2,
            "labelList" : [],
            "name" : "Service",
            "policy" : 1,
            "portDirect" : 0,
            "portGroup" : 2,
            "portList" : [ "ssh" ],
            "protocol" : 3,
            "ruleIndex" : 0,
            "table" : "filter"
         }
      ]
   }
}
)",
            files::read("/usr/tarn/etc/firewall.d/1.json"));
  EXPECT_EQ("", trace::take());
}

// --- reserving a service ---

struct ReserveRow {
  const char* name;
  std::vector<Profile> profiles;
  const char* adapter;
  const char* service;
  int policy;
  std::string documents;
};

void PrintTo(const ReserveRow& row, std::ostream* out) { *out << row.name; }

class Reserve : public Edits, public testing::WithParamInterface<ReserveRow> {};

TEST_P(Reserve, Row) {
  const ReserveRow& row = GetParam();
  store(row.profiles);
  EXPECT_TRUE(TARNFW_PROFILE().profileAddServToReserve(row.adapter, row.service,
                                                       static_cast<FW_POLICY>(row.policy),
                                                       /*reload=*/false));
  EXPECT_EQ(row.documents, documents());
  EXPECT_EQ("", trace::take());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(NewFrontRule, Reserve, testing::Values(
  ReserveRow{"AdapterWithoutRules", {{"office", "null", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"GlobalWithoutRules", {{"office", "null", "null"}}, "global", "ssh", FW_POLICY_DENY,
    "office\n"
    R"(  rules {"global":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","policy":1,"portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"global":2})" "\n"},
  ReserveRow{"PolicyOfTheAdapterStays", {{"office", "null", R"({"eth0": 1})"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":1,"global":2})" "\n"},
  ReserveRow{"PolicyNone", {{"office", "null", "null"}}, "eth0", "ssh", FW_POLICY_NONE,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","policy":2,"portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"UnknownServicesAreTaken", {{"office", "null", "null"}}, "eth0", "", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":[""],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"StandsBeforeOtherRules", {{"office", R"({"eth0": [{"name": "web", "portGroup": 1, "portList": ["80"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"name":"web","portGroup":1,"portList":["80"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"RulesOfServicesAreNotReserved", {{"office", R"({"eth0": [{"name": "services", "enable": true, "portGroup": 0, "ipGroup": 5, "portList": ["ssh"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"enable":true,"ipGroup":5,"name":"services","portList":["ssh"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"RulesForOneAddressAreNotReserved", {{"office", R"({"eth0": [{"name": "host", "enable": true, "portGroup": 2, "ipGroup": 0, "ipList": ["10.0.0.1"], "portList": ["http"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"enable":true,"ipList":["10.0.0.1"],"name":"host","portGroup":2,"portList":["http"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"RuleForOneAddressKeepsTheService", {{"office", R"({"eth0": [{"name": "host", "enable": true, "portGroup": 2, "ipGroup": 0, "ipList": ["10.0.0.1"], "portList": ["ssh"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"enable":true,"ipList":["10.0.0.1"],"name":"host","portGroup":2,"portList":["ssh"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"DisabledFrontRuleIsNotJoined", {{"office", R"({"eth0": [{"name": "off", "portGroup": 2, "ipGroup": 5, "portList": ["http"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"ipGroup":5,"name":"off","portGroup":2,"portList":["http"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"DisabledFrontRuleLosesTheService", {{"office", R"({"eth0": [{"name": "off", "portGroup": 2, "ipGroup": 5, "portList": ["ssh"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"SecondRuleOfThePolicyIsNotJoined", {{"office", R"({"eth0": [{"name": "web", "portGroup": 1, "portList": ["80"]}, {"name": "Service", "enable": true, "portGroup": 2, "ipGroup": 5, "portList": ["http"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"name":"web","portGroup":1,"portList":["80"]},{"enable":true,"ipGroup":5,"name":"Service","portGroup":2,"portList":["http"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"OtherAdaptersAreLeftAlone", {{"office", R"({"eth1": [{"name": "Service", "policy": 1, "portGroup": 2, "ipGroup": 5, "portList": ["ssh"]}], "global": [{"name": "empty", "portGroup": 0}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}],"eth1":[{"ipGroup":5,"name":"Service","policy":1,"portGroup":2,"portList":["ssh"]}],"global":[{"name":"empty"}]})" "\n"
    R"(  policies {"eth0":0,"eth1":0,"global":2})" "\n"},
  ReserveRow{"EveryProfileChanges", {{"office", "null", "null"}, {".test_office", "null", "null"}, {"home", "null", R"({"eth0": 1})"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"
    ".test_office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"
    "home\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":1,"global":2})" "\n"}),
  rowName<ReserveRow>);

INSTANTIATE_TEST_SUITE_P(MovedFromOldRules, Reserve, testing::Values(
  ReserveRow{"OtherPolicyLosesIt", {{"office", R"({"eth0": [{"name": "Service", "enable": true, "policy": 1, "portGroup": 2, "ipGroup": 5, "portList": ["http", "ssh", "dns"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"enable":true,"ipGroup":5,"name":"Service","policy":1,"portGroup":2,"portList":["http","dns"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"RuleWithNoneLeftGoes", {{"office", R"({"eth0": [{"name": "Service", "enable": true, "policy": 1, "portGroup": 2, "ipGroup": 5, "portList": ["ssh"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"EveryReservedRuleLosesIt", {{"office", R"({"eth0": [{"name": "a", "policy": 1, "portGroup": 2, "ipGroup": 5, "portList": ["ssh", "x"]}, {"name": "b", "portGroup": 1, "portList": ["80"]}, {"name": "c", "portGroup": 2, "ipGroup": 5, "portList": ["ssh"]}, {"name": "d", "portGroup": 2, "ipGroup": 5, "portList": ["y", "ssh"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"ipGroup":5,"name":"a","policy":1,"portGroup":2,"portList":["x"]},{"name":"b","portGroup":1,"portList":["80"]},{"ipGroup":5,"name":"d","portGroup":2,"portList":["y"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"FirstMentionOnly", {{"office", R"({"eth0": [{"name": "twice", "policy": 1, "portGroup": 2, "ipGroup": 5, "portList": ["ssh", "http", "ssh"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"ipGroup":5,"name":"twice","policy":1,"portGroup":2,"portList":["http","ssh"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"NamesAreExact", {{"office", R"({"eth0": [{"name": "case", "policy": 1, "portGroup": 2, "ipGroup": 5, "portList": ["SSH", "ssh2"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"ipGroup":5,"name":"case","policy":1,"portGroup":2,"portList":["SSH","ssh2"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"EmptyRulesOfServicesGoToo", {{"office", R"({"eth0": [{"name": "a", "portGroup": 0}, {"name": "b", "portGroup": 1}, {"name": "c", "portGroup": 2, "ipGroup": 0}, {"name": "d", "portGroup": 3}, {"name": "e", "portGroup": 4}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"name":"b","portGroup":1},{"name":"d","portGroup":3},{"name":"e","portGroup":4}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"OtherGroupsKeepTheName", {{"office", R"({"eth0": [{"name": "ports", "ipGroup": 5, "portGroup": 1, "portList": ["ssh"]}, {"name": "all", "ipGroup": 5, "portGroup": 3, "portList": ["ssh"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"ipGroup":5,"name":"ports","portGroup":1,"portList":["ssh"]},{"ipGroup":5,"name":"all","portGroup":3,"portList":["ssh"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"}),
  rowName<ReserveRow>);

INSTANTIATE_TEST_SUITE_P(FrontRuleOfThePolicy, Reserve, testing::Values(
  ReserveRow{"HasItAlready", {{"office", R"({"eth0": [{"name": "Service", "enable": true, "portGroup": 2, "ipGroup": 5, "portList": ["http", "ssh"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"enable":true,"ipGroup":5,"name":"Service","portGroup":2,"portList":["http","ssh"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"TakesASecondService", {{"office", R"({"eth0": [{"name": "Service", "enable": true, "policy": 1, "portGroup": 2, "ipGroup": 5, "portList": ["http"]}]})", "null"}}, "eth0", "ssh", FW_POLICY_DENY,
    "office\n"
    R"(  rules {"eth0":[{"enable":true,"ipGroup":5,"name":"Service","policy":1,"portGroup":2,"portList":["http","ssh"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"TakesTheFirstService", {{"office", R"({"eth0": [{"name": "Service", "enable": true, "portGroup": 2, "ipGroup": 5}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"enable":true,"ipGroup":5,"name":"Service","portGroup":2,"portList":["ssh"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"ItsOtherFieldsDoNotMatter", {{"office", R"({"eth0": [{"name": "mine", "enable": true, "adapterDirect": 0, "ipType": 1, "portGroup": 2, "ipGroup": 5, "portList": ["http"], "protocol": 2}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"enable":true,"ipGroup":5,"ipType":1,"name":"mine","portGroup":2,"portList":["http","ssh"],"protocol":2}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"NothingElseChanges", {{"office", R"({"eth0": [{"name": "Service", "enable": true, "portGroup": 2, "ipGroup": 5, "portList": ["http"]}, {"name": "deny", "policy": 1, "portGroup": 2, "ipGroup": 5, "portList": ["ssh"]}, {"name": "empty", "portGroup": 0}]})", "null"}}, "eth0", "ssh", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"enable":true,"ipGroup":5,"name":"Service","portGroup":2,"portList":["http","ssh"]},{"ipGroup":5,"name":"deny","policy":1,"portGroup":2,"portList":["ssh"]},{"name":"empty"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  ReserveRow{"EachProfileForItself", {{"office", R"({"eth0": [{"name": "Service", "enable": true, "portGroup": 2, "ipGroup": 5, "portList": ["http"]}]})", "null"}, {"home", R"({"eth0": [{"name": "Service", "enable": true, "policy": 1, "portGroup": 2, "ipGroup": 5, "portList": ["http"]}]})", "null"}}, "eth0", "http", FW_POLICY_ALLOW,
    "office\n"
    R"(  rules {"eth0":[{"enable":true,"ipGroup":5,"name":"Service","portGroup":2,"portList":["http"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"
    "home\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["http"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"}),
  rowName<ReserveRow>);
// clang-format on

// Reserving for one policy and then for the other, and back: the service is in one rule at a time.
TEST_F(Edits, ReservedServiceMovesBetweenPolicies) {
  store({{"office", "null", "null"}});
  TARNFW_PROFILE manager;
  EXPECT_TRUE(manager.profileAddServToReserve("eth0", "ssh", FW_POLICY_ALLOW, false));
  EXPECT_TRUE(manager.profileAddServToReserve("eth0", "http", FW_POLICY_ALLOW, false));
  EXPECT_TRUE(manager.profileAddServToReserve("eth0", "ssh", FW_POLICY_DENY, false));
  EXPECT_TRUE(manager.profileAddServToReserve("eth0", "http", FW_POLICY_DENY, false));
  EXPECT_TRUE(manager.profileAddServToReserve("eth0", "ssh", FW_POLICY_ALLOW, false));
  // clang-format off
  EXPECT_EQ(
    "office\n"
    R"(  rules {"eth0":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"},{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","policy":1,"portGroup":2,"portList":["http"],"protocol":3,"table":"filter"},{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["http"],"protocol":3,"table":"filter"}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n", documents());
  // clang-format on
  EXPECT_EQ("", trace::take());
}

// --- removing a service ---

struct RemoveRow {
  const char* name;
  std::vector<Profile> profiles;
  const char* service;
  std::string documents;
};

void PrintTo(const RemoveRow& row, std::ostream* out) { *out << row.name; }

class Remove : public Edits, public testing::WithParamInterface<RemoveRow> {};

// The trace stays empty: removing never reloads, not even a firewall that is on.
TEST_P(Remove, Row) {
  const RemoveRow& row = GetParam();
  switchOn();
  store(row.profiles);
  EXPECT_TRUE(TARNFW_PROFILE().profileRemoveServ(row.service));
  EXPECT_EQ(row.documents, documents());
  EXPECT_EQ("", trace::take());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Remove, testing::Values(
  RemoveRow{"OnlyEntryTakesTheRuleWithIt", {{"office", R"({"eth0": [{"name": "a", "portGroup": 0, "portList": ["ssh"]}], "eth1": [{"name": "b", "portGroup": 2, "portList": ["ssh"]}]})", R"({"eth0": 1})"}, {"home", R"({"vpn": [{"name": "c", "portGroup": 0, "portList": ["ssh"]}]})", "null"}}, "ssh",
    "office\n  rules null\n"
    R"(  policies {"eth0":1,"eth1":0,"global":2})" "\n"
    "home\n  rules null\n"
    R"(  policies {"global":2,"vpn":0})" "\n"},
  RemoveRow{"OneOfSeveral", {{"office", R"({"eth0": [{"name": "a", "portGroup": 0, "portList": ["http", "ssh", "dns"]}, {"name": "b", "portGroup": 2, "portList": ["ssh", "http"]}]})", "null"}}, "ssh",
    "office\n"
    R"(  rules {"eth0":[{"name":"a","portList":["http","dns"]},{"name":"b","portGroup":2,"portList":["http"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  RemoveRow{"OtherPortGroupsAreNeverTouched", {{"office", R"({"eth0": [{"name": "ports", "portGroup": 1, "portList": ["ssh"]}, {"name": "all", "portGroup": 3, "portList": ["ssh"]}, {"name": "unknown", "portGroup": 4, "portList": ["ssh"]}, {"name": "empty", "portGroup": 1}]})", "null"}}, "ssh",
    "office\n"
    R"(  rules {"eth0":[{"name":"ports","portGroup":1,"portList":["ssh"]},{"name":"all","portGroup":3,"portList":["ssh"]},{"name":"unknown","portGroup":4,"portList":["ssh"]},{"name":"empty","portGroup":1}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  RemoveRow{"FirstMentionOnly", {{"office", R"({"eth0": [{"name": "a", "portGroup": 0, "portList": ["ssh", "ssh"]}]})", "null"}}, "ssh",
    "office\n"
    R"(  rules {"eth0":[{"name":"a","portList":["ssh"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  RemoveRow{"NamesAreExact", {{"office", R"({"eth0": [{"name": "a", "portGroup": 0, "portList": ["SSH", "ssh2", "ss"]}]})", "null"}}, "ssh",
    "office\n"
    R"(  rules {"eth0":[{"name":"a","portList":["SSH","ssh2","ss"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  RemoveRow{"UnknownServiceRewritesEveryProfile", {{"office", R"({"eth0": [{"name": "a", "portGroup": 0, "portList": ["http"]}]})", "null"}, {"home", "null", "null"}}, "ssh",
    "office\n"
    R"(  rules {"eth0":[{"name":"a","portList":["http"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"
    "home\n  rules null\n"
    R"(  policies {"global":2})" "\n"},
  RemoveRow{"EmptyRulesOfServicesGoToo", {{"office", R"({"eth0": [{"name": "a", "portGroup": 0}, {"name": "b", "portGroup": 2}, {"name": "c", "portGroup": 3}]})", "null"}}, "ssh",
    "office\n"
    R"(  rules {"eth0":[{"name":"c","portGroup":3}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  RemoveRow{"TheOthersKeepTheirOrder", {{"office", R"({"eth0": [{"name": "a", "portGroup": 0, "portList": ["ssh"]}, {"name": "b", "portGroup": 1, "portList": ["1"]}, {"name": "c", "portGroup": 2, "portList": ["ssh", "http"]}, {"name": "d", "portGroup": 2, "portList": ["ssh"]}, {"name": "e", "portGroup": 0, "portList": ["dns"]}]})", "null"}}, "ssh",
    "office\n"
    R"(  rules {"eth0":[{"name":"b","portGroup":1,"portList":["1"]},{"name":"c","portGroup":2,"portList":["http"]},{"name":"e","portList":["dns"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  RemoveRow{"OrdinaryRulesOfServicesToo", {{"office", R"({"eth0": [{"name": "a", "portGroup": 2, "ipGroup": 0, "ipList": ["10.0.0.1"], "portList": ["ssh"]}, {"name": "b", "portGroup": 0, "ipGroup": 5, "portList": ["http"]}]})", "null"}}, "ssh",
    "office\n"
    R"(  rules {"eth0":[{"ipGroup":5,"name":"b","portList":["http"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"},
  RemoveRow{"EmptyName", {{"office", R"({"eth0": [{"name": "a", "portGroup": 0, "portList": ["", "http"]}]})", "null"}}, "",
    "office\n"
    R"(  rules {"eth0":[{"name":"a","portList":["http"]}]})" "\n"
    R"(  policies {"eth0":0,"global":2})" "\n"}),
  rowName<RemoveRow>);
// clang-format on

// --- renaming an adapter ---

struct RenameRow {
  const char* name;
  std::vector<Profile> profiles;
  const char* from;
  const char* to;
  std::string documents;
};

void PrintTo(const RenameRow& row, std::ostream* out) { *out << row.name; }

class Rename : public Edits, public testing::WithParamInterface<RenameRow> {};

TEST_P(Rename, Row) {
  const RenameRow& row = GetParam();
  store(row.profiles);
  EXPECT_TRUE(TARNFW_PROFILE().profileChangeAdapter(row.from, row.to, /*reload=*/false));
  EXPECT_EQ(row.documents, documents());
  EXPECT_EQ("", trace::take());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Rename, testing::Values(
  RenameRow{"PolicyAndRulesMove", {{"office", R"({"eth0": [{"name": "a"}, {"name": "b"}], "eth2": [{"name": "c"}]})", R"({"eth0": 1, "eth2": 0})"}}, "eth0", "eth1",
    "office\n"
    R"(  rules {"eth1":[{"name":"a"},{"name":"b"}],"eth2":[{"name":"c"}]})" "\n"
    R"(  policies {"eth1":1,"eth2":0,"global":2})" "\n"},
  RenameRow{"PolicyWithoutRules", {{"office", "null", R"({"eth0": 1})"}}, "eth0", "eth1",
    "office\n  rules null\n"
    R"(  policies {"eth1":1,"global":2})" "\n"},
  RenameRow{"RulesWithoutAPolicy", {{"office", R"({"eth0": [{"name": "a"}]})", "null"}}, "eth0", "eth1",
    "office\n"
    R"(  rules {"eth1":[{"name":"a"}]})" "\n"
    R"(  policies {"eth1":0,"global":2})" "\n"},
  RenameRow{"RulesOfTheNewNameAreLost", {{"office", R"({"eth0": [{"name": "a"}], "eth1": [{"name": "lost"}, {"name": "too"}]})", R"({"eth0": 1, "eth1": 1})"}}, "eth0", "eth1",
    "office\n"
    R"(  rules {"eth1":[{"name":"a"}]})" "\n"
    R"(  policies {"eth1":1,"global":2})" "\n"},
  RenameRow{"PolicyOfTheNewNameIsLost", {{"office", "null", R"({"eth0": 0, "eth1": 1})"}}, "eth0", "eth1",
    "office\n  rules null\n"
    R"(  policies {"eth1":0,"global":2})" "\n"},
  RenameRow{"NewNameKeepsWhatTheOldOneHasNot", {{"office", R"({"eth1": [{"name": "stays"}]})", R"({"eth0": 0, "eth1": 1})"}, {"home", R"({"eth0": [{"name": "a"}], "eth1": [{"name": "lost"}]})", R"({"eth1": 1})"}}, "eth0", "eth1",
    "office\n"
    R"(  rules {"eth1":[{"name":"stays"}]})" "\n"
    R"(  policies {"eth1":0,"global":2})" "\n"
    "home\n"
    R"(  rules {"eth1":[{"name":"a"}]})" "\n"
    R"(  policies {"eth1":1,"global":2})" "\n"},
  RenameRow{"UnknownNameRewritesEveryProfile", {{"office", R"({"eth1": [{"name": "a"}]})", R"({"eth1": 1})"}, {"home", "null", "null"}}, "eth0", "eth9",
    "office\n"
    R"(  rules {"eth1":[{"name":"a"}]})" "\n"
    R"(  policies {"eth1":1,"global":2})" "\n"
    "home\n  rules null\n"
    R"(  policies {"global":2})" "\n"},
  RenameRow{"ToItselfLosesBoth", {{"office", R"({"eth0": [{"name": "a"}], "eth1": [{"name": "b"}]})", R"({"eth0": 1, "eth1": 1})"}, {"home", R"({"eth0": [{"name": "c"}]})", "null"}}, "eth0", "eth0",
    "office\n"
    R"(  rules {"eth1":[{"name":"b"}]})" "\n"
    R"(  policies {"eth1":1,"global":2})" "\n"
    "home\n  rules null\n"
    R"(  policies {"global":2})" "\n"},
  RenameRow{"FromGlobal", {{"office", R"({"global": [{"name": "a"}]})", R"({"global": 2})"}}, "global", "eth0",
    "office\n"
    R"(  rules {"eth0":[{"name":"a"}]})" "\n"
    R"(  policies {"eth0":2,"global":2})" "\n"},
  RenameRow{"ToGlobal", {{"office", R"({"eth0": [{"name": "a"}]})", R"({"eth0": 1})"}}, "eth0", "global",
    "office\n"
    R"(  rules {"global":[{"name":"a"}]})" "\n"
    R"(  policies {"global":2})" "\n"},
  RenameRow{"NamesAreExact", {{"office", R"({"ETH0": [{"name": "a"}]})", R"({"eth": 1, "eth00": 1})"}}, "eth0", "eth1",
    "office\n"
    R"(  rules {"ETH0":[{"name":"a"}]})" "\n"
    R"(  policies {"ETH0":0,"eth":1,"eth00":1,"global":2})" "\n"}),
  rowName<RenameRow>);
// clang-format on

// --- reloads and failures ---

struct EndRow {
  const char* name;
  std::vector<Profile> profiles;
  void (*deviate)();  // what is not as usual
  bool (*edit)();
  std::string trace;
  bool result;
  std::string documents;
};

void PrintTo(const EndRow& row, std::ostream* out) { *out << row.name; }

class End : public Edits, public testing::WithParamInterface<EndRow> {};

TEST_P(End, Row) {
  const EndRow& row = GetParam();
  store(row.profiles);
  row.deviate();
  EXPECT_EQ(row.result, row.edit());
  EXPECT_EQ(row.trace, trace::take());
  EXPECT_EQ(row.documents, documents());
}

bool reserve() {
  return TARNFW_PROFILE().profileAddServToReserve("lan", "ssh", FW_POLICY_ALLOW, false);
}
bool reserveAndReload() {
  return TARNFW_PROFILE().profileAddServToReserve("lan", "ssh", FW_POLICY_ALLOW, true);
}
bool removeService() { return TARNFW_PROFILE().profileRemoveServ("ssh"); }
bool renameAdapter() { return TARNFW_PROFILE().profileChangeAdapter("eth0", "eth1", false); }
bool renameAdapterAndReload() {
  return TARNFW_PROFILE().profileChangeAdapter("eth0", "eth1", true);
}

const std::vector<Profile> kThree = {{"one", "null", R"({"eth0": 1})"},
                                     {"two", "null", R"({"eth0": 1})"},
                                     {"three", "null", R"({"eth0": 1})"}};
const std::vector<Profile> kOffice = {{"office", "null", R"({"eth0": 1})"}};
const std::vector<Profile> kOfficeOfRules = {{"office", R"({"eth0": [{"name": "a"}]})", "null"}};
const std::vector<Profile> kOtherThanTheActive = {{"office", "null", R"({"eth2": 1})"},
                                                  {"home", "null", R"({"eth0": 1})"}};
constexpr char kReserved[] =
    R"({"lan":[{"adapterDirect":1,"enable":true,"ipDirect":1,"ipGroup":5,"ipType":2,"name":"Service","portGroup":2,"portList":["ssh"],"protocol":3,"table":"filter"}]})";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Reloads, End, testing::Values(
  EndRow{"ReservingWithReload", kOffice, nothing, reserveAndReload,
    kReloadedWhileOff, true,
    std::string("office\n  rules ") + kReserved + "\n  policies {\"eth0\":1,\"global\":2,\"lan\":0}\n"},
  EndRow{"ReservingForEveryProfileReloadsOnce", {{"office", "null", "null"}, {"home", "null", "null"}}, nothing, reserveAndReload,
    kReloadedWhileOff, true,
    std::string("office\n  rules ") + kReserved + "\n  policies {\"global\":2,\"lan\":0}\n" +
    "home\n  rules " + kReserved + "\n  policies {\"global\":2,\"lan\":0}\n"},
  EndRow{"ReservingWithoutAProfileOnlyReloads", {}, nothing, reserveAndReload,
    kReloadedWhileOff, true, ""},
  EndRow{"ReservingWithoutAProfileOrReloadDoesNothing", {}, nothing, reserve, "", true, ""},
  EndRow{"ReservingOnASwitchedOnFirewall", {{"office", "null", R"({"eth1": 1})"}}, switchOn, reserveAndReload,
    kReloadedWhileOn, true,
    std::string("office\n  rules ") + kReserved + "\n  policies {\"eth1\":1,\"global\":2,\"lan\":0}\n"},
  EndRow{"RenamingInTheActiveProfile", kOffice, nothing, renameAdapterAndReload,
    kReloadedWhileOff, true, "office\n  rules null\n  policies {\"eth1\":1,\"global\":2}\n"},
  EndRow{"RenamingOnASwitchedOnFirewall", kOffice, switchOn, renameAdapterAndReload,
    kReloadedWhileOn, true, "office\n  rules null\n  policies {\"eth1\":1,\"global\":2}\n"},
  EndRow{"RenamingWithoutReload", kOffice, nothing, renameAdapter,
    "", true, "office\n  rules null\n  policies {\"eth1\":1,\"global\":2}\n"},
  EndRow{"RulesOfTheActiveProfileDoNotCount", kOfficeOfRules, nothing, renameAdapterAndReload,
    "", true, "office\n  rules {\"eth1\":[{\"name\":\"a\"}]}\n  policies {\"eth1\":0,\"global\":2}\n"},
  EndRow{"PoliciesOfOtherProfilesDoNotCount", kOtherThanTheActive, nothing, renameAdapterAndReload,
    "", true,
    "office\n  rules null\n  policies {\"eth2\":1,\"global\":2}\n"
    "home\n  rules null\n  policies {\"eth1\":1,\"global\":2}\n"},
  EndRow{"UnknownActiveProfileDoesNotCount", {{"home", "null", R"({"eth0": 1})"}}, nothing, renameAdapterAndReload,
    "", true, "home\n  rules null\n  policies {\"eth1\":1,\"global\":2}\n"},
  EndRow{"RenamingWithoutAProfile", {}, nothing, renameAdapterAndReload, "", true, ""}),
  rowName<EndRow>);

INSTANTIATE_TEST_SUITE_P(Enumerating, End, testing::Values(
  EndRow{"ReservingInAnEmptyDirectory", {}, [] { files::clear(); }, reserveAndReload,
    lines({kNothingToScan, "err tarnFW Failed to profileEnum()"}), false, ""},
  EndRow{"RemovingInAnEmptyDirectory", {}, [] { files::clear(); }, removeService,
    lines({kNothingToScan, "err tarnFW Failed to profileEnum()"}), false, ""},
  EndRow{"RenamingInAnEmptyDirectory", {}, [] { files::clear(); }, renameAdapterAndReload,
    lines({kNothingToScan, "err tarnFW Failed to profileEnum()"}), false, ""}),
  rowName<EndRow>);

INSTANTIATE_TEST_SUITE_P(AskingForTheActiveProfile, End, testing::Values(
  EndRow{"NoneIsSet", kOffice, [] { files::writeSettings(R"({"status": true})"); }, renameAdapterAndReload,
    lines({"err tarnFW There are no key: profile in config", "err tarnFW Failed to fwProfileConfigGet()"}), false,
    "1.json untouched\n"},
  EndRow{"SettingsDoNotParse", {}, [] { files::writeSettings("{"); }, renameAdapterAndReload,
    lines({
      "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json",
      "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/firewall_settings.json",
      "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json",
      "err tarnFW Falied to configGet()",
      "err tarnFW Failed to fwProfileConfigGet()"}), false, ""}),
  rowName<EndRow>);

// Profiles are written in name order: "one", "three", "two".
INSTANTIATE_TEST_SUITE_P(Writing, End, testing::Values(
  EndRow{"ReservingInTheFirst", kThree, [] { makeReadOnly("1.json"); }, reserveAndReload,
    lines({notWritten("1.json"), "err tarnFW Failed to set profile"}), false,
    "1.json untouched\n2.json untouched\n3.json untouched\n"},
  EndRow{"ReservingInTheSecond", kThree, [] { makeReadOnly("3.json"); }, reserveAndReload,
    lines({notWritten("3.json"), "err tarnFW Failed to set profile"}), false,
    std::string("one\n  rules ") + kReserved + "\n  policies {\"eth0\":1,\"global\":2,\"lan\":0}\n" +
    "2.json untouched\n3.json untouched\n"},
  EndRow{"ReservingInTheLast", kThree, [] { makeReadOnly("2.json"); }, reserveAndReload,
    lines({notWritten("2.json"), "err tarnFW Failed to set profile"}), false,
    std::string("one\n  rules ") + kReserved + "\n  policies {\"eth0\":1,\"global\":2,\"lan\":0}\n" +
    "2.json untouched\n" +
    "three\n  rules " + kReserved + "\n  policies {\"eth0\":1,\"global\":2,\"lan\":0}\n"},
  EndRow{"RemovingInTheSecond", kThree, [] { makeReadOnly("3.json"); }, removeService,
    lines({notWritten("3.json"), "err tarnFW Failed to profile set [three]"}), false,
    "one\n  rules null\n  policies {\"eth0\":1,\"global\":2}\n"
    "2.json untouched\n3.json untouched\n"},
  EndRow{"RenamingInTheSecond", kThree, [] { makeReadOnly("3.json"); }, renameAdapterAndReload,
    lines({notWritten("3.json"), "err tarnFW Failed to profile set [three]"}), false,
    "one\n  rules null\n  policies {\"eth1\":1,\"global\":2}\n"
    "2.json untouched\n3.json untouched\n"},
  EndRow{"RenamingWithTheActiveWrittenDoesNotReload", {{"office", "null", R"({"eth0": 1})"}, {"second", "null", "null"}}, [] { makeReadOnly("2.json"); }, renameAdapterAndReload,
    lines({notWritten("2.json"), "err tarnFW Failed to profile set [second]"}), false,
    "office\n  rules null\n  policies {\"eth1\":1,\"global\":2}\n"
    "2.json untouched\n"}),
  rowName<EndRow>);

INSTANTIATE_TEST_SUITE_P(Reloading, End, testing::Values(
  EndRow{"AfterReserving", kOffice, lockIsHeld, reserveAndReload,
    lines({"lock /tmp/firewall_iptables_exec.lock 1 30", "err tarnFW TIMEOUT: getting lock", "err tarnFW Failed to firewall reload"}), false,
    std::string("office\n  rules ") + kReserved + "\n  policies {\"eth0\":1,\"global\":2,\"lan\":0}\n"},
  EndRow{"AfterRenaming", kOffice, lockIsHeld, renameAdapterAndReload,
    lines({"lock /tmp/firewall_iptables_exec.lock 1 30", "err tarnFW TIMEOUT: getting lock", "err tarnFW Failed to reload firewall"}), false,
    "office\n  rules null\n  policies {\"eth1\":1,\"global\":2}\n"}),
  rowName<EndRow>);
// clang-format on

// A document of the wrong shape is the JSON library's exception, before anything is written.
TEST_F(Edits, DocumentOfTheWrongShapeThrows) {
  store({{"office", "null", "null"}, {"zebra", R"({"eth0": [{"policy": "deny"}]})", "null"}});
  EXPECT_THROW(reserve(), Json::LogicError);
  EXPECT_THROW(removeService(), Json::LogicError);
  EXPECT_THROW(renameAdapter(), Json::LogicError);
  EXPECT_EQ("{\"name\": \"office\", \"rules\": null, \"adapterPolicyMap\": null}\n",
            files::read("/usr/tarn/etc/firewall.d/1.json"));
  EXPECT_EQ("", trace::take());
}

}  // namespace
