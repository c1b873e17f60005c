#include "wire.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace property {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr char kMachineSpace[] = "";
constexpr std::size_t kBatch = 256;         // the kernel queues a thousand for a processor
constexpr int kPatience = 10000;            // milliseconds
constexpr std::uint16_t kClosing = 0xffff;  // number of a closing packet
constexpr int kUdpHeader = 8;
constexpr int kReceiveBuffer = 4 << 20;  // bytes
constexpr std::size_t kReceiversPerSpace = 4;

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(what + ": " + std::strerror(errno));
}

void run(const std::string& command) {
  if (std::system(command.c_str()) != 0) throw std::runtime_error(command + ": failed");
}

void setOption(const std::string& name, const char* value) {
  std::ofstream file("/proc/sys/net/" + name);
  file << value << std::flush;
  require(file.good(), name);
}

// --- namespaces ---

// Does `work` in a network namespace: a thread enters it alone, and its sockets stay there.
template <class Work>
void inSpace(const std::string& space, Work work) {
  if (space == kMachineSpace) return work();
  std::string trouble;
  std::thread([&] {
    const std::string path = "/run/netns/" + space;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
      trouble = path + ": " + std::strerror(errno);
    } else {
      try {
        work();
      } catch (const std::exception& exception) {
        trouble = exception.what();
      }
    }
    if (fd >= 0) (void)close(fd);
  }).join();
  if (!trouble.empty()) throw std::runtime_error(trouble);
}

struct Hardware {
  int index = 0;
  std::array<std::uint8_t, ETH_ALEN> address = {};
};

// Of an interface of the calling thread's namespace.
Hardware hardwareOf(const std::string& interface) {
  Hardware hardware;
  hardware.index = static_cast<int>(if_nametoindex(interface.c_str()));
  require(hardware.index != 0, interface);
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  std::memcpy(request.ifr_name, interface.c_str(), interface.size() + 1);
  const bool known = fd >= 0 && ioctl(fd, SIOCGIFHWADDR, &request) == 0;
  if (fd >= 0) (void)close(fd);
  require(known, interface);
  std::memcpy(hardware.address.data(), request.ifr_hwaddr.sa_data, ETH_ALEN);
  return hardware;
}

// The host behind the machine is a neighbour for good: nothing waits until it is found.
void knowNeighbour() {
  Hardware host;
  inSpace("lan", [&host] { host = hardwareOf("d0"); });
  char address[18];
  (void)std::snprintf(address, sizeof address, "%02x:%02x:%02x:%02x:%02x:%02x", host.address[0],
                      host.address[1], host.address[2], host.address[3], host.address[4],
                      host.address[5]);
  for (const Family family : kFamilies) {
    run(std::string("ip neigh replace ") + kDestinations[family][kBehind] + " lladdr " + address +
        " dev " + kWayOut + " nud permanent");
  }
}

// --- frames ---

void put16(Bytes& bytes, unsigned value) {
  bytes.push_back(static_cast<std::uint8_t>(value >> 8U));
  bytes.push_back(static_cast<std::uint8_t>(value));
}

void put32(Bytes& bytes, std::uint32_t value) {
  put16(bytes, value >> 16U);
  put16(bytes, value & 0xffffU);
}

Bytes addressBytes(Family family, const char* text) {
  Bytes bytes(family == kV4 ? 4 : 16);
  if (inet_pton(family == kV4 ? AF_INET : AF_INET6, text, bytes.data()) != 1) {
    throw std::runtime_error(text);
  }
  return bytes;
}

// The checksum of all 16-bit words; an even number of bytes.
std::uint16_t checksum(const Bytes& bytes) {
  std::uint32_t sum = 0;
  for (std::size_t index = 0; index + 1 < bytes.size(); index += 2) {
    sum += static_cast<std::uint32_t>(bytes[index] << 8 | bytes[index + 1]);
  }
  while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16U);
  return static_cast<std::uint16_t>(~sum);
}

void set16(Bytes& bytes, std::size_t position, std::uint16_t value) {
  bytes[position] = static_cast<std::uint8_t>(value >> 8U);
  bytes[position + 1] = static_cast<std::uint8_t>(value);
}

// A TCP connection request whose sequence number is `number`, or a UDP datagram that consists of
// it. The checksum is still to be set.
Bytes transport(const Packet& packet, std::uint32_t number) {
  Bytes bytes;
  put16(bytes, static_cast<unsigned>(packet.sourcePort));
  put16(bytes, static_cast<unsigned>(packet.destinationPort));
  if (packet.protocol == kTcp) {
    put32(bytes, number);
    put32(bytes, 0);
    put16(bytes, 0x5002);  // header of five words, SYN
    put16(bytes, 65535);
    put32(bytes, 0);
  } else {
    put16(bytes, kUdpHeader + sizeof number);
    put16(bytes, 0);
    put32(bytes, number);
  }
  return bytes;
}

Bytes ipPacket(const Packet& packet, std::uint32_t number) {
  constexpr std::uint8_t kHops = 64;
  const Bytes from = addressBytes(packet.family, kSources[packet.family][packet.source]);
  const Bytes to = addressBytes(packet.family, kDestinations[packet.family][packet.destination]);
  const std::uint8_t protocol = packet.protocol == kTcp ? IPPROTO_TCP : IPPROTO_UDP;

  Bytes payload = transport(packet, number);
  Bytes sum = from;
  sum.insert(sum.end(), to.begin(), to.end());
  put16(sum, protocol);
  put16(sum, static_cast<unsigned>(payload.size()));
  sum.insert(sum.end(), payload.begin(), payload.end());
  set16(payload, packet.protocol == kTcp ? 16 : 6, checksum(sum));

  Bytes bytes;
  if (packet.family == kV4) {
    put16(bytes, 0x4500);
    put16(bytes, static_cast<unsigned>(20 + payload.size()));
    put32(bytes, 0);
    put16(bytes, static_cast<unsigned>(kHops << 8 | protocol));
    put16(bytes, 0);
  } else {
    put32(bytes, 0x60000000);
    put16(bytes, static_cast<unsigned>(payload.size()));
    put16(bytes, static_cast<unsigned>(protocol << 8 | kHops));
  }
  bytes.insert(bytes.end(), from.begin(), from.end());
  bytes.insert(bytes.end(), to.begin(), to.end());
  if (packet.family == kV4) set16(bytes, 10, checksum(bytes));
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

// The number of a packet that came in; a raw socket of IPv4 shows the header of the network too.
std::uint32_t numberOf(const std::uint8_t* data, std::size_t size, bool v4, bool tcp) {
  const std::size_t header = v4 && size > 0 ? static_cast<std::size_t>(data[0] & 0x0f) * 4 : 0;
  const std::size_t position = header + (tcp ? 4 : kUdpHeader);
  if (size < position + sizeof(std::uint32_t)) return 0;
  std::uint32_t number = 0;
  std::memcpy(&number, data + position, sizeof number);
  return ntohl(number);
}

}  // namespace

Wire::Wire() {
  run("ip link add ppp0 index 14 type veth peer name p0 netns road");
  run("ip link set ppp0 up && ip -n road link set p0 up");
  run("mkdir -p /run/tarn && echo ppp0 >/run/tarn/pppoe_interface");
  for (const char* interface : {"all", "default", "eth0", "eth1", "tun0", "ppp0"}) {
    setOption(std::string("ipv4/conf/") + interface + "/rp_filter", "0");
  }
  knowNeighbour();

  cpu_set_t processor;
  CPU_ZERO(&processor);
  CPU_SET(sched_getcpu(), &processor);
  require(sched_setaffinity(0, sizeof processor, &processor) == 0, "sched_setaffinity");

  senders_ = {openSender("eth0", "client", "c0"), openSender("tun0", "road", "t0"),
              openSender("ppp0", "road", "p0")};
  openReceivers(kMachineSpace);
  openReceivers("lan");
}

Wire::~Wire() {
  for (const Sender& sender : senders_) (void)close(sender.socket);
  for (const int receiver : receivers_) (void)close(receiver);
}

Wire::Sender Wire::openSender(const char* interface, const char* space, const char* peer) {
  Sender sender;
  const Hardware receiver = hardwareOf(interface);
  inSpace(space, [&] {
    const Hardware own = hardwareOf(peer);
    sender.index = own.index;
    std::copy(receiver.address.begin(), receiver.address.end(), sender.hardware.begin());
    std::copy(own.address.begin(), own.address.end(), sender.hardware.begin() + ETH_ALEN);
    sender.socket = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    require(sender.socket >= 0, "packet socket");
  });
  return sender;
}

void Wire::openReceivers(const std::string& space) {
  inSpace(space, [this] {
    for (const int family : {AF_INET, AF_INET6}) {
      for (const int protocol : {IPPROTO_TCP, IPPROTO_UDP}) {
        const int fd = socket(family, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol);
        require(fd >= 0, "raw socket");
        receivers_.push_back(fd);
        require(
            setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer) == 0,
            "SO_RCVBUFFORCE");
      }
    }
  });
}

void Wire::send(const Packet& packet, std::uint16_t position) {
  const Sender& sender = senders_[packet.interface];
  Bytes frame(sender.hardware.begin(), sender.hardware.end());
  put16(frame, packet.family == kV4 ? ETH_P_IP : ETH_P_IPV6);
  const Bytes packetBytes = ipPacket(packet, static_cast<std::uint32_t>(batch_) << 16U | position);
  frame.insert(frame.end(), packetBytes.begin(), packetBytes.end());
  sockaddr_ll to = {};
  to.sll_family = AF_PACKET;
  to.sll_ifindex = sender.index;
  const ssize_t sent = sendto(sender.socket, frame.data(), frame.size(), 0,
                              reinterpret_cast<const sockaddr*>(&to), sizeof to);
  require(sent == static_cast<ssize_t>(frame.size()), "send");
}

void Wire::closeBatch(std::size_t interface, std::vector<bool>& passed) {
  for (const Destination destination : {kMachine, kBehind}) {
    Packet packet;
    packet.interface = interface;
    packet.destination = destination;
    packet.protocol = kUdp;
    packet.sourcePort = kClosingPort;
    packet.destinationPort = kClosingPort;
    send(packet, kClosing);
  }
  std::array<bool, 2> closed = {};
  while (!closed[kMachine] || !closed[kBehind]) {
    std::vector<pollfd> events;
    for (const int receiver : receivers_) events.push_back({receiver, POLLIN, 0});
    const int ready = poll(events.data(), events.size(), kPatience);
    require(ready >= 0 || errno == EINTR, "poll");
    if (ready == 0) throw std::runtime_error("a closing packet got lost");
    // All of them: what another socket has got before a closing packet counts as well.
    for (std::size_t index = 0; index < receivers_.size(); ++index) receive(index, closed, passed);
  }
  ++batch_;
}

void Wire::receive(std::size_t receiver, std::array<bool, 2>& closed, std::vector<bool>& passed) {
  const std::size_t kind = receiver % kReceiversPerSpace;
  const Destination destination = receiver < kReceiversPerSpace ? kMachine : kBehind;
  std::array<std::uint8_t, 2048> data;
  for (;;) {
    const ssize_t size = recv(receivers_[receiver], data.data(), data.size(), 0);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return require(errno == EAGAIN, "recv");
    const std::uint32_t number = numberOf(data.data(), static_cast<std::size_t>(size),
                                          /*v4=*/kind < 2, /*tcp=*/kind % 2 == 0);
    if (number >> 16U != batch_) continue;
    const std::uint16_t position = number & 0xffffU;
    if (position == kClosing) {
      closed[destination] = true;
    } else if (position < passed.size() && allPackets()[position].destination == destination) {
      passed[position] = true;
    }
  }
}

std::vector<bool> Wire::passed(unsigned interfaces) {
  const std::vector<Packet>& packets = allPackets();
  std::vector<bool> passed(packets.size());
  std::size_t inBatch = 0;
  for (std::size_t position = 0; position < packets.size(); ++position) {
    const Packet& packet = packets[position];
    if ((interfaces >> packet.interface & 1U) == 0) continue;
    send(packet, static_cast<std::uint16_t>(position));
    const bool isLastThere =
        position + 1 == packets.size() || packets[position + 1].interface != packet.interface;
    if (++inBatch < kBatch && !isLastThere) continue;
    closeBatch(packet.interface, passed);
    inBatch = 0;
  }
  return passed;
}

}  // namespace property
