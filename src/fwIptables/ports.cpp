// Ports into fragments: "-p tcp --dport 22", "-p udp -m multiport --sports 67,68". Ports come from
// the rule or, by service name, from the platform's service database.

#include <algorithm>
#include <array>

#include <boost/lexical_cast.hpp>

#include "../constants.h"
#include "module.h"
#include "services.h"

namespace FW {
namespace {

// Ports to a multiport match, which has room for fifteen; a range takes two.
constexpr std::size_t kPortsPerMatch = 7;

constexpr char kIgmpFragment[] = "-p igmp ";

// IP protocols that a VPN server needs besides its ports.
struct ServiceProtocols {
  const char* service;           // null ends the table
  std::array<int, 4> protocols;  // 0 ends the row
};

constexpr ServiceProtocols vpnServiceProtocols[] = {
    {"vpn_server_pptp", {47}},       // GRE
    {"vpn_server_ipsec", {50, 51}},  // ESP, AH
    {nullptr, {}},
};

std::vector<const char*> protocolNames(FW_PORT_PROTOCOL protocol) {
  switch (protocol) {
    case FW_PROTO_TCP:
      return {"tcp"};
    case FW_PROTO_UDP:
      return {"udp"};
    case FW_PROTO_TCP_UDP:
      return {"tcp", "udp"};
    case FW_PROTO_ICMP:
    case FW_PROTO_IGMP:
      break;
  }
  return {};
}

bool isRange(const std::string& port) { return port.find('-') != std::string::npos; }

// "5000-5000" is one port.
std::string collapsed(const std::string& port) {
  const std::size_t dash = port.find('-');
  if (dash == std::string::npos) return port;
  const std::string first = port.substr(0, dash);
  return first == port.substr(dash + 1) ? first : port;
}

// One match for ports[begin..end), with ranges written as the tool takes them.
std::string portGroup(const std::vector<std::string>& ports, std::size_t begin, std::size_t end) {
  std::string text = collapsed(ports[begin]);
  for (std::size_t index = begin + 1; index < end; ++index) {
    text.append(",").append(collapsed(ports[index]));
  }
  std::replace(text.begin(), text.end(), '-', ':');
  return text;
}

void appendPorts(const TLIBCSZLIST* list, std::vector<std::string>& ports) {
  for (int index = 0; index < list->count; ++index) {
    ports.emplace_back(TLIBCSzListGet(list, index));
  }
}

void appendVpnProtocols(const std::string& service, Json::Value& fragments) {
  for (const ServiceProtocols* row = vpnServiceProtocols; row->service != nullptr; ++row) {
    if (service != row->service) continue;
    for (const int protocol : row->protocols) {
      if (protocol == 0) break;
      fragments.append("-p " + boost::lexical_cast<std::string>(protocol) + " ");
    }
  }
}

}  // namespace

TARNFW_IPTABLES_RULES::~TARNFW_IPTABLES_RULES() {
  if (serviceList != nullptr) TARNFwServiceFree(serviceList);
}

void protoPortsToIptablesArg(FW_PORT_PROTOCOL protocol, std::int32_t direction,
                             const std::vector<std::string>& ports, Json::Value& args) {
  Json::Value& fragments = args[kArgPort];
  if (protocol == FW_PROTO_ICMP) {
    fragments.append(kIcmpFragment);
    fragments.append(kIcmpv6Fragment);
    return;
  }
  if (protocol == FW_PROTO_IGMP) {
    fragments.append(kIgmpFragment);
    return;
  }
  if (ports.empty()) return;
  const bool single = ports.size() < 2 && !isRange(ports.front());
  const bool destination = direction == kDestinationPorts;
  const std::string option =
      single ? (destination ? "--dport " : "--sport ")
             : (destination ? "-m multiport --dports " : "-m multiport --sports ");
  for (const char* name : protocolNames(protocol)) {
    const std::string prefix = std::string("-p ") + name + " " + option;
    for (std::size_t begin = 0; begin < ports.size(); begin += kPortsPerMatch) {
      const std::size_t end = std::min(begin + kPortsPerMatch, ports.size());
      fragments.append(prefix + portGroup(ports, begin, end));
    }
  }
}

bool TARNFW_IPTABLES_RULES::servToPorts(const std::vector<std::string>& services, ServPort& out) {
  if (serviceList == nullptr && TARNFwServiceEnum(&serviceList) <= 0) {
    return at(427).fail("Failed to enum services");
  }
  for (const std::string& service : services) {
    const TARNFW_SERVICE* record = TARNFWServiceFind(serviceList, service.c_str());
    if (record == nullptr || record->available == 0) continue;
    if (record->srcPorts != nullptr && record->srcPorts->count > 0) {
      appendPorts(record->srcPorts,
                  out.srcPorts[static_cast<FW_PORT_PROTOCOL>(record->srcProtocol)]);
    }
    if (record->dstPorts != nullptr && record->dstPorts->count > 0) {
      appendPorts(record->dstPorts,
                  out.dstPorts[static_cast<FW_PORT_PROTOCOL>(record->dstProtocol)]);
    }
  }
  return true;
}

bool TARNFW_IPTABLES_RULES::servPortToCmd(const std::vector<std::string>& services,
                                          Json::Value& args) {
  ServPort ports;
  if (!servToPorts(services, ports)) return at(480).fail("Failed to servToPorts()");
  for (const auto& [protocol, list] : ports.srcPorts) {
    if (!list.empty()) protoPortsToIptablesArg(protocol, kSourcePorts, list, args);
  }
  for (const auto& [protocol, list] : ports.dstPorts) {
    if (!list.empty()) protoPortsToIptablesArg(protocol, kDestinationPorts, list, args);
  }
  for (const std::string& service : services) appendVpnProtocols(service, args[kArgPort]);
  return true;
}

}  // namespace FW
