// Deadlines on the clock that no one sets.

#ifndef TARN_PLATFORM_LINUX_CLOCK_H
#define TARN_PLATFORM_LINUX_CLOCK_H

#include <time.h>

#include <cstdint>

namespace tarnrun {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;

// Nanoseconds of the monotonic clock.
inline int64_t monotonicNow() noexcept {
  timespec now = {};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

inline timespec toTimespec(int64_t nanoseconds) noexcept {
  timespec time = {};
  time.tv_sec = nanoseconds / kNanosecondsPerSecond;
  time.tv_nsec = nanoseconds % kNanosecondsPerSecond;
  return time;
}

// Sleeps; a signal may end the sleep early, so callers sleep in a loop that looks at the clock.
inline void sleepFor(int64_t nanoseconds) noexcept {
  const timespec time = toTimespec(nanoseconds);
  (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
}

// Sleeps 10 to 20 ms: the pause between two attempts at a lock. The low digits of the clock keep
// two waiters from meeting at every attempt.
inline void sleepBetweenAttempts() noexcept {
  constexpr int64_t kShortest = 10 * kNanosecondsPerMillisecond;
  sleepFor(kShortest + monotonicNow() % kShortest);
}

}  // namespace tarnrun

#endif
