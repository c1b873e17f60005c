// What the benchmark programs print, and how they are started.

#ifndef TARN_BENCH_REPORT_H
#define TARN_BENCH_REPORT_H

#include <string>

#include "pairs.h"
#include "statistics.h"

namespace bench {

constexpr double kNoBound = 0;

// One measured ratio. The absolute numbers are of this machine at this time and only say what the
// ratio is a ratio of.
struct Row {
  std::string question;  // "fwExec"
  std::string what;      // the variant: "caller with 200 MB resident"
  std::string size;      // "1000 lines"
  Estimate ratio;
  int pairs;
  double bound = kNoBound;
  double ours;  // medians
  double bare;
  std::string unit;  // of both
};

// Prints the row as a line of CSV:
//   question,what,size,ratio,low,high,pairs,bound,verdict,ours,other,unit
// The verdict is "met", "within spread", "missed", or empty without a bound.
void print(const Row& row);

// The row of timed pairs, in milliseconds.
Row timedRow(const std::string& question, const std::string& what, const std::string& size,
             const Pairs& pairs, double bound);

// From one size to the next: how much faster ours grows than the other side. Ours and bare of the
// row are how many times as long the larger size takes.
Row growthRow(const std::string& question, const std::string& what, const std::string& size,
              const Pairs& small, const Pairs& large, double bound);

// What every benchmark program is started with.
struct Options {
  bool quick = false;  // --quick: fewer repetitions, and not the longest rows

  int times(int full, int few) const { return quick ? few : full; }
};

// Reads the command line and ends the program when it is wrong, or when the program would work on
// the machine's own files and packet filter.
Options start(int argc, char** argv);

// Ends the program: it cannot measure.
[[noreturn]] void stop(const std::string& why);
void require(bool done, const std::string& what);

}  // namespace bench

#endif
