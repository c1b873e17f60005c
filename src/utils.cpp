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
#include <cstring>
#include <string>

#include <json/reader.h>
#include <json/writer.h>

#include "cancellation.h"
#include "constants.h"
#include "descriptor.h"
#include "documentLock.h"
#include "fileSizeSignal.h"
#include "files.h"
#include "log.h"
#include "tarnfirewall.h"

namespace {

constexpr FW::LogSite here(int line = __builtin_LINE()) { return {"utils", line}; }

constexpr char kLockDirectory[] = "/var/lock/firewall/";
constexpr char kFallbackLockDirectory[] = "/tmp/";
constexpr unsigned int kLockDirectoryMode = 0770;  // octal
constexpr mode_t kLockFileMode = 0600;             // octal: who can open it can block it
constexpr mode_t kNewDocumentMode = 0640;          // octal
constexpr mode_t kWidestDocumentMode = 0660;  // octal: a document others can write is root's rights
constexpr std::size_t kPathBuffer = 1024;     // bytes, NUL included

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
  const tarn::Descriptor directory(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid() || !flushToDisk(directory.get())) {
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
    std::string bare = render(withoutComments(value));
    const bool same = parse(text, read, /*collectComments=*/false) && render(read) == bare;
    return same ? text : bare;
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

bool jsonFileLoad(Json::Value& value, const std::string& path) {
  const tarn::CancellationHold noCancellation;
  if (access(path.c_str(), F_OK) != 0) {
    return here().fail("File %s does not exist", path.c_str());
  }
  FW::DocumentLock lock(getLockFile(path));
  if (!lock.take()) return here().fail("Failed to get lock timeout");

  const tarn::Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat info = {};
  if (!file.valid() || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
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
  FW::DocumentLock lock(getLockFile(path));
  if (!lock.take()) return here().fail("Failed to get lock timeout");

  const std::string temporary = path + ".tmp";
  tarn::Descriptor file(openTemporary(temporary, modeForDocument(path)));
  if (!file.valid()) return here().fail("Failed to open json file %s", temporary.c_str());
  if (!writeAll(file.get(), documentText(value)) || !flushToDisk(file.get()) ||
      close(file.release()) != 0) {
    return here().fail("Failed to write json file %s: %s", temporary.c_str(), std::strerror(errno));
  }
  if (rename(temporary.c_str(), path.c_str()) != 0) {
    return here().fail("Failed to rename to %s", path.c_str());
  }
  flushDirectoryOf(path);
  return true;
}
