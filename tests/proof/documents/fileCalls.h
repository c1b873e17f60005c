// The system calls that name or use a file. Some are not there on every processor.

#ifndef TARNFW_TESTS_PROOF_FILE_CALLS_H
#define TARNFW_TESTS_PROOF_FILE_CALLS_H

#include <sys/syscall.h>

namespace supervisor {

struct FileCall {
  int number;
  const char* name;
};

#define TARN_CALL(name) \
  { SYS_##name, #name }

inline constexpr FileCall kFileCalls[] = {
#ifdef SYS_open
    TARN_CALL(open),       TARN_CALL(stat),       TARN_CALL(lstat),     TARN_CALL(access),
    TARN_CALL(mkdir),      TARN_CALL(rename),     TARN_CALL(unlink),    TARN_CALL(readlink),
    TARN_CALL(chmod),      TARN_CALL(chown),      TARN_CALL(link),      TARN_CALL(symlink),
#endif
#ifdef SYS_newfstatat
    TARN_CALL(newfstatat),
#endif
    TARN_CALL(openat),     TARN_CALL(close),      TARN_CALL(read),      TARN_CALL(write),
    TARN_CALL(readv),      TARN_CALL(writev),     TARN_CALL(pread64),   TARN_CALL(pwrite64),
    TARN_CALL(lseek),      TARN_CALL(fstat),      TARN_CALL(statx),     TARN_CALL(faccessat),
    TARN_CALL(faccessat2), TARN_CALL(fcntl),      TARN_CALL(flock),     TARN_CALL(fsync),
    TARN_CALL(fdatasync),  TARN_CALL(ftruncate),  TARN_CALL(fallocate), TARN_CALL(fchmod),
    TARN_CALL(fchmodat),   TARN_CALL(fchown),     TARN_CALL(fchownat),  TARN_CALL(renameat),
    TARN_CALL(renameat2),  TARN_CALL(unlinkat),   TARN_CALL(mkdirat),   TARN_CALL(linkat),
    TARN_CALL(symlinkat),  TARN_CALL(readlinkat), TARN_CALL(getdents64)};

#undef TARN_CALL

}  // namespace supervisor

#endif
