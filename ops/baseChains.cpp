#include "baseChains.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>

#include "executionLock.h"
#include "runtimeFiles.h"

namespace ops {
namespace {

constexpr char kLockFile[] = "/run/tarn/base_chains.lock";

// Other programs change the tables without our lock: look again this often when a command failed.
constexpr int kAttempts = 3;

// A rule that FIREWALL_RELOADING always has, and the forms in which the tools print it: the state
// match is a name of the conntrack match.
struct PermanentRule {
  std::vector<std::string> words;
  std::vector<std::string> printed;
};

const std::vector<PermanentRule>& permanentRules() {
  static const std::vector<PermanentRule> kRules = {
      {{"-i", "lo", "-j", "ACCEPT"}, {"-A FIREWALL_RELOADING -i lo -j ACCEPT"}},
      {{"-m", "state", "--state", "INVALID", "-j", "RETURN"},
       {"-A FIREWALL_RELOADING -m state --state INVALID -j RETURN",
        "-A FIREWALL_RELOADING -m conntrack --ctstate INVALID -j RETURN"}}};
  return kRules;
}

// The number of the first rule in `rules` that is one of `forms`, counted from 1; 0 when there is
// none.
std::size_t positionOf(const std::vector<std::string>& rules,
                       const std::vector<std::string>& forms) {
  const auto found = std::find_first_of(rules.begin(), rules.end(), forms.begin(), forms.end());
  return found == rules.end() ? 0 : static_cast<std::size_t>(found - rules.begin()) + 1;
}

// Collects the commands of one family.
class Commands {
 public:
  explicit Commands(Family family) : family_(family) {}

  void add(std::initializer_list<std::string> arguments) {
    commands_.push_back({family_, std::vector<std::string>(arguments)});
  }
  void insert(const std::string& chain, std::size_t position,
              const std::vector<std::string>& rule) {
    std::vector<std::string> arguments = {"-I", chain, std::to_string(position)};
    arguments.insert(arguments.end(), rule.begin(), rule.end());
    commands_.push_back({family_, std::move(arguments)});
  }
  std::vector<Command> take() { return std::move(commands_); }

 private:
  Family family_;
  std::vector<Command> commands_;
};

void addPermanentRules(const LiveRules& live, Commands& commands) {
  const std::vector<std::string>& present = live.rules(kReloadingChain);
  std::size_t inserted = 0;
  std::size_t before = 0;  // position of the permanent rule before this one
  for (const PermanentRule& rule : permanentRules()) {
    const std::size_t position = positionOf(present, rule.printed);
    if (position == 0) {
      commands.insert(kReloadingChain, before + 1, rule.words);
      ++inserted;
      ++before;
    } else {
      before = position + inserted;
    }
  }
}

void addJumps(const LiveRules& live, const GuardedChain& chain, Commands& commands) {
  const std::vector<std::string>& present = live.rules(chain.builtIn);
  const std::string jump = std::string("-A ") + chain.builtIn + " -j ";
  const std::size_t firewall = positionOf(present, {jump + chain.firewallChain});
  const std::size_t reloading = positionOf(present, {jump + kReloadingChain});

  if (reloading == 0 || (firewall != 0 && firewall < reloading)) {
    if (reloading != 0) commands.add({"-D", chain.builtIn, "-j", kReloadingChain});
    commands.insert(chain.builtIn, std::max<std::size_t>(firewall, 1), {"-j", kReloadingChain});
  }
  if (firewall == 0) {
    commands.insert(chain.builtIn, std::max<std::size_t>(reloading, 1) + 1,
                    {"-j", chain.firewallChain});
  }
}

// Runs `commands`, adds those that succeed to `done`, and answers what the tools said to the
// others.
std::vector<std::string> runAll(const std::vector<Command>& commands, std::vector<Command>& done) {
  std::vector<std::string> errors;
  for (const Command& command : commands) {
    const ToolRun result = run(command);
    if (result.status == 0) {
      done.push_back(command);
    } else {
      errors.push_back(command.text() + ": " + result.words());
    }
  }
  return errors;
}

}  // namespace

std::vector<Command> baseChainCommands(Family family, const LiveRules& rules) {
  Commands commands(family);
  for (const char* chain : kBaseChains) {
    if (!rules.has(chain)) commands.add({"-N", chain});
  }
  addPermanentRules(rules, commands);
  for (const GuardedChain& chain : kGuardedChains) addJumps(rules, chain, commands);
  return commands.take();
}

BaseChains planBaseChains() {
  BaseChains plan;
  LiveFilter filter;
  std::string reason;
  if (!readFilter(filter, reason)) {
    plan.errors.push_back(reason);
    return plan;
  }
  for (const Family family : kFamilies) {
    const std::vector<Command> commands = baseChainCommands(family, filter.of(family));
    plan.commands.insert(plan.commands.end(), commands.begin(), commands.end());
  }
  return plan;
}

BaseChains setUpBaseChains() {
  BaseChains chains;
  if (!makeRuntimeDirectory()) {
    chains.errors.push_back(std::string(kRuntimeDirectory) + ": " + std::strerror(errno));
    return chains;
  }
  const LockFile lock(kLockFile);
  if (!lock.held()) {
    chains.busy = errno == ETIMEDOUT;
    chains.errors.push_back(std::string(kLockFile) + ": " + std::strerror(errno));
    return chains;
  }
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const BaseChains plan = planBaseChains();
    if (!plan.errors.empty()) {
      chains.errors = plan.errors;
      return chains;
    }
    if (plan.commands.empty()) {
      chains.errors.clear();
      return chains;
    }
    chains.errors = runAll(plan.commands, chains.commands);
  }
  if (!planBaseChains().commands.empty() && chains.errors.empty()) {
    chains.errors.emplace_back("another program keeps taking the base chains away");
  }
  return chains;
}

}  // namespace ops
