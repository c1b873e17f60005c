// Which interfaces matter most to a firewall.

#ifndef TARN_PLATFORM_LINUX_INTERFACERANK_H
#define TARN_PLATFORM_LINUX_INTERFACERANK_H

namespace tarnplatform {

// The later the rank, the sooner an interface is left out when there are more than the caller has
// room for.
//   kMachine  the machine's own: hardware, and what is built of it: bonds, teams, bridges, VLANs,
//   wireless kTunnel   ends of virtual links: veth, tun, tap, ppp kOther    any other kind
enum class InterfaceRank { kMachine, kTunnel, kOther };

//   kind      the kernel's name of the link's kind, null for hardware
//   hardware  its ARPHRD_ type
InterfaceRank interfaceRank(const char* kind, unsigned short hardware);

}  // namespace tarnplatform

#endif
