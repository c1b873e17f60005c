// A thread that is cancelled inside the drop period, from every point on: the policies are open and
// no lock is held when it is gone, and the process goes on.

#include <algorithm>
#include <string>

#include "attempt.h"
#include "figures.h"
#include "surroundings.h"

namespace {

using exceptions::Attempt;

class Cancellation : public exceptions::ExceptionTest {
 protected:
  static void sweep(bool real, long step) {
    for (const Attempt& one : exceptions::cancelledThreads()) {
      long number = 0;
      for (; !HasFailure(); number += step) {
        surroundings::arrange(surroundings::Harm::kCancel, number, real);
        if (!attempt(one, "", /*mayReturn=*/false, real, "allocation " + std::to_string(number))) {
          break;
        }
      }
      EXPECT_LT(200, number) << one.name;
    }
  }
};

TEST_F(Cancellation, RecordedAtEverySoManyAllocations) {
  sweep(/*real=*/false, std::max(1, 4 / figures::longer()));
}
TEST_F(Cancellation, RealAtEverySoManyAllocations) {
  sweep(/*real=*/true, std::max(1, 331 / figures::longer()));
}

}  // namespace
