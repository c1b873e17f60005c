#include "interfaceRank.h"

#include <net/if_arp.h>
#include <string.h>

namespace tarnplatform {

InterfaceRank interfaceRank(const char* kind, unsigned short hardware) {
  static constexpr struct {
    const char* kind;
    InterfaceRank rank;
  } kKinds[] = {
      {"bond", InterfaceRank::kMachine}, {"bridge", InterfaceRank::kMachine},
      {"team", InterfaceRank::kMachine}, {"vlan", InterfaceRank::kMachine},
      {"wlan", InterfaceRank::kMachine}, {"veth", InterfaceRank::kTunnel},
      {"tun", InterfaceRank::kTunnel},   {"tap", InterfaceRank::kTunnel},
      {"ppp", InterfaceRank::kTunnel},
  };
  if (kind == nullptr) {
    const bool isTunnel = hardware == ARPHRD_PPP || hardware == ARPHRD_NONE;
    return isTunnel ? InterfaceRank::kTunnel : InterfaceRank::kMachine;
  }
  for (const auto& row : kKinds) {
    if (strcmp(row.kind, kind) == 0) {
      return row.rank;
    }
  }
  return InterfaceRank::kOther;
}

}  // namespace tarnplatform
