// A whole profile into its command document. "global" begins with the preamble, for INPUT_FIREWALL
// and then for FORWARD_FIREWALL:
//
//   v4: loopback; connection state
//   v6: loopback; router and neighbour discovery, redirects; connection state
//
// Each adapter's list holds its rules in the profile's order and last its default policy.

#include <array>

#include "../constants.h"
#include "module.h"
#include "network.h"

namespace FW {
namespace {

constexpr LogSite here(int line = __builtin_LINE()) { return {"fwIptables", line}; }

// The PPPoE link's own interface; its rules are filed under "pppoe".
constexpr char kPppoeInterface[] = "ppp0";

constexpr std::array<const char*, 5> kNeighbourDiscovery = {
    " -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",
    " -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",
    " -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",
    " -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",
    " -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT"};  // redirect

// The connection-state line of one family; `exempt` is empty or an address of that family.
std::string stateLine(const std::string& head, const std::string& exempt) {
  const std::string source = exempt.empty() ? "" : " ! -s " + exempt;
  return head + source + " -m state --state ESTABLISHED,RELATED -j ACCEPT";
}

void appendPreamble(bool withState, const std::string& exemptV4, const std::string& exemptV6,
                    Json::Value& cmds) {
  Json::Value& v4 = cmds[kV4][kGlobalAdapter];
  Json::Value& v6 = cmds[kV6][kGlobalAdapter];
  for (const char* chain : kFirewallChains) {
    const std::string head = std::string("-A ") + chain;
    v4.append(head + " -i lo -j ACCEPT");
    if (withState) v4.append(stateLine(head, exemptV4));
    v6.append(head + " -i lo -j ACCEPT");
    for (const char* line : kNeighbourDiscovery) v6.append(head + line);
    if (withState) v6.append(stateLine(head, exemptV6));
  }
}

// Every packet that arrives on the adapter, in both chains and families.
FWRULE defaultPolicyRule(FW_POLICY policy) {
  FWRULE rule;
  rule.policy = policy;
  rule.ipType = kBothFamilies;
  rule.ipGroup = kAnyAddress;
  rule.portGroup = kAllPorts;
  return rule;
}

// How many elements of ipList a rule of the group needs; the compiler leaves the rule out without
// them.
std::size_t addressesNeeded(std::int32_t ipGroup) {
  switch (ipGroup) {
    case kOneAddress:
      return 1;
    case kSubnet:
    case kAddressRange:
      return 2;
    default:
      return 0;
  }
}

void reportMissingAddresses(const std::string& adapter, const FWRULE& rule) {
  const std::size_t needed = addressesNeeded(rule.ipGroup);
  if (rule.ipList.size() >= needed) return;
  here().error("Rule \"%s\" of adapter %s is left out: ip group %d needs %zu addresses, not %zu",
               rule.name.c_str(), adapter.c_str(), rule.ipGroup, needed, rule.ipList.size());
}

// `args` is the argument document of the rule before, or null.
bool compileRule(TARNFW_IPTABLES_RULES& compiler, const std::string& adapter, const FWRULE& rule,
                 Json::Value& args, Json::Value& cmds) {
  compiler.iptablesRulesInit(args);
  if (!rule.enable || adapter == kPppoeInterface || !compiler.adapterIsEnabled(adapter) ||
      rule.policy == FW_POLICY_NONE) {
    return true;
  }
  if (!compiler.adapterToIptablesArg(adapter, rule, args)) {
    return at(713).fail("Failed to adapterToIptablesArg()");
  }
  reportMissingAddresses(adapter, rule);
  if (!compiler.ipToIptablesArg(rule, args)) return at(717).fail("Failed to ipToIptablesArg()");
  if (!compiler.portToIptablesArg(rule, args)) {
    return at(721).fail("Failed to portToIptablesArg()");
  }
  if (!compiler.chainToIptablesArg(rule, args)) {
    return at(725).fail("Failed to chainToIptablesArg()");
  }
  if (!compiler.tableToIptablesArg(rule, args)) {
    return at(729).fail("Failed to tableToIptablesArg()");
  }
  if (!compiler.policyToIptablesArg(rule, args)) {
    return at(733).fail("Failed to policyToIptablesArg()");
  }
  (void)compiler.iptablesArgToCmd(adapter, rule, args, cmds);
  return true;
}

}  // namespace

bool TARNFW_IPTABLES_RULES::fwRulesToIptablesRules(const bool& withState, const RuleList& rules,
                                                   const AdapterPolicyMap& policies,
                                                   Json::Value& cmds,
                                                   const std::string& stateExemptAddress) {
  const char* exempt = stateExemptAddress.c_str();
  // The platform reads up to a NUL; what stands behind one would become words of the line.
  const bool whole =
      !stateExemptAddress.empty() && stateExemptAddress.find('\0') == std::string::npos;
  const bool exemptV4 = whole && BlTLIBIsIpAddr(exempt) != 0;
  const bool exemptV6 = whole && BlTLIBIsv6IpAddrValid(exempt) != 0;
  if (!stateExemptAddress.empty() && !exemptV4 && stateExemptAddress != "127.0.0.1" && !exemptV6) {
    return at(661).fail("Invalid input argument '%s' which is not an IP address.", exempt);
  }
  appendPreamble(withState, exemptV4 ? stateExemptAddress : "", exemptV6 ? stateExemptAddress : "",
                 cmds);

  // Adapters in name order; of each its rules in the profile's order, then its default policy.
  std::map<std::string, std::vector<const FWRULE*>> work;
  for (const auto& [adapter, list] : rules) {
    for (const FWRULE& rule : list) work[adapter].push_back(&rule);
  }
  std::map<std::string, FWRULE> defaults;
  for (const auto& [adapter, policy] : policies) {
    if (adapter == kPppoeInterface || !adapterIsEnabled(adapter)) continue;
    work[adapter].push_back(&(defaults[adapter] = defaultPolicyRule(policy)));
  }
  Json::Value args;
  for (const auto& [adapter, list] : work) {
    for (const FWRULE* rule : list) {
      if (!compileRule(*this, adapter, *rule, args, cmds)) return false;
    }
  }
  return true;
}

bool TARNFW_IPTABLES_RULES::fwRulesToIptablesRules(const bool& withState, const RuleList& rules,
                                                   const AdapterPolicyMap& policies,
                                                   Json::Value& cmds) {
  return fwRulesToIptablesRules(withState, rules, policies, cmds, /*stateExemptAddress=*/"");
}

}  // namespace FW
