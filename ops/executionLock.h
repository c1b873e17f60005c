// The execution lock, which every reload holds from before its drop period to after it.

#ifndef TARNFW_OPS_EXECUTIONLOCK_H
#define TARNFW_OPS_EXECUTIONLOCK_H

namespace ops {

// A lock file of the platform, held until release() or the end of the scope.
class LockFile {
 public:
  // Waits at most 30 seconds for the lock file `path`.
  explicit LockFile(const char* path);
  ~LockFile() { release(); }
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

  bool held() const { return fd_ >= 0; }
  void release();

 private:
  int fd_ = -1;
};

// Excludes reloads. A reload takes the lock itself: release this one before asking for one.
class ExecutionLock : public LockFile {
 public:
  ExecutionLock();
};

}  // namespace ops

#endif
