#include "recovery.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include <json/value.h>

#include "runtimeFiles.h"
#include "tarnfirewall.h"

namespace ops {
namespace {

constexpr char kRecord[] = "/run/tarn/open_policies.json";

std::string policyName(Family family, const char* chain) {
  return std::string(keyOf(family)) + " " + chain;
}

bool isOpen(const LiveRules& rules, const char* chain) {
  const auto found = rules.policies.find(chain);
  return found != rules.policies.end() && found->second == "ACCEPT";
}

// The arguments that delete a rule that "-S" prints as "-A CHAIN ...".
std::vector<std::string> deletionOf(const std::string& rule) {
  std::istringstream stream(rule);
  std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
  words.front() = "-D";
  return words;
}

Recovery planFor(const LiveFilter& filter) {
  Recovery plan;
  plan.marks = filter.marks();
  plan.commands = recoveryCommands(filter, recordedOpenPolicies());
  return plan;
}

}  // namespace

std::vector<Command> recoveryCommands(const LiveFilter& filter,
                                      const std::vector<std::string>& record) {
  const bool marked = filter.marks() > 0;
  std::vector<Command> commands;
  for (const Family family : kFamilies) {
    for (const GuardedChain& chain : kGuardedChains) {
      const bool ours = marked || std::find(record.begin(), record.end(),
                                            policyName(family, chain.builtIn)) != record.end();
      if (ours && !isOpen(filter.of(family), chain.builtIn)) {
        commands.push_back({family, {"--policy", chain.builtIn, "ACCEPT"}});
      }
    }
  }
  for (const Family family : kFamilies) {
    for (const std::string& mark : filter.of(family).marks()) {
      commands.push_back({family, deletionOf(mark)});
    }
  }
  return commands;
}

std::vector<std::string> openPolicies(const LiveFilter& filter) {
  std::vector<std::string> open;
  for (const Family family : kFamilies) {
    for (const GuardedChain& chain : kGuardedChains) {
      if (isOpen(filter.of(family), chain.builtIn)) {
        open.push_back(policyName(family, chain.builtIn));
      }
    }
  }
  return open;
}

bool writeOpenPolicies(const std::vector<std::string>& policies) {
  Json::Value record(Json::arrayValue);
  for (const std::string& policy : policies) record.append(policy);
  return makeRuntimeDirectory() && jsonFileDump(record, kRecord);
}

std::vector<std::string> recordedOpenPolicies() {
  std::vector<std::string> policies;
  Json::Value record;
  if (access(kRecord, F_OK) != 0 || !jsonFileLoad(record, kRecord)) return policies;
  if (!record.isArray()) return policies;
  for (const Json::Value& policy : record) {
    if (policy.isString()) policies.push_back(policy.asString());
  }
  return policies;
}

void forgetOpenPolicies() {
  (void)unlink(kRecord);  // mostly there is none
}

Recovery recover(LiveFilter& filter) {
  std::string reason;
  Recovery recovery;
  if (!readFilter(filter, reason)) {
    recovery.errors.push_back(reason);
    return recovery;
  }
  recovery = planFor(filter);
  for (const Command& command : recovery.commands) {
    const ToolRun result = run(command);
    if (result.status != 0) recovery.errors.push_back(command.text() + ": " + result.words());
  }
  if (!recovery.commands.empty() && !readFilter(filter, reason)) recovery.errors.push_back(reason);
  return recovery;
}

Recovery planRecovery() {
  std::string reason;
  LiveFilter filter;
  if (readFilter(filter, reason)) return planFor(filter);
  Recovery plan;
  plan.errors.push_back(reason);
  return plan;
}

}  // namespace ops
