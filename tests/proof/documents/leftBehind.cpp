#include "leftBehind.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "testFiles.h"

std::set<int> openDescriptors(pid_t process) {
  std::set<int> numbers;
  for (const std::string& name : files::list("/proc/" + std::to_string(process) + "/fd")) {
    numbers.insert(std::stoi(name));
  }
  return numbers;
}

std::string heldLocks() {
  std::string held;
  for (const std::string directory : {files::kLockDirectory, "/tmp/", "/run/tarn/"}) {
    for (const std::string& name : files::list(directory)) {
      if (name.size() < 5 || name.compare(name.size() - 5, 5, ".lock") != 0) continue;
      const int file = open((directory + name).c_str(), O_RDWR | O_CLOEXEC);
      struct flock whole = {};
      whole.l_type = F_WRLCK;
      // The lock of an open file meets record locks and its like; flock is a lock of its own.
      if (fcntl(file, F_OFD_SETLK, &whole) != 0 || flock(file, LOCK_EX | LOCK_NB) != 0) {
        held.append(" lock ").append(directory).append(name);
      }
      (void)close(file);
    }
  }
  return held;
}
