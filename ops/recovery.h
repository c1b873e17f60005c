// Undoes what a reload that was killed left behind. Between drop set and accept set the INPUT and
// FORWARD policies are DROP, and FIREWALL_RELOADING has one more rule, the mark. A machine left
// like that takes no new connection until somebody opens the policies, and the next reload leaves
// the mark in place.
//
// DROP policies without a mark are somebody else's and stay. The one moment in which a killed
// reload has closed a policy and set no mark yet is covered for the reloads that lifecycle.h
// starts: it records in /run/tarn/open_policies.json which policies were open before.

#ifndef TARNFW_OPS_RECOVERY_H
#define TARNFW_OPS_RECOVERY_H

#include <cstddef>
#include <string>
#include <vector>

#include "liveRules.h"
#include "packetFilter.h"

namespace ops {

// What was found and what was done about it.
//   marks     how many copies of the mark were found
//   commands  what was run, or is to be run
//   errors    what could not be read or undone; empty after success
struct Recovery {
  std::size_t marks = 0;
  std::vector<Command> commands;
  std::vector<std::string> errors;
};

// The commands that open the policies and remove every mark. Policies come first: should this be
// interrupted too, the mark is still there to tell.
//   record  what openPolicies() gave when a supervised reload began
std::vector<Command> recoveryCommands(const LiveFilter& filter,
                                      const std::vector<std::string>& record);

// The built-in policies of `filter` that are ACCEPT: "v4 INPUT", "v6 FORWARD".
std::vector<std::string> openPolicies(const LiveFilter& filter);

// The record: written before a supervised reload, removed after it.
bool writeOpenPolicies(const std::vector<std::string>& policies);
std::vector<std::string> recordedOpenPolicies();
void forgetOpenPolicies();

// Looks, and undoes what is to be undone. The caller holds the execution lock, as a reload that
// lives does for as long as its mark is there, and forgets the record when no tool of the killed
// reload can run any more.
//   filter  what the filter tables hold afterwards
Recovery recover(LiveFilter& filter);

// What recover() would run now.
Recovery planRecovery();

}  // namespace ops

#endif
