// Runs a piece of work in a process of its own and brings back its result, even when that process
// does not live to give one.

#ifndef TARNFW_OPS_RUNAPART_H
#define TARNFW_OPS_RUNAPART_H

#include <array>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include <json/value.h>

namespace ops {

// Ignores INT, QUIT, HUP, TERM and PIPE until the end of the scope.
class IgnoredSignals {
 public:
  IgnoredSignals();
  ~IgnoredSignals();
  IgnoredSignals(const IgnoredSignals&) = delete;
  IgnoredSignals& operator=(const IgnoredSignals&) = delete;

 private:
  std::array<struct sigaction, 5> earlier_;
};

enum class Signals {
  kShared,   // interrupting the caller interrupts the work
  kKeptOff,  // a session of its own, and IgnoredSignals on both sides meanwhile: neither the
             // terminal nor the one who ends the caller stops the work half-way
};

// How the process ended.
//   finished  the work returned, or threw: `result` holds what it returned, `exception` what it
//   threw signal    otherwise the signal that ended the process, or 0 when it could not be started
//   or ended
//             itself
//   messages  the lines it wrote to standard output and standard error (the log with them, when the
//             process logs to standard error)
struct Ended {
  bool finished = false;
  int signal = 0;
  Json::Value result;
  std::string exception;
  std::vector<std::string> messages;
};

// Runs `work` in a child of this process and waits until the child and whatever it was running at
// its end are gone. What the child writes is kept in memory, so that a reader who does not read
// cannot hold it up.
Ended runApart(Signals signals, const std::function<Json::Value()>& work);

}  // namespace ops

#endif
