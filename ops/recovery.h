// Undoes what a reload that was killed left behind. Between drop set and accept set the INPUT and
// FORWARD policies are DROP, and FIREWALL_RELOADING has one more rule, the mark. A machine left
// like that takes no new connection until somebody opens the policies, and the next reload leaves
// the mark in place.
//
// DROP policies without a mark are somebody else's and stay. The one moment in which a killed
// reload has closed a policy and set no mark yet is covered by what the platform notes of each
// policy that it has closed (linux/closedPolicies.h), whatever program the reload ran in. For the
// reloads that lifecycle.h starts there is, on any platform, the record that each worker keeps:
// which policies were open before it,
// /run/tarn/open_policies.PID.START.json, named after the worker's process. It holds at any time:
//
//   - Who has closed a policy has a record, or holds the execution lock and lives.
//   - A record is written before its worker closes a policy, and removed by the worker when it has
//     opened them again, or did not get the lock and so closed none. It outlives a worker that is
//     killed, or that cannot tell.
//   - So to one who holds the execution lock, the records of dead workers and its own tell whose a
//     DROP policy is. A living worker without the lock has closed nothing; its record does not
//     count and is not touched.
//   - The record of a dead worker goes when the policies are open and no tool that the worker has
//     left behind can close one any more.

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
// interrupted too, the mark is still there to tell. Of a family that could not be read, the
// policies that the record names are opened unseen: for all we know they are closed.
//   record  what openPolicies() gave when a supervised reload began
std::vector<Command> recoveryCommands(const LiveFilter& filter,
                                      const std::vector<std::string>& record);

// The built-in policies of `filter` that are ACCEPT: "v4 INPUT", "v6 FORWARD".
std::vector<std::string> openPolicies(const LiveFilter& filter);

// The record of the calling process, the worker: written before its reload, removed after it.
bool writeOpenPolicies(const std::vector<std::string>& policies);
void forgetOpenPolicies();

// What the records that count name, to one who holds the execution lock, and the policies that the
// platform has noted as closed by us.
std::vector<std::string> recordedOpenPolicies();

// Looks, and undoes what is to be undone. The caller holds the execution lock, as a reload that
// lives does for as long as its mark is there. A family that cannot be read is an error, and keeps
// nothing shut in the other one. After success, the records that are done with are gone.
//   filter  what the filter tables hold afterwards, as far as they can be read
Recovery recover(LiveFilter& filter);

// What recover() would run now.
Recovery planRecovery();

}  // namespace ops

#endif
