// What a set of measured ratios says.

#ifndef TARN_BENCH_STATISTICS_H
#define TARN_BENCH_STATISTICS_H

#include <vector>

namespace bench {

// A median, and the interval of samples that holds the true median with at least 95 %, whatever the
// distribution. Below six samples it is their whole range and holds it less surely: three 75 %,
// four 87 %, five 93 %.
struct Estimate {
  double median;
  double low;
  double high;
};

// Of at least one sample.
Estimate estimate(std::vector<double> samples);

// The sum of `ours` to the sum of `bare`, which are pairs, and the interval in which it lies in 95
// % of 1,000 random draws of as many pairs out of these. The draws are the same in every run.
Estimate ratioOfSums(const std::vector<double>& ours, const std::vector<double>& bare);

// The interval of a quotient of two independent estimates, as wide as it can be.
Estimate quotient(const Estimate& upper, const Estimate& lower);

// Does an estimate keep to its upper bound? It is missed only when the whole interval lies above.
enum class Verdict { kMet, kWithinSpread, kMissed };
Verdict verdict(const Estimate& ratio, double bound);

}  // namespace bench

#endif
