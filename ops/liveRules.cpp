#include "liveRules.h"

#include <algorithm>
#include <iterator>
#include <sstream>

namespace ops {
namespace {

// The forms in which the tools print the mark: they sort the states their own way, and the state
// match is a name of the conntrack match.
constexpr std::array<const char*, 4> kPrintedMarks = {
    "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT",
    "-A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
    "-A FIREWALL_RELOADING -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT",
    "-A FIREWALL_RELOADING -m conntrack --ctstate ESTABLISHED,RELATED -j ACCEPT"};

bool isMark(const std::string& rule) {
  return std::find(kPrintedMarks.begin(), kPrintedMarks.end(), rule) != kPrintedMarks.end();
}

void appendChain(const LiveRules& rules, Family family, const char* chain,
                 std::vector<std::string>& lines) {
  if (!rules.has(chain)) return;
  const std::string tool = std::string(toolOf(family)) + " ";
  lines.push_back(tool + "-N " + chain);
  for (const std::string& rule : rules.rules(chain)) lines.push_back(tool + rule);
}

}  // namespace

const std::vector<std::string>& LiveRules::rules(const std::string& chain) const {
  static const std::vector<std::string> kNone;
  const auto found = chains.find(chain);
  return found == chains.end() ? kNone : found->second;
}

std::vector<std::string> LiveRules::marks() const {
  std::vector<std::string> marks;
  const std::vector<std::string>& reloading = rules(kReloadingChain);
  std::copy_if(reloading.begin(), reloading.end(), std::back_inserter(marks), isMark);
  return marks;
}

bool LiveRules::open() const {
  return std::all_of(kGuardedChains.begin(), kGuardedChains.end(),
                     [this](const GuardedChain& chain) {
                       const auto found = policies.find(chain.builtIn);
                       return found != policies.end() && found->second == "ACCEPT";
                     });
}

LiveRules parseRules(const std::string& text) {
  LiveRules rules;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string kind;
    std::string chain;
    std::string policy;
    words >> kind >> chain;
    if (chain.empty()) continue;
    if (kind == "-P") {
      words >> policy;
      rules.policies[chain] = policy;
      rules.chains[chain];
    } else if (kind == "-N") {
      rules.chains[chain];
    } else if (kind == "-A") {
      rules.chains[chain].push_back(line);
    }
  }
  return rules;
}

bool readRules(Family family, LiveRules& rules, std::string& reason) {
  const Command command = {family, {"-S"}};
  const ToolRun listing = run(command);
  if (listing.status != 0) {
    reason = command.text() + ": " + listing.words();
    return false;
  }
  rules = parseRules(listing.output);
  return true;
}

bool readFilter(LiveFilter& filter, std::string& reason) {
  std::string reasons;
  for (const Family family : kFamilies) {
    std::string why;
    if (!readRules(family, filter.of(family), why)) reasons += (reasons.empty() ? "" : ", ") + why;
  }
  if (reasons.empty()) return true;
  reason = reasons;
  return false;
}

std::vector<std::string> baseChainLines(const LiveFilter& filter) {
  std::vector<std::string> lines;
  for (const Family family : kFamilies) {
    for (const char* chain : kBaseChains) appendChain(filter.of(family), family, chain, lines);
  }
  return lines;
}

std::vector<std::string> missingChains(const LiveFilter& filter) {
  std::vector<std::string> missing;
  for (const Family family : kFamilies) {
    if (!filter.of(family).known()) continue;
    for (const char* chain : kBaseChains) {
      if (!filter.of(family).has(chain)) {
        missing.push_back(std::string(chain) + " (" + titleOf(family) + ")");
      }
    }
  }
  return missing;
}

std::string missingWords(const std::vector<std::string>& missing) {
  std::string words = "chains are missing: ";
  for (const std::string& chain : missing)
    words += (&chain == &missing.front() ? "" : ", ") + chain;
  return words + "; run 'tarnfw setup'";
}

}  // namespace ops
