// A piece of work in a process of its own, each of whose system calls waits for leave: the process
// is killed at one of them, or one is made to fail, while the files and locks stay what the kernel
// makes of them.
//
// The kernel hands the calls over (seccomp's user notification): no call is missed, and a call that
// fails has not been carried out.

#ifndef TARNFW_TESTS_PROOF_SUPERVISOR_H
#define TARNFW_TESTS_PROOF_SUPERVISOR_H

#include <functional>
#include <set>
#include <string>

namespace supervisor {

inline constexpr int kEveryCall = -1;

// What happens to the work.
struct Harm {
  int call = kEveryCall;  // the number of a system call
  long at = -1;           // which of them it happens to, counted from 0; -1: to none
  bool kill = false;      // SIGKILL instead of the call
  int error = 0;          // the call fails with this errno
  bool inspect = false;   // look at the process just before its end
};

struct Outcome {
  bool harmed = false;  // the work came to that call
  bool hung = false;    // it had to be ended from outside
  int signal = 0;       // that ended the process, or 0
  std::string answer;   // what the work answered; empty when it did not come to that
  std::string leaks;    // with `inspect`: descriptors that the work left open, locks that it kept
  std::set<int> calls;  // the numbers of the calls that were handed over
};

// Why this machine lets us supervise nothing: a kernel or a container without seccomp's
// notifications or without the right to take a descriptor over. Empty when it does.
std::string whyNot();

// Runs `work` under supervision. What it answers has arrived before the process goes on.
Outcome run(const Harm& harm, const std::function<std::string()>& work);

// Runs `work` in a process of its own, unharmed.
Outcome run(const std::function<std::string()>& work);

// The system calls of `work`, the one that ends its process included. With `filesOnly` those that
// name or use a file.
std::set<int> callsOf(const std::function<std::string()>& work, bool filesOnly);

// The name of a system call, or its number.
std::string nameOf(int call);

}  // namespace supervisor

#endif
