// What the sweeps over documents have in common.

#ifndef TARNFW_TESTS_PROOF_SWEEP_H
#define TARNFW_TESTS_PROOF_SWEEP_H

#include <string>

namespace sweep {

// Adds "1,532 points" to the closing line.
void add(long count, const std::string& what);

// Ends the program as one that was skipped, and says so in the closing line; does nothing without a
// reason.
void skipFor(const std::string& reason);

// The clock less the time that this process has stood ready without a processor: other programs on
// the machine do not make an operation slow.
long ownMilliseconds();

// The world of the sweeps: kernel modules, service table.
void prepare();

}  // namespace sweep

#endif
