// What the sweeps over documents have in common: the world, the points at which an operation comes
// to harm, and what is counted there.

#ifndef TARNFW_TESTS_PROOF_SWEEP_H
#define TARNFW_TESTS_PROOF_SWEEP_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "counts.h"
#include "operations.h"

namespace sweep {

// The counts of a test program: a global of it. Prepares the world before its tests: kernel
// modules, service table.
class Counts : public figures::Counts {
 public:
  // `names`: what is counted, in the order of the closing line. Of the first there are to be at
  // least `promised`. A reason of `whyNot` ends the program as one that was skipped.
  Counts(const std::string& suite, long promised, const std::vector<std::string>& names,
         std::string (*whyNot)() = nullptr);

  // Something that must not be is counted, and the test fails with `what`; empty: there is nothing.
  void fault(const std::string& name, const std::string& what);
};

// Harms the operation at its point 0, 1, 2 ..., each time with the documents as at its beginning.
// `harm` runs it and judges; false when it did not come to that point, which ends the sweep.
void atEveryPoint(const operations::Operation& operation,
                  const std::function<bool(long point)>& harm);

// The same for each system call that it makes, with `filesOnly` those that name or use a file.
void atEveryCall(const operations::Operation& operation, bool filesOnly,
                 const std::function<bool(int call, long point)>& harm);

// The name of a test.
std::string nameOf(const testing::TestParamInfo<operations::Operation>& operation);

}  // namespace sweep

#endif
