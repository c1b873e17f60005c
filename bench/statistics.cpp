#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numeric>
#include <random>

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

Estimate ratioOfSums(const std::vector<double>& ours, const std::vector<double>& bare) {
  constexpr std::size_t kDraws = 1000;
  constexpr auto kOutsideDraws = static_cast<std::size_t>(kDraws * kOutside / 2);  // at each end
  std::mt19937 random;  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same draws in every run
  std::vector<double> ratios;
  for (std::size_t draw = 0; draw < kDraws; ++draw) {
    double oursSum = 0;
    double bareSum = 0;
    for (std::size_t count = 0; count < ours.size(); ++count) {
      const std::size_t index = random() % ours.size();
      oursSum += ours[index];
      bareSum += bare[index];
    }
    ratios.push_back(oursSum / bareSum);
  }
  std::sort(ratios.begin(), ratios.end());
  return {std::accumulate(ours.begin(), ours.end(), 0.0) /
              std::accumulate(bare.begin(), bare.end(), 0.0),
          ratios[kOutsideDraws], ratios[kDraws - 1 - kOutsideDraws]};
}

Estimate quotient(const Estimate& upper, const Estimate& lower) {
  return {upper.median / lower.median, upper.low / lower.high, upper.high / lower.low};
}

Verdict verdict(const Estimate& ratio, double bound) {
  if (ratio.median <= bound) return Verdict::kMet;
  return ratio.low <= bound ? Verdict::kWithinSpread : Verdict::kMissed;
}

}  // namespace bench
