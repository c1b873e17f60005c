// The names in a directory.

#ifndef TARN_PLATFORM_LINUX_DIRECTORYNAMES_H
#define TARN_PLATFORM_LINUX_DIRECTORYNAMES_H

#include <string>
#include <vector>

namespace tarnplatform {

// The names in ascending byte order, those that begin with a dot left out. False with errno set
// when the directory cannot be read.
bool readDirectoryNames(const char* path, std::vector<std::string>* names);

}  // namespace tarnplatform

#endif
