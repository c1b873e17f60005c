// A thread that is cancelled inside the drop period, at every point, and after it until the
// operation has ended: the policies are open and no lock is held when it is gone, and the process
// goes on.

#include <algorithm>
#include <string>

#include "attempt.h"
#include "figures.h"
#include "surroundings.h"

namespace {

using exceptions::Attempt;

class Cancellation : public exceptions::ExceptionTest {
 protected:
  // `promised`: so many cancellations inside the drop period at least, with each operation.
  static void sweep(bool real, long step, long promised) {
    for (const Attempt& one : exceptions::cancelledThreads()) {
      long inside = 0;
      for (long number = 0; !HasFailure(); number += step) {
        surroundings::arrange(surroundings::Harm::kCancel, number, real);
        if (!attempt(one, "", /*mayReturn=*/false, real, "allocation " + std::to_string(number))) {
          break;
        }
        inside += surroundings::happenedInside() ? 1 : 0;
      }
      EXPECT_LE(promised, inside) << one.name;
    }
  }
};

TEST_F(Cancellation, RecordedAtEverySoManyAllocations) {
  sweep(/*real=*/false, std::max(1, 4 / figures::longer()), /*promised=*/100);
}
TEST_F(Cancellation, RealAtEverySoManyAllocations) {
  sweep(/*real=*/true, std::max(1, 331 / figures::longer()), /*promised=*/1);
}

}  // namespace
