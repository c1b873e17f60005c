// What does asking whether a port is blocked cost on top of reading the documents it is answered
// from?
//
// Ours is TARNFW::fwPortIsBlocked, from the settings to the verdict. The other side is jsoncpp
// alone: it parses the settings and the profile's document as many times as ours reads each.

#include <array>
#include <string>

#include <json/value.h>

#include "documentReads.h"
#include "profiles.h"
#include "report.h"
#include "tarnfirewall.h"

namespace {

constexpr double kBound = 1.2;

void ask() {
  FW::PortCompareST port;
  port.port = "22";
  FW::AdapterPolicyMap verdicts;
  bench::require(FW::TARNFW().fwPortIsBlocked(port, "eth0", verdicts), "the query fails");
}

void parse(const char* path, int times) {
  for (int count = 0; count < times; ++count) {
    Json::Value document;
    bench::bareParse(path, document);
  }
}

struct Size {
  int rules;
  int pairs;
  int quickPairs;
};

constexpr std::array<Size, 3> kSizes = {{{100, 150, 40}, {1000, 30, 9}, {10000, 11, 0}}};

void measure(const Size& size, int count) {
  bench::install(bench::mixedProfile(size.rules));
  const int profileReads = bench::documentReads(bench::kProfilePath, ask);
  const int settingsReads = bench::documentReads(bench::kSettingsPath, ask);
  const bench::Pairs pairs = bench::inTurn(count, bench::processorTimed(ask),
                                           bench::processorTimed([profileReads, settingsReads] {
                                             parse(bench::kSettingsPath, settingsReads);
                                             parse(bench::kProfilePath, profileReads);
                                           }));
  bench::print(timedRow(
      "fwPortIsBlocked",
      "against " + std::to_string(profileReads) + " + " + std::to_string(settingsReads) + " parses",
      std::to_string(size.rules) + " rules", pairs, kBound));
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Options options = bench::start(argc, argv);
  for (const Size& size : kSizes) {
    const int pairs = options.times(size.pairs, size.quickPairs);
    if (pairs > 0) measure(size, pairs);
  }
  return 0;
}
