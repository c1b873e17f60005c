// Switching the firewall on and off and reloading it, so that nothing that happens to the caller
// leaves the machine shut:
//
//   caller   execution lock: undoes what an earlier, killed reload left, looks for the base
//            chains, notes which policies are open
//   worker   in a session of its own, deaf to the terminal: records the open policies, runs the
//            library's operation, removes the record
//   caller   waits, deaf as well; opens the policies when the worker dies
//
// A caller that is killed leaves a worker that goes on to the end. When both are killed, recover()
// undoes it.

#ifndef TARNFW_OPS_LIFECYCLE_H
#define TARNFW_OPS_LIFECYCLE_H

#include <functional>
#include <string>
#include <vector>

#include "recovery.h"
#include "refusals.h"

namespace ops {

// How an operation ended.
//   verdict   kDone      the library reports success and no line was refused
//             kFailed    anything else; `reason` says what in one sentence
//             kBusy      the execution lock was not had within 30 seconds, nothing was loaded
//   begun     the worker was started: what the operation records before it asks for the lock may
//             be on record whatever the verdict, and hooks may have run
//   messages  the library's log lines, without those of refused commands, which are in `refusals`
//   recovery  what was left behind, by an earlier reload or by this one, and undone
struct Supervised {
  enum class Verdict { kDone, kFailed, kBusy };
  Verdict verdict = Verdict::kFailed;
  std::string reason;
  bool begun = false;
  std::vector<std::string> messages;
  Refusals refusals;
  Recovery recovery;
};

// Each refuses a machine without base chains, unless the reload has nothing to load. After a
// failure, `reason` tells as well what is on record all the same.
Supervised enableFirewall();
Supervised reloadFirewall();
// Makes the stored profile `name` the active one and loads it when the firewall is on.
Supervised useProfile(const std::string& name);

// Ends with the policies open, and the chains empty even if a reload was under way.
Supervised disableFirewall();

// What a supervised operation may find in its way, and what it leaves to check.
//   needsChains  refuse to begin when base chains are missing or cannot be read
//   checked      the operation closes no policy, and judges refused commands itself; look for
//                policies that others have closed, after success too
struct Supervision {
  bool needsChains = true;
  bool checked = false;
};

// Empties the firewall chains and leaves the rest alone: no lock, no worker that outlives its
// caller.
Supervised clearFirewall();

// The frame of the first four, around any operation of the library's that may run a drop period.
Supervised supervise(const Supervision& supervision, const std::function<bool()>& operation);

}  // namespace ops

#endif
