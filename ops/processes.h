// Other processes, as /proc tells of them.

#ifndef TARNFW_OPS_PROCESSES_H
#define TARNFW_OPS_PROCESSES_H

#include <sys/types.h>

#include <cstdint>

namespace ops {

// A process for as long as the machine runs: its number is given away again after its end, its
// start is not.
//   start  clock ticks from the boot to its start
struct ProcessId {
  pid_t number = 0;
  std::uint64_t start = 0;
};

// The calling process; its start is 0 when /proc does not tell.
ProcessId ownProcess();

// Has the process not ended? One that waits for its parent to collect it has.
bool lives(const ProcessId& process);

// Is anybody left in the session?
bool anyoneIn(pid_t session);

}  // namespace ops

#endif
