// What an operation must not leave behind in the process that called it.

#ifndef TARNFW_TESTS_PROOF_LEFT_BEHIND_H
#define TARNFW_TESTS_PROOF_LEFT_BEHIND_H

#include <sys/types.h>

#include <set>
#include <string>

// The numbers of the descriptors that are open in a process.
std::set<int> openDescriptors(pid_t process);

// The lock files that some process holds the lock of: " lock PATH" for each.
std::string heldLocks();

#endif
