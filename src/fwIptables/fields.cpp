// One field of a rule at a time into fragments of argument lines. Blanks inside a fragment count.

#include <boost/algorithm/string/join.hpp>

#include "../constants.h"
#include "module.h"

namespace FW {
namespace {

// An array is emptied in place: the next rule's document reuses the last one's.
void makeEmptyArray(Json::Value& value) {
  if (value.isArray()) {
    value.clear();
  } else {
    value = Json::Value(Json::arrayValue);
  }
}

// Appends one address fragment to each family of the rule.
void appendAddress(const FWRULE& rule, const std::string& fragment, Json::Value& args) {
  if (forV4(rule)) args[kArgIp][kV4].append(fragment);
  if (forV6(rule)) args[kArgIp][kV6].append(fragment);
}

// Appends the fragment for the countries that have address ranges of the family; none if there are
// none.
void appendCountries(const FWRULE& rule, bool ipv6, Json::Value& args) {
  std::vector<std::string> codes;
  if (!FW_GEOIP().geoipSanctify(rule.ipList, ipv6, codes)) return;
  const std::string word =
      rule.ipDirect != 0 ? "-m geoip --source-country " : "-m geoip --destination-country ";
  args[kArgIp][ipv6 ? kV6 : kV4].append(word + boost::algorithm::join(codes, ","));
}

}  // namespace

bool TARNFW_IPTABLES_RULES::jIptablesCmdInit(Json::Value& cmds) {
  cmds[kV4] = Json::Value();
  cmds[kV6] = Json::Value();
  return true;
}

void TARNFW_IPTABLES_RULES::iptablesRulesInit(Json::Value& args) {
  for (const char* key : {kArgAdapter, kArgPort, kArgChain, kArgTable, kArgPolicy}) {
    makeEmptyArray(args[key]);
  }
  Json::Value& ip = args[kArgIp];
  // Nothing but the two families may be left in it.
  if (!ip.isObject() || ip.size() != 2 || !ip.isMember(kV4) || !ip.isMember(kV6)) {
    ip = Json::Value(Json::objectValue);
  }
  makeEmptyArray(ip[kV4]);
  makeEmptyArray(ip[kV6]);
}

bool TARNFW_IPTABLES_RULES::policyToIptablesArg(const FWRULE& rule, Json::Value& args) {
  switch (rule.policy) {
    case FW_POLICY_DENY:
      args[kArgPolicy].append("-j DROP");
      return true;
    case FW_POLICY_ALLOW:
      args[kArgPolicy].append("-j RETURN");
      return true;
    case FW_POLICY_NONE:
      return true;
  }
  return at(574).fail("Unknown policy %d", rule.policy);
}

bool TARNFW_IPTABLES_RULES::tableToIptablesArg(const FWRULE& rule, Json::Value& args) {
  args[kArgTable].append("-t " + rule.table);
  return true;
}

bool TARNFW_IPTABLES_RULES::chainToIptablesArg(const FWRULE& rule, Json::Value& args) {
  for (const std::string& chain : rule.chainList) args[kArgChain].append("-A " + chain);
  return true;
}

// Kept: true in every case. A group without enough addresses gives no fragment, and so no line.
bool TARNFW_IPTABLES_RULES::ipToIptablesArg(const FWRULE& rule, Json::Value& args) {
  const std::vector<std::string>& list = rule.ipList;
  const std::string direction = rule.ipDirect != 0 ? "-s " : "-d ";
  switch (rule.ipGroup) {
    case kOneAddress:
      if (!list.empty()) appendAddress(rule, direction + list[0], args);
      return true;
    case kSubnet:
      if (list.size() >= 2) appendAddress(rule, direction + list[0] + "/" + list[1], args);
      return true;
    case kNoAddress:
      return true;
    case kCountries:
      if (forV4(rule)) appendCountries(rule, /*ipv6=*/false, args);
      if (forV6(rule)) appendCountries(rule, /*ipv6=*/true, args);
      return true;
    case kAddressRange: {
      const std::string word =
          rule.ipDirect != 0 ? "-m iprange --src-range " : "-m iprange --dst-range ";
      if (list.size() >= 2) appendAddress(rule, word + list[0] + "-" + list[1], args);
      return true;
    }
    case kAnyAddress:
      args[kArgIp][kV4].append("");
      args[kArgIp][kV6].append("");
      return true;
    default:
      at(417).error("Unknown ip group %d", rule.ipGroup);
      return true;
  }
}

bool TARNFW_IPTABLES_RULES::portToIptablesArg(const FWRULE& rule, Json::Value& args) {
  switch (rule.portGroup) {
    case kPortsOfServices:
    case kPortsOfReservedServices:
      if (!servPortToCmd(rule.portList, args)) return at(526).fail("Failed to servPortToCmd()");
      return true;
    case kExplicitPorts:
      if (rule.protocol == FW_PROTO_TCP_UDP) {
        protoPortsToIptablesArg(FW_PROTO_TCP, rule.portDirect, rule.portList, args);
        protoPortsToIptablesArg(FW_PROTO_UDP, rule.portDirect, rule.portList, args);
      } else {
        protoPortsToIptablesArg(rule.protocol, rule.portDirect, rule.portList, args);
      }
      return true;
    case kAllPorts:
      args[kArgPort].append("");
      return true;
    default:
      at(545).error("Unknown port group %d", rule.portGroup);
      return true;
  }
}

}  // namespace FW
