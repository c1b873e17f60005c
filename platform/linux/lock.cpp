// A lock file in a directory where every local user may make files. The file is only used when
// nobody but its owner and root can have opened it; anything else under its name is moved away.
//
// Two locks are taken on the one descriptor. The record lock excludes programs that use fcntl
// locks, the flock those that use flock. Both belong to the open file, so threads exclude each
// other and the lock is not lost when some other descriptor of the file is closed.

#include "lock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <utility>

#include "cancellation.h"
#include "clock.h"
#include "descriptor.h"
#include "lockFile.h"
#include "squatter.h"
#include "trustedPath.h"

using tarn::Descriptor;
using tarn::Place;

namespace {

constexpr int kExclusive = 1;
constexpr int kImmediateAttempts = 100;  // each of which is many

enum class Attempt { kHeld, kBusy, kMoved, kFailed };

bool setRecordLock(int fd, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

// Says what it has cleared when `log` is set.
Attempt tryLock(const char* path, bool log, Descriptor* lock) {
  Place place;
  if (!tarn::openPlace(path, &place)) {
    return Attempt::kFailed;
  }
  Descriptor file = tarn::openLockFile(place, log ? tarnplatform::saySquatter : nullptr);
  if (!file.valid()) {
    return errno == EWOULDBLOCK || errno == EBUSY ? Attempt::kBusy
           : errno == EEXIST || errno == EINTR    ? Attempt::kMoved
                                                  : Attempt::kFailed;
  }
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 || !setRecordLock(file.get(), F_WRLCK)) {
    const bool busy = errno == EWOULDBLOCK || errno == EACCES || errno == EINTR;
    return busy ? Attempt::kBusy : Attempt::kFailed;
  }
  if (!tarn::isStill(place, file.get())) {
    return Attempt::kMoved;
  }
  *lock = std::move(file);
  return Attempt::kHeld;
}

}  // namespace

int TLIBCFileLockTimeByFile(const char* path, int mode, int seconds, int* fd) {
  if (path == nullptr || fd == nullptr || mode != kExclusive || seconds < 0) {
    errno = EINVAL;
    return 0;
  }
  const tarn::CancellationHold noCancellation;
  const int64_t deadline = tarnrun::monotonicNow() + seconds * tarnrun::kNanosecondsPerSecond;
  for (int moves = 0;;) {
    Descriptor lock;
    const Attempt attempt = tryLock(path, /*log=*/moves == 0, &lock);
    if (attempt == Attempt::kHeld) {
      *fd = lock.release();
      return 1;
    }
    if (attempt == Attempt::kFailed) {
      return 0;
    }
    if (attempt == Attempt::kMoved && ++moves <= kImmediateAttempts) {
      continue;
    }
    if (tarnrun::monotonicNow() >= deadline) {
      errno = ETIMEDOUT;
      return 0;
    }
    tarnrun::sleepBetweenAttempts();
  }
}

int TLIBCFileUnlockByFile(int fd) {
  const tarn::CancellationHold noCancellation;
  // Unlocked before it is closed: a process forked meanwhile may hold a copy of the descriptor.
  const bool unlocked = setRecordLock(fd, F_UNLCK) && flock(fd, LOCK_UN) == 0;
  return close(fd) == 0 && unlocked ? 1 : 0;
}
