// Is a port or a service blocked? Answered from the stored profile, without the packet filter: the
// rules of "global" are walked first, then those of each adapter, in their stored order. A walk
// starts from the adapter's default policy and ends at the first rule that decides for every
// address; rules for some addresses leave it in a working state.

#include <algorithm>
#include <cstdlib>

#include "../cleanup.h"
#include "../constants.h"
#include "module.h"

namespace FW {
namespace {

// Verdicts beyond those a rule can have. The working states do not leave fwPortIsBlocked.
constexpr std::int32_t kAllow = FW_POLICY_ALLOW;
constexpr std::int32_t kDeny = FW_POLICY_DENY;
constexpr std::int32_t kNone = FW_POLICY_NONE;
constexpr std::int32_t kPartly = 3;       // depends on the source address
constexpr std::int32_t kSomeAllowed = 4;  // allowed for some addresses, the rest undecided
constexpr std::int32_t kSomeDenied = 5;   // blocked for some addresses, the rest undecided

constexpr int kDecimal = 10;

// The working verdict after a matching rule, and whether the walk goes on.
struct Step {
  std::int32_t verdict;
  bool goesOn;
};

// One step of a walk, by what the matching rule says of addresses.
//   entry    the adapter's verdict so far
//   working  the last verdict that a step of this walk gave
//   policy   of the matching rule
Step stepForEveryAddress(std::int32_t entry, std::int32_t working, std::int32_t policy) {
  const bool allow = policy == kAllow;
  const bool deny = policy == kDeny;
  switch (entry) {
    case kAllow:
    case kDeny:
    case kNone:
      return {policy, false};
    case kSomeAllowed:
      return {allow ? kAllow : deny ? kSomeAllowed : working, false};
    case kSomeDenied:
      return {allow ? kSomeDenied : deny ? kDeny : working, false};
    default:
      return {working, false};
  }
}

Step stepForSomeAddresses(std::int32_t entry, std::int32_t working, std::int32_t policy) {
  const bool allow = policy == kAllow;
  const bool deny = policy == kDeny;
  switch (entry) {
    case kAllow:
    case kDeny:
    case kNone:
      if (entry == policy) return {working, true};
      return {allow ? kSomeAllowed : deny ? kSomeDenied : working, true};
    case kSomeAllowed:
      if (deny) return {kPartly, false};
      return {working, allow};
    case kSomeDenied:
      if (allow) return {kPartly, false};
      return {working, deny};
    default:
      return {working, false};
  }
}

Step stepAfter(const FWRULE& rule, std::int32_t entry, std::int32_t working) {
  return rule.ipGroup == kAnyAddress ? stepForEveryAddress(entry, working, rule.policy)
                                     : stepForSomeAddresses(entry, working, rule.policy);
}

struct Range {
  long first;
  long last;
};

Range rangeOf(const std::string& port) {
  const std::size_t dash = port.find('-');
  const long first = std::strtol(port.substr(0, dash).c_str(), nullptr, kDecimal);
  if (dash == std::string::npos) return {first, first};
  return {first, std::strtol(port.c_str() + dash + 1, nullptr, kDecimal)};
}

// Does a set of ports concern the query? A deny rule does when it hits any of the query's ports and
// protocols, another one only when it covers them all.
bool portsMatch(bool deny, std::int32_t direction, FW_PORT_PROTOCOL protocol,
                const std::vector<std::string>& ports, const PortCompareST& query) {
  const bool protocolMatches = protocol == FW_PROTO_TCP_UDP || protocol == query.protocol ||
                               (deny && query.protocol == FW_PROTO_TCP_UDP);
  if (!protocolMatches || direction != query.portDirect) return false;
  const Range asked = rangeOf(query.port);
  return std::any_of(ports.begin(), ports.end(), [&](const std::string& port) {
    const Range listed = rangeOf(port);
    return deny ? asked.first <= listed.last && listed.first <= asked.last
                : listed.first <= asked.first && asked.last <= listed.last;
  });
}

// Evaluates the rules of one profile for one query.
class Evaluation {
 public:
  Evaluation(const FWPROFILE& profile, const PortCompareST& query, AdapterPolicyMap& result)
      : profile_(profile), query_(query), result_(result) {}

  // An empty `adapter` means every adapter.
  void run(const std::string& adapter) {
    seed(adapter);
    if (decidedByGlobal(adapter)) return;
    if (adapter.empty()) {
      // Kept: "global" is walked again, on top of its first walk.
      for (const auto& [key, rules] : profile_.rules) walk(key, rules);
      return;
    }
    if (profile_.adapterPolicyMap.count(adapter) == 0) result_[adapter] = FW_POLICY_ALLOW;
    const auto own = profile_.rules.find(adapter);
    if (own != profile_.rules.end()) walk(adapter, own->second);
  }

 private:
  void seed(const std::string& adapter) {
    result_[kGlobalAdapter] = FW_POLICY_NONE;
    for (const auto& [key, policy] : profile_.adapterPolicyMap) {
      if (adapter.empty() || key == adapter) result_[key] = policy;
    }
  }

  // Walks the rules of "global"; a final verdict there is everybody's.
  bool decidedByGlobal(const std::string& adapter) {
    const auto global = profile_.rules.find(kGlobalAdapter);
    if (global == profile_.rules.end()) return false;
    walk(kGlobalAdapter, global->second);
    const FW_POLICY verdict = result_[kGlobalAdapter];
    if (verdict != kAllow && verdict != kDeny && verdict != kPartly) return false;
    if (!adapter.empty()) {
      result_[adapter] = verdict;
      return true;
    }
    for (const auto& [key, policy] : profile_.adapterPolicyMap) result_[key] = verdict;
    return true;
  }

  void walk(const std::string& key, const std::vector<FWRULE>& rules) {
    const auto start = result_.find(key);
    std::int32_t working = start == result_.end() ? kAllow : start->second;
    for (const FWRULE& rule : rules) {
      if (!rule.enable || !matches(rule)) continue;
      FW_POLICY& entry = result_[key];
      const Step step = stepAfter(rule, entry, working);
      working = step.verdict;
      entry = static_cast<FW_POLICY>(working);
      if (!step.goesOn) return;
    }
  }

  bool matches(const FWRULE& rule) {
    const bool deny = rule.policy == FW_POLICY_DENY;
    switch (rule.portGroup) {
      case kExplicitPorts:
        return portsMatch(deny, rule.portDirect, rule.protocol, rule.portList, query_);
      case kPortsOfServices:
      case kPortsOfReservedServices:
        return servicesMatch(deny, rule.portList);
      case kAllPorts:
        return true;
      default:
        return false;
    }
  }

  bool servicesMatch(bool deny, const std::vector<std::string>& services) {
    ServPort ports;
    if (!compiler_.servToPorts(services, ports)) return here().fail("Failed to servToPorts()");
    const bool source = query_.portDirect == kSourcePorts;
    const std::int32_t direction = source ? kSourcePorts : kDestinationPorts;
    for (const auto& [protocol, list] : source ? ports.srcPorts : ports.dstPorts) {
      if (portsMatch(deny, direction, protocol, list, query_)) return true;
    }
    return false;
  }

  const FWPROFILE& profile_;
  const PortCompareST& query_;
  AdapterPolicyMap& result_;
  TARNFW_IPTABLES_RULES compiler_;  // for the service database
};

// Which of two verdicts weighs more: undecided, allowed, partly, blocked.
int severity(FW_POLICY verdict) {
  switch (static_cast<std::int32_t>(verdict)) {
    case kAllow:
      return 1;
    case kPartly:
      return 2;
    case kDeny:
      return 3;
    default:
      return 0;
  }
}

// One query for every port of the service.
std::vector<PortCompareST> queriesOf(const ServPort& ports) {
  std::vector<PortCompareST> queries;
  for (const auto& [protocol, list] : ports.srcPorts) {
    for (const std::string& port : list) queries.push_back({kSourcePorts, protocol, port});
  }
  for (const auto& [protocol, list] : ports.dstPorts) {
    for (const std::string& port : list) queries.push_back({kDestinationPorts, protocol, port});
  }
  return queries;
}

}  // namespace

bool TARNFW::fwPortIsBlocked(const PortCompareST& port, const std::string& adapter,
                             AdapterPolicyMap& result) {
  bool enabled = false;
  if (!fwStatus(enabled)) return here().fail("Failed to check firewall status");
  if (!enabled) {
    if (!adapter.empty()) result[adapter] = FW_POLICY_ALLOW;
    return true;
  }
  std::string name;
  if (!fwProfileConfigGet(name)) return here().fail("Failed to fwProfileConfigGet()");
  FWPROFILE profile;
  if (!TARNFW_PROFILE().profileGet(name, profile)) {
    return here().fail("Failed to profileGet(%s)", name.c_str());
  }
  const Cleanup noWorkingStates([&result] {  // when memory runs out in the middle of a walk, too
    for (auto& [key, verdict] : result) {
      const bool working = verdict == kSomeAllowed || verdict == kSomeDenied;
      if (working) verdict = static_cast<FW_POLICY>(kPartly);
    }
  });
  Evaluation(profile, port, result).run(adapter);
  return true;
}

bool TARNFW::fwServIsBlocked(const std::string& serv, const std::string& adapter,
                             AdapterPolicyMap& result) {
  ServPort ports;
  if (!TARNFW_IPTABLES_RULES().servToPorts({serv}, ports)) {
    return here().fail("Failed to servToPorts()");
  }
  for (const PortCompareST& query : queriesOf(ports)) {
    AdapterPolicyMap fresh;
    if (!fwPortIsBlocked(query, adapter, fresh)) return here().fail("Failed to fwPortIsBlocked()");
    for (const auto& [key, verdict] : fresh) {
      const auto [entry, inserted] = result.emplace(key, verdict);
      if (!inserted && severity(verdict) > severity(entry->second)) entry->second = verdict;
    }
  }
  return true;
}

}  // namespace FW
