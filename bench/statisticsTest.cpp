#include "statistics.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using bench::Estimate;
using bench::Verdict;

std::vector<double> oneTo(int count) {
  std::vector<double> samples;
  for (int sample = count; sample >= 1; --sample) samples.push_back(sample);
  return samples;
}

struct EstimateRow {
  const char* name;
  std::vector<double> samples;
  Estimate expected;
};

// The interval leaves out as many samples at each end as keep it at 95 %: for nine fair tosses, one
// head or fewer has probability 10/512, two or fewer 46/512.
TEST(Statistics, MedianAndInterval) {
  const EstimateRow rows[] = {
      {"OneSampleIsItsOwnInterval", {2}, {2, 2, 2}},
      {"MiddleOfThreeWithTheWholeRange", {3, 1, 2}, {2, 1, 3}},
      {"MeanOfTheTwoInTheMiddle", {4, 1, 2, 3}, {2.5, 1, 4}},
      {"EightKeepTheWholeRange", oneTo(8), {4.5, 1, 8}},
      {"NineLeaveOutOneAtEachEnd", oneTo(9), {5, 2, 8}},
      {"TwelveLeaveOutTwoAtEachEnd", oneTo(12), {6.5, 3, 10}},
      {"HundredLeaveOutThirtyNine", oneTo(100), {50.5, 40, 61}},
      {"OneOutlierMovesNothingButTheEnd", {1, 1, 1, 1, 1, 1, 1, 1, 90}, {1, 1, 1}},
  };
  for (const EstimateRow& row : rows) {
    SCOPED_TRACE(row.name);
    const Estimate found = bench::estimate(row.samples);
    EXPECT_EQ(found.median, row.expected.median);
    EXPECT_EQ(found.low, row.expected.low);
    EXPECT_EQ(found.high, row.expected.high);
  }
}

TEST(Statistics, RatioOfSums) {
  // Every pair has the ratio 2: no draw can give another.
  const Estimate steady = bench::ratioOfSums({2, 4, 20}, {1, 2, 10});
  EXPECT_EQ(steady.median, 2);
  EXPECT_EQ(steady.low, 2);
  EXPECT_EQ(steady.high, 2);
  // A large pair weighs more than a small one; draws with and without it span the interval.
  const Estimate mixed = bench::ratioOfSums({1, 1, 1, 1, 30}, {1, 1, 1, 1, 10});
  EXPECT_EQ(mixed.median, 34.0 / 14.0);
  EXPECT_EQ(mixed.low, 1);
  EXPECT_GT(mixed.high, 2.7);
  EXPECT_LT(mixed.high, 3);
}

TEST(Statistics, QuotientIsAsWideAsItCanBe) {
  const Estimate found = bench::quotient({4, 3, 6}, {2, 1, 3});
  EXPECT_EQ(found.median, 2);
  EXPECT_EQ(found.low, 1);
  EXPECT_EQ(found.high, 6);
}

struct VerdictRow {
  const char* name;
  Estimate ratio;
  Verdict expected;
};

TEST(Statistics, BoundIsMissedOnlyBeyondTheSpread) {
  const VerdictRow rows[] = {
      {"MedianBelow", {1.04, 1.01, 1.20}, Verdict::kMet},
      {"MedianAtTheBound", {1.05, 1.05, 1.05}, Verdict::kMet},
      {"MedianAboveAndLowEndBelow", {1.06, 1.02, 1.08}, Verdict::kWithinSpread},
      {"LowEndAtTheBound", {1.06, 1.05, 1.08}, Verdict::kWithinSpread},
      {"WholeIntervalAbove", {1.06, 1.051, 1.08}, Verdict::kMissed},
  };
  for (const VerdictRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(bench::verdict(row.ratio, 1.05), row.expected);
  }
}

}  // namespace
