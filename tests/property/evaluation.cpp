#include "evaluation.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <vector>

#include "../fuzz/verdictTable.h"
#include "network.h"

namespace property {
namespace {

using FW::FW_POLICY;
using FW::FWPROFILE;
using FW::FWRULE;
using FW::PortCompareST;

// --- the walk over the rules of one adapter ---

bool hasRules(const FWPROFILE& profile, const std::string& adapter) {
  const auto rules = profile.rules.find(adapter);
  return rules != profile.rules.end() && !rules->second.empty();
}

void walkInto(FW::AdapterPolicyMap& verdicts, const FWPROFILE& profile, const std::string& adapter,
              const PortCompareST& query) {
  const bool hasEntry = verdicts.count(adapter) != 0;
  const int start = hasEntry ? static_cast<int>(verdicts[adapter]) : kAllowed;
  const Walk end = walk(profile, adapter, query, start);
  // A walk in which no rule matches makes no entry.
  if (hasEntry || end.matched) verdicts[adapter] = static_cast<FW_POLICY>(end.verdict);
}

void walkEverything(const FWPROFILE& profile, const Query& query, FW::AdapterPolicyMap& verdicts) {
  const FW::AdapterPolicyMap& policies = profile.adapterPolicyMap;
  const bool everyone = query.adapter.empty();
  verdicts["global"] = FW::FW_POLICY_NONE;
  for (const auto& [adapter, policy] : policies) {
    if (everyone || adapter == query.adapter) verdicts[adapter] = policy;
  }
  if (hasRules(profile, "global")) {
    walkInto(verdicts, profile, "global", query.port);
    const int global = verdicts["global"];
    if (global == kAllowed || global == kBlocked || global == kPartly) {
      if (!everyone) verdicts[query.adapter] = static_cast<FW_POLICY>(global);
      for (const auto& [adapter, policy] : policies) {
        if (everyone) verdicts[adapter] = static_cast<FW_POLICY>(global);
      }
      return;
    }
  }
  if (!everyone && policies.count(query.adapter) == 0) {
    verdicts[query.adapter] = FW::FW_POLICY_ALLOW;
    if (!hasRules(profile, query.adapter)) return;
  }
  for (const auto& [adapter, rules] : profile.rules) {
    if (everyone || adapter == query.adapter) walkInto(verdicts, profile, adapter, query.port);
  }
}

}  // namespace

PortRange rangeOf(const std::string& text) {
  const std::size_t dash = text.find('-');
  const long first = std::strtol(text.c_str(), nullptr, 10);
  if (dash == std::string::npos) return {first, first};
  return {first, std::strtol(text.c_str() + dash + 1, nullptr, 10)};
}

std::vector<PortSet> portSetsOf(const FWRULE& rule, int direction) {
  if (rule.portGroup == 1) return {{rule.portDirect, rule.protocol, rule.portList}};
  std::vector<PortSet> sets;
  if (rule.portGroup != 0 && rule.portGroup != 2) return sets;
  for (const std::string& name : rule.portList) {
    const Service* const service = findService(name);
    if (service == nullptr || !service->available) continue;
    const bool ofSource = direction == 1;
    const int protocol = ofSource ? service->sourceProtocol : service->destinationProtocol;
    const std::vector<std::string>& ports =
        ofSource ? service->sourcePorts : service->destinationPorts;
    if (!ports.empty()) sets.push_back({direction, protocol, ports});
  }
  return sets;
}

bool covers(const PortSet& set, const PortCompareST& query) {
  if (set.direction != query.portDirect) return false;
  if (set.protocol != 3 && set.protocol != query.protocol) return false;
  const PortRange asked = rangeOf(query.port);
  return std::any_of(set.ports.begin(), set.ports.end(), [&](const std::string& text) {
    const PortRange listed = rangeOf(text);
    return listed.first <= asked.first && asked.last <= listed.last;
  });
}

bool overlaps(const PortSet& set, const PortCompareST& query) {
  if (set.direction != query.portDirect) return false;
  if (set.protocol != 3 && query.protocol != 3 && set.protocol != query.protocol) return false;
  const PortRange asked = rangeOf(query.port);
  return std::any_of(set.ports.begin(), set.ports.end(), [&](const std::string& text) {
    const PortRange listed = rangeOf(text);
    return asked.first <= listed.last && listed.first <= asked.last;
  });
}

bool concerns(const FWRULE& rule, const PortCompareST& query) {
  if (rule.portGroup == 3) return true;
  const std::vector<PortSet> sets = portSetsOf(rule, query.portDirect == 1 ? 1 : 0);
  return std::any_of(sets.begin(), sets.end(), [&](const PortSet& set) {
    return rule.policy == FW::FW_POLICY_DENY ? overlaps(set, query) : covers(set, query);
  });
}

Walk walk(const FWPROFILE& profile, const std::string& adapter, const PortCompareST& query,
          int start) {
  Walk walk = {start};
  const auto rules = profile.rules.find(adapter);
  if (rules == profile.rules.end()) return walk;
  for (const FWRULE& rule : rules->second) {
    if (!rule.enable || !concerns(rule, query)) continue;
    walk.matched = true;
    const verdictTable::Cell cell = verdictTable::cellFor(rule, walk.verdict);
    if (rule.ipGroup != 5 && walk.verdict == rule.policy) walk.hasPassedOver = true;
    if (cell.verdict != verdictTable::kKeep) walk.verdict = cell.verdict;
    walk.isDecided = !cell.goesOn;
    if (walk.isDecided) break;
  }
  return walk;
}

std::string describe(const Query& query) {
  static constexpr std::array<const char*, 4> kNames = {"?", "tcp", "udp", "both"};
  return std::string(query.port.portDirect == 1 ? "src " : "dst ") +
         kNames[static_cast<std::size_t>(query.port.protocol)] + " " + query.port.port + " on " +
         (query.adapter.empty() ? "every adapter" : query.adapter);
}

FW::AdapterPolicyMap workedOutAnswer(const FWPROFILE& profile, const Query& query) {
  FW::AdapterPolicyMap verdicts;
  walkEverything(profile, query, verdicts);
  for (auto& [adapter, verdict] : verdicts) {
    if (verdict == 4 || verdict == 5) verdict = static_cast<FW_POLICY>(kPartly);
  }
  return verdicts;
}

}  // namespace property
