#include "injection.h"

#include <fcntl.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>

namespace {

struct State {
  bool armed = false;
  bool failed = false;
  fuzz::Call kind = fuzz::kOpenToWrite;
  std::size_t countdown = 0;
  int error = 0;
};

State& state() {
  static State theState;
  return theState;
}

// Is this the call that fails?
bool failsNow(fuzz::Call kind) {
  State& now = state();
  if (!now.armed || now.failed || kind != now.kind || now.countdown-- > 0) return false;
  now.failed = true;
  errno = now.error;
  return true;
}

}  // namespace

namespace fuzz {

void failLater(Call kind, std::size_t countdown, int error) {
  state() = {true, false, kind, countdown, error};
}

bool hasFailed() { return state().failed; }

void failNothing() { state() = {}; }

}  // namespace fuzz

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp): the
// linker's names
extern "C" {

int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* data, std::size_t size);
int __real_fsync(int fd);
int __real_rename(const char* from, const char* to);
int __real_unlink(const char* path);

int __wrap_open(const char* path, int flags, ...) {
  std::va_list arguments;
  va_start(arguments, flags);
  const unsigned int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned int) : 0;
  va_end(arguments);
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  if (writes && failsNow(fuzz::kOpenToWrite)) return -1;
  return __real_open(path, flags, mode);
}

// Half of the text is written before it fails: the disk is full in its middle. An interrupted call
// has written nothing.
ssize_t __wrap_write(int fd, const void* data, std::size_t size) {
  if (!failsNow(fuzz::kWrite)) return __real_write(fd, data, size);
  const int error = errno;
  if (error != EINTR) (void)__real_write(fd, data, size / 2);
  errno = error;
  return -1;
}

int __wrap_fsync(int fd) { return failsNow(fuzz::kFsync) ? -1 : __real_fsync(fd); }

int __wrap_rename(const char* from, const char* to) {
  return failsNow(fuzz::kRename) ? -1 : __real_rename(from, to);
}

int __wrap_unlink(const char* path) { return failsNow(fuzz::kUnlink) ? -1 : __real_unlink(path); }

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)
