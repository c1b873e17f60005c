// Real packets. They are put on the wire as they are, so that a sender needs no address of its own,
// and looked for behind the packet filter: on raw sockets, which get whatever INPUT or FORWARD has
// let through, whether anybody listens or not.
//
// Nothing is waited for in vain. A closing packet that the filter always lets through follows each
// batch; the sending thread stays on one processor, which handles packets in the order they were
// sent, so that once the closing packet is there, everything else that passed is there too.

#ifndef TARNFW_TESTS_PROPERTY_WIRE_H
#define TARNFW_TESTS_PROPERTY_WIRE_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "network.h"

namespace property {

// The destination port of closing packets.
inline constexpr int kClosingPort = 9;

class Wire {
 public:
  // The network of tarn-sandbox --network, to which the PPPoE link is added.
  Wire();
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  // Sends the packets of allPackets() that arrive on the interfaces chosen, and answers which of
  // them passed, by their position there.
  //   interfaces  a bit for each of kInterfaces
  std::vector<bool> passed(unsigned interfaces);

 private:
  // The other end of an interface, from which packets are sent.
  struct Sender {
    int socket = -1;
    int index = 0;                               // of the sending interface
    std::array<std::uint8_t, 12> hardware = {};  // receiver's and sender's address
  };

  Sender openSender(const char* interface, const char* space, const char* peer);
  void openReceivers(const std::string& space);
  void send(const Packet& packet, std::uint16_t position);
  // Ends a batch: receives until its closing packets are there.
  void closeBatch(std::size_t interface, std::vector<bool>& passed);
  // Takes what one receiver has got.
  void receive(std::size_t receiver, std::array<bool, 2>& closed, std::vector<bool>& passed);

  std::array<Sender, kInterfaces.size()> senders_;
  std::vector<int> receivers_;  // the machine's, the host's: tcp and udp over IPv4, then over IPv6
  std::uint16_t batch_ = 0;     // tells the packets of one batch from those of others
};

}  // namespace property

#endif
