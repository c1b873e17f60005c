// A program that says how it was started: its arguments, environment, descriptors, signals and
// process group, on standard output.

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace {

void printDescriptors() {
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) return;
  std::map<int, std::string> targets;
  while (const dirent* entry = readdir(directory)) {
    char target[256] = {};
    const int fd = std::atoi(entry->d_name);  // NOLINT(cert-err34-c): the kernel's number
    if (fd == dirfd(directory) ||
        readlinkat(dirfd(directory), entry->d_name, target, sizeof target - 1) < 0) {
      continue;
    }
    targets[fd] = target;
  }
  (void)closedir(directory);
  for (const auto& entry : targets) {
    const bool isOutput = entry.second.rfind("/memfd:", 0) == 0;
    std::printf("descriptor %d %s\n", entry.first, isOutput ? "(output)" : entry.second.c_str());
  }
}

void printSignals() {
  std::FILE* status = std::fopen("/proc/self/status", "re");
  char line[256];
  while (status != nullptr && std::fgets(line, sizeof line, status) != nullptr) {
    if (std::strncmp(line, "SigBlk", 6) == 0 || std::strncmp(line, "SigIgn", 6) == 0) {
      std::printf("%s", line);
    }
  }
  if (status != nullptr) (void)std::fclose(status);
}

}  // namespace

int main(int argc, char** argv, char** environment) {
  for (int i = 1; i < argc; ++i) std::printf("argument %s\n", argv[i]);
  for (char** variable = environment; *variable != nullptr; ++variable) {
    std::printf("environment %s\n", *variable);
  }
  printDescriptors();
  printSignals();
  std::printf("process group: %s\n", getpgrp() == getpid() ? "its own" : "the caller's");
  return 0;
}
