// Timing two ways of doing the same, in turn.

#ifndef TARN_BENCH_PAIRS_H
#define TARN_BENCH_PAIRS_H

#include <functional>
#include <vector>

#include "statistics.h"

namespace bench {

// Does the work once and answers how long it took, in seconds.
using Work = std::function<double()>;

// Work timed by the clock on the wall.
Work timed(std::function<void()> work);

// Work timed by the processor time of this process: for work that neither waits nor starts
// programs, where it leaves out what other programs take.
Work processorTimed(std::function<void()> work);

struct Pairs {
  std::vector<double> ours;  // seconds
  std::vector<double> bare;  // seconds

  bool empty() const { return ours.empty(); }
  void add(const Pairs& more);
  // Adds the sums of `parts` as one pair.
  void addSum(const Pairs& parts);
  // Ours to bare, pair by pair.
  Estimate ratio() const;
};

// Runs both once untimed, then `count` pairs in the order ours bare, bare ours, ours bare, ...:
// what slows the machine down for longer than one run, or steadily, hits both alike.
Pairs inTurn(int count, const Work& ours, const Work& bare);

}  // namespace bench

#endif
