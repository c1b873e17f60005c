#include "ownTime.h"

#include <chrono>
#include <fstream>

namespace figures {
namespace {

// For how long this process has stood ready; 0 where the kernel does not count it.
long readyNanoseconds() {
  long running = 0;
  long ready = 0;
  std::ifstream("/proc/self/schedstat") >> running >> ready;
  return ready;
}

}  // namespace

long ownMilliseconds() {
  constexpr long kNanoseconds = 1'000'000;
  using std::chrono::milliseconds;
  // Between the two clocks there is no wait, which only one of them would have.
  for (;;) {
    const long ready = readyNanoseconds();
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    if (readyNanoseconds() != ready) continue;
    return std::chrono::duration_cast<milliseconds>(now).count() - ready / kNanoseconds;
  }
}

}  // namespace figures
