// Programs that are started to be killed, and the system calls at which they can be.

#ifndef TARNFW_TESTS_PROOF_KILL_RELOAD_VICTIMS_H
#define TARNFW_TESTS_PROOF_KILL_RELOAD_VICTIMS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace sweep {

// The number of KILL, INT, HUP, TERM or PIPE.
int numberOf(const std::string& signal);

// Starts a program without output; with kOwn in a process group of its own, as a shell does.
enum class Group { kOurs, kOwn };
pid_t start(const std::vector<std::string>& command, Group group = Group::kOurs);

// How a program ended: by which signal (0: by itself), or with which status; after how many
// seconds. One that does not end within `limit` seconds is killed, and the test fails.
struct End {
  int signal = 0;
  int status = 0;
  double seconds = 0;
  bool reached = false;  // of interruptedAt: it came to the call, and the signal to it
};
inline constexpr double kLongest = 60;
End waitFor(pid_t process, double limit = kLongest);

// Why strace traces nothing here; empty when it does.
std::string whyNoTrace();

// One system call of a program: its name, how many of that name it has been by then, its line in
// the trace.
struct SystemCall {
  std::string name;
  int occurrence = 0;
  std::string text;
};

// The system calls of a program that runs to its end, in their order, without those of its
// children.
std::vector<SystemCall> systemCallsOf(const std::vector<std::string>& command);

// Runs the program and sends it a signal when it makes that call: KILL prevents it, others let it
// end.
End interruptedAt(const SystemCall& call, const std::string& signal,
                  const std::vector<std::string>& command);

}  // namespace sweep

#endif
