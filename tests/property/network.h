// The network that the property is tried on: a machine with three interfaces that packets arrive
// on, one that they leave through, and the addresses they come from and go to.
//
//   eth0  eth1  tun0  ppp0 (the PPPoE link)
//
// Few of each, chosen so that every way in which a rule can name addresses and ports tells some of
// them apart.

#ifndef TARNFW_TESTS_PROPERTY_NETWORK_H
#define TARNFW_TESTS_PROPERTY_NETWORK_H

#include <array>
#include <string>
#include <vector>

namespace property {

enum Family { kV4 = 0, kV6 = 1 };
inline constexpr std::array<Family, 2> kFamilies = {kV4, kV6};

// The numbers that rules and queries use.
enum Protocol { kTcp = 1, kUdp = 2 };
inline constexpr std::array<Protocol, 2> kProtocols = {kTcp, kUdp};

// Where packets arrive.
inline constexpr std::array<const char*, 3> kInterfaces = {"eth0", "tun0", "ppp0"};

// Where they leave when they are not for the machine itself.
inline constexpr char kWayOut[] = "eth1";

inline constexpr char kPppoeLink[] = "ppp0";

// Three senders of one subnet and one from far away, in each family.
inline constexpr std::size_t kSourceCount = 4;
inline constexpr std::array<std::array<const char*, kSourceCount>, 2> kSources = {
    {{"10.77.0.2", "10.77.0.70", "10.77.0.200", "198.51.100.9"},
     {"fd77::2", "fd77::70", "fd77::200", "2001:db8::9"}}};

// The machine itself, and a host behind it.
enum Destination { kMachine = 0, kBehind = 1 };
inline constexpr std::array<std::array<const char*, 2>, 2> kDestinations = {
    {{"10.77.0.1", "10.78.0.2"}, {"fd77::1", "fd78::2"}}};

// The ports that rules and queries name, and one that none of them does.
inline constexpr std::array<int, 6> kPorts = {21, 22, 23, 24, 25, 40};

// Packets differ in nothing else.
struct Packet {
  std::size_t interface = 0;  // index of kInterfaces
  Destination destination = kMachine;
  Family family = kV4;
  std::size_t source = 0;  // index of kSources[family]
  Protocol protocol = kTcp;
  int sourcePort = 0;
  int destinationPort = 0;
};

// Every packet there can be. Those that differ in nothing but their source follow one another.
const std::vector<Packet>& allPackets();
inline constexpr std::size_t kSendersPerPacket = kFamilies.size() * kSourceCount;

// "eth0 tcp 10.77.0.2:21 > 10.77.0.1:22"
std::string describe(const Packet& packet);

// A service of the machine's table.
struct Service {
  const char* name;
  bool available;
  int sourceProtocol;  // 0: no source ports
  std::vector<std::string> sourcePorts;
  int destinationProtocol;  // 0: no destination ports
  std::vector<std::string> destinationPorts;
};

const std::vector<Service>& services();

// The service called `name`, or null.
const Service* findService(const std::string& name);

}  // namespace property

#endif
