#include "truth.h"

#include <vector>

namespace property {

const char* nameOf(Truth truth) {
  switch (truth) {
    case Truth::kAllPass:
      return "all pass";
    case Truth::kNonePasses:
      return "none passes";
    case Truth::kBySource:
      return "it depends on the source";
    case Truth::kByOther:
      return "it depends, but not on the source";
  }
  return "";
}

std::optional<std::size_t> interfaceOf(const std::string& adapter) {
  const std::string name = adapter == "vpn" ? "tun0" : adapter == "pppoe" ? kPppoeLink : adapter;
  for (std::size_t index = 0; index < kInterfaces.size(); ++index) {
    if (name == kInterfaces[index]) return index;
  }
  return {};
}

Truth truthOf(const Query& query, const std::string& adapter,
              const std::function<bool(std::size_t)>& passes) {
  const std::optional<std::size_t> interface = interfaceOf(adapter);
  const PortRange range = rangeOf(query.port.port);
  const bool ofSource = query.port.portDirect == 1;
  const auto isAsked = [&](const Packet& packet) {
    const int port = ofSource ? packet.sourcePort : packet.destinationPort;
    return interface == packet.interface &&
           (static_cast<int>(query.port.protocol) & static_cast<int>(packet.protocol)) != 0 &&
           range.first <= port && port <= range.last;
  };

  bool anyPasses = false;
  bool anyIsStopped = false;
  const std::vector<Packet>& packets = allPackets();
  for (std::size_t group = 0; group < packets.size(); group += kSendersPerPacket) {
    if (!isAsked(packets[group])) continue;
    bool passesForSome = false;
    bool isStoppedForSome = false;
    for (std::size_t sender = 0; sender < kSendersPerPacket; ++sender) {
      (passes(group + sender) ? passesForSome : isStoppedForSome) = true;
    }
    if (passesForSome && isStoppedForSome) return Truth::kBySource;
    anyPasses = anyPasses || passesForSome;
    anyIsStopped = anyIsStopped || isStoppedForSome;
  }
  if (anyPasses && anyIsStopped) return Truth::kByOther;
  return anyPasses ? Truth::kAllPass : Truth::kNonePasses;
}

bool agrees(int verdict, Truth truth) {
  switch (verdict) {
    case kAllowed:
    case kUndecided:
      return truth == Truth::kAllPass;
    case kBlocked:
      return truth == Truth::kNonePasses;
    case kPartly:
      return truth == Truth::kBySource;
    default:
      return false;
  }
}

}  // namespace property
