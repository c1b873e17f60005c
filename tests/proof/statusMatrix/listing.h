// What the packet filter holds, as its tools list it.

#ifndef TARNFW_TESTS_PROOF_LISTING_H
#define TARNFW_TESTS_PROOF_LISTING_H

#include <string>

namespace proof {

struct Listing {
  std::string policies;  // "iptables INPUT ACCEPT FORWARD ACCEPT ip6tables INPUT ACCEPT ..."

  // How many rules the library has put into each chain: "iptables FIREWALL_RELOADING 0
  // INPUT_FIREWALL 7 FORWARD_FIREWALL 7 ip6tables ...". Those of the base chains do not count.
  std::string rules;
};

Listing listing();

}  // namespace proof

#endif
