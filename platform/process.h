// Running programs.

#ifndef TARN_PLATFORM_PROCESS_H
#define TARN_PLATFORM_PROCESS_H

#ifdef __cplusplus
extern "C" {
#endif

// Runs the program at the absolute path `path` with the null-terminated `argv` (argv[0] is the
// path).
//   wait  1: wait for its end; 0: do not
// Answers -1 when it could not be run or did not end by itself, otherwise its exit status (0 to
// 255; 0 when not waited for). Must not allocate: it is also called from a failing caller.
int TLIBCExecv(const char* path, char* const argv[], int wait);

#ifdef __cplusplus
}
#endif

#endif
