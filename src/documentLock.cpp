#include "documentLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/exceptions.hpp>

#include "constants.h"

namespace FW {
namespace {

using boost::interprocess::error_info;
using boost::interprocess::file_lock;
using boost::interprocess::interprocess_exception;
using boost::posix_time::microsec_clock;
using boost::posix_time::ptime;

constexpr int kAttempts = 100;        // each of which is many: see openLockFile()
constexpr int kPauses = 100;          // a second in all
constexpr useconds_t kPause = 10000;  // microseconds

// The lock file, opened and checked. Invalid with errno set, EBUSY: not to be had by the deadline.
tarn::Descriptor openLockFile(const tarn::Place& place, const ptime& deadline) {
  int pauses = 0;
  for (int attempt = 0; attempt < kAttempts;) {
    tarn::Descriptor file = tarn::openLockFile(place, /*report=*/nullptr);
    if (file.valid()) return file;
    const int error = errno;
    const bool leased = error == EWOULDBLOCK && ++pauses <= kPauses;
    const bool busy = error == EBUSY && microsec_clock::universal_time() < deadline;
    if (leased || busy) {
      (void)usleep(kPause);
    } else if (error == EEXIST) {
      ++attempt;
    } else {
      errno = error;
      return file;
    }
  }
  errno = EPERM;
  return tarn::Descriptor();
}

// The descriptor of a file_lock. The class tells it to nobody, but holds nothing else. -1 when it
// is not open on the same file as `ours`.
int descriptorOf(const file_lock& lock, int ours) {
  int number = -1;
  static_assert(sizeof number == sizeof lock);
  std::memcpy(&number, static_cast<const void*>(&lock), sizeof number);
  struct stat mine = {};
  struct stat other = {};
  const bool same = fstat(ours, &mine) == 0 && fstat(number, &other) == 0 &&
                    mine.st_dev == other.st_dev && mine.st_ino == other.st_ino;
  return same ? number : -1;
}

}  // namespace

DocumentLock::DocumentLock(std::string lockFile) : path_(std::move(lockFile)) {}

bool DocumentLock::take() {
  const ptime deadline =
      microsec_clock::universal_time() + boost::posix_time::seconds(kLockTimeoutSeconds);
  do {
    if (!open(deadline)) return false;
    held_.emplace(*lock_, deadline);
    if (!held_->owns()) return false;
    if (tarn::isStill(place_, file_.get())) return true;
    held_.reset();
  } while (microsec_clock::universal_time() < deadline);
  return false;
}

// The lock library opens by name, follows links and leaves its descriptor open across exec. So the
// file is opened and checked here first, the library is pointed at that very file, and its
// descriptor is marked.
bool DocumentLock::open(const ptime& deadline) {
  lock_.reset();
  file_.reset();
  if (!tarn::openPlace(path_.c_str(), &place_)) throw interprocess_exception(error_info(errno));
  file_ = openLockFile(place_, deadline);
  if (!file_.valid() && errno == EBUSY) return false;
  if (!file_.valid()) throw interprocess_exception(error_info(errno));
  const std::string checked = "/proc/self/fd/" + std::to_string(file_.get());
  const bool mounted = access(checked.c_str(), F_OK) == 0;
  lock_.emplace(mounted ? checked.c_str() : path_.c_str());
  const int number = descriptorOf(*lock_, file_.get());
  if (number < 0) throw interprocess_exception(error_info(ESTALE));
  (void)fcntl(number, F_SETFD, FD_CLOEXEC);
  return true;
}

}  // namespace FW
