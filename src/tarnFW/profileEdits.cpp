// Edits of every stored profile on behalf of the system around the firewall: a service is reserved
// or goes, an adapter gets a new name. Profiles are written one after another; what is written
// stays when a later one fails.

#include <algorithm>

#include "../constants.h"
#include "module.h"
#include "serviceRules.h"

namespace FW {
namespace {

using Rules = std::vector<FWRULE>;

bool isReserved(const FWRULE& rule) {
  return rule.portGroup == kPortsOfReservedServices && rule.ipGroup == kAnyAddress;
}

FWRULE reservedRule(const std::string& service, FW_POLICY policy) {
  FWRULE rule;
  rule.policy = policy;
  rule.name = "Service";
  rule.ipType = kBothFamilies;
  rule.ipGroup = kAnyAddress;
  rule.portGroup = kPortsOfReservedServices;
  rule.protocol = FW_PROTO_TCP_UDP;
  rule.portList = {service};
  return rule;
}

// Takes the first mention of the service out of the rule.
void eraseService(FWRULE& rule, const std::string& service) {
  const auto found = std::find(rule.portList.begin(), rule.portList.end(), service);
  if (found != rule.portList.end()) rule.portList.erase(found);
}

void reserveService(FWPROFILE& profile, const std::string& adapter, const std::string& service,
                    FW_POLICY policy) {
  Rules& rules = profile.rules[adapter];
  if (!rules.empty() && isReserved(rules.front()) && rules.front().enable &&
      rules.front().policy == policy) {
    std::vector<std::string>& services = rules.front().portList;
    if (std::find(services.begin(), services.end(), service) == services.end()) {
      services.push_back(service);
    }
    return;
  }
  for (FWRULE& rule : rules) {
    if (isReserved(rule)) eraseService(rule, service);
  }
  dropEmptyServiceRules(rules);
  rules.insert(rules.begin(), reservedRule(service, policy));  // evaluated first
}

// Moves the entry of `from` to `to`, whatever `to` had. Kept: without asking whether the names
// differ, so that an adapter renamed to itself loses its entry. True when there was one.
template <class Map>
bool renameKey(Map& map, const std::string& from, const std::string& to) {
  const auto found = map.find(from);
  if (found == map.end()) return false;
  map[to] = found->second;
  map.erase(from);
  return true;
}

}  // namespace

bool TARNFW_PROFILE::profileAddServToReserve(const std::string& adapter, const std::string& service,
                                             FW_POLICY policy, bool reload) {
  std::map<std::string, FWPROFILE> profiles;
  if (!profileEnum(profiles)) return here().fail("Failed to profileEnum()");
  for (auto& [name, profile] : profiles) {
    reserveService(profile, adapter, service, policy);
    if (!profileSet(name, profile)) return here().fail("Failed to set profile");
  }
  if (reload && !TARNFW().fwReload(/*withState=*/true)) {
    return here().fail("Failed to firewall reload");
  }
  return true;
}

bool TARNFW_PROFILE::profileRemoveServ(const std::string& service) {
  std::map<std::string, FWPROFILE> profiles;
  if (!profileEnum(profiles)) return here().fail("Failed to profileEnum()");
  for (auto& [name, profile] : profiles) {
    for (auto& [adapter, rules] : profile.rules) {
      for (FWRULE& rule : rules) {
        if (namesServices(rule)) eraseService(rule, service);
      }
      dropEmptyServiceRules(rules);
    }
    if (!profileSet(name, profile)) {
      return here().fail("Failed to profile set [%s]", name.c_str());
    }
  }
  return true;
}

bool TARNFW_PROFILE::profileChangeAdapter(const std::string& oldAdapter,
                                          const std::string& newAdapter, bool reload) {
  std::map<std::string, FWPROFILE> profiles;
  if (!profileEnum(profiles)) return here().fail("Failed to profileEnum()");
  TARNFW firewall;
  std::string active;
  if (!firewall.fwProfileConfigGet(active)) return here().fail("Failed to fwProfileConfigGet()");
  bool activeChanged = false;
  for (auto& [name, profile] : profiles) {
    // Kept: only a policy entry counts as a change of the active profile, rules do not.
    if (renameKey(profile.adapterPolicyMap, oldAdapter, newAdapter) && name == active) {
      activeChanged = true;
    }
    (void)renameKey(profile.rules, oldAdapter, newAdapter);
    if (!profileSet(name, profile)) {
      return here().fail("Failed to profile set [%s]", name.c_str());
    }
  }
  if (activeChanged && reload && !firewall.fwReload(/*withState=*/true)) {
    return here().fail("Failed to reload firewall");
  }
  return true;
}

}  // namespace FW
