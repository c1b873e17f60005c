#include "lifecycle.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <utility>

#include <json/value.h>

#include "executionLock.h"
#include "memoryFile.h"
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

// Is `text` part of one of `lines`?
bool contains(const std::vector<std::string>& lines, const std::string& text) {
  return std::any_of(lines.begin(), lines.end(), [&text](const std::string& line) {
    return line.find(text) != std::string::npos;
  });
}

bool failBecause(Supervised& outcome, std::string reason) {
  outcome.verdict = Supervised::Verdict::kFailed;
  outcome.reason = std::move(reason);
  return false;
}

void add(Recovery& recovery, const Recovery& more) {
  recovery.marks += more.marks;
  recovery.commands.insert(recovery.commands.end(), more.commands.begin(), more.commands.end());
  for (const std::string& error : more.errors) {
    if (!contains(recovery.errors, error)) recovery.errors.push_back(error);
  }
}

// Before the worker: leaves no mark behind, and answers which policies are open.
bool prepare(bool needsChains, std::vector<std::string>& open, Supervised& outcome) {
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
  open = openPolicies(filter);
  return true;
}

// Takes the lock that a reload holds while its policies are closed, and opens what is still closed.
Recovery recoverUnderLock() {
  const ExecutionLock lock;
  Recovery recovery;
  LiveFilter filter;
  if (!lock.held()) {
    recovery.errors.emplace_back(kBusy);
    return recovery;
  }
  return recover(filter);
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

// Runs the operation and tells how it went, as judge() reads it. An exception has gone through the
// library, which has opened the policies if it could; whether it could is looked at like any
// failure.
Json::Value work(const std::function<bool()>& operation) {
  clearRefusals();
  Json::Value result(Json::objectValue);
  try {
    result["done"] = operation();
  } catch (const std::exception& exception) {
    result["thrown"] = exception.what();
  }
  result["refusals"] = toJson(refusals());
  return result;
}

// Did the library give up waiting for the execution lock? Its log goes to standard error, which a
// worker's caller collects in a file.
bool lockTimedOut() {
  (void)std::fflush(stderr);
  return contains(linesOf(contents(Descriptor(dup(STDERR_FILENO)))), kLockTimeout);
}

// The worker: what it leaves closed, it opens itself, as its caller may be gone. An operation that
// did not get the lock has closed nothing.
Json::Value workAndOpen(const std::vector<std::string>& open, bool checked,
                        const std::function<bool()>& operation) {
  if (!checked && !writeOpenPolicies(open)) {
    Json::Value result(Json::objectValue);
    result["thrown"] = "the open policies could not be recorded";
    return result;
  }
  Json::Value result = work(operation);
  const bool smooth = result["done"].asBool() && result["refusals"]["count"].asInt() == 0;
  result["busy"] = !result["done"].asBool() && lockTimedOut();
  if (checked || (!smooth && !result["busy"].asBool())) {
    const Recovery recovery = recoverUnderLock();
    result["recovery"] = toJson(recovery);
    if (!recovery.errors.empty()) return result;  // the record is still needed
  }
  forgetOpenPolicies();
  return result;
}

// The log tells of refused commands in the order in which the report has them.
std::vector<std::string> withoutRefused(const std::vector<std::string>& messages,
                                        const std::vector<Refusal>& refused) {
  std::vector<std::string> others;
  auto next = refused.begin();
  for (const std::string& message : messages) {
    auto told = refused.end();
    if (message.find(kPlatformModule) != std::string::npos) {
      told = std::find_if(next, refused.end(), [&message](const Refusal& refusal) {
        return message.find(refusal.command) != std::string::npos;
      });
    }
    if (told == refused.end()) {
      others.push_back(message);
    } else {
      next = told + 1;
    }
  }
  return others;
}

std::string endOf(const Ended& ended) {
  if (ended.signal == 0) return "the worker process could not be started or ended early";
  return std::string("the worker process was killed (") + strsignal(ended.signal) + ")";
}

// The worker died, wherever it was. A tool that it left behind may close a policy after we have
// opened it, and a plug-in may hang: so the policies are opened at once, and again when all is
// quiet.
Recovery openAfter(const Ended& ended) {
  const ExecutionLock lock;
  Recovery recovery;
  LiveFilter filter;
  if (!lock.held()) {
    recovery.errors.emplace_back(kBusy);
    return recovery;
  }
  recovery = recover(filter);
  if (ended.process > 0) waitForSession(ended.process);
  add(recovery, recover(filter));
  return recovery;
}

void reportDeath(const Ended& ended, Supervised& outcome) {
  const Recovery recovery = openAfter(ended);
  add(outcome.recovery, recovery);
  std::string reason = endOf(ended);
  if (!recovery.errors.empty()) {
    reason += "; the policies could not be checked: " + joined(recovery.errors) +
              "; run 'tarnfw recover'";
  } else if (!recovery.commands.empty()) {
    reason += "; the policies were opened again";
  }
  (void)failBecause(outcome, std::move(reason));
}

void judge(const Ended& ended, bool checked, Supervised& outcome) {
  outcome.refusals = refusalsFromJson(ended.result["refusals"]);
  add(outcome.recovery, recoveryFromJson(ended.result["recovery"]));
  outcome.messages = withoutRefused(ended.messages, outcome.refusals.first);
  const std::string thrown = ended.result["thrown"].asString() + ended.exception;
  if (!thrown.empty()) {
    (void)failBecause(outcome, thrown);
  } else if (ended.result["busy"].asBool()) {
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

std::string activeNow() {
  Settings settings;
  std::string reason;
  (void)readSettings(settings, reason);  // an unreadable one has no name
  return settings.profile;
}

// May something be on record although the operation failed?
bool recordsInSpiteOf(const Supervised& outcome) {
  return outcome.begun && outcome.verdict != Supervised::Verdict::kDone;
}

bool hasRules(const LiveFilter& filter) {
  for (const Family family : kFamilies) {
    for (const GuardedChain& chain : kGuardedChains) {
      if (!filter.of(family).rules(chain.firewallChain).empty()) return true;
    }
  }
  return false;
}

// A reload that had begun before "status" was recorded fills the chains again after they were
// flushed. By the time the lock is had it is over. Refused flushes are judged here, by what is
// left: a machine that never had the chains is as empty as one can be. A table that cannot be read
// is found out by the look at the policies that follows.
bool disableAndStayEmpty() {
  FW::TARNFW firewall;
  if (!firewall.fwDisable()) return false;
  const ExecutionLock lock;
  LiveFilter filter;
  std::string reason;
  if (!lock.held()) return true;
  (void)readFilter(filter, reason);
  if (!hasRules(filter) || enabledNow()) return true;
  (void)firewall.fwClear();
  (void)readFilter(filter, reason);
  if (!hasRules(filter)) return true;
  (void)std::fprintf(stderr, "rules are left in the firewall chains\n");
  return false;
}

}  // namespace

Supervised supervise(const Supervision& supervision, const std::function<bool()>& operation) {
  Supervised outcome;
  std::vector<std::string> open;
  if (!prepare(supervision.needsChains, open, outcome)) return outcome;
  const IgnoredSignals ignored;
  outcome.begun = true;
  const Ended ended = runApart(Signals::kKeptOff,
                               [&] { return workAndOpen(open, supervision.checked, operation); });
  if (ended.finished) {
    judge(ended, supervision.checked, outcome);
  } else {
    outcome.messages = ended.messages;
    reportDeath(ended, outcome);
  }
  return outcome;
}

Supervised enableFirewall() {
  Supervised outcome = supervise({}, [] { return FW::TARNFW().fwEnable(); });
  if (recordsInSpiteOf(outcome) && enabledNow())
    outcome.reason += "; the firewall is recorded as on";
  return outcome;
}

Supervised reloadFirewall() {
  return supervise({/*needsChains=*/enabledNow(), /*checked=*/false},
                   [] { return FW::TARNFW().fwReload(/*withState=*/true); });
}

Supervised useProfile(const std::string& name) {
  Supervised outcome = supervise({/*needsChains=*/enabledNow(), /*checked=*/false}, [&name] {
    return FW::TARNFW().fwProfileConfigSet(name, /*reload=*/true);
  });
  if (recordsInSpiteOf(outcome) && activeNow() == name) {
    outcome.reason += "; '" + name + "' is the active profile now";
  }
  return outcome;
}

Supervised disableFirewall() {
  return supervise({/*needsChains=*/false, /*checked=*/true}, disableAndStayEmpty);
}

Supervised clearFirewall() {
  Supervised outcome;
  const Ended ended =
      runApart(Signals::kShared, [] { return work([] { return FW::TARNFW().fwClear(); }); });
  if (ended.finished) {
    judge(ended, /*checked=*/false, outcome);
  } else {
    (void)failBecause(outcome, endOf(ended));
  }
  return outcome;
}

}  // namespace ops
