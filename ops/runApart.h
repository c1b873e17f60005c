// Runs a piece of work in a process of its own and brings back its result, even when that process
// does not live to give one.

#ifndef TARNFW_OPS_RUNAPART_H
#define TARNFW_OPS_RUNAPART_H

#include <sys/types.h>

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
//   process   the child's number; with kKeptOff also that of its session
//   finished  the work returned, or threw: `result` holds what it returned, `exception` what it
//             threw
//   signal    otherwise the signal that ended the process, or 0 when it was not started or ended
//             itself
//   messages  the lines it wrote to standard output and standard error (the log with them, when the
//             process logs to standard error)
struct Ended {
  pid_t process = -1;
  bool finished = false;
  int signal = 0;
  Json::Value result;
  std::string exception;
  std::vector<std::string> messages;
};

// Runs `work` in a child of this process and waits for its end. What the child writes is kept in
// memory, so that a reader who does not read cannot hold it up.
Ended runApart(Signals signals, const std::function<Json::Value()>& work);

// Waits, 35 seconds at most, until nobody is left in a session: a child that is killed leaves
// behind the tool it was running, whose work is done only when it has ended too.
void waitForSession(pid_t session);

}  // namespace ops

#endif
