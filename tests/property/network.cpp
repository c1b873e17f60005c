#include "network.h"

#include <algorithm>

namespace property {
namespace {

std::vector<Packet> makeAllPackets() {
  std::vector<Packet> packets;
  for (std::size_t interface = 0; interface < kInterfaces.size(); ++interface) {
    for (const Destination destination : {kMachine, kBehind}) {
      for (const Protocol protocol : kProtocols) {
        for (const int sourcePort : kPorts) {
          for (const int destinationPort : kPorts) {
            for (const Family family : kFamilies) {
              for (std::size_t source = 0; source < kSourceCount; ++source) {
                packets.push_back({interface, destination, family, source, protocol, sourcePort,
                                   destinationPort});
              }
            }
          }
        }
      }
    }
  }
  return packets;
}

std::string endpoint(const std::string& address, int port) {
  const bool v6 = address.find(':') != std::string::npos;
  return (v6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

}  // namespace

const std::vector<Packet>& allPackets() {
  static const std::vector<Packet> packets = makeAllPackets();
  return packets;
}

std::string describe(const Packet& packet) {
  return std::string(kInterfaces[packet.interface]) + " " +
         (packet.protocol == kTcp ? "tcp " : "udp ") +
         endpoint(kSources[packet.family][packet.source], packet.sourcePort) + " > " +
         endpoint(kDestinations[packet.family][packet.destination], packet.destinationPort);
}

const std::vector<Service>& services() {
  static const std::vector<Service> table = {{"tcp21", true, 0, {}, 1, {"21"}},
                                             {"udp22", true, 0, {}, 2, {"22"}},
                                             {"both23", true, 0, {}, 3, {"23"}},
                                             {"tcp21to23", true, 0, {}, 1, {"21-23"}},
                                             {"tcp21and25", true, 0, {}, 1, {"21", "25"}},
                                             {"from24", true, 1, {"24"}, 0, {}},
                                             {"udp21to22", true, 2, {"21"}, 2, {"22"}},
                                             {"gone", false, 0, {}, 1, {"25"}}};
  return table;
}

const Service* findService(const std::string& name) {
  const std::vector<Service>& table = services();
  const auto found = std::find_if(table.begin(), table.end(),
                                  [&name](const Service& service) { return service.name == name; });
  return found == table.end() ? nullptr : &*found;
}

}  // namespace property
