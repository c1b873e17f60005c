// Names in directories where every local user may make files.

#ifndef TARN_COMMON_TRUSTEDPATH_H
#define TARN_COMMON_TRUSTEDPATH_H

#include <sys/stat.h>

#include "descriptor.h"

namespace tarn {

// A path split into its directory, held open so that it cannot be exchanged between two steps, and
// the name in it.
struct Place {
  Descriptor directory;
  const char* path = "";  // the caller's
  const char* name = "";  // points into it
  bool shared = false;    // others may make files in the directory
};

// False with errno set when the directory cannot be opened or there is no name.
bool openPlace(const char* path, Place* place);

// A regular file that belongs to the caller or to root.
bool isOurFile(const struct stat& status);

// True for what a file in a shared directory must be: one of ours with one link.
bool isOwnFile(const struct stat& status);

// True for the errors of an open() that something in the way gives: a link, a directory, a socket,
// a device without a driver, a file that is being run, a leased file. A lease (EWOULDBLOCK) may be
// on an own file too, by a file server.
bool isSquatted(int error);

// Told about what stood at `path`: whose it was, and what became of it, "removed" or "renamed";
// nullptr when it still stands there, with errno as the reason.
using Report = void (*)(const char* path, uid_t owner, const char* became);

// Frees the name from what stands there and is not an own file: a directory that is not empty is
// moved into a new one beside it, anything else is removed. `report` may be null. False with errno
// set when it cannot be freed.
bool clearName(const Place& place, Report report);

}  // namespace tarn

#endif
