/* What running command lines costs at the least: the processes themselves. */

#ifndef TARN_BENCH_BAREPROCESSES_H
#define TARN_BENCH_BAREPROCESSES_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Starts each of `count` programs with posix_spawn and waits for it before the next. `commands` are
 * null-terminated argument vectors that begin with the program's path. 0 when every one ended with
 * exit status 0; stops at the first that did not. */
int bareRun(char* const* const* commands, size_t count);

/* The same with fork and execv. */
int forkRun(char* const* const* commands, size_t count);

#ifdef __cplusplus
}
#endif

#endif
