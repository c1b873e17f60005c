#include "pairs.h"

#include <time.h>

#include <cstddef>
#include <numeric>
#include <utility>

namespace bench {
namespace {

double secondsOf(clockid_t clock) {
  constexpr double kNanosecondsPerSecond = 1e9;
  timespec now = {};
  (void)clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / kNanosecondsPerSecond;
}

Work timedBy(clockid_t clock, std::function<void()> work) {
  return [clock, work = std::move(work)] {
    const double start = secondsOf(clock);
    work();
    return secondsOf(clock) - start;
  };
}

}  // namespace

Work timed(std::function<void()> work) { return timedBy(CLOCK_MONOTONIC, std::move(work)); }

Work processorTimed(std::function<void()> work) {
  return timedBy(CLOCK_PROCESS_CPUTIME_ID, std::move(work));
}

void Pairs::add(const Pairs& more) {
  ours.insert(ours.end(), more.ours.begin(), more.ours.end());
  bare.insert(bare.end(), more.bare.begin(), more.bare.end());
}

void Pairs::addSum(const Pairs& parts) {
  ours.push_back(std::accumulate(parts.ours.begin(), parts.ours.end(), 0.0));
  bare.push_back(std::accumulate(parts.bare.begin(), parts.bare.end(), 0.0));
}

Estimate Pairs::ratio() const {
  std::vector<double> ratios;
  for (std::size_t index = 0; index < ours.size(); ++index) {
    ratios.push_back(ours[index] / bare[index]);
  }
  return estimate(std::move(ratios));
}

Pairs inTurn(int count, const Work& ours, const Work& bare) {
  (void)ours();
  (void)bare();
  Pairs pairs;
  for (int pair = 0; pair < count; ++pair) {
    if (pair % 2 == 0) {
      pairs.ours.push_back(ours());
      pairs.bare.push_back(bare());
    } else {
      pairs.bare.push_back(bare());
      pairs.ours.push_back(ours());
    }
  }
  return pairs;
}

}  // namespace bench
