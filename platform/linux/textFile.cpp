#include "textFile.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "descriptor.h"
#include "fileSizeSignal.h"
#include "squatter.h"
#include "trustedPath.h"

namespace tarnplatform {

namespace {

using tarn::Descriptor;
using tarn::isOwnFile;
using tarn::openPlace;
using tarn::Place;

bool readAll(int fd, size_t limit, std::string* text) {
  char buffer[4096];
  std::string all;
  for (;;) {
    const ssize_t length = read(fd, buffer, sizeof buffer);
    if (length == 0) {
      text->swap(all);
      return true;
    }
    if (length < 0 && errno == EINTR) {
      continue;
    }
    if (length < 0) {
      return false;
    }
    if (all.size() + static_cast<size_t>(length) > limit) {
      errno = EFBIG;
      return false;
    }
    all.append(buffer, static_cast<size_t>(length));
  }
}

bool writeAll(int fd, const std::string& text) {
  const tarn::FileSizeSignalHold noSignal;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t length = write(fd, text.data() + done, text.size() - done);
    if (length < 0 && errno == EINTR) {
      continue;
    }
    if (length < 0) {
      return false;
    }
    done += static_cast<size_t>(length);
  }
  return true;
}

// A file under a name nobody can have guessed, which does not exist before.
Descriptor makeTemporary(const Place& place, mode_t mode, char (&name)[NAME_MAX + 1]) {
  constexpr int kTries = 100;
  for (int i = 0; i < kTries; ++i) {
    uint64_t mark = 0;
    if (getrandom(&mark, sizeof mark, 0) != static_cast<ssize_t>(sizeof mark)) {
      return Descriptor();
    }
    (void)snprintf(name, sizeof name, "%.200s.%016llx", place.name,
                   static_cast<unsigned long long>(mark));
    Descriptor file(openat(place.directory.get(), name,
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (file.valid() || errno != EEXIST) {
      return file;
    }
  }
  return Descriptor();
}

// Gives the new file the owner and the mode of the one it replaces.
bool takeOver(int fd, const struct stat& old) {
  struct stat now = {};
  if (fstat(fd, &now) != 0) {
    return false;
  }
  if ((now.st_uid != old.st_uid || now.st_gid != old.st_gid) &&
      fchown(fd, old.st_uid, old.st_gid) != 0) {
    return false;
  }
  return fchmod(fd, old.st_mode & 07777) == 0;
}

bool writeTemporary(const Place& place, Descriptor file, const std::string& text) {
  struct stat old = {};
  const bool replaces =
      fstatat(place.directory.get(), place.name, &old, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(old.st_mode) && (!place.shared || isOwnFile(old));
  if (replaces && !takeOver(file.get(), old)) {
    return false;
  }
  return writeAll(file.get(), text) && fsync(file.get()) == 0 && close(file.release()) == 0;
}

// Puts the finished file in the place of whatever is there: only a directory, which some user has
// put there meanwhile, cannot be replaced by a file.
bool takePlace(const Place& place, const char* temporary) {
  constexpr int kTries = 10000;
  const int directory = place.directory.get();
  for (int i = 0; i < kTries; ++i) {
    if (renameat(directory, temporary, directory, place.name) == 0) {
      return true;
    }
    if (errno != EISDIR || !place.shared || !tarn::clearName(place, /*report=*/nullptr)) {
      return false;
    }
  }
  return false;
}

// The file is in place; only its survival of a power cut depends on this.
void flushDirectory(const Place& place) {
  const Descriptor directory(
      openat(place.directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.valid()) {
    (void)fsync(directory.get());
  }
}

}  // namespace

bool readTextFile(const char* path, size_t limit, std::string* text) {
  Place place;
  if (!openPlace(path, &place)) {
    return false;
  }
  const int follow = place.shared ? O_NOFOLLOW : 0;
  const Descriptor file(
      openat(place.directory.get(), place.name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | follow));
  struct stat status = {};
  if (!file.valid()) {
    errno = place.shared && tarn::isSquatted(errno) ? EPERM : errno;
    return false;
  }
  if (fstat(file.get(), &status) != 0) {
    return false;
  }
  if (place.shared ? !isOwnFile(status) : !S_ISREG(status.st_mode)) {
    errno = place.shared ? EPERM : EINVAL;
    return false;
  }
  return readAll(file.get(), limit, text);
}

bool replaceTextFile(const char* path, const std::string& text, mode_t mode) {
  Place place;
  char temporary[NAME_MAX + 1];
  if (!openPlace(path, &place)) {
    return false;
  }
  if (place.shared && !tarn::clearName(place, saySquatter)) {
    return false;
  }
  Descriptor file = makeTemporary(place, mode, temporary);
  if (!file.valid()) {
    return false;
  }
  if (!writeTemporary(place, std::move(file), text) || !takePlace(place, temporary)) {
    const int error = errno;
    (void)unlinkat(place.directory.get(), temporary, 0);
    errno = error;
    return false;
  }
  flushDirectory(place);
  return true;
}

}  // namespace tarnplatform
