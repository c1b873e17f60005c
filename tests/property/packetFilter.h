// What a loaded profile does with a packet, worked out from the rules: INPUT_FIREWALL and
// FORWARD_FIREWALL hold the lines of "global", then those of the other adapters in name order, each
// adapter's default policy as its last line; the first line that fits decides, and what reaches the
// end passes.

#ifndef TARNFW_TESTS_PROPERTY_PACKETFILTER_H
#define TARNFW_TESTS_PROPERTY_PACKETFILTER_H

#include <array>
#include <string>
#include <vector>

#include "network.h"
#include "tarnfirewall_records.h"

namespace property {

class PacketFilter {
 public:
  explicit PacketFilter(const FW::FWPROFILE& profile);

  bool passes(const Packet& packet) const;

 private:
  // A line of one family. Sets are bit masks over the arrays of network.h; -1 is everything.
  struct Line {
    unsigned interfaces = ~0U;
    unsigned destinations = ~0U;
    unsigned sources = ~0U;
    unsigned protocols = ~0U;  // bit 1 tcp, bit 2 udp
    unsigned sourcePorts = ~0U;
    unsigned destinationPorts = ~0U;
    bool passes = false;
  };

  void addRule(const std::string& adapter, const FW::FWRULE& rule);
  void addPorts(Family family, const FW::FWRULE& rule, const Line& line);
  void addPorts(Family family, int protocol, bool ofSource, const std::vector<std::string>& ports,
                Line line);

  std::array<std::vector<Line>, 2> lines_;
};

}  // namespace property

#endif
