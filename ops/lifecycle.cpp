#include "lifecycle.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include <json/value.h>

#include "executionLock.h"
#include "runApart.h"
#include "settings.h"
#include "tarnfirewall.h"

namespace ops {
namespace {

constexpr char kBusy[] = "another reload holds the execution lock";

// The library's words for a reload that did not get the execution lock.
constexpr char kLockTimeout[] = "TIMEOUT: getting lock";

// The platform logs each command that a tool refuses; its words are in the refusals already.
constexpr char kPlatformModule[] = "tarnPlatform:";

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ", ") + text;
  return all;
}

bool failBecause(Supervised& outcome, std::string reason) {
  outcome.verdict = Supervised::Verdict::kFailed;
  outcome.reason = std::move(reason);
  return false;
}

void add(Recovery& recovery, const Recovery& more) {
  recovery.marks += more.marks;
  recovery.commands.insert(recovery.commands.end(), more.commands.begin(), more.commands.end());
  recovery.errors.insert(recovery.errors.end(), more.errors.begin(), more.errors.end());
}

// Before the worker: leaves no mark behind, and the open policies on record.
bool prepare(bool needsChains, Supervised& outcome) {
  const ExecutionLock lock;
  if (!lock.held()) {
    outcome.verdict = Supervised::Verdict::kBusy;
    outcome.reason = kBusy;
    return false;
  }
  LiveFilter filter;
  outcome.recovery = recover(filter);
  if (needsChains) {
    if (!outcome.recovery.errors.empty()) {
      return failBecause(outcome, joined(outcome.recovery.errors));
    }
    const std::vector<std::string> missing = missingChains(filter);
    if (!missing.empty()) {
      return failBecause(outcome, missingWords(missing));
    }
  }
  if (!writeOpenPolicies(openPolicies(filter))) {
    return failBecause(outcome, "the open policies could not be recorded");
  }
  return true;
}

// Takes the lock that a reload holds while its policies are closed, and opens what is still closed.
Recovery recoverUnderLock() {
  const ExecutionLock lock;
  LiveFilter filter;
  if (lock.held()) return recover(filter);
  Recovery recovery;
  recovery.errors.emplace_back(kBusy);
  return recovery;
}

Json::Value toJson(const Recovery& recovery) {
  Json::Value value(Json::objectValue);
  value["marks"] = static_cast<Json::UInt64>(recovery.marks);
  value["commands"] = Json::Value(Json::arrayValue);
  for (const Command& command : recovery.commands) {
    Json::Value words(Json::arrayValue);
    words.append(keyOf(command.family));
    for (const std::string& argument : command.arguments) words.append(argument);
    value["commands"].append(words);
  }
  value["errors"] = Json::Value(Json::arrayValue);
  for (const std::string& error : recovery.errors) value["errors"].append(error);
  return value;
}

Recovery recoveryFromJson(const Json::Value& value) {
  Recovery recovery;
  recovery.marks = static_cast<std::size_t>(value["marks"].asUInt64());
  for (const Json::Value& words : value["commands"]) {
    Command command = {words[0].asString() == keyOf(Family::kV4) ? Family::kV4 : Family::kV6, {}};
    for (Json::ArrayIndex index = 1; index < words.size(); ++index) {
      command.arguments.push_back(words[index].asString());
    }
    recovery.commands.push_back(std::move(command));
  }
  for (const Json::Value& error : value["errors"]) recovery.errors.push_back(error.asString());
  return recovery;
}

// What the worker does and sends back.
Json::Value work(bool checked, const std::function<bool()>& operation) {
  clearRefusals();
  Json::Value result(Json::objectValue);
  const bool done = operation();
  const Refusals refused = refusals();
  result["done"] = done;
  result["refusals"] = toJson(refused);
  if (checked || !done || refused.count > 0) {
    result["recovery"] = toJson(recoverUnderLock());
  } else {
    forgetOpenPolicies();
  }
  return result;
}

bool tellsOf(const std::string& message, const Refusals& refusals) {
  if (message.find(kPlatformModule) == std::string::npos) return false;
  for (const Refusal& refusal : refusals.first) {
    if (message.find(refusal.command) != std::string::npos) return true;
  }
  return false;
}

bool contains(const std::vector<std::string>& messages, const char* text) {
  for (const std::string& message : messages) {
    if (message.find(text) != std::string::npos) return true;
  }
  return false;
}

std::string endOf(const Ended& ended) {
  if (ended.signal == 0) return "the worker process could not be started or ended early";
  return std::string("the worker process was killed (") + strsignal(ended.signal) + ")";
}

// The worker died, wherever it was.
void openAfterDeath(const Ended& ended, Supervised& outcome) {
  const Recovery recovery = recoverUnderLock();
  add(outcome.recovery, recovery);
  std::string reason = endOf(ended);
  if (!recovery.errors.empty()) {
    reason += "; the policies could not be checked: " + joined(recovery.errors) +
              "; run 'tarnfw recover'";
  } else if (!recovery.commands.empty()) {
    reason += "; the policies were open again at once";
  }
  (void)failBecause(outcome, std::move(reason));
}

void judge(const Ended& ended, bool checked, Supervised& outcome) {
  outcome.refusals = refusalsFromJson(ended.result["refusals"]);
  add(outcome.recovery, recoveryFromJson(ended.result["recovery"]));
  for (const std::string& message : ended.messages) {
    if (!tellsOf(message, outcome.refusals)) outcome.messages.push_back(message);
  }
  if (!ended.exception.empty()) {
    (void)failBecause(outcome, ended.exception);
  } else if (contains(ended.messages, kLockTimeout)) {
    outcome.verdict = Supervised::Verdict::kBusy;
    outcome.reason = kBusy;
  } else if (!ended.result["done"].asBool()) {
    (void)failBecause(outcome, "the library reports a failure; why is in the system log");
  } else if (!checked && outcome.refusals.count > 0) {
    (void)failBecause(outcome, "the packet filter refused " +
                                   std::to_string(outcome.refusals.count) + " command(s)");
  } else if (!outcome.recovery.errors.empty()) {
    (void)failBecause(outcome, joined(outcome.recovery.errors));
  } else {
    outcome.verdict = Supervised::Verdict::kDone;
  }
}

bool enabledNow() {
  Settings settings;
  std::string reason;
  return readSettings(settings, reason) && settings.enabled;
}

bool firewallChainsEmpty(std::string& reason) {
  LiveFilter filter;
  if (!readFilter(filter, reason)) return false;
  for (const Family family : kFamilies) {
    for (const GuardedChain& chain : kGuardedChains) {
      if (!filter.of(family).rules(chain.firewallChain).empty()) {
        reason = std::string(chain.firewallChain) + " still has rules";
        return false;
      }
    }
  }
  return true;
}

// A reload that had begun before "status" was recorded fills the chains again after they were
// flushed. By the time the lock is had it is over. Refused flushes are judged here, by what is
// left: a machine that never had the chains is as empty as one can be.
bool disableAndStayEmpty() {
  FW::TARNFW firewall;
  if (!firewall.fwDisable()) return false;
  const ExecutionLock lock;
  std::string reason;
  if (!lock.held() || firewallChainsEmpty(reason) || enabledNow()) return true;
  (void)firewall.fwClear();
  if (firewallChainsEmpty(reason)) return true;
  (void)std::fprintf(stderr, "%s\n", reason.c_str());
  return false;
}

}  // namespace

Supervised supervise(const Supervision& supervision, const std::function<bool()>& operation) {
  Supervised outcome;
  if (!prepare(supervision.needsChains, outcome)) return outcome;
  const IgnoredSignals ignored;
  const Ended ended =
      runApart(Signals::kKeptOff, [&] { return work(supervision.checked, operation); });
  if (ended.finished) {
    judge(ended, supervision.checked, outcome);
  } else {
    outcome.messages = ended.messages;
    openAfterDeath(ended, outcome);
  }
  return outcome;
}

Supervised enableFirewall() {
  return supervise({}, [] { return FW::TARNFW().fwEnable(); });
}

Supervised reloadFirewall() {
  return supervise({/*needsChains=*/enabledNow(), /*checked=*/false},
                   [] { return FW::TARNFW().fwReload(/*withState=*/true); });
}

Supervised useProfile(const std::string& name) {
  return supervise({/*needsChains=*/enabledNow(), /*checked=*/false},
                   [&name] { return FW::TARNFW().fwProfileConfigSet(name, /*reload=*/true); });
}

Supervised disableFirewall() {
  return supervise({/*needsChains=*/false, /*checked=*/true}, disableAndStayEmpty);
}

}  // namespace ops
