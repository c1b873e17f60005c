// Writing under a limit on the size of files. For the library and its platform alike.

#ifndef TARN_COMMON_FILESIZESIGNAL_H
#define TARN_COMMON_FILESIZESIGNAL_H

#include <errno.h>
#include <signal.h>
#include <time.h>

namespace tarn {

// While it lives, a write of this thread beyond the limit (RLIMIT_FSIZE) fails with EFBIG and sends
// no SIGXFSZ, which would end the process. What was blocked or pending before stays so.
class FileSizeSignalHold {
 public:
  FileSizeSignalHold() noexcept {
    sigset_t pending;
    (void)sigemptyset(&signal_);
    (void)sigaddset(&signal_, SIGXFSZ);
    (void)sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGXFSZ) == 1;
    (void)pthread_sigmask(SIG_BLOCK, &signal_, &before_);
  }
  ~FileSizeSignalHold() {
    const int error = errno;
    sigset_t pending;
    const timespec now = {};
    (void)sigpending(&pending);
    if (!wasPending_ && sigismember(&pending, SIGXFSZ) == 1) {
      (void)sigtimedwait(&signal_, nullptr, &now);
    }
    (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
  }
  FileSizeSignalHold(const FileSizeSignalHold&) = delete;
  FileSizeSignalHold& operator=(const FileSizeSignalHold&) = delete;

 private:
  sigset_t signal_;
  sigset_t before_;
  bool wasPending_ = false;
};

}  // namespace tarn

#endif
