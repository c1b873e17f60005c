#include "directoryNames.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>

#include <algorithm>
#include <memory>

#include "descriptor.h"

namespace tarnplatform {

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { (void)closedir(directory); }
};

}  // namespace

bool readDirectoryNames(const char* path, std::vector<std::string>* names) {
  tarn::Descriptor opened(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, CloseDirectory> directory(opened.valid() ? fdopendir(opened.get())
                                                                      : nullptr);
  if (!directory) {
    return false;
  }
  (void)opened.release();  // closed with the directory
  names->clear();
  errno = 0;
  while (const dirent* entry = readdir(directory.get())) {
    if (entry->d_name[0] != '.') {
      names->emplace_back(entry->d_name);
    }
    errno = 0;
  }
  const int error = errno;
  std::sort(names->begin(), names->end());
  errno = error;
  return error == 0;
}

}  // namespace tarnplatform
