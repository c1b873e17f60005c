#include "packetFilterTool.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cancellation.h"
#include "clock.h"
#include "closedPolicies.h"
#include "descriptor.h"

namespace tarnrun {

namespace {

constexpr char kXtablesLock[] = "/run/xtables.lock";
constexpr int kLockSeconds = 30;
// The tools' exit status for lack of memory, rights or the lock.
constexpr int kResourceProblem = 4;
constexpr int kAttempts = 20;
constexpr int64_t kFirstPause = 10 * kNanosecondsPerMillisecond;
constexpr int64_t kLongestPause = 320 * kNanosecondsPerMillisecond;

constexpr const char* kEnvironmentUnderLock[] = {kFixedEnvironment[0], kFixedEnvironment[1],
                                                 "XTABLES_LOCKFILE=/dev/null", nullptr};

// Takes the lock of all programs that change rules. Invalid when the file cannot be opened or the
// lock is not had in time.
tarn::Descriptor takeXtablesLock() noexcept {
  tarn::Descriptor lock(
      open(kXtablesLock, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  if (!lock.valid()) {
    return lock;
  }
  const int64_t deadline = monotonicNow() + kLockSeconds * kNanosecondsPerSecond;
  while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if ((errno != EWOULDBLOCK && errno != EINTR) || monotonicNow() >= deadline) {
      return tarn::Descriptor();
    }
    sleepBetweenAttempts();
  }
  return lock;
}

bool namesHeldLock(const char* words) noexcept {
  return strstr(words, "Another app is currently holding the xtables lock") != nullptr ||
         strstr(words, "Resource temporarily unavailable") != nullptr;
}

// What the last attempt has printed, and the end of the output before it.
class AttemptOutput {
 public:
  explicit AttemptOutput(const Program& program) noexcept
      : program_(program), start_(program.output < 0 ? 0 : lseek(program.output, 0, SEEK_CUR)) {}

  bool namesHeldLock() const noexcept {
    if (program_.output < 0) {
      return program_.words != nullptr && tarnrun::namesHeldLock(program_.words);
    }
    char head[512] = {};
    return start_ >= 0 && pread(program_.output, head, sizeof head - 1, start_) > 0 &&
           tarnrun::namesHeldLock(head);
  }

  bool discard() const noexcept {
    return program_.output < 0 || (ftruncate(program_.output, start_) == 0 &&
                                   lseek(program_.output, start_, SEEK_SET) == start_);
  }

 private:
  const Program& program_;
  off_t start_;
};

}  // namespace

bool isPacketFilterTool(const char* path) noexcept {
  return strcmp(path, "/sbin/iptables") == 0 || strcmp(path, "/sbin/ip6tables") == 0;
}

Outcome runPacketFilterTool(const Program& program) {
  const tarn::CancellationHold noCancellation;
  const tarn::Descriptor lock = takeXtablesLock();
  Program tool = program;
  tool.environment = lock.valid() ? kEnvironmentUnderLock : kFixedEnvironment;
  tool.ownGroup = true;  // a key pressed at the caller's terminal must not end it half way
  const AttemptOutput output(tool);
  PolicyNote note(tool.argv);
  note.before();
  int64_t pause = kFirstPause;
  for (int attempt = 1;; ++attempt) {
    const Outcome outcome = runProgram(tool);
    if (outcome.status != kResourceProblem || attempt == kAttempts || !output.namesHeldLock() ||
        !output.discard()) {
      note.after(outcome.status);
      return outcome;
    }
    sleepFor(pause);
    pause = pause < kLongestPause ? pause * 2 : kLongestPause;
  }
}

}  // namespace tarnrun
