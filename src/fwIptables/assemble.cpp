// Multiplies the fragments of one rule out into argument lines:
//
//   table x chain x family x adapter x address x port
//   -t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/24 -p tcp --dport 22 -j RETURN

#include "module.h"

namespace FW {
namespace {

constexpr char kLogVerdict[] = " -j LOG";

// One line, without the verdict. Table and chain always stand, the others when they restrict
// something.
std::string lineOf(const std::string& table, const std::string& chain, const std::string& adapter,
                   const std::string& address, const std::string& port) {
  std::string line = table + " " + chain;
  for (const std::string* part : {&adapter, &address, &port}) {
    if (!part->empty()) line.append(" ").append(*part);
  }
  return line;
}

bool ofOtherFamily(const std::string& port, bool ipv6) {
  return port == (ipv6 ? kIcmpFragment : kIcmpv6Fragment);
}

}  // namespace

void TARNFW_IPTABLES_RULES::iptablesArgToCmd(const std::string& adapter, const FWRULE& rule,
                                             const Json::Value& args, Json::Value& cmds) {
  std::vector<const char*> families;
  if (forV4(rule)) families.push_back(kV4);
  if (forV6(rule)) families.push_back(kV6);
  const Json::Value& policies = args[kArgPolicy];
  const std::string verdict = " " + (policies.empty() ? "" : policies[0].asString());

  for (const Json::Value& table : args[kArgTable]) {
    for (const Json::Value& chain : args[kArgChain]) {
      for (const char* family : families) {
        for (const Json::Value& interface : args[kArgAdapter]) {
          for (const Json::Value& address : args[kArgIp][family]) {
            for (const Json::Value& port : args[kArgPort]) {
              if (ofOtherFamily(port.asString(), family == kV6)) continue;
              const std::string line =
                  lineOf(table.asString(), chain.asString(), interface.asString(),
                         address.asString(), port.asString());
              Json::Value& lines = cmds[family][adapter];
              if (rule.blLog) lines.append(line + kLogVerdict);
              lines.append(line + verdict);
            }
          }
        }
      }
    }
  }
}

}  // namespace FW
