// Lock files in directories where every local user may make files.

#ifndef TARN_COMMON_LOCKFILE_H
#define TARN_COMMON_LOCKFILE_H

#include "descriptor.h"
#include "trustedPath.h"

namespace tarn {

// The lock file at `place`, open for reading and writing, mode 0600, made when it is absent. It is
// one that nobody but its owner and root can have opened; anything else under its name is cleared
// away, of which `report` is told once. Never follows a link and never waits. Invalid with errno
// set:
//   EEXIST       the name changes all the time; try again at once
//   EWOULDBLOCK  a file server has leased the file; wait
//   EBUSY        another process of ours is about to make it, or holds it while it has a second
//                link; wait
Descriptor openLockFile(const Place& place, Report report);

// Does the name still lead to the opened file? Asked after locking: what was locked is no lock any
// more when the name has been removed or given to another file meanwhile.
bool isStill(const Place& place, int fd);

}  // namespace tarn

#endif
