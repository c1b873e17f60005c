#include "commandModel.h"

#include <arpa/inet.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace fuzz {
namespace {

using FW::FWRULE;
using Texts = std::vector<std::string>;

const std::string kCountries = "/usr/share/xt_geoip/";

std::string joined(const Texts& texts, const std::string& separator) {
  std::string text;
  for (const std::string& one : texts) text += (&one == &texts.front() ? "" : separator) + one;
  return text;
}

// An address of C's text functions ends at a NUL; a text that goes on behind one is none.
bool isAddress(int family, const std::string& text) {
  unsigned char address[16];
  return text.find('\0') == std::string::npos && inet_pton(family, text.c_str(), address) == 1;
}

bool isFor(const FWRULE& rule, bool ipv6) {
  return rule.ipType == 2 || rule.ipType == (ipv6 ? 1 : 0);
}

// --- adapters ---

Texts interfacesOf(const Machine& machine) {
  if (!machine.listed) return {};
  Texts names = machine.interfaces;
  if (machine.wireless) names.emplace_back("wlan0");
  return names;
}

// The interfaces that an adapter stands for; nothing: there is no such adapter.
Texts interfacesFor(const Machine& machine, const std::string& adapter) {
  const Texts all = interfacesOf(machine);
  if (adapter == "global") return {""};
  if (adapter == "pppoe") return machine.pppoe.empty() ? Texts() : Texts{machine.pppoe};
  if (adapter != "vpn") {
    return std::find(all.begin(), all.end(), adapter) == all.end() ? Texts() : Texts{adapter};
  }
  Texts vpn;
  for (const std::string& name : all) {
    const std::string kind = name.substr(0, 3);
    if ((kind == "ppp" && name != machine.pppoe) || (kind == "tun" && name != "tun1000")) {
      vpn.push_back(name);
    }
  }
  return vpn;
}

// --- ports ---

bool isRange(const std::string& port) { return port.find('-') != std::string::npos; }

std::string portText(std::string port) {
  const std::size_t dash = port.find('-');
  if (dash != std::string::npos && port.substr(0, dash) == port.substr(dash + 1)) port.resize(dash);
  std::replace(port.begin(), port.end(), '-', ':');
  return port;
}

void addPorts(int protocol, bool source, const Texts& ports, Texts& fragments) {
  if (protocol == 4) {
    fragments.emplace_back("-p icmp ");
    fragments.emplace_back("-p icmpv6 ");
  }
  if (protocol == 32) fragments.emplace_back("-p igmp ");
  if (ports.empty()) return;
  const std::string side = source ? "--sport" : "--dport";
  const bool one = ports.size() == 1 && !isRange(ports[0]);
  for (const auto& [number, name] : {std::pair(1, "tcp"), std::pair(2, "udp")}) {
    if (protocol != number && protocol != 3) continue;
    const std::string head =
        std::string("-p ") + name + (one ? " " : " -m multiport ") + side + (one ? " " : "s ");
    Texts group;
    for (std::size_t index = 0; index < ports.size(); ++index) {
      group.push_back(portText(ports[index]));
      if (group.size() == 7 || index + 1 == ports.size()) {
        fragments.push_back(head + joined(group, ","));
        group.clear();
      }
    }
  }
}

void addServices(const Machine& machine, const Texts& names, Texts& fragments) {
  std::map<int, Texts> source;
  std::map<int, Texts> destination;
  const auto add = [](const fake::Ports& side, std::map<int, Texts>& ports) {
    if (!side.ports || side.ports->empty()) return;
    Texts& list = ports[side.protocol];
    list.insert(list.end(), side.ports->begin(), side.ports->end());
  };
  for (const std::string& name : names) {
    for (const fake::Service& service : machine.services) {
      if (!service.available || service.name != name.c_str()) continue;
      add(service.source, source);
      add(service.destination, destination);
    }
  }
  for (const auto& [protocol, ports] : source) addPorts(protocol, true, ports, fragments);
  for (const auto& [protocol, ports] : destination) addPorts(protocol, false, ports, fragments);
  for (const std::string& name : names) {
    if (name == "vpn_server_pptp") fragments.emplace_back("-p 47 ");
    if (name == "vpn_server_ipsec") {
      fragments.emplace_back("-p 50 ");
      fragments.emplace_back("-p 51 ");
    }
  }
}

bool portFragments(const Machine& machine, const FWRULE& rule, Texts& fragments) {
  if (rule.portGroup == 3) fragments.emplace_back("");
  if (rule.portGroup == 1) {
    for (const int protocol :
         rule.protocol == 3 ? std::vector<int>{1, 2} : std::vector<int>{rule.protocol}) {
      addPorts(protocol, rule.portDirect != 0, rule.portList, fragments);
    }
  }
  if (rule.portGroup == 0 || rule.portGroup == 2) {
    if (machine.services.empty()) return false;
    addServices(machine, rule.portList, fragments);
  }
  return true;
}

// --- addresses ---

// A code is part of a file name: "/US" names the file of "US" too.
bool hasRanges(const Machine& machine, const std::string& code, bool ipv6) {
  const std::string ending = ipv6 ? ".iv6" : ".iv4";
  return std::any_of(machine.countries.begin(), machine.countries.end(), [&](const auto& country) {
    const auto& [known, has] = country;
    if (!(ipv6 ? has.second : has.first)) return false;
    std::error_code absent;
    return code == known || (code.find('/') != std::string::npos &&
                             std::filesystem::equivalent(kCountries + code + ending,
                                                         kCountries + known + ending, absent));
  });
}

Texts addressFragments(const Machine& machine, const FWRULE& rule, bool ipv6) {
  const Texts& list = rule.ipList;
  const bool source = rule.ipDirect != 0;
  const std::string direction = source ? "-s " : "-d ";
  if (rule.ipGroup == 5) return {""};
  if (rule.ipGroup == 0 && !list.empty()) return {direction + list[0]};
  if (rule.ipGroup == 1 && list.size() > 1) return {direction + list[0] + "/" + list[1]};
  if (rule.ipGroup == 4 && list.size() > 1) {
    return {(source ? "-m iprange --src-range " : "-m iprange --dst-range ") + list[0] + "-" +
            list[1]};
  }
  if (rule.ipGroup != 3) return {};
  Texts codes;
  for (const std::string& code : list) {
    if (hasRanges(machine, code, ipv6)) codes.push_back(code);
  }
  if (codes.empty()) return {};
  return {(source ? "-m geoip --source-country " : "-m geoip --destination-country ") +
          joined(codes, ",")};
}

// --- one rule ---

bool compileRule(const Machine& machine, const std::string& adapter, const FWRULE& rule,
                 Commands& commands) {
  const Texts interfaces = interfacesFor(machine, adapter);
  if (!rule.enable || adapter == "ppp0" || interfaces.empty() || rule.policy == 2) return true;
  Texts ports;
  if (!portFragments(machine, rule, ports)) return false;
  if (rule.policy != 0 && rule.policy != 1) return false;
  for (const std::string& chain : rule.chainList) {
    for (const bool ipv6 : {false, true}) {
      if (!isFor(rule, ipv6)) continue;
      for (const std::string& interface : interfaces) {
        for (const std::string& address : addressFragments(machine, rule, ipv6)) {
          for (const std::string& port : ports) {
            if (port == (ipv6 ? "-p icmp " : "-p icmpv6 ")) continue;
            std::string line = "-t " + rule.table + " -A " + chain;
            if (!interface.empty()) line += (rule.adapterDirect != 0 ? " -i " : " -o ") + interface;
            if (!address.empty()) line += " " + address;
            if (!port.empty()) line += " " + port;
            Texts& lines = commands[ipv6 ? "v6" : "v4"][adapter];
            if (rule.blLog) lines.push_back(line + " -j LOG");
            lines.push_back(line + (rule.policy == 1 ? " -j DROP" : " -j RETURN"));
          }
        }
      }
    }
  }
  return true;
}

void addPreamble(bool withState, const std::string& exempt, Commands& commands) {
  for (const char* const chain : {"INPUT_FIREWALL", "FORWARD_FIREWALL"}) {
    const std::string head = std::string("-A ") + chain;
    const auto state = [&](int family, const char* name) {
      if (!withState) return;
      const std::string but = isAddress(family, exempt) ? " ! -s " + exempt : "";
      commands[name]["global"].push_back(head + but +
                                         " -m state --state ESTABLISHED,RELATED -j ACCEPT");
    };
    commands["v4"]["global"].push_back(head + " -i lo -j ACCEPT");
    state(AF_INET, "v4");
    commands["v6"]["global"].push_back(head + " -i lo -j ACCEPT");
    for (const char* const type : {"router-solicitation", "router-advertisement"}) {
      commands["v6"]["global"].push_back(head + " -s fe80::/10 -p icmpv6 --icmpv6-type " + type +
                                         " -j ACCEPT");
    }
    for (const char* const type : {"neighbour-solicitation", "neighbour-advertisement"}) {
      commands["v6"]["global"].push_back(head + " -p icmpv6 --icmpv6-type " + type + " -j ACCEPT");
    }
    commands["v6"]["global"].push_back(head +
                                       " -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT");
    state(AF_INET6, "v6");
  }
}

}  // namespace

bool compile(const Machine& machine, const FW::FWPROFILE& profile, bool withState,
             const std::string& exempt, Commands& commands) {
  if (!exempt.empty() && !isAddress(AF_INET, exempt) && !isAddress(AF_INET6, exempt)) return false;
  addPreamble(withState, exempt, commands);
  FW::RuleList work = profile.rules;
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
    if (adapter == "ppp0" || interfacesFor(machine, adapter).empty()) continue;
    FWRULE rule;
    rule.policy = policy;
    rule.ipType = 2;
    rule.ipGroup = 5;
    rule.portGroup = 3;
    work[adapter].push_back(rule);
  }
  for (const auto& [adapter, rules] : work) {
    for (const FWRULE& rule : rules) {
      if (!compileRule(machine, adapter, rule, commands)) return false;
    }
  }
  return true;
}

std::string textOf(const Commands& commands) {
  std::string text;
  for (const auto& [family, adapters] : commands) {
    for (const auto& [adapter, lines] : adapters) {
      for (const std::string& line : lines)
        text.append(family).append(" ").append(adapter).append(": ").append(line).append("\n");
    }
  }
  return text;
}

}  // namespace fuzz
