#include "lockFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace tarn {

namespace {

constexpr mode_t kMode = 0600;  // whoever can open the file can lock it
constexpr char kOwnDirectory[] = "/run/tarn";
constexpr mode_t kOwnDirectoryMode = 0755;
constexpr char kGate[] = "/run/tarn/lock_gate";
// With the callers' repetitions, a user who puts something at the name again and again is overcome
// within a second: he must be faster than we are every time.
constexpr int kAttemptsInGate = 100;

// A name in the directory of ours, which is made when it is absent; none of others may make files
// there.
bool openOwnPlace(const char* path, Place* place) {
  const bool opened = openPlace(path, place) ||
                      (mkdir(kOwnDirectory, kOwnDirectoryMode) == 0 && openPlace(path, place));
  return opened && !place->shared;
}

// Root's processes clear and make a name in a directory of everybody's one after the other, or one
// of them would remove the lock file that another has just made where both saw a user's file. Only
// root can stop at this lock, which lies in a directory of root's; who cannot have it goes without.
class Gate {
 public:
  explicit Gate(const Place& place) {
    Place gate;
    if (!place.shared || !openOwnPlace(kGate, &gate)) {
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

// A lock file of ours that a user has linked, where fs.protected_hardlinks lets him: it looks as if
// he had linked it to this name from elsewhere.
bool isLinkedLockFile(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && isOurFile(status) && status.st_nlink > 1 &&
         (status.st_mode & 07777) == kMode && status.st_size == 0;
}

// Takes both kinds of lock on the file, until it is closed.
bool lockWhole(int fd) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0 && flock(fd, LOCK_EX | LOCK_NB) == 0;
}

// Clears the name of what is no lock file of ours, or none any more. Whoever holds a linked lock
// file has the lock: it is cleared away by one who holds it himself meanwhile. Sets errno as below.
void clear(const Place& place, Descriptor file, Report report) {
  int error = EBUSY;
  if (!file.valid() || !isLinkedLockFile(file.get()) || lockWhole(file.get())) {
    error = clearName(place, report) ? EEXIST : errno == EBUSY ? EPERM : errno;
  }
  file.reset();
  errno = error;
}

bool hasMode(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && ((status.st_mode & 07777) == kMode || fchmod(fd, kMode) == 0);
}

// Makes the lock file, or opens one that somebody was faster to make, or clears the name. Invalid
// with errno set; EEXIST: the name has changed meanwhile or was cleared, try again; EWOULDBLOCK: a
// file server has leased the file; EBUSY: it is linked, and held. Making it comes first, so that
// nothing lies between clearing the name and the next attempt.
Descriptor makeLockFile(const Place& place, Report report) {
  Descriptor file(openat(place.directory.get(), place.name,
                         O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
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
    clear(place, std::move(file), report);
    return Descriptor();
  }
  if (!hasMode(file.get())) {
    file.reset();
  }
  return file;
}

}  // namespace

Descriptor openLockFile(const Place& place, Report report) {
  Descriptor file(openExisting(place));
  if (file.valid() && isOwnOpened(file.get()) && hasMode(file.get())) {
    return file;
  }
  file.reset();
  const Gate gate(place);
  if (gate.busy()) {
    errno = EBUSY;
    return file;
  }
  for (int i = 0; i < kAttemptsInGate; ++i) {
    file = makeLockFile(place, i == 0 ? report : nullptr);
    if (file.valid() || errno != EEXIST) {
      break;
    }
  }
  return file;
}

bool isStill(const Place& place, int fd) {
  struct stat opened = {};
  struct stat named = {};
  return fstat(fd, &opened) == 0 &&
         fstatat(place.directory.get(), place.name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace tarn
