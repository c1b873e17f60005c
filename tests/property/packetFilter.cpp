#include "packetFilter.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <optional>

namespace property {
namespace {

using FW::FWRULE;

// --- addresses ---

// An address as 16 bytes; IPv4 ones are the first four.
using Bytes = std::array<std::uint8_t, 16>;

std::optional<Bytes> parse(Family family, const std::string& text) {
  Bytes bytes = {};
  if (inet_pton(family == kV4 ? AF_INET : AF_INET6, text.c_str(), bytes.data()) != 1) return {};
  return bytes;
}

// "24" or "255.255.255.0".
std::optional<Bytes> parseMask(Family family, const std::string& text) {
  if (text.find_first_not_of("0123456789") != std::string::npos) return parse(family, text);
  const int length = std::stoi(text);
  if (length > (family == kV4 ? 32 : 128)) return {};
  Bytes mask = {};
  for (int bit = 0; bit < length; ++bit) {
    mask[static_cast<std::size_t>(bit / 8)] |= static_cast<std::uint8_t>(0x80U >> (bit % 8));
  }
  return mask;
}

bool inSubnet(const Bytes& address, const Bytes& subnet, const Bytes& mask) {
  for (std::size_t index = 0; index < mask.size(); ++index) {
    if ((address[index] & mask[index]) != (subnet[index] & mask[index])) return false;
  }
  return true;
}

// Does the address match the rule? Nothing when a rule of these addresses is no line of the family:
// because it never is one, or because the tool refuses it.
std::optional<bool> matchesAddress(Family family, const FWRULE& rule, const char* text) {
  const std::vector<std::string>& list = rule.ipList;
  const Bytes address = parse(family, text).value();
  switch (rule.ipGroup) {
    case 0: {
      const auto one = list.empty() ? std::nullopt : parse(family, list[0]);
      if (!one) return {};
      return address == *one;
    }
    case 1: {
      if (list.size() < 2) return {};
      const auto mask = parseMask(family, list[1]);
      if (!mask) return {};
      if (*mask == Bytes{}) return true;  // the tools do not read an address of which no bit counts
      const auto subnet = parse(family, list[0]);
      if (!subnet) return {};
      return inSubnet(address, *subnet, *mask);
    }
    case 4: {
      if (list.size() < 2) return {};
      const auto first = parse(family, list[0]);
      const auto last = parse(family, list[1]);
      if (!first || !last) return {};
      return *first <= address && address <= *last;
    }
    case 5:
      return true;
    default:  // countries have no address ranges here
      return {};
  }
}

// The addresses of `all` that match; nothing when the rule is no line of the family.
template <std::size_t Count>
std::optional<unsigned> matching(Family family, const FWRULE& rule,
                                 const std::array<const char*, Count>& all) {
  unsigned set = 0;
  for (std::size_t index = 0; index < Count; ++index) {
    const auto matches = matchesAddress(family, rule, all[index]);
    if (!matches) return {};
    if (*matches) set |= 1U << index;
  }
  return set;
}

// --- ports and interfaces ---

unsigned indexOf(int port) {
  const auto* const found = std::find(kPorts.begin(), kPorts.end(), port);
  return static_cast<unsigned>(found - kPorts.begin());
}

unsigned portSet(const std::vector<std::string>& ports) {
  unsigned set = 0;
  for (const std::string& text : ports) {
    const std::size_t dash = text.find('-');
    const int first = std::stoi(text);
    const int last = dash == std::string::npos ? first : std::stoi(text.substr(dash + 1));
    for (const int port : kPorts) {
      if (first <= port && port <= last) set |= 1U << indexOf(port);
    }
  }
  return set;
}

// The interfaces that an adapter's rules are compiled for; nothing when they are not compiled.
std::optional<unsigned> interfacesOf(const std::string& adapter) {
  if (adapter == "global") return ~0U;
  if (adapter == kPppoeLink) return {};
  const std::string name = adapter == "vpn" ? "tun0" : adapter == "pppoe" ? kPppoeLink : adapter;
  for (std::size_t index = 0; index < kInterfaces.size(); ++index) {
    if (name == kInterfaces[index]) return 1U << index;
  }
  if (name == kWayOut) return 0;
  return {};
}

FWRULE defaultRule(FW::FW_POLICY policy) {
  FWRULE rule;
  rule.policy = policy;
  rule.ipType = 2;
  rule.ipGroup = 5;
  rule.portGroup = 3;
  return rule;
}

}  // namespace

PacketFilter::PacketFilter(const FW::FWPROFILE& profile) {
  FW::RuleList work = profile.rules;
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
    work[adapter].push_back(defaultRule(policy));
  }
  for (const FWRULE& rule : work["global"]) addRule("global", rule);
  for (const auto& [adapter, rules] : work) {
    if (adapter == "global") continue;
    for (const FWRULE& rule : rules) addRule(adapter, rule);
  }
}

void PacketFilter::addRule(const std::string& adapter, const FWRULE& rule) {
  const auto interfaces = interfacesOf(adapter);
  if (!rule.enable || rule.policy == FW::FW_POLICY_NONE || !interfaces) return;
  if (rule.table != "filter") return;  // its chains are not in another table
  Line line;
  line.passes = rule.policy == FW::FW_POLICY_ALLOW;
  if (rule.adapterDirect != 0) {
    line.interfaces = *interfaces;
  } else if (adapter == kWayOut) {
    line.destinations = 1U << kBehind;
  } else if (adapter != "global") {
    return;  // nothing leaves through it
  }
  for (const Family family : kFamilies) {
    if (rule.ipType != family && rule.ipType != 2) continue;
    Line one = line;
    if (rule.ipDirect != 0) {
      const auto sources = matching(family, rule, kSources[family]);
      if (!sources) continue;
      one.sources = *sources;
    } else {
      const auto destinations = matching(family, rule, kDestinations[family]);
      if (!destinations) continue;
      one.destinations &= *destinations;
    }
    addPorts(family, rule, one);
  }
}

void PacketFilter::addPorts(Family family, const FWRULE& rule, const Line& line) {
  switch (rule.portGroup) {
    case 0:
    case 2:
      for (const std::string& name : rule.portList) {
        const Service* const service = findService(name);
        if (service == nullptr || !service->available) continue;
        addPorts(family, service->sourceProtocol, /*ofSource=*/true, service->sourcePorts, line);
        addPorts(family, service->destinationProtocol, /*ofSource=*/false,
                 service->destinationPorts, line);
      }
      return;
    case 1:
      addPorts(family, rule.protocol, rule.portDirect != 0, rule.portList, line);
      return;
    case 3:
      lines_[family].push_back(line);
      return;
    default:
      return;
  }
}

void PacketFilter::addPorts(Family family, int protocol, bool ofSource,
                            const std::vector<std::string>& ports, Line line) {
  constexpr int kBoth = kTcp | kUdp;
  if (protocol < kTcp || protocol > kBoth || ports.empty()) return;
  line.protocols = static_cast<unsigned>(protocol);
  (ofSource ? line.sourcePorts : line.destinationPorts) = portSet(ports);
  lines_[family].push_back(line);
}

bool PacketFilter::passes(const Packet& packet) const {
  const auto has = [](unsigned set, unsigned index) { return (set >> index & 1U) != 0; };
  const unsigned sourcePort = indexOf(packet.sourcePort);
  const unsigned destinationPort = indexOf(packet.destinationPort);
  for (const Line& line : lines_[packet.family]) {
    if (has(line.interfaces, static_cast<unsigned>(packet.interface)) &&
        has(line.destinations, packet.destination) &&
        has(line.sources, static_cast<unsigned>(packet.source)) &&
        (line.protocols & static_cast<unsigned>(packet.protocol)) != 0 &&
        has(line.sourcePorts, sourcePort) && has(line.destinationPorts, destinationPort)) {
      return line.passes;
    }
  }
  return true;
}

}  // namespace property
