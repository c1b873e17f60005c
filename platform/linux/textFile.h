// Whole small text files: read with care, replaced as one.

#ifndef TARN_PLATFORM_LINUX_TEXTFILE_H
#define TARN_PLATFORM_LINUX_TEXTFILE_H

#include <sys/types.h>

#include <string>

namespace tarnplatform {

// Reads the file into `text`. False with errno set when it cannot be read, is no regular file, or
// is larger than `limit` bytes (EFBIG). In a directory where others may make files it must be an
// own file, EPERM.
bool readTextFile(const char* path, size_t limit, std::string* text);

// Replaces or makes the file: written beside it, flushed to disk and renamed over it, so a reader
// and a machine without power see the old text or the new one. Mode and owner stay; a new file has
// `mode`. False with errno set: the file is then as it was.
bool replaceTextFile(const char* path, const std::string& text, mode_t mode);

}  // namespace tarnplatform

#endif
