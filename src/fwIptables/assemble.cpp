// Multiplies the fragments of one rule out into argument lines:
//
//   table x chain x family x adapter x address x port
//   -t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/24 -p tcp --dport 22 -j RETURN

#include <string_view>

#include "module.h"

namespace FW {
namespace {

constexpr char kLogVerdict[] = " -j LOG";

std::string_view textOf(const Json::Value& fragment) {
  const char* begin = nullptr;
  const char* end = nullptr;
  (void)fragment.getString(&begin, &end);  // an argument document holds nothing but strings
  return {begin, static_cast<std::size_t>(end - begin)};
}

// Writes one line, without the verdict. Table and chain always stand, the others when they restrict
// something.
void writeLine(std::string& line, std::string_view table, std::string_view chain,
               std::string_view adapter, std::string_view address, std::string_view port) {
  line.assign(table).append(" ").append(chain);
  for (const std::string_view part : {adapter, address, port}) {
    if (!part.empty()) line.append(" ").append(part);
  }
}

bool ofOtherFamily(std::string_view port, bool ipv6) {
  return port == (ipv6 ? kIcmpFragment : kIcmpv6Fragment);
}

// What differs between the families of one rule.
struct Family {
  const char* name;
  const Json::Value& addresses;
  Json::Value* lines = nullptr;  // of the adapter; made with the first line
};

}  // namespace

bool TARNFW_IPTABLES_RULES::iptablesArgToCmd(const std::string& adapter, const FWRULE& rule,
                                             const Json::Value& args, Json::Value& cmds) {
  const Json::Value& chains = args[kArgChain];
  const Json::Value& interfaces = args[kArgAdapter];
  const Json::Value& addresses = args[kArgIp];
  const Json::Value& ports = args[kArgPort];
  const Json::Value& policies = args[kArgPolicy];
  const std::string verdict = " " + (policies.empty() ? "" : policies[0].asString());
  std::string line;  // one for all: its memory is used again
  std::vector<Family> families;
  if (forV4(rule)) families.push_back({kV4, addresses[kV4]});
  if (forV6(rule)) families.push_back({kV6, addresses[kV6]});

  for (const Json::Value& table : args[kArgTable]) {
    for (const Json::Value& chain : chains) {
      for (Family& family : families) {
        for (const Json::Value& interface : interfaces) {
          for (const Json::Value& address : family.addresses) {
            for (const Json::Value& port : ports) {
              if (ofOtherFamily(textOf(port), family.name == kV6)) continue;
              writeLine(line, textOf(table), textOf(chain), textOf(interface), textOf(address),
                        textOf(port));
              if (family.lines == nullptr) family.lines = &cmds[family.name][adapter];
              if (rule.blLog) family.lines->append(line + kLogVerdict);
              family.lines->append(line.append(verdict));
            }
          }
        }
      }
    }
  }
  return true;
}

}  // namespace FW
