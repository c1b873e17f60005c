#include "executionLock.h"

#include "constants.h"
#include "lock.h"

namespace ops {

LockFile::LockFile(const char* path) {
  int fd = -1;
  if (TLIBCFileLockTimeByFile(path, FW::kExclusive, FW::kLockTimeoutSeconds, &fd) == 1) fd_ = fd;
}

void LockFile::release() {
  if (fd_ >= 0)
    (void)TLIBCFileUnlockByFile(fd_);  // closed in any case, and with it the lock is gone
  fd_ = -1;
}

ExecutionLock::ExecutionLock() : LockFile(FW::kExecutionLock) {}

}  // namespace ops
