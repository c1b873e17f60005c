#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace bench {
namespace {

constexpr double kOutside = 0.05;  // probability that the interval does not hold the true median

// How many samples to leave out at each end: the most for which that many or fewer of `count` fair
// coin tosses are heads with at most half of kOutside.
std::size_t leftOut(std::size_t count) {
  double ways = std::pow(0.5, static_cast<double>(count));  // exactly `heads` heads
  double atMost = ways;
  std::size_t heads = 0;
  while (atMost <= kOutside / 2) {
    ++heads;
    ways *= static_cast<double>(count - heads + 1) / static_cast<double>(heads);
    atMost += ways;
  }
  return heads == 0 ? 0 : heads - 1;
}

}  // namespace

Estimate estimate(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  const std::size_t count = samples.size();
  const std::size_t out = leftOut(count);
  const double median = (samples[(count - 1) / 2] + samples[count / 2]) / 2;
  return {median, samples[out], samples[count - 1 - out]};
}

Estimate quotient(const Estimate& upper, const Estimate& lower) {
  return {upper.median / lower.median, upper.low / lower.high, upper.high / lower.low};
}

Verdict verdict(const Estimate& ratio, double bound) {
  if (ratio.median <= bound) return Verdict::kMet;
  return ratio.low <= bound ? Verdict::kWithinSpread : Verdict::kMissed;
}

}  // namespace bench
