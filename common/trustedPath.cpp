#include "trustedPath.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include <utility>

namespace tarn {

namespace {

// Makes a directory beside `name` under a name nobody can have guessed.
bool makeAside(int directory, const char* name, char (&aside)[NAME_MAX + 1]) {
  constexpr int kTries = 100;
  for (int i = 0; i < kTries; ++i) {
    uint64_t mark = 0;
    if (getrandom(&mark, sizeof mark, 0) != static_cast<ssize_t>(sizeof mark)) {
      return false;
    }
    (void)snprintf(aside, sizeof aside, "%.200s.moved-%016llx", name,
                   static_cast<unsigned long long>(mark));
    if (mkdirat(directory, aside, 0700) == 0) {
      return true;
    }
    if (errno != EEXIST) {
      return false;
    }
  }
  return false;
}

// Clears the name of a directory, and of nothing else that may have taken its place meanwhile: the
// slash behind the name sees to that. It is moved into a new directory of our own; both are removed
// when it is empty, or they would pile up where space is scarce. Answers what became of it, nullptr
// with errno set when it still stands there.
const char* clearDirectory(int directory, const char* name) {
  char aside[NAME_MAX + 1];
  char only[NAME_MAX + 2];
  char moved[NAME_MAX + sizeof "/moved"];
  if (!makeAside(directory, name, aside)) {
    return nullptr;
  }
  (void)snprintf(only, sizeof only, "%s/", name);
  (void)snprintf(moved, sizeof moved, "%s/moved", aside);
  const bool done = renameat(directory, only, directory, moved) == 0;
  const int error = errno;
  const bool removed = done && unlinkat(directory, moved, AT_REMOVEDIR) == 0;
  (void)unlinkat(directory, aside, AT_REMOVEDIR);
  errno = error;
  return removed ? "removed" : done ? "renamed" : nullptr;
}

}  // namespace

bool openPlace(const char* path, Place* place) {
  char directory[PATH_MAX];
  const char* const slash = strrchr(path, '/');
  const char* const name = slash == nullptr ? path : slash + 1;
  const size_t length = slash == nullptr ? 0 : static_cast<size_t>(slash - path);
  if (*name == '\0' || length >= sizeof directory) {
    errno = *name == '\0' ? EINVAL : ENAMETOOLONG;
    return false;
  }
  (void)snprintf(directory, sizeof directory, "%.*s%s", static_cast<int>(length), path,
                 slash == nullptr ? "." : (length == 0 ? "/" : ""));
  Descriptor opened(open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct stat status = {};
  if (!opened.valid() || fstat(opened.get(), &status) != 0) {
    return false;
  }
  place->directory = std::move(opened);
  place->path = path;
  place->name = name;
  place->shared = (status.st_mode & S_IWOTH) != 0;
  return true;
}

bool isOurFile(const struct stat& status) {
  return S_ISREG(status.st_mode) && (status.st_uid == geteuid() || status.st_uid == 0);
}

bool isOwnFile(const struct stat& status) { return isOurFile(status) && status.st_nlink == 1; }

bool isSquatted(int error) {
  return error == ELOOP || error == EISDIR || error == ENXIO || error == ENODEV ||
         error == EWOULDBLOCK || error == ETXTBSY;
}

bool clearName(const Place& place, Report report) {
  const int directory = place.directory.get();
  struct stat status = {};
  if (fstatat(directory, place.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT;
  }
  if (isOwnFile(status)) {
    return true;  // somebody of ours was faster
  }
  const char* const became = S_ISDIR(status.st_mode) ? clearDirectory(directory, place.name)
                             : unlinkat(directory, place.name, 0) == 0 ? "removed"
                                                                       : nullptr;
  const int error = errno;
  if (report != nullptr) {
    report(place.path, status.st_uid, became);
  }
  errno = error;
  // What its owner has taken away or exchanged meanwhile is looked at again by the caller.
  return became != nullptr || error == ENOENT || error == EISDIR || error == ENOTDIR;
}

}  // namespace tarn
