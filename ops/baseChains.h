// The base chains that the library needs in the filter tables of both families. A machine that has
// none of them gets, in this order:
//
//   -N FIREWALL_RELOADING
//   -N INPUT_FIREWALL
//   -N FORWARD_FIREWALL
//   -I FIREWALL_RELOADING 1 -i lo -j ACCEPT
//   -I FIREWALL_RELOADING 2 -m state --state INVALID -j RETURN
//   -I INPUT 1 -j FIREWALL_RELOADING
//   -I INPUT 2 -j INPUT_FIREWALL
//   -I FORWARD 1 -j FIREWALL_RELOADING
//   -I FORWARD 2 -j FORWARD_FIREWALL
//
// The first rule keeps loopback alive in a drop period. The second changes no packet's way, but
// has the kernel track connections from now on, so that open ones survive the first enabling.
//
// What is there already stays where it is, save that FIREWALL_RELOADING comes before the firewall's
// chain: while that one is being rebuilt, its half of the rules must not see open connections.

#ifndef TARNFW_OPS_BASECHAINS_H
#define TARNFW_OPS_BASECHAINS_H

#include <string>
#include <vector>

#include "liveRules.h"
#include "packetFilter.h"

namespace ops {

// The commands that give `rules` what it lacks; none when it has all.
std::vector<Command> baseChainCommands(Family family, const LiveRules& rules);

// How setting up went.
//   commands  what was run, or would be
//   errors    what keeps the base chains from being complete; empty after success
//   busy      another program held the lock for 30 seconds
struct BaseChains {
  std::vector<Command> commands;
  std::vector<std::string> errors;
  bool busy = false;
};

// Makes what is missing, under the lock /run/tarn/base_chains.lock. Running it again, or several at
// once, changes nothing more.
BaseChains setUpBaseChains();

// What setUpBaseChains() would run now.
BaseChains planBaseChains();

}  // namespace ops

#endif
