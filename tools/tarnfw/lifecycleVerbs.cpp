// Verbs that change what the kernel filters.

#include "lifecycleVerbs.h"

#include "documentChanges.h"
#include "logCapture.h"
#include "ops/baseChains.h"
#include "ops/executionLock.h"
#include "ops/plan.h"
#include "ops/profileStore.h"
#include "ops/readiness.h"
#include "ops/recovery.h"
#include "ops/settings.h"
#include "tarnfirewall.h"
#include "verbs.h"

namespace tarnfw {
namespace {

constexpr char kBusyWords[] = "another reload holds the execution lock";

Json::Value commandTexts(const std::vector<ops::Command>& commands) {
  Json::Value texts(Json::arrayValue);
  for (const ops::Command& command : commands) texts.append(command.text());
  return texts;
}

void noteCommands(const std::vector<ops::Command>& commands, Answer& answer) {
  for (const ops::Command& command : commands) answer.remark("ran " + command.text());
}

void addRefusals(const ops::Refusals& refusals, Answer& answer) {
  answer.document["refused"] = ops::toJson(refusals)["first"];
  answer.document["refusedCount"] = refusals.count;
  for (const ops::Refusal& refusal : refusals.first) {
    answer.complain("refused: " + refusal.command + ": " + refusal.words);
  }
  const auto shown = static_cast<int>(refusals.first.size());
  if (refusals.count > shown) {
    answer.complain("and " + std::to_string(refusals.count - shown) +
                    " more, which the system log has");
  }
}

void addRecovery(const ops::Recovery& recovery, Answer& answer) {
  answer.document["recovered"] = commandTexts(recovery.commands);
  if (recovery.commands.empty()) return;
  answer.remark("undid what a reload that was killed left behind");
  noteCommands(recovery.commands, answer);
}

// The plan of an operation that loads the active profile.
Answer planned(ops::Plan (*plan)(const Json::Value& commands), const std::string& profile) {
  Answer answer;
  Json::Value commands;
  if (!compileProfile(profile, commands, answer)) return answer;
  return planAnswer(plan(commands));
}

// False with `answer` filled when the settings cannot be read.
bool settingsFor(ops::Settings& settings, Answer& answer) {
  std::string reason;
  if (ops::readSettings(settings, reason)) return true;
  answer = failed(reason);
  return false;
}

}  // namespace

bool compileProfile(const std::string& name, Json::Value& commands, Answer& answer) {
  std::string why;
  const auto compile = [&] {
    return FW::TARNFW().fwIptablesRulesEnum(name, commands, /*withState=*/true);
  };
  if (succeeds(compile, why)) return true;
  answer = failed("profile " + quoted(name) + " does not compile" + why);
  return false;
}

Answer planAnswer(const ops::Plan& plan) {
  Answer answer;
  answer.document["dryRun"] = true;
  answer.document["steps"] = plan.steps();
  answer.text = plan.text();
  return answer;
}

Answer supervisedAnswer(const ops::Supervised& outcome) {
  Answer answer;
  switch (outcome.verdict) {
    case ops::Supervised::Verdict::kDone:
      break;
    case ops::Supervised::Verdict::kFailed:
      answer = failed(outcome.reason);
      break;
    case ops::Supervised::Verdict::kBusy:
      answer = failed(outcome.reason, kBusy);
      break;
  }
  answer.complain(withoutProgramName(outcome.messages));
  addRecovery(outcome.recovery, answer);
  addRefusals(outcome.refusals, answer);
  return answer;
}

Answer setUp(const Request& request) {
  const ops::BaseChains chains = request.dryRun ? ops::planBaseChains() : ops::setUpBaseChains();
  const ops::Seed seed = request.dryRun ? ops::planSeed() : ops::seedProfile();
  std::vector<std::string> problems = ops::readinessProblems();
  const bool seeds = !seed.file.empty() && seed.error.empty();
  const std::string active = request.dryRun && seeds ? "" : ops::activeProfileProblem();
  if (!active.empty()) problems.push_back(active);

  Answer answer;
  if (request.dryRun) {
    ops::Plan plan;
    plan.run(chains.commands);
    if (seeds) plan.change({seed.file, Json::Value(), seed.document});
    answer = planAnswer(plan);
  } else {
    answer.document["commands"] = commandTexts(chains.commands);
    answer.document["seeded"] = seeds ? Json::Value(seed.file) : Json::Value();
    noteCommands(chains.commands, answer);
    if (seeds) answer.remark("wrote " + seed.file);
  }
  answer.document["problems"] = Json::Value(Json::arrayValue);
  for (const std::string& problem : problems) {
    answer.document["problems"].append(problem);
    answer.remark("warning: " + problem);
  }
  answer.complain(chains.errors);
  if (!chains.errors.empty()) {
    answer.exit = chains.busy ? kBusy : kFailed;
    answer.error = "the base chains are not complete";
  } else if (!seed.error.empty()) {
    answer.exit = kFailed;
    answer.error = "no first profile: " + seed.error;
  }
  return answer;
}

Answer enable(const Request& request) {
  ops::Settings settings;
  Answer answer;
  if (!request.dryRun) return supervisedAnswer(ops::enableFirewall());
  if (!settingsFor(settings, answer)) return answer;
  return planned(ops::planEnable, settings.profile);
}

Answer disable(const Request& request) {
  if (request.dryRun) return planAnswer(ops::planDisable());
  return supervisedAnswer(ops::disableFirewall());
}

Answer reload(const Request& request) {
  ops::Settings settings;
  Answer answer;
  if (!settingsFor(settings, answer)) return answer;
  if (settings.enabled) {
    return request.dryRun ? planned(ops::planReload, settings.profile)
                          : supervisedAnswer(ops::reloadFirewall());
  }
  answer = request.dryRun ? planAnswer({}) : supervisedAnswer(ops::reloadFirewall());
  answer.remark("the firewall is off, nothing is loaded");
  return answer;
}

Answer clear(const Request& request) {
  if (request.dryRun) return planAnswer(ops::planClear());
  return supervisedAnswer(ops::clearFirewall());
}

Answer recover(const Request& request) {
  ops::Settings settings;
  std::string unreadable;
  // Settings that cannot be read keep nothing shut: they only leave open what to load afterwards.
  const bool known = ops::readSettings(settings, unreadable);
  Answer answer;

  ops::ExecutionLock lock;
  if (!lock.held()) return failed(kBusyWords, kBusy);
  ops::LiveFilter filter;
  const ops::Recovery recovery = request.dryRun ? ops::planRecovery() : ops::recover(filter);
  lock.release();

  const bool reloads =
      known && recovery.errors.empty() && !recovery.commands.empty() && settings.enabled;
  if (request.dryRun) {
    ops::Plan plan;
    plan.run(recovery.commands);
    if (reloads) {
      Json::Value commands;
      if (!compileProfile(settings.profile, commands, answer)) return answer;
      plan.add(ops::planReload(commands));
    }
    answer = planAnswer(plan);
  } else if (reloads) {
    answer = supervisedAnswer(ops::reloadFirewall());
  }
  answer.document["marks"] = static_cast<Json::UInt64>(recovery.marks);
  answer.document["reloaded"] = reloads && !request.dryRun && answer.error.empty();
  if (!request.dryRun) addRecovery(recovery, answer);
  if (recovery.commands.empty()) answer.remark("nothing to undo");
  answer.complain(recovery.errors);
  if (!recovery.errors.empty()) {
    answer.exit = kFailed;
    answer.error = "the policies could not be opened or checked";
  } else if (!known) {
    answer.exit = kFailed;
    answer.error = "nothing is loaded: " + unreadable;
  }
  return answer;
}

Answer profileUse(const Request& request) {
  const std::string& name = request.value("NAME");
  ops::Settings settings;
  Answer answer;
  if (!settingsFor(settings, answer)) return answer;
  if (!FW::TARNFW_PROFILE().profileExist(name))
    return failed("there is no profile " + quoted(name));
  const bool loads = settings.enabled && !request.has("--no-reload");
  if (request.dryRun) {
    Json::Value commands;
    ops::Plan plan;
    plan.set(ops::settingsFile(), "profile", name);
    if (loads && !compileProfile(name, commands, answer)) return answer;
    if (loads) plan.add(ops::planReload(commands));
    return planAnswer(plan);
  }
  if (loads) return supervisedAnswer(ops::useProfile(name));
  if (!FW::TARNFW().fwProfileConfigSet(name, /*reload=*/false)) {
    return failed("could not make " + quoted(name) + " the active profile");
  }
  return answer;
}

}  // namespace tarnfw
