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
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "cancellation.h"
#include "clock.h"
#include "descriptor.h"
#include "trustedPath.h"

using tarnplatform::clearName;
using tarnplatform::isOwnFile;
using tarnplatform::isSquatted;
using tarnplatform::openPlace;
using tarnplatform::Place;
using tarnrun::Descriptor;

namespace {

constexpr int kExclusive = 1;
constexpr mode_t kMode = 0600;  // whoever can open the file can lock it
constexpr char kGateDirectory[] = "/run/tarn";
constexpr mode_t kGateDirectoryMode = 0755;
constexpr char kGate[] = "/run/tarn/lock_gate";
// A user who puts something at the name again and again is overcome within a second: he must be
// faster than we are every time.
constexpr int kAttemptsInGate = 100;
constexpr int kImmediateAttempts = 100;  // at the gate

enum class Attempt { kHeld, kBusy, kMoved, kFailed };

bool setRecordLock(int fd, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

// Root's processes clear and make a name in a directory of everybody's one after the other, or one
// of them would remove the lock file that another has just made where both saw a user's file. Only
// root can stop at this lock, which lies in a directory of root's; who cannot have it goes without.
class Gate {
 public:
  explicit Gate(const Place& place) {
    Place gate;
    if (!place.shared || !openGatePlace(&gate) || gate.shared) {
      return;
    }
    file_.reset(openat(gate.directory.get(), gate.name,
                       O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kMode));
    busy_ = file_.valid() && flock(file_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  }
  ~Gate() {
    const int error = errno;
    if (file_.valid() && !busy_) {
      (void)flock(file_.get(), LOCK_UN);  // a process forked meanwhile may have a copy
    }
    file_.reset();
    errno = error;
  }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  bool busy() const { return busy_; }  // another process is at it

 private:
  static bool openGatePlace(Place* gate) {
    return openPlace(kGate, gate) ||
           (mkdir(kGateDirectory, kGateDirectoryMode) == 0 && openPlace(kGate, gate));
  }

  Descriptor file_;
  bool busy_ = false;
};

bool isOwnAt(const Place& place) {
  struct stat named = {};
  return fstatat(place.directory.get(), place.name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         isOwnFile(named);
}

// What exists is opened without O_CREAT: the kernel refuses O_CREAT on a foreign file in a sticky
// directory even to root, so that any user could keep the lock from ever being taken.
int openExisting(const Place& place) {
  return openat(place.directory.get(), place.name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

bool isOwnOpened(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && isOwnFile(status);
}

bool hasMode(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && ((status.st_mode & 07777) == kMode || fchmod(fd, kMode) == 0);
}

// Makes the lock file, or opens one that somebody was faster to make, or clears the name. Invalid
// with errno set; EEXIST: the name has changed meanwhile or was cleared, try again; EWOULDBLOCK: a
// file server has leased the file, wait. Making it comes first, so that nothing lies between
// clearing the name and the next attempt.
Descriptor makeLockFile(const Place& place, const char* pathToLog) {
  const int directory = place.directory.get();
  Descriptor file(
      openat(directory, place.name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
  if (!file.valid() && errno == EEXIST) {
    file.reset(openExisting(place));
  }
  if (!file.valid() && !isSquatted(errno)) {
    errno = errno == ENOENT ? EEXIST : errno;  // it was there, and is not any more
    return file;
  }
  if (!file.valid() && errno == EWOULDBLOCK && isOwnAt(place)) {
    errno = EWOULDBLOCK;
    return file;
  }
  if (!file.valid() || !isOwnOpened(file.get())) {
    file.reset();
    if (clearName(directory, place.name, pathToLog)) {
      errno = EEXIST;
    }
    return file;
  }
  if (!hasMode(file.get())) {
    file.reset();
  }
  return file;
}

// The lock file, made when it is absent. Invalid with errno set as above; EWOULDBLOCK also when
// another process is about to make it.
Descriptor openLockFile(const Place& place, const char* pathToLog) {
  Descriptor file(openExisting(place));
  if (file.valid() && isOwnOpened(file.get()) && hasMode(file.get())) {
    return file;
  }
  file.reset();
  const Gate gate(place);
  if (gate.busy()) {
    errno = EWOULDBLOCK;
    return file;
  }
  for (int i = 0; i < kAttemptsInGate; ++i) {
    file = makeLockFile(place, i == 0 ? pathToLog : nullptr);
    if (file.valid() || errno != EEXIST) {
      break;
    }
  }
  return file;
}

// True when the path still leads to the opened file.
bool isStill(const Place& place, int fd) {
  struct stat opened = {};
  struct stat named = {};
  return fstat(fd, &opened) == 0 &&
         fstatat(place.directory.get(), place.name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// Says what it has cleared when `log` is set.
Attempt tryLock(const char* path, bool log, Descriptor* lock) {
  Place place;
  if (!openPlace(path, &place)) {
    return Attempt::kFailed;
  }
  Descriptor file = openLockFile(place, log ? path : nullptr);
  if (!file.valid()) {
    return errno == EWOULDBLOCK                ? Attempt::kBusy
           : errno == EEXIST || errno == EINTR ? Attempt::kMoved
                                               : Attempt::kFailed;
  }
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 || !setRecordLock(file.get(), F_WRLCK)) {
    const bool busy = errno == EWOULDBLOCK || errno == EACCES || errno == EINTR;
    return busy ? Attempt::kBusy : Attempt::kFailed;
  }
  if (!isStill(place, file.get())) {
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
