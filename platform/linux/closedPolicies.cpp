#include "closedPolicies.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace tarnrun {

namespace {

constexpr char kDirectory[] = "/run/tarn";
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kMode = 0600;
constexpr time_t kOldSeconds = 60;

struct FileName {
  char text[96];
};

// The inode number of the network namespace that the tools of this thread work in; 0 without /proc.
unsigned long long networkNamespace() noexcept {
  struct stat status = {};
  return stat("/proc/thread-self/ns/net", &status) == 0 ? status.st_ino : 0;
}

FileName fileOf(const char* tool, const char* chain) noexcept {
  const char* const slash = strrchr(tool, '/');
  FileName name = {};
  (void)snprintf(name.text, sizeof name.text, "%s/closed_policy.%s.%s.%llu", kDirectory,
                 slash == nullptr ? tool : slash + 1, chain, networkNamespace());
  return name;
}

bool isGuarded(const char* chain) noexcept {
  return strcmp(chain, "INPUT") == 0 || strcmp(chain, "FORWARD") == 0;
}

}  // namespace

PolicyNote::PolicyNote(char* const argv[]) noexcept : tool_(argv[0]), chain_(nullptr) {
  for (int index = 1; index <= 3; ++index) {
    if (argv[index] == nullptr) {
      return;
    }
  }
  if (argv[4] != nullptr || strcmp(argv[1], "--policy") != 0 || !isGuarded(argv[2])) {
    return;
  }
  chain_ = argv[2];
  if (strcmp(argv[3], "DROP") == 0) {
    effect_ = Effect::kCloses;
  } else if (strcmp(argv[3], "ACCEPT") == 0) {
    effect_ = Effect::kOpens;
  }
}

// A machine on which it cannot be noted is no worse off than without.
void PolicyNote::before() noexcept {
  if (effect_ != Effect::kCloses) {
    return;
  }
  (void)mkdir(kDirectory, kDirectoryMode);
  const FileName name = fileOf(tool_, chain_);
  constexpr int kFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int file = open(name.text, kFlags | O_EXCL, kMode);
  created_ = file >= 0;
  if (!created_) {
    file = open(name.text, kFlags, kMode);
  }
  if (file >= 0) {
    (void)futimens(file, nullptr);  // an old note is a new one now
    (void)close(file);
  }
}

void PolicyNote::after(int status) const noexcept {
  const bool opened = effect_ == Effect::kOpens && status == 0;
  const bool refused = effect_ == Effect::kCloses && created_ && status > 0;
  if (opened || refused) {
    (void)unlink(fileOf(tool_, chain_).text);
  }
}

bool isNotedAsClosed(const char* tool, const char* chain) noexcept {
  return access(fileOf(tool, chain).text, F_OK) == 0;
}

void forgetOldNote(const char* tool, const char* chain) noexcept {
  const FileName name = fileOf(tool, chain);
  struct stat status = {};
  if (lstat(name.text, &status) == 0 && time(nullptr) - status.st_mtime > kOldSeconds) {
    (void)unlink(name.text);
  }
}

}  // namespace tarnrun
