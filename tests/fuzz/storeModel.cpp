#include "storeModel.h"

#include <algorithm>

#include <json/reader.h>

#include "check.h"
#include "recordText.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace fuzz {
namespace {

using FW::FWPROFILE;
using FW::FWRULE;
using Rules = std::vector<FWRULE>;

bool isOfServices(const FWRULE& rule) { return rule.portGroup == 0 || rule.portGroup == 2; }

void removeFirst(std::vector<std::string>& names, const std::string& name) {
  for (auto place = names.begin(); place != names.end(); ++place) {
    if (*place != name) continue;
    names.erase(place);
    return;
  }
}

void removeEmpty(Rules& rules) {
  Rules kept;
  for (const FWRULE& rule : rules) {
    if (!isOfServices(rule) || !rule.portList.empty()) kept.push_back(rule);
  }
  rules = kept;
}

}  // namespace

FWPROFILE asStored(FWPROFILE profile) {
  for (const auto& [adapter, rules] : profile.rules) {
    profile.adapterPolicyMap.emplace(adapter, FW::FW_POLICY_ALLOW);
  }
  profile.adapterPolicyMap["global"] = FW::FW_POLICY_NONE;
  for (auto place = profile.rules.begin(); place != profile.rules.end();) {
    for (FWRULE& rule : place->second) {
      rule.ruleID = 0;
      rule.chainList.insert({"FORWARD_FIREWALL", "INPUT_FIREWALL"});
    }
    place = place->second.empty() ? profile.rules.erase(place) : std::next(place);
  }
  return profile;
}

FWPROFILE reserved(FWPROFILE profile, const std::string& adapter, const std::string& service,
                   FW::FW_POLICY policy) {
  Rules& rules = profile.rules[adapter];
  const auto isReserved = [](const FWRULE& rule) {
    return rule.portGroup == 2 && rule.ipGroup == 5;
  };
  if (!rules.empty() && isReserved(rules[0]) && rules[0].enable && rules[0].policy == policy) {
    std::vector<std::string>& names = rules[0].portList;
    if (std::count(names.begin(), names.end(), service) == 0) names.push_back(service);
    return asStored(profile);
  }
  for (FWRULE& rule : rules) {
    if (isReserved(rule)) removeFirst(rule.portList, service);
  }
  removeEmpty(rules);
  FWRULE rule;
  rule.policy = policy;
  rule.name = "Service";
  rule.ipType = 2;
  rule.ipGroup = 5;
  rule.portGroup = 2;
  rule.protocol = FW::FW_PROTO_TCP_UDP;
  rule.portList = {service};
  rules.insert(rules.begin(), rule);
  return asStored(profile);
}

FWPROFILE withoutService(FWPROFILE profile, const std::string& service) {
  for (auto& [adapter, rules] : profile.rules) {
    for (FWRULE& rule : rules) {
      if (isOfServices(rule)) removeFirst(rule.portList, service);
    }
    removeEmpty(rules);
  }
  return asStored(profile);
}

FWPROFILE renamedAdapter(FWPROFILE profile, const std::string& from, const std::string& to) {
  const auto policy = profile.adapterPolicyMap.find(from);
  if (policy != profile.adapterPolicyMap.end()) {
    profile.adapterPolicyMap[to] = policy->second;
    profile.adapterPolicyMap.erase(from);
  }
  const auto rules = profile.rules.find(from);
  if (rules != profile.rules.end()) {
    profile.rules[to] = rules->second;
    profile.rules.erase(from);
  }
  return asStored(profile);
}

FWPROFILE updated(FWPROFILE profile, const std::vector<fake::Service>& services) {
  for (auto& [adapter, rules] : profile.rules) {
    for (FWRULE& rule : rules) {
      if (!isOfServices(rule)) continue;
      bool tcp = false;
      bool udp = false;
      std::vector<std::string> kept;
      for (const std::string& name : rule.portList) {
        for (const fake::Service& service : services) {
          if (service.name != name || !service.available) continue;
          const int protocol = service.destination.protocol != 0 ? service.destination.protocol
                                                                 : service.source.protocol;
          tcp = tcp || protocol == 1;
          udp = udp || protocol == 2;
          kept.push_back(name);
        }
      }
      rule.portList = kept;
      if (kept.empty() || (!tcp && !udp)) continue;
      rule.protocol = static_cast<FW::FW_PORT_PROTOCOL>((tcp ? 1 : 0) + (udp ? 2 : 0));
    }
    removeEmpty(rules);
  }
  return asStored(profile);
}

Profiles profilesOnDisk() {
  Profiles profiles;
  for (const std::string& name : files::list(files::kProfileDirectory)) {
    const std::string path = files::kProfileDirectory + name;
    const bool isDocument = name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0;
    if (!isDocument || path == files::kSettingsFile) continue;
    const std::string text = files::read(path);
    Json::Value document;
    require(
        Json::Reader().parse(text, document) && document.isObject() && document["name"].isString(),
        "every profile on the disk is whole", path + "\n" + text);
    FWPROFILE profile;
    FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
    const auto [place, isNew] = profiles.emplace(profile.name, profile);
    require(isNew, "no two documents have the same name", profile.name);
  }
  return profiles;
}

std::string textOf(const Profiles& profiles) {
  std::string text;
  for (const auto& [name, profile] : profiles) text += describe(profile) + "\n";
  return text;
}

}  // namespace fuzz
