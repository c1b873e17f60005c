// The profile document:
//
//   {
//      "adapterPolicyMap" : { "eth0" : 1, "global" : 2 },
//      "name" : "office",
//      "rules" : {
//         "eth0" : [ { "ruleIndex" : 0, "enable" : true, "adapterDirect" : 1, ... } ]
//      }
//   }
//
// Reader and writer differ on purpose: "ruleIndex" is written and not read, "ruleID" is read and
// not written, and the reader starts every rule from the two default chains.

#include <array>
#include <string_view>
#include <utility>

#include <json/value.h>

#include "tarnfirewall.h"

namespace FW {
namespace {

template <class Texts>
Json::Value textsToJson(const Texts& texts) {
  Json::Value array(Json::arrayValue);
  for (const std::string& text : texts) array.append(text);
  return array;
}

Json::Value ruleToJson(const FWRULE& rule, Json::ArrayIndex position) {
  Json::Value object(Json::objectValue);
  object["ruleIndex"] = position;
  object["enable"] = rule.enable;
  object["adapterDirect"] = rule.adapterDirect;
  object["protocol"] = static_cast<Json::Int>(rule.protocol);
  object["policy"] = static_cast<Json::Int>(rule.policy);
  object["blLog"] = rule.blLog;
  object["name"] = rule.name;
  object["table"] = rule.table;
  object["labelList"] = textsToJson(rule.labelList);
  object["chainList"] = textsToJson(rule.chainList);
  object["ipType"] = rule.ipType;
  object["ipDirect"] = rule.ipDirect;
  object["ipGroup"] = rule.ipGroup;
  object["ipList"] = textsToJson(rule.ipList);
  object["portDirect"] = rule.portDirect;
  object["portGroup"] = rule.portGroup;
  object["portList"] = textsToJson(rule.portList);
  return object;
}

void appendTexts(const Json::Value& array, std::vector<std::string>& texts) {
  for (const Json::Value& text : array) texts.push_back(text.asString());
}

// The members of a rule object that are read, in byte order, which is the order that jsoncpp keeps
// them in: one walk finds them all, in half the time that looking each up takes.
enum Member {
  kAdapterDirect,
  kBlLog,
  kChainList,
  kEnable,
  kIpDirect,
  kIpGroup,
  kIpList,
  kIpType,
  kLabelList,
  kName,
  kPolicy,
  kPortDirect,
  kPortGroup,
  kPortList,
  kProtocol,
  kRuleId,
  kTable,
  kMembers
};

constexpr std::array<std::string_view, kMembers> kMemberNames = {
    "adapterDirect", "blLog",    "chainList", "enable", "ipDirect", "ipGroup",
    "ipList",        "ipType",   "labelList", "name",   "policy",   "portDirect",
    "portGroup",     "portList", "protocol",  "ruleID", "table"};

using Members = std::array<const Json::Value*, kMembers>;

// Points at the members of `object`; those that are absent are null values.
Members membersOf(const Json::Value& object) {
  Members members;
  members.fill(&Json::Value::nullSingleton());
  if (!object.isObject()) {
    (void)object[kMemberNames[kRuleId].data()];  // throws unless it is null, which has no members
    return members;
  }
  std::size_t next = 0;
  const Json::Value::const_iterator last = object.end();
  for (Json::Value::const_iterator member = object.begin(); member != last; ++member) {
    const char* end = nullptr;
    const char* begin = member.memberName(&end);
    const std::string_view name(begin, static_cast<std::size_t>(end - begin));
    while (next < kMembers && kMemberNames[next] < name) ++next;
    if (next < kMembers && kMemberNames[next] == name) members[next] = &*member;
  }
  return members;
}

FWRULE jsonToRule(const Json::Value& object) {
  const Members members = membersOf(object);
  FWRULE rule;
  rule.ruleID = members[kRuleId]->asInt();
  rule.enable = members[kEnable]->asBool();
  rule.adapterDirect = members[kAdapterDirect]->asInt();
  rule.protocol = static_cast<FW_PORT_PROTOCOL>(members[kProtocol]->asInt());
  rule.policy = static_cast<FW_POLICY>(members[kPolicy]->asInt());
  rule.blLog = members[kBlLog]->asBool();
  rule.name = members[kName]->asString();
  rule.table = members[kTable]->asString();
  appendTexts(*members[kLabelList], rule.labelList);
  // Kept: the listed chains join the two default chains, they do not replace them.
  for (const Json::Value& chain : *members[kChainList]) rule.chainList.insert(chain.asString());
  rule.ipType = members[kIpType]->asInt();
  rule.ipDirect = members[kIpDirect]->asInt();
  rule.ipGroup = members[kIpGroup]->asInt();
  appendTexts(*members[kIpList], rule.ipList);
  rule.portDirect = members[kPortDirect]->asInt();
  rule.portGroup = members[kPortGroup]->asInt();
  appendTexts(*members[kPortList], rule.portList);
  return rule;
}

}  // namespace

void TARNFW_JSON_DB::profileToJson(const FWPROFILE& profile, Json::Value& out) {
  out["name"] = profile.name;
  ruleListToJson(profile.rules, out["rules"]);
  Json::Value& policies = out["adapterPolicyMap"] = Json::Value();
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
    policies[adapter] = static_cast<Json::Int>(policy);
  }
}

void TARNFW_JSON_DB::ruleListToJson(const RuleList& rules, Json::Value& out) {
  for (const auto& [adapter, list] : rules) {
    if (list.empty()) continue;  // leaves no member
    Json::Value& array = out[adapter];
    if (array.isNull()) array = Json::Value(Json::arrayValue);
    for (Json::ArrayIndex position = 0; position < list.size(); ++position) {
      array.append(ruleToJson(list[position], position));
    }
  }
}

void TARNFW_JSON_DB::jsonToProfile(const Json::Value& doc, FWPROFILE& profile) {
  profile.name = doc["name"].asString();
  jsonToRuleList(doc["rules"], profile.rules);
  const Json::Value& policies = doc["adapterPolicyMap"];
  for (const std::string& adapter : policies.getMemberNames()) {
    profile.adapterPolicyMap[adapter] = static_cast<FW_POLICY>(policies[adapter].asInt());
  }
}

void TARNFW_JSON_DB::jsonToRuleList(const Json::Value& value, RuleList& rules) {
  for (const std::string& adapter : value.getMemberNames()) {
    for (const Json::Value& object : value[adapter]) {
      rules[adapter].push_back(jsonToRule(object));
    }
  }
}

}  // namespace FW
