#include "answerModel.h"

#include <array>
#include <cstdlib>
#include <utility>

#include "verdictTable.h"

namespace fuzz {
namespace {

using FW::FWRULE;
using FW::PortCompareST;
using Texts = std::vector<std::string>;

// --- does a rule concern the query? ---

std::pair<long, long> rangeOf(const std::string& text) {
  const std::size_t dash = text.find('-');
  const auto number = [](const std::string& digits) {
    return std::strtol(digits.c_str(), nullptr, 10);
  };
  if (dash == std::string::npos) return {number(text), number(text)};
  return {number(text.substr(0, dash)), number(text.substr(dash + 1))};
}

bool concerns(bool deny, int protocol, const Texts& ports, const PortCompareST& query) {
  const bool same = protocol == query.protocol || protocol == 3;
  if (!same && !(deny && query.protocol == 3)) return false;
  const auto [a, b] = rangeOf(query.port);
  for (const std::string& port : ports) {
    const auto [l, h] = rangeOf(port);
    if (deny ? a <= h && l <= b : l <= a && b <= h) return true;
  }
  return false;
}

// The ports of all services are gathered by protocol first; one after the other comes to the same.
bool concerns(const FWRULE& rule, const std::vector<fake::Service>& services,
              const PortCompareST& query) {
  const bool deny = rule.policy == 1;
  const bool source = query.portDirect == 1;
  switch (rule.portGroup) {
    case 1:
      return rule.portDirect == query.portDirect &&
             concerns(deny, rule.protocol, rule.portList, query);
    case 0:
    case 2:
      // The ports of services are source ports (1) or destination ports (0), no other side.
      if (query.portDirect != 0 && query.portDirect != 1) return false;
      for (const std::string& name : rule.portList) {
        for (const fake::Service& service : services) {
          const fake::Ports& side = source ? service.source : service.destination;
          if (service.available && service.name == name && side.ports &&
              concerns(deny, side.protocol, *side.ports, query)) {
            return true;
          }
        }
      }
      return false;
    default:
      return rule.portGroup == 3;
  }
}

// --- the walk ---

class Walk {
 public:
  Walk(const std::vector<fake::Service>& services, const PortCompareST& query)
      : services_(services), query_(query) {}

  void over(const std::vector<FWRULE>& rules, const std::string& adapter,
            FW::AdapterPolicyMap& verdicts) const {
    for (const FWRULE& rule : rules) {
      if (!rule.enable || !concerns(rule, services_, query_)) continue;
      FW::FW_POLICY& entry = verdicts[adapter];
      const verdictTable::Cell cell = verdictTable::cellFor(rule, entry);
      if (cell.verdict != verdictTable::kKeep) entry = static_cast<FW::FW_POLICY>(cell.verdict);
      if (!cell.goesOn) return;
    }
  }

 private:
  const std::vector<fake::Service>& services_;
  const PortCompareST& query_;
};

int rankOf(int verdict) {
  constexpr std::array<int, 4> kRanks = {1, 3, 0, 2};  // of allowed, blocked, undecided, partly
  return verdict <= 3 ? kRanks.at(static_cast<std::size_t>(verdict)) : 0;
}

}  // namespace

FW::AdapterPolicyMap verdictsOf(const FW::FWPROFILE& profile,
                                const std::vector<fake::Service>& services,
                                const FW::PortCompareST& query, const std::string& adapter) {
  const FW::AdapterPolicyMap& policies = profile.adapterPolicyMap;
  const Walk walk(services, query);
  FW::AdapterPolicyMap verdicts;
  const auto finished = [&verdicts] {
    for (auto& [name, verdict] : verdicts) {
      if (verdict == 4 || verdict == 5) verdict = static_cast<FW::FW_POLICY>(3);
    }
    return verdicts;
  };
  verdicts["global"] = FW::FW_POLICY_NONE;
  for (const auto& [name, policy] : policies) {
    if (adapter.empty() || name == adapter) verdicts[name] = policy;
  }
  const auto global = profile.rules.find("global");
  if (global != profile.rules.end()) {
    walk.over(global->second, "global", verdicts);
    const FW::FW_POLICY verdict = verdicts["global"];
    if (verdict == 0 || verdict == 1 || verdict == 3) {
      if (!adapter.empty()) verdicts[adapter] = verdict;
      for (const auto& [name, policy] : policies) {
        if (adapter.empty()) verdicts[name] = verdict;
      }
      return verdicts;
    }
  }
  if (!adapter.empty() && policies.count(adapter) == 0) {
    verdicts[adapter] = FW::FW_POLICY_ALLOW;
    if (profile.rules.count(adapter) == 0) return finished();
  }
  for (const auto& [name, rules] : profile.rules) {
    if (adapter.empty() || name == adapter) walk.over(rules, name, verdicts);
  }
  return finished();
}

bool verdictsOfService(const std::vector<fake::Service>& services, const std::string& name,
                       const PortAnswer& answer, FW::AdapterPolicyMap& verdicts) {
  const auto ask = [&](int direction, const fake::Ports& side) {
    for (const std::string& port : side.ports.value_or(std::vector<std::string>())) {
      FW::AdapterPolicyMap more;
      const auto protocol = static_cast<FW::FW_PORT_PROTOCOL>(side.protocol);
      if (!answer({direction, protocol, port}, more)) return false;
      for (const auto& [adapter, verdict] : more) {
        const auto [known, isNew] = verdicts.emplace(adapter, verdict);
        if (!isNew && rankOf(verdict) > rankOf(known->second)) known->second = verdict;
      }
    }
    return true;
  };
  for (const fake::Service& service : services) {
    if (!service.available || service.name != name) continue;
    return ask(1, service.source) && ask(0, service.destination);
  }
  return true;
}

}  // namespace fuzz
