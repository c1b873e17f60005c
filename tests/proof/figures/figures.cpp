#include "figures.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace figures {
namespace {

struct Line {
  std::string suite;
  std::string counts;
  std::string skipped;  // why, or empty
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

Line& line() {
  static Line kept;
  return kept;
}

std::string withCommas(std::uint64_t count) {
  constexpr std::size_t kGroup = 3;
  std::string digits = std::to_string(count);
  for (std::size_t at = digits.size(); at > kGroup; at -= kGroup) digits.insert(at - kGroup, ",");
  return digits;
}

void print() {
  if (!line().skipped.empty()) {
    (void)std::printf("figures: %s: skipped: %s\n", line().suite.c_str(), line().skipped.c_str());
    return;
  }
  const auto spent = std::chrono::steady_clock::now() - line().start;
  (void)std::printf(
      "figures: %s: %s; %ld s\n", line().suite.c_str(), line().counts.c_str(),
      static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(spent).count()));
}

}  // namespace

void open(const std::string& suite) {
  if (line().suite.empty()) (void)std::atexit(print);
  line().suite = suite;
}

void add(std::uint64_t count, const std::string& what) {
  std::string& counts = line().counts;
  counts += (counts.empty() ? "" : ", ") + withCommas(count) + " " + what;
}

void skipFor(const std::string& reason) {
  constexpr int kSkipped = 77;  // exit status
  if (reason.empty()) return;
  line().skipped = reason;
  std::exit(kSkipped);
}

int longer() {
  const char* const factor = std::getenv("TARN_LONG");
  constexpr int kDecimal = 10;
  const long number = factor == nullptr ? 1 : std::strtol(factor, nullptr, kDecimal);
  return number < 1 ? 1 : static_cast<int>(number);
}

}  // namespace figures
