// tarnfw status: what the settings say, what the kernel holds, and whether the two go together.

#include <string>
#include <vector>

#include "ops/liveRules.h"
#include "ops/recovery.h"
#include "ops/settings.h"
#include "ops/verification.h"
#include "output.h"
#include "tarnfirewall.h"
#include "verbs.h"

namespace tarnfw {
namespace {

std::string policyOf(const ops::LiveRules& rules, const char* chain) {
  const auto found = rules.policies.find(chain);
  return found == rules.policies.end() ? "" : found->second;
}

// {"policies": {"INPUT": "ACCEPT", ...}, "chains": {"INPUT_FIREWALL": number of rules or null,
// ...}}
Json::Value toJson(const ops::LiveRules& rules) {
  Json::Value value(Json::objectValue);
  for (const ops::GuardedChain& chain : ops::kGuardedChains) {
    value["policies"][chain.builtIn] = policyOf(rules, chain.builtIn);
  }
  for (const char* chain : ops::kBaseChains) {
    value["chains"][chain] = rules.has(chain)
                                 ? Json::Value(static_cast<Json::UInt64>(rules.rules(chain).size()))
                                 : Json::Value();
  }
  return value;
}

std::size_t loadedLines(const ops::LiveRules& rules) {
  std::size_t count = 0;
  for (const ops::GuardedChain& chain : ops::kGuardedChains) {
    count += rules.rules(chain.firewallChain).size();
  }
  return count;
}

std::string familyText(ops::Family family, const ops::LiveRules& rules, bool colour) {
  std::string text = std::to_string(loadedLines(rules)) + " rules";
  for (const ops::GuardedChain& chain : ops::kGuardedChains) {
    const std::string policy = policyOf(rules, chain.builtIn);
    text += std::string(", ") + chain.builtIn + " " +
            (policy == "ACCEPT" ? policy : red(policy, colour));
  }
  return std::string(ops::titleOf(family)) + "      " + text + "\n";
}

bool bothKnown(const ops::LiveFilter& filter) { return filter.v4.known() && filter.v6.known(); }

// Is a built-in policy of a family that was read DROP?
bool isClosed(const ops::LiveFilter& filter) {
  return (filter.v4.known() && !filter.v4.open()) || (filter.v6.known() && !filter.v6.open());
}

// What does not go together, one sentence each.
std::vector<std::string> faultsOf(const ops::Settings& settings, const ops::LiveFilter& filter) {
  std::vector<std::string> faults;
  const std::vector<std::string> missing = ops::missingChains(filter);
  if (!missing.empty()) faults.push_back(ops::missingWords(missing));
  const bool marked = !ops::recoveryCommands(filter, ops::recordedOpenPolicies()).empty();
  if (marked) {
    faults.emplace_back(
        "a reload is under way or was killed; if it was killed, run 'tarnfw recover'");
  }
  if (!marked && isClosed(filter)) {
    faults.emplace_back("a built-in policy is DROP, set by another program");
  }
  const std::size_t loaded = loadedLines(filter.v4) + loadedLines(filter.v6);
  if (settings.enabled && loaded == 0 && bothKnown(filter))
    faults.emplace_back("the firewall is on, but no rules are loaded");
  if (!settings.enabled && loaded > 0)
    faults.emplace_back("the firewall is off, but rules are loaded");
  return faults;
}

// A family that was not read is left out, and so is what takes both to say.
void describe(const ops::Settings& settings, const ops::LiveFilter& filter, bool colour,
              Answer& answer) {
  Json::Value& document = answer.document;
  for (const ops::Family family : ops::kFamilies) {
    if (!filter.of(family).known()) continue;
    document[ops::keyOf(family)] = toJson(filter.of(family));
    answer.text += familyText(family, filter.of(family), colour);
  }
  if (bothKnown(filter)) {
    document["chainsPresent"] = ops::missingChains(filter).empty();
    document["policiesOpen"] = filter.open();
    document["staleMark"] = filter.marks() > 0;
  }
  document["faults"] = Json::Value(Json::arrayValue);
  for (const std::string& fault : faultsOf(settings, filter)) {
    document["faults"].append(fault);
    answer.remark("warning: " + fault);
  }
}

void fail(Answer& answer, const std::string& error) {
  answer.exit = kUnknown;
  answer.error = error;
}

// An enabled firewall is compared with its profile, a disabled one with nothing.
void verify(const ops::Settings& settings, Answer& answer) {
  Json::Value commands;
  std::string why;
  const auto compile = [&] {
    return FW::TARNFW().fwIptablesRulesEnum(settings.profile, commands, /*withState=*/true);
  };
  if (settings.enabled && !succeeds(compile, why)) {
    return fail(answer, "profile '" + settings.profile + "' does not compile" + why);
  }
  const ops::Verification verification = ops::verifyLiveRules(commands);
  if (!verification.compared) return fail(answer, verification.reason);
  answer.document["matches"] = verification.differences.empty();
  answer.document["differences"] = Json::Value(Json::arrayValue);
  for (const std::string& line : verification.differences) {
    answer.document["differences"].append(line);
    answer.text += printable(line) + "\n";
  }
  if (!verification.differences.empty()) answer.exit = kDiffers;
  answer.document["notCompared"] = static_cast<Json::UInt64>(verification.leftOut);
  if (verification.leftOut > 0) {
    answer.remark("not compared: " + std::to_string(verification.leftOut) +
                  " line(s) with a host name");
  }
}

}  // namespace

Answer status(const Request& request) {
  Answer answer;
  answer.document = Json::Value(Json::objectValue);
  ops::Settings settings;
  std::string reason;
  const bool readable = ops::readSettings(settings, reason);
  if (settings.knowsEnabled) answer.document["enabled"] = settings.enabled;
  if (settings.knowsProfile) answer.document["profile"] = settings.profile;
  if (!readable) {
    fail(answer, reason);
    return answer;
  }
  answer.exit = settings.enabled ? kDone : kOff;
  answer.text = "Firewall  " +
                (settings.enabled ? green("on", request.colour) : red("off", request.colour)) +
                "\nProfile   " + printable(settings.profile) + "\n";
  ops::LiveFilter filter;
  const bool complete = ops::readFilter(filter, reason);
  describe(settings, filter, request.colour, answer);
  if (!complete) {
    fail(answer, reason);
    return answer;
  }
  if (request.has("--verify")) verify(settings, answer);
  return answer;
}

}  // namespace tarnfw
