// Runs a program to its end, whatever the calling process did to its signals, children and
// descriptors.

#ifndef TARN_PLATFORM_LINUX_RUNPROGRAM_H
#define TARN_PLATFORM_LINUX_RUNPROGRAM_H

#include <cstddef>

namespace tarnrun {

constexpr int kProgramSeconds = 30;

// The environment programs are run with, null-terminated: nothing of the caller's reaches them.
inline constexpr const char* kFixedEnvironment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                                                    "LC_ALL=C", nullptr};

struct Program {
  const char* path = nullptr;                          // absolute
  char* const* argv = nullptr;                         // null-terminated
  const char* const* environment = kFixedEnvironment;  // null-terminated
  int output = -1;  // standard output and error; stays the caller's. -1: `words`, else /dev/null
  char* words = nullptr;  // used when `output` is -1: room for the first bytes of what is printed
  size_t wordsSize = 0;   // bytes, NUL included
  int seconds = kProgramSeconds;  // longest run time; then the program is killed
  bool ownGroup = false;          // a process group of its own, killed as a whole
  bool wait = true;  // false: start it and leave it to itself, without limit and without zombie
};

struct Outcome {
  int status = -1;        // exit status 0 to 255; -1: not run, or not ended by itself
  int error = 0;          // why it could not be run: errno value
  int signal = 0;         // the signal that ended it
  bool timedOut = false;  // it was killed for its run time
};

// The program gets /dev/null as standard input, no descriptor above 2, every signal at its default
// and unblocked, mask 022, the root directory as its working directory, and a limit on files that
// leaves room for what it prints; where that limit cannot be raised, SIGXFSZ is ignored. A start
// that fails for want of resources is repeated for at most 5 seconds. `words` is filled unless the
// status is 0; what is printed beyond 16 MiB is refused with EPERM then. Allocates nothing, needs
// 20 KiB of stack. The calling thread's signals and its cancellation are put off until the program
// has ended.
Outcome runProgram(const Program& program);

}  // namespace tarnrun

#endif
