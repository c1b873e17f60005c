// The closing line of a suite: what was counted, and how long it took.
//
//   figures: many-at-once/documents: 32,000 loads and dumps, 0 torn; 4 s

#ifndef TARNFW_TESTS_PROOF_FIGURES_H
#define TARNFW_TESTS_PROOF_FIGURES_H

#include <cstdint>
#include <string>

namespace figures {

// Names the suite. The line is printed when the program ends, whatever its tests said: it is the
// last one on standard output.
void open(const std::string& suite);

// Adds "1,532 points" to the line.
void add(std::uint64_t count, const std::string& what);

// Ends the program as one that CTest is to count as skipped; its line is
// "figures: SUITE: skipped: REASON". Does nothing without a reason.
void skipFor(const std::string& reason);

// The factor by which TARN_LONG makes the suites longer; 1 without it.
int longer();

}  // namespace figures

#endif
