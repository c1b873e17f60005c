// Thread cancellation and functions that must end. For the library and its platform alike.

#ifndef TARN_COMMON_CANCELLATION_H
#define TARN_COMMON_CANCELLATION_H

#include <pthread.h>

namespace tarn {

// Puts off the cancellation of the calling thread until the end of the scope. Nearly every system
// call is a cancellation point, close() in a destructor included, and a cancellation that leaves a
// destructor ends the whole process, without a handler being asked.
class CancellationHold {
 public:
  CancellationHold() noexcept { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_); }
  // A thread that may be cancelled at any time is cancelled here.
  ~CancellationHold() noexcept(false) { (void)pthread_setcancelstate(state_, &state_); }
  CancellationHold(const CancellationHold&) = delete;
  CancellationHold& operator=(const CancellationHold&) = delete;

 private:
  int state_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace tarn

#endif
