// The machine that the tests of the road work on: base chains, seed files, and what there is to see
// of the packet filter, the settings and the system log.

#ifndef TARNFW_TESTS_ROAD_MACHINE_H
#define TARNFW_TESTS_ROAD_MACHINE_H

#include <string>

#include <gtest/gtest.h>

#include "tarnfirewall_records.h"

namespace road {

// What the command prints, on both outputs; "(exit N)" follows when it fails.
std::string output(const std::string& command);

// Both families: policies ACCEPT and the three chains as a stock system has them,
// FIREWALL_RELOADING with its two permanent rules and first among the jumps. Nothing else is left
// in the filter tables.
void makeBaseChains();

// Removes what an earlier test left in the profile directory, the lock directories and /tmp, and
// installs the shipped service table, module list, model file and seed profile.
void installSeedFiles();

// The three chains of one family, as the tool (iptables, ip6tables) prints them.
std::string chains(const std::string& tool);

// The same if the firewall chains hold the preamble and then `lines` ("-A FORWARD_FIREWALL ...",
// one a line, the order between the two chains does not matter).
std::string chainsWithPreambleV4(const std::string& lines);
std::string chainsWithPreambleV6(const std::string& lines);

// The same if they are empty.
extern const char kEmptyChains[];

// The built-in policies: "iptables INPUT ACCEPT FORWARD ACCEPT ip6tables INPUT ACCEPT FORWARD
// ACCEPT".
std::string policies();
extern const char kOpenPolicies[];

// The errors of the library's modules in the system log, one a line, without line numbers (except
// the compiler's); the platform's own are left out. Waits until they are `expected`, some seconds
// at most.
std::string libraryLog(const std::string& expected);

// "status" of the settings: "on", "off", or the document when it has neither.
std::string status();

// True when the execution lock can be taken at once.
bool executionLockIsFree();

// Base chains, seed files, and a profile named "road" that is active. Expects at the end that
// nothing holds the execution lock.
class RoadTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Stores `profile` as the active one.
  static void store(FW::FWPROFILE profile);
};

}  // namespace road

#endif
