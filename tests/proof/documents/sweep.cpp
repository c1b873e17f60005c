#include "sweep.h"

#include <libkmod.h>

#include <chrono>
#include <cstdlib>
#include <fstream>

#include "fakeKmod.h"
#include "figures.h"
#include "store.h"

namespace sweep {

void add(long count, const std::string& what) {
  figures::add(static_cast<std::uint64_t>(count), what);
}

void skipFor(const std::string& reason) {
  constexpr int kSkipped = 77;  // exit status
  if (reason.empty()) return;
  add(1, "skipped: " + reason);
  std::exit(kSkipped);
}

long ownMilliseconds() {
  constexpr long kNanoseconds = 1'000'000;
  using std::chrono::milliseconds;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  long running = 0;
  long ready = 0;  // nanoseconds; stays 0 where the kernel does not count it
  std::ifstream("/proc/self/schedstat") >> running >> ready;
  return std::chrono::duration_cast<milliseconds>(now).count() - ready / kNanoseconds;
}

void prepare() {
  for (const char* name : {"xt_alpha", "xt_beta"}) {
    fakeKmod::kernel().modules[name].state = KMOD_MODULE_LIVE;
  }
  store::prepare();
}

}  // namespace sweep
