#include "report.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {
namespace {

constexpr double kMillisecondsPerSecond = 1000;

const char* verdictText(const Row& row) {
  if (row.bound == kNoBound) return "";
  switch (verdict(row.ratio, row.bound)) {
    case Verdict::kMet:
      return "met";
    case Verdict::kWithinSpread:
      return "within spread";
    case Verdict::kMissed:
      return "missed";
  }
  return "";
}

}  // namespace

void print(const Row& row) {
  char bound[16] = "";
  if (row.bound != kNoBound) (void)std::snprintf(bound, sizeof bound, "%.2f", row.bound);
  (void)std::printf("%s,%s,%s,%.3f,%.3f,%.3f,%d,%s,%s,%.2f,%.2f,%s\n", row.question.c_str(),
                    row.what.c_str(), row.size.c_str(), row.ratio.median, row.ratio.low,
                    row.ratio.high, row.pairs, bound, verdictText(row), row.ours, row.bare,
                    row.unit.c_str());
  (void)std::fflush(stdout);
}

Row timedRow(const std::string& question, const std::string& what, const std::string& size,
             const Pairs& pairs, double bound) {
  return {question,
          what,
          size,
          pairs.ratio(),
          static_cast<int>(pairs.ours.size()),
          bound,
          estimate(pairs.ours).median * kMillisecondsPerSecond,
          estimate(pairs.bare).median * kMillisecondsPerSecond,
          "ms"};
}

Row growthRow(const std::string& question, const std::string& what, const std::string& size,
              const Pairs& small, const Pairs& large, double bound) {
  return {question,
          what,
          size,
          quotient(large.ratio(), small.ratio()),
          static_cast<int>(large.ours.size()),
          bound,
          estimate(large.ours).median / estimate(small.ours).median,
          estimate(large.bare).median / estimate(small.bare).median,
          "times"};
}

Options start(int argc, char** argv) {
  Options options;
  for (int index = 1; index < argc; ++index) {
    if (std::strcmp(argv[index], "--quick") != 0) {
      stop(std::string("what is ") + argv[index] + "?");
    }
    options.quick = true;
  }
  require(access("/run/tarn-sandbox", F_OK) == 0,
          std::string(argv[0]) + " changes rules and profiles: bench/run.sh runs it in a sandbox");
  return options;
}

void stop(const std::string& why) {
  (void)std::fprintf(stderr, "%s\n", why.c_str());
  std::exit(1);
}

void require(bool done, const std::string& what) {
  if (!done) stop(what);
}

}  // namespace bench
