// How long are new connections dropped while TARNFW::fwReload applies a profile, and how does that
// grow with the number of lines?
//
// The period is timed from the start of the first command of the drop set to the end of the last
// one of the accept set. The other side is a C loop that starts the same commands with posix_spawn,
// in lockstep: the rule sets of both sides grow line by line alike.

#include <array>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include "commandList.h"
#include "files.h"
#include "lockstep.h"
#include "profiles.h"
#include "report.h"
#include "tarnfirewall.h"

namespace {

using bench::CommandList;
using bench::Pairs;
using bench::require;
using bench::TwinNetworks;

constexpr double kBound = 1.10;
constexpr double kGrowthBound = 1.05;

// The commands of a reload of the installed profile.
std::vector<std::string> reloadCommands() {
  Json::Value profile;
  require(FW::TARNFW().fwIptablesRulesEnum(bench::kProfileName, profile, /*withState=*/true),
          "the profile does not compile");
  std::vector<std::string> lines;
  const auto append = [&lines](std::initializer_list<const char*> arguments) {
    for (const std::string tool : {"/sbin/iptables ", "/sbin/ip6tables "}) {
      for (const char* words : arguments) lines.push_back(tool + words);
    }
  };
  append({"--policy INPUT DROP", "--policy FORWARD DROP",
          "-A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"});
  append({"-F INPUT_FIREWALL"});
  append({"-F FORWARD_FIREWALL"});
  for (const std::string& line : bench::commandLines(profile)) lines.push_back(line);
  append({"--policy INPUT ACCEPT", "--policy FORWARD ACCEPT",
          "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"});
  return lines;
}

struct Size {
  int lines;
  int reloads;
  int quickReloads;
};

constexpr std::array<Size, 3> kSizes = {{{100, 6, 2}, {300, 3, 1}, {1000, 3, 0}}};

std::string linesText(int lines) { return std::to_string(lines) + " lines"; }

// Prints the row of whole periods and answers the pairs of their blocks. The row's ratio is that of
// the sums: the compilation, once in a period, counts too.
Pairs measure(const TwinNetworks& networks, const Size& size, int reloads) {
  bench::install(bench::profileOfLines(size.lines));
  const CommandList commands(reloadCommands());
  Pairs periods;
  Pairs blocks;
  for (int count = 0; count < reloads; ++count) {
    const Pairs ofOne = bench::lockstep(networks, commands, bench::Span::kCommands, [] {
      require(FW::TARNFW().fwReload(/*withState=*/true), "the reload fails");
    });
    periods.addSum(ofOne);
    blocks.add(ofOne);
  }
  bench::Row row = timedRow("drop period", "bare loop", linesText(size.lines), periods, kBound);
  row.ratio = bench::ratioOfSums(blocks.ours, blocks.bare);
  row.pairs = static_cast<int>(blocks.ours.size());
  bench::print(row);
  return blocks;
}

// Ten lines of a long profile against ten of a short one. What the tool itself takes longer in a
// longer list is on both sides; what is left is a term of ours that is more than linear.
void printGrowth(const Size& from, const Pairs& small, const Size& to, const Pairs& large) {
  bench::print(growthRow("drop period", "growth of ten lines: ours to bare",
                         std::to_string(from.lines) + " to " + linesText(to.lines), small, large,
                         kGrowthBound));
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Options options = bench::start(argc, argv);
  // The modules count as loaded: which of them the machine has is no matter of the reload's speed.
  require(TLIBCFileSetKeyValue("/tmp/iptables_serv_mod_list", "firewall", "yes", 0) >= 0,
          "cannot record the modules as loaded");

  const TwinNetworks networks;
  Pairs shortest;
  for (const Size& size : kSizes) {
    const int reloads = options.times(size.reloads, size.quickReloads);
    if (reloads == 0) continue;
    Pairs blocks = measure(networks, size, reloads);
    if (shortest.empty()) {
      shortest = std::move(blocks);
    } else {
      printGrowth(kSizes.front(), shortest, size, blocks);
    }
  }
  return 0;
}
