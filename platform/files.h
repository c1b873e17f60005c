// Files of lines key="value" or key=value, existence, directories.

#ifndef TARN_PLATFORM_FILES_H
#define TARN_PLATFORM_FILES_H

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value of `key` in `file` into `buffer` (`size` bytes, NUL included; a longer value is
// cut).
//   flags  always 0
// Answers the value's length, 0 when the key is absent or its value empty, negative on error: the
// file cannot be read or must not be trusted. `buffer` is untouched unless the result is positive.
int TLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size, int flags);

// Sets `key` to `value`, keeping every other line; creates the file when it is absent. flags is
// always 0. Negative on error; the file is then as it was.
int TLIBCFileSetKeyValue(const char* file, const char* key, const char* value, int flags);

// Non-zero when `key` has exactly `value` in `file`. flags is always 0.
int TLIBCFileCheckKeyValue(const char* file, const char* key, const char* value, int flags);

// 1 when something of that name exists.
int TLIBCFileExist(const char* path);

// Makes the directory `path` with mode `mode`; called with (path, 0, 1, 0, 0, 0770).
//   createParents  1: missing parents are made too
//   the other numbers are always 0
// Negative on error, with errno set: also when the last component is there but is not a directory
// of the caller's own.
int TARNFSMkdirP(const char* path, int reserved1, int createParents, int reserved2, int reserved3,
                 unsigned int mode);

#ifdef __cplusplus
}
#endif

#endif
