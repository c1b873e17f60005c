// Lock files between processes.

#ifndef TARN_PLATFORM_LOCK_H
#define TARN_PLATFORM_LOCK_H

#ifdef __cplusplus
extern "C" {
#endif

// Takes the exclusive lock on the lock file `path`, which is created when it is absent.
//   mode     always 1: exclusive
//   seconds  how long to wait at most
//   fd       set to the lock's descriptor on success, untouched otherwise
// 1 when the lock is held, also against other threads of this process; anything else: not held,
// errno says why (ETIMEDOUT after the wait).
int TLIBCFileLockTimeByFile(const char* path, int mode, int seconds, int* fd);

// Releases the lock and closes its descriptor. Zero on failure.
int TLIBCFileUnlockByFile(int fd);

#ifdef __cplusplus
}
#endif

#endif
