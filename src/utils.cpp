// The JSON file store. Every document has a lock file, taken for one load or one dump, and is
// replaced by renaming a finished temporary file over it:
//
//   /usr/tarn/etc/firewall.d/firewall_settings.json       the document
//   /usr/tarn/etc/firewall.d/firewall_settings.json.tmp   while it is being replaced
//   /var/lock/firewall/firewall_settings.json.lock        its lock file

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include <json/reader.h>
#include <json/writer.h>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/sync/file_lock.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include "cancellation.h"
#include "constants.h"
#include "fileSizeSignal.h"
#include "files.h"
#include "log.h"
#include "newDocument.h"
#include "tarnfirewall.h"

namespace {

using boost::interprocess::error_info;
using boost::interprocess::file_lock;
using boost::interprocess::interprocess_exception;
using boost::interprocess::scoped_lock;
using boost::posix_time::microsec_clock;
using boost::posix_time::ptime;

constexpr FW::LogSite here(int line = __builtin_LINE()) { return {"utils", line}; }

constexpr char kLockDirectory[] = "/var/lock/firewall/";
constexpr char kFallbackLockDirectory[] = "/tmp/";
constexpr unsigned int kLockDirectoryMode = 0770;  // octal
constexpr mode_t kLockFileMode = 0600;             // octal: who can open it can block it
constexpr mode_t kNewDocumentMode = 0640;          // octal
constexpr mode_t kWidestDocumentMode = 0660;  // octal: a document others can write is root's rights
constexpr std::size_t kPathBuffer = 1024;     // bytes, NUL included
constexpr int kOpenAttempts = 10000;       // who puts a thing in the way each time is once too slow
constexpr int kLeasePauses = 100;          // a second in all
constexpr useconds_t kLeasePause = 10000;  // microseconds

// Owns a descriptor.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { (void)close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return number_; }
  bool open() const { return number_ >= 0; }
  // False when the system reports a write that failed late.
  bool close() {
    const int number = number_;
    number_ = -1;
    return number < 0 || ::close(number) == 0;
  }

 private:
  int number_;
};

bool sameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// True for a lock file that no other user can have prepared.
bool isOwnFile(const struct stat& info) {
  return S_ISREG(info.st_mode) && info.st_nlink == 1 && info.st_uid == geteuid();
}

// A lock file must be one that no other user can have prepared, open or lock.
bool trustedLockFile(int fd) {
  struct stat info = {};
  if (fstat(fd, &info) != 0 || !isOwnFile(info)) return false;
  return (info.st_mode & 07777) == kLockFileMode || fchmod(fd, kLockFileMode) == 0;
}

// Moves the directory `path` into a new one of our own: no name that its owner could know and take
// first. The slash behind it keeps out a lock file that was made in its place meanwhile. Both are
// removed when it is empty, or they would pile up where space is scarce.
bool moveDirectoryAside(const std::string& path) {
  std::string aside = path + ".moved-XXXXXX";
  if (mkdtemp(aside.data()) == nullptr) return false;
  const std::string moved = aside + "/moved";
  const bool done = rename((path + "/").c_str(), moved.c_str()) == 0;
  const int error = errno;
  if (done) (void)rmdir(moved.c_str());
  (void)rmdir(aside.c_str());
  errno = error;
  return done;
}

// Clears the name `path` of what somebody else put there. What he has taken away or exchanged
// meanwhile is no failure: the caller looks again.
bool moveAside(const std::string& path, const struct stat& squatter) {
  const bool moved =
      S_ISDIR(squatter.st_mode) ? moveDirectoryAside(path) : unlink(path.c_str()) == 0;
  return moved || errno == ENOENT || errno == EISDIR || errno == ENOTDIR;
}

// The errors of an open() that something in the way gives: a link, a directory, a socket, a device
// without a driver, a file that is being run, a leased file. A lease may be on a file of our own
// too, by a file server.
bool isSquatted(int error) {
  return error == ELOOP || error == EISDIR || error == ENXIO || error == ENODEV ||
         error == EWOULDBLOCK || error == ETXTBSY;
}

// Opens the lock file, creating it when it is absent. Never follows a link, waits on a FIFO or
// takes a file that is not ours: the lock directory may be /tmp. Creating comes first, so that
// nothing lies between clearing the name and the next attempt. -1 with errno on failure.
int openLockFile(const std::string& path) {
  int pauses = 0;
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kLockFileMode);
    if (fd < 0 && errno == EEXIST) {
      fd = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
      if (fd < 0 && errno == ENOENT) continue;
    }
    if (fd < 0 && !isSquatted(errno)) return -1;
    if (fd >= 0 && trustedLockFile(fd)) return fd;
    const bool leased = fd < 0 && errno == EWOULDBLOCK;

    // Only what still stands at the name is moved: a lock file that its owner has removed meanwhile
    // is no squatter, and the next one at its name may be in use.
    struct stat opened = {};
    struct stat named = {};
    const bool replaced =
        lstat(path.c_str(), &named) != 0 ||
        (fd < 0 ? isOwnFile(named) : fstat(fd, &opened) != 0 || !sameFile(opened, named));
    if (fd >= 0) (void)close(fd);
    if (leased && isOwnFile(named)) {
      if (++pauses > kLeasePauses) {
        errno = EWOULDBLOCK;
        return -1;
      }
      (void)usleep(kLeasePause);
    }
    if (!replaced && !moveAside(path, named)) return -1;
  }
  errno = EPERM;
  return -1;
}

// The descriptor of a file_lock. The class tells it to nobody, but holds nothing else. -1 when it
// is not open on the same file as `ours`.
int descriptorOf(const file_lock& lock, int ours) {
  int number = -1;
  static_assert(sizeof number == sizeof lock);
  std::memcpy(&number, static_cast<const void*>(&lock), sizeof number);
  struct stat mine = {};
  struct stat other = {};
  const bool same = fstat(ours, &mine) == 0 && fstat(number, &other) == 0 && sameFile(mine, other);
  return same ? number : -1;
}

// The lock of one document: an exclusive record lock on its lock file.
class DocumentLock {
 public:
  explicit DocumentLock(const std::string& document) : path_(getLockFile(document)) {
    openForLocking();
  }
  DocumentLock(const DocumentLock&) = delete;
  DocumentLock& operator=(const DocumentLock&) = delete;

  // Takes the lock; false when it is not had in 30 seconds. The name may be removed or given to
  // another file while we wait; then what we locked is not the document's lock any more, and the
  // wait goes on with the new file under the same deadline.
  bool take() {
    const ptime deadline =
        microsec_clock::universal_time() + boost::posix_time::seconds(FW::kLockTimeoutSeconds);
    for (;;) {
      held_.emplace(*lock_, deadline);
      if (!held_->owns()) return false;
      if (stillNamed()) return true;
      held_.reset();
      if (microsec_clock::universal_time() >= deadline) return false;
      openForLocking();
    }
  }

 private:
  // The lock library opens by name, follows links and leaves its descriptor open across exec. So
  // the file is opened and checked here first, the library is pointed at that very file, and its
  // descriptor is marked.
  void openForLocking() {
    lock_.reset();
    file_.reset();
    file_.emplace(openLockFile(path_));
    if (!file_->open()) throw interprocess_exception(error_info(errno));
    const std::string checked = "/proc/self/fd/" + std::to_string(file_->get());
    const bool mounted = access(checked.c_str(), F_OK) == 0;
    lock_.emplace(mounted ? checked.c_str() : path_.c_str());
    const int number = descriptorOf(*lock_, file_->get());
    if (number < 0) throw interprocess_exception(error_info(ESTALE));
    (void)fcntl(number, F_SETFD, FD_CLOEXEC);
  }

  bool stillNamed() const {
    struct stat locked = {};
    struct stat named = {};
    return fstat(file_->get(), &locked) == 0 && lstat(path_.c_str(), &named) == 0 &&
           sameFile(locked, named);
  }

  // Destroyed from the last to the first: closing any descriptor of the file ends the record lock.
  std::string path_;
  std::optional<Descriptor> file_;
  std::optional<file_lock> lock_;
  std::optional<scoped_lock<file_lock>> held_;
};

bool writeAll(int fd, const std::string& text) {
  const tarn::FileSizeSignalHold noSignal;
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = write(fd, text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    written += static_cast<std::size_t>(count);
  }
  return true;
}

// False when the file cannot be read to its end.
bool readAll(int fd, std::size_t expected, std::string& text) {
  text.resize(expected + 1);  // one more than the size, so that the last read meets the end
  std::size_t used = 0;
  for (;;) {
    if (used == text.size()) text.resize(text.size() * 2);
    const ssize_t count = read(fd, &text[used], text.size() - used);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    if (count == 0) break;
    used += static_cast<std::size_t>(count);
  }
  text.resize(used);
  return true;
}

// Flushes the file to the disk; a file system that cannot is not a failed write.
bool flushToDisk(int fd) { return fsync(fd) == 0 || errno == EINVAL || errno == ENOSYS; }

// Makes a rename in the directory of `path` survive a power cut.
void flushDirectoryOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  const std::string name = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const Descriptor directory(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.open() || !flushToDisk(directory.get())) {
    // The new document is in place already; only its place in the directory may be lost.
    here().error("Failed to flush directory %s: %s", name.c_str(), std::strerror(errno));
  }
}

mode_t modeForDocument(const std::string& path) {
  struct stat info = {};
  if (stat(path.c_str(), &info) != 0) return kNewDocumentMode;
  return info.st_mode & kWidestDocumentMode;
}

// Opens the temporary file empty. A file that is also known by another name or belongs to somebody
// else is not the one that an earlier dump left: it is not truncated and does not become the
// document, which would then be its owner's to change.
int openTemporary(const std::string& path, mode_t mode) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const int fd = open(path.c_str(), kFlags, mode);
  if (fd < 0) return fd;
  struct stat info = {};
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1 &&
      info.st_uid == geteuid() && ftruncate(fd, 0) == 0 && fchmod(fd, mode) == 0) {
    return fd;
  }
  (void)close(fd);
  return -1;
}

// JSON text in the library's styled form, and back. jsoncpp has newer classes for both, but they
// write another layout, and documents keep theirs.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::string render(const Json::Value& value) { return Json::StyledWriter().write(value); }

bool parse(const std::string& text, Json::Value& value, bool collectComments) {
  Json::Reader reader;
  return reader.parse(text.data(), text.data() + text.size(), value, collectComments);
}
#pragma GCC diagnostic pop

// A deep copy of the data alone.
Json::Value withoutComments(const Json::Value& value) {
  Json::Value bare;
  if (value.isObject() && !value.empty()) {
    for (auto member = value.begin(); member != value.end(); ++member) {
      bare[member.name()] = withoutComments(*member);
    }
  } else if (value.isArray() && !value.empty()) {
    for (const Json::Value& element : value) bare.append(withoutComments(element));
  } else {
    Json::Value copy = value;
    bare.swapPayload(copy);  // comments are left behind
  }
  return bare;
}

// The text of a document. Comments that an administrator has put into it are kept, but the styled
// writer puts some of them before a bracket that they then swallow: such a document goes without.
std::string documentText(const Json::Value& value) {
  std::string text = render(value);
  const bool mayHoldComments =
      text.find("//") != std::string::npos || text.find("/*") != std::string::npos;
  if (!mayHoldComments) return text;
  try {
    Json::Value read;
    const bool same = parse(text, read, /*collectComments=*/false) && read == value;
    return same ? text : render(withoutComments(value));
  } catch (const Json::Exception&) {  // nested more deeply than can be read
    return text;
  }
}

}  // namespace

std::string getLockFile(const std::string& path) {
  const char* directory = kLockDirectory;
  if (TARNFSMkdirP(kLockDirectory, 0, /*createParents=*/1, 0, 0, kLockDirectoryMode) < 0) {
    here().debug("Failed to create path: %s", std::strerror(errno));
    directory = kFallbackLockDirectory;
  }
  char buffer[kPathBuffer];
  (void)std::snprintf(buffer, sizeof buffer, "%s", path.c_str());
  std::string lockFile = std::string(directory) + basename(buffer) + ".lock";
  if (access(lockFile.c_str(), F_OK) != 0) {
    // Closed here and not by a destructor, out of which no cancellation may come.
    const int created =
        open(lockFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
             kLockFileMode);
    if (created >= 0) (void)close(created);
  }
  return lockFile;
}

bool FW::claimNewDocument(const std::string& path) {
  const tarn::CancellationHold noCancellation;
  DocumentLock lock(path);
  if (!lock.take()) return true;
  if (access(path.c_str(), F_OK) == 0) return false;
  const std::string temporary = path + ".tmp";
  Descriptor file(
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.open()) return errno != EEXIST;
  if (access(path.c_str(), F_OK) != 0) return true;
  (void)unlink(temporary.c_str());  // a thread of this process was faster; locks keep none out
  return false;
}

bool jsonFileLoad(Json::Value& value, const std::string& path) {
  const tarn::CancellationHold noCancellation;
  if (access(path.c_str(), F_OK) != 0) {
    return here().fail("File %s does not exist", path.c_str());
  }
  DocumentLock lock(path);
  if (!lock.take()) return here().fail("Failed to get lock timeout");

  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat info = {};
  if (!file.open() || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return here().fail("Failed to open json file %s", path.c_str());
  }
  std::string text;
  if (!readAll(file.get(), static_cast<std::size_t>(info.st_size), text) ||
      !parse(text, value, /*collectComments=*/true)) {
    return here().fail("Failed to parse Json value of %s", path.c_str());
  }
  return true;
}

bool jsonFileDump(const Json::Value& value, const std::string& path) {
  // The path of a profile that vanished between two looks at the directory is empty. Its temporary
  // file would lie in the caller's working directory.
  if (path.empty()) return here().fail("Failed to rename to %s", path.c_str());
  const tarn::CancellationHold noCancellation;
  DocumentLock lock(path);
  if (!lock.take()) return here().fail("Failed to get lock timeout");

  const std::string temporary = path + ".tmp";
  Descriptor file(openTemporary(temporary, modeForDocument(path)));
  if (!file.open()) return here().fail("Failed to open json file %s", temporary.c_str());
  if (!writeAll(file.get(), documentText(value)) || !flushToDisk(file.get()) || !file.close()) {
    return here().fail("Failed to write json file %s: %s", temporary.c_str(), std::strerror(errno));
  }
  if (rename(temporary.c_str(), path.c_str()) != 0) {
    return here().fail("Failed to rename to %s", path.c_str());
  }
  flushDirectoryOf(path);
  return true;
}
