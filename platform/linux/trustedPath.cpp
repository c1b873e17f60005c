#include "trustedPath.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include "clock.h"
#include "log.h"

namespace tarnplatform {

namespace {

// Moves a directory, and nothing else that may have taken its place meanwhile: the slash behind the
// name sees to that.
bool renameAside(int directory, const char* name) {
  char aside[NAME_MAX + 1];
  char only[NAME_MAX + 2];
  (void)snprintf(only, sizeof only, "%s/", name);
  constexpr int kTries = 100;
  for (int i = 0; i < kTries; ++i) {
    const auto mark =
        static_cast<unsigned long long>(tarnrun::monotonicNow()) + static_cast<unsigned>(i);
    (void)snprintf(aside, sizeof aside, "%.200s.moved-%llx", name, mark);
    if (renameat2(directory, only, directory, aside, RENAME_NOREPLACE) == 0) {
      return true;
    }
    if (errno != EEXIST) {
      return false;
    }
  }
  return false;
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
  tarnrun::Descriptor opened(open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct stat status = {};
  if (!opened.valid() || fstat(opened.get(), &status) != 0) {
    return false;
  }
  place->directory = std::move(opened);
  place->name = name;
  place->shared = (status.st_mode & S_IWOTH) != 0;
  return true;
}

bool isOwnFile(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_nlink == 1 &&
         (status.st_uid == geteuid() || status.st_uid == 0);
}

bool isSquatted(int error) {
  return error == ELOOP || error == EISDIR || error == ENXIO || error == ENODEV ||
         error == EWOULDBLOCK || error == ETXTBSY;
}

bool clearName(int directory, const char* name, const char* path) {
  struct stat status = {};
  if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT;
  }
  if (isOwnFile(status)) {
    return true;  // somebody of ours was faster
  }
  const bool isDirectory = S_ISDIR(status.st_mode);
  // What its owner has taken away or exchanged meanwhile is looked at again by the caller.
  const bool cleared =
      (isDirectory ? renameAside(directory, name) : unlinkat(directory, name, 0) == 0) ||
      errno == ENOENT || errno == EISDIR || errno == ENOTDIR;
  const int error = errno;
  const char* const result = !cleared ? errorText(error) : isDirectory ? "renamed" : "removed";
  if (path != nullptr) {
    here().error("%s: something of user %u stood in the way: %s", path, status.st_uid, result);
  }
  errno = error;
  return cleared;
}

}  // namespace tarnplatform
