// Thread cancellation and the platform's functions.

#ifndef TARN_PLATFORM_LINUX_CANCELLATION_H
#define TARN_PLATFORM_LINUX_CANCELLATION_H

#include <pthread.h>

namespace tarnrun {

// Puts off the cancellation of the calling thread until the end of the scope. Nearly every system
// call of the platform is a cancellation point, close() in a destructor included, and a
// cancellation that leaves a destructor ends the whole process.
class CancellationHold {
 public:
  CancellationHold() noexcept { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_); }
  CancellationHold(const CancellationHold&) = delete;
  CancellationHold& operator=(const CancellationHold&) = delete;
  ~CancellationHold() noexcept(false) { (void)pthread_setcancelstate(state_, &state_); }

 private:
  int state_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace tarnrun

#endif
