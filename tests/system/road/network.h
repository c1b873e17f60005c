// Real packets between the host and the neighbours that tarn-sandbox --network makes: the
// namespaces client (on eth0), lan (on eth1) and road (on tun0, IPv4 only).

#ifndef TARNFW_TESTS_ROAD_NETWORK_H
#define TARNFW_TESTS_ROAD_NETWORK_H

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace road {

// A socket in the namespace `space` ("client", "lan", "road"; "host" is ours). The caller closes
// it.
int socketIn(const std::string& space, int family, int type, int protocol);

// Answers in host, client and lan until it goes out of scope: TCP 22, 80 and 443, UDP 53 and 123;
// what comes is sent back, over both families.
class Servers {
 public:
  Servers();
  ~Servers();
  Servers(const Servers&) = delete;
  Servers& operator=(const Servers&) = delete;

 private:
  void listen(const std::string& space);
  void serve();

  int poll_ = -1;
  int stop_ = -1;
  std::vector<int> sockets_;
  std::thread thread_;
};

// Who reaches whom, one line for each path, with what got an answer:
//
//   client > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping
//   lan    > client  v4 -  v6 ping
//
// Everything is tried at once, each time with a connection of its own. An attempt that a reject
// answers shows as "tcp22(refused)". Gives up waiting for answers that `expected` names after a few
// seconds, and for others after a fraction of one: a dropped packet shows by the time that passes.
std::string whoReachesWhom(const std::string& expected);

// The same, if everybody reaches everybody.
extern const char kEverybodyReachesEverybody[];

// A TCP connection to a Servers port.
class Conversation {
 public:
  Conversation(const std::string& space, const std::string& address, std::uint16_t port);
  ~Conversation();
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  // Does what is said come back? Waits a few seconds: the kernel repeats what is lost.
  bool answers();

  // Does nothing come back, although the kernel has repeated what was said?
  bool isDead();

 private:
  int socket_ = -1;
};

// One UDP datagram, answered or not.
bool udpAnswers(const std::string& space, const std::string& address, std::uint16_t port);

}  // namespace road

#endif
