// A file descriptor that is closed when its owner goes out of scope.

#ifndef TARN_COMMON_DESCRIPTOR_H
#define TARN_COMMON_DESCRIPTOR_H

#include <unistd.h>

namespace tarn {

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { reset(); }

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }

  // Gives the descriptor to the caller, who closes it.
  int release() noexcept {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  void reset(int fd = -1) noexcept {
    if (fd_ >= 0) {
      (void)close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_;
};

}  // namespace tarn

#endif
