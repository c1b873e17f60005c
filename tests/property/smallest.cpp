#include <functional>
#include <utility>

#include "difference.h"
#include "packetFilter.h"
#include "profiles.h"

namespace property {
namespace {

using FW::FW_POLICY;
using FW::FWRULE;

using Candidates = std::vector<Case>;

// --- what can be taken away ---

void withoutRules(const Case& one, Candidates& candidates) {
  for (const auto& [adapter, rules] : one.profile.rules) {
    for (std::size_t index = 0; index < rules.size(); ++index) {
      Case candidate = one;
      std::vector<FWRULE>& left = candidate.profile.rules[adapter];
      left.erase(left.begin() + static_cast<std::ptrdiff_t>(index));
      if (left.empty()) candidate.profile.rules.erase(adapter);
      candidates.push_back(candidate);
    }
  }
}

// Defaults of other adapters go. That of the adapter itself becomes what the verdict is, where
// possible: then it takes no rule to come to it.
void withPlainDefaults(const Case& one, Candidates& candidates) {
  for (const auto& [adapter, policy] : one.profile.adapterPolicyMap) {
    if (adapter == one.adapter) continue;
    Case candidate = one;
    candidate.profile.adapterPolicyMap.erase(adapter);
    candidates.push_back(candidate);
  }
  for (const FW_POLICY policy : {FW::FW_POLICY_DENY, FW::FW_POLICY_ALLOW, FW::FW_POLICY_NONE}) {
    const auto own = one.profile.adapterPolicyMap.find(one.adapter);
    if (own != one.profile.adapterPolicyMap.end() && own->second == policy) break;
    Case candidate = one;
    candidate.profile.adapterPolicyMap[one.adapter] = policy;
    candidates.push_back(candidate);
  }
}

void withPlainQuery(const Case& one, Candidates& candidates) {
  const auto add = [&](const std::function<void(Case&)>& change) {
    Case candidate = one;
    change(candidate);
    candidates.push_back(std::move(candidate));
  };
  const FW::PortCompareST& port = one.query.port;
  if (one.query.adapter != one.adapter) {
    add([](Case& c) { c.query.adapter = c.adapter; });
    for (const FW_POLICY policy : {FW::FW_POLICY_DENY, FW::FW_POLICY_ALLOW, FW::FW_POLICY_NONE}) {
      add([policy](Case& c) {
        c.query.adapter = c.adapter;
        c.profile.adapterPolicyMap.erase("global");
        c.profile.adapterPolicyMap[c.adapter] = policy;
      });
    }
  }
  if (port.protocol != FW::FW_PROTO_TCP) {
    add([](Case& c) { c.query.port.protocol = FW::FW_PROTO_TCP; });
  }
  if (port.port != "21") add([](Case& c) { c.query.port.port = "21"; });
  if (port.protocol == FW::FW_PROTO_TCP) return;
  add([](Case& c) {
    c.query.port.protocol = FW::FW_PROTO_TCP;
    for (auto& [adapter, rules] : c.profile.rules) {
      for (FWRULE& rule : rules) rule.protocol = FW::FW_PROTO_TCP;
    }
  });
}

// The adapter's rules and default under a plainer name: "eth0", or "tun0" when the place in the
// order of names matters.
void underAnotherName(const Case& one, Candidates& candidates) {
  for (const std::string name : {"eth0", "tun0"}) {
    if (one.adapter == name) return;
    Case candidate = one;
    const auto move = [&](auto& map) {
      map.erase(name);
      const auto own = map.find(one.adapter);
      if (own == map.end()) return;
      auto value = own->second;
      map.erase(own);
      map.emplace(name, std::move(value));
    };
    move(candidate.profile.rules);
    move(candidate.profile.adapterPolicyMap);
    if (candidate.query.adapter == one.adapter) candidate.query.adapter = name;
    candidate.adapter = name;
    candidates.push_back(candidate);
  }
}

// --- what can be simpler about a rule ---

void forEveryAddress(FWRULE& rule) {
  rule.ipGroup = 5;
  rule.ipType = 2;
  rule.ipDirect = 1;
  rule.ipList.clear();
}

void forOneAddress(FWRULE& rule) {
  rule.ipGroup = 0;
  rule.ipType = 0;
  rule.ipDirect = 1;
  rule.ipList = {"10.77.0.2"};
}

void forAllPorts(FWRULE& rule) {
  rule.portGroup = 3;
  rule.protocol = FW::FW_PROTO_TCP;
  rule.portDirect = 0;
  rule.portList.clear();
}

using Change = std::function<void(FWRULE&)>;

void addAddressChanges(const FWRULE& rule, std::vector<Change>& changes) {
  if (rule.ipGroup != 5 || rule.ipType != 2 || rule.ipDirect != 1) {
    changes.emplace_back(forEveryAddress);
  }
  if (rule.ipGroup == 5) {
    if (rule.ipType == 1) changes.emplace_back([](FWRULE& r) { r.ipType = 0; });
    return;
  }
  const bool one = rule.ipGroup == 0 && rule.ipType == 0 && rule.ipDirect == 1 &&
                   rule.ipList == std::vector<std::string>{"10.77.0.2"};
  if (!one) changes.emplace_back(forOneAddress);
}

void addPortChanges(const FWRULE& rule, std::vector<Change>& changes) {
  if (rule.portGroup != 3 || rule.portDirect != 0) changes.emplace_back(forAllPorts);
  if (rule.portGroup == 3) return;
  if (rule.portGroup != 1) {
    for (const FW::FW_PORT_PROTOCOL protocol :
         {FW::FW_PROTO_TCP, FW::FW_PROTO_UDP, FW::FW_PROTO_TCP_UDP}) {
      for (const int direction : {0, 1}) {
        for (const char* ports : {"21", "22", "21-22"}) {
          changes.emplace_back([=](FWRULE& r) {
            r.portGroup = 1;
            r.protocol = protocol;
            r.portDirect = direction;
            r.portList = {ports};
          });
        }
      }
    }
  }
  for (std::size_t index = 0; index < rule.portList.size() && rule.portList.size() > 1; ++index) {
    changes.emplace_back([index](FWRULE& r) {
      r.portList.erase(r.portList.begin() + static_cast<std::ptrdiff_t>(index));
    });
  }
  if (rule.portGroup != 1) return;
  if (rule.portDirect == 1) changes.emplace_back([](FWRULE& r) { r.portDirect = 0; });
  if (rule.protocol != FW::FW_PROTO_TCP) {
    changes.emplace_back([](FWRULE& r) { r.protocol = FW::FW_PROTO_TCP; });
  }
  if (rule.portList != std::vector<std::string>{"21"}) {
    changes.emplace_back([](FWRULE& r) { r.portList = {"21"}; });
  }
}

std::vector<Change> changesOf(const FWRULE& rule) {
  std::vector<Change> changes;
  if (!rule.enable) changes.emplace_back([](FWRULE& r) { r.enable = true; });
  if (rule.blLog) changes.emplace_back([](FWRULE& r) { r.blLog = false; });
  if (rule.table != "filter") changes.emplace_back([](FWRULE& r) { r.table = "filter"; });
  if (rule.adapterDirect != 1) changes.emplace_back([](FWRULE& r) { r.adapterDirect = 1; });
  addAddressChanges(rule, changes);
  addPortChanges(rule, changes);
  return changes;
}

void withPlainRules(const Case& one, Candidates& candidates) {
  for (const auto& [adapter, rules] : one.profile.rules) {
    for (std::size_t index = 0; index < rules.size(); ++index) {
      for (const Change& change : changesOf(rules[index])) {
        Case candidate = one;
        change(candidate.profile.rules[adapter][index]);
        candidates.push_back(std::move(candidate));
      }
    }
  }
}

// The profile without one of its rules, and without one of its defaults.
std::vector<FW::FWPROFILE> smallerThan(const FW::FWPROFILE& profile) {
  std::vector<FW::FWPROFILE> candidates;
  Candidates withoutOne;
  withoutRules({profile, {}, ""}, withoutOne);
  for (Case& candidate : withoutOne) candidates.push_back(std::move(candidate.profile));
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
    candidates.push_back(profile);
    candidates.back().adapterPolicyMap.erase(adapter);
  }
  return candidates;
}

Candidates simplerThan(const Case& one) {
  Candidates candidates;
  withoutRules(one, candidates);
  withPlainDefaults(one, candidates);
  underAnotherName(one, candidates);
  withPlainQuery(one, candidates);
  withPlainRules(one, candidates);
  return candidates;
}

}  // namespace

int verdictOf(const Case& one) {
  const FW::AdapterPolicyMap answer = workedOutAnswer(one.profile, one.query);
  const auto verdict = answer.find(one.adapter);
  return verdict == answer.end() ? -1 : static_cast<int>(verdict->second);
}

Truth truthOf(const Case& one) {
  const PacketFilter filter(one.profile);
  return truthOf(one.query, one.adapter,
                 [&filter](std::size_t position) { return filter.passes(allPackets()[position]); });
}

std::string describe(const Case& one) {
  static const char* const kVerdicts[] = {"allowed", "blocked", "undecided", "partly blocked"};
  const int verdict = verdictOf(one);
  std::string text = describe(one.profile) + "Is " + describe(one.query) + " blocked?";
  if (one.query.adapter != one.adapter) text += " On " + one.adapter + ":";
  text += std::string(" ") + (verdict < 0 || verdict > 3 ? "?" : kVerdicts[verdict]);
  return text + ". The packets: " + nameOf(truthOf(one)) + ".\n";
}

Case smallest(Case one, const std::function<bool(const Case&)>& shows) {
  for (bool simplified = true; simplified;) {
    simplified = false;
    for (Case& candidate : simplerThan(one)) {
      if (!shows(candidate)) continue;
      one = std::move(candidate);
      simplified = true;
      break;
    }
  }
  return one;
}

FW::FWPROFILE smallest(FW::FWPROFILE profile,
                       const std::function<bool(const FW::FWPROFILE&)>& shows) {
  for (bool smaller = true; smaller;) {
    smaller = false;
    for (FW::FWPROFILE& candidate : smallerThan(profile)) {
      if (!shows(candidate)) continue;
      profile = std::move(candidate);
      smaller = true;
      break;
    }
  }
  return profile;
}

}  // namespace property
