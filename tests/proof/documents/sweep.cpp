#include "sweep.h"

#include <libkmod.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "fakeKmod.h"
#include "store.h"

namespace sweep {

long factor() {
  const char* const text = std::getenv("TARN_LONG");
  const long value = text == nullptr ? 1 : std::strtol(text, nullptr, 10);
  return value < 1 ? 1 : value;
}

std::string grouped(long number) {
  std::string digits = std::to_string(number);
  for (std::size_t place = digits.size(); place > 3; place -= 3) digits.insert(place - 3, ",");
  return digits;
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

void Figures::close(const std::string& text) const {
  const auto spent = std::chrono::steady_clock::now() - start_;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(spent).count();
  (void)std::printf("figures: %s: %s; %lld s\n", suite_.c_str(), text.c_str(),
                    static_cast<long long>(seconds));
  (void)std::fflush(stdout);
}

void prepare() {
  for (const char* name : {"xt_alpha", "xt_beta"}) {
    fakeKmod::kernel().modules[name].state = KMOD_MODULE_LIVE;
  }
  store::prepare();
}

}  // namespace sweep
