// What does compiling a stored profile cost on top of reading its document?
//
// Ours is TARNFW::fwIptablesRulesEnum. The other side is jsoncpp alone: it parses the profile's
// document as many times as ours reads it (each look-up of a profile by name scans the directory),
// and renders the resulting command document once.

#include <array>
#include <cstddef>
#include <string>

#include <json/value.h>

#include "documentReads.h"
#include "profiles.h"
#include "report.h"
#include "tarnfirewall.h"

namespace {

using bench::Pairs;
using bench::Ports;

constexpr double kBound = 1.3;
// The bare parse does not check the service table entry by entry, nor makes port lists of it.
constexpr double kBoundWithServices = 1.4;
constexpr double kGrowthBound = 1.1;

Json::Value compile() {
  Json::Value commands;
  bench::require(
      FW::TARNFW().fwIptablesRulesEnum(bench::kProfileName, commands, /*withState=*/true),
      "the profile does not compile");
  return commands;
}

struct Size {
  int rules;
  int pairs;
  int quickPairs;
};

constexpr std::array<Size, 3> kSizes = {{{100, 150, 40}, {1000, 30, 9}, {10000, 11, 6}}};

std::string rulesText(int rules) { return std::to_string(rules) + " rules"; }

// A profile that names services takes the service table in addition, on both sides.
Pairs measure(const Size& size, Ports ports, const bench::Options& options) {
  const bool services = ports == Ports::kServiceNames;
  bench::install(bench::mixedProfile(size.rules, ports));
  Json::Value commands;
  const int reads =
      bench::documentReads(bench::kProfilePath, [&commands] { commands = compile(); });
  Pairs pairs = bench::inTurn(options.times(size.pairs, size.quickPairs),
                              bench::processorTimed([] { (void)compile(); }),
                              bench::processorTimed([reads, services, &commands] {
                                for (int count = 0; count < reads; ++count) {
                                  Json::Value document;
                                  bench::bareParse(bench::kProfilePath, document);
                                }
                                if (services) {
                                  Json::Value table;
                                  bench::bareParse(bench::kServicesPath, table);
                                }
                                (void)bench::bareWrite(commands);
                              }));
  bench::print(
      timedRow("compile",
               std::to_string(reads) + (services ? " + service table" : "") + " parses and a write",
               rulesText(size.rules), pairs, services ? kBoundWithServices : kBound));
  return pairs;
}

// From one size to the next ours grows as the other side does, or there is a term of our own that
// is more than linear.
void printGrowth(const Size& from, const Pairs& small, const Size& to, const Pairs& large) {
  bench::print(growthRow("compile", "growth: ours to the other side's",
                         std::to_string(from.rules) + " to " + rulesText(to.rules), small, large,
                         kGrowthBound));
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Options options = bench::start(argc, argv);
  std::array<Pairs, kSizes.size()> measured;
  for (std::size_t index = 0; index < kSizes.size(); ++index) {
    measured[index] = measure(kSizes[index], Ports::kNumbers, options);
  }
  for (std::size_t index = 1; index < kSizes.size(); ++index) {
    printGrowth(kSizes[index - 1], measured[index - 1], kSizes[index], measured[index]);
  }
  (void)measure(kSizes[0], Ports::kServiceNames, options);
  (void)measure(kSizes[1], Ports::kServiceNames, options);
  return 0;
}
