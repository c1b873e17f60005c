#include "verification.h"

#include <sched.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "baseChains.h"
#include "hostNames.h"
#include "liveRules.h"
#include "runApart.h"
#include "tarnfirewall.h"
#include "textDiff.h"

namespace ops {
namespace {

Json::Value failure(const std::string& reason) {
  Json::Value answer(Json::objectValue);
  answer["reason"] = reason;
  return answer;
}

// In a process of its own: {"lines": [line]} or {"reason": text}.
Json::Value loadInScratchNamespace(const Json::Value& commands) {
  if (unshare(CLONE_NEWNET) != 0) {
    return failure(std::string("no network namespace to compare in: ") + std::strerror(errno));
  }
  // What is refused here was refused, and logged, when it counted.
  (void)setlogmask(LOG_UPTO(LOG_CRIT));
  const BaseChains chains = planBaseChains();
  if (!chains.errors.empty()) return failure(chains.errors.front());
  for (const Command& command : chains.commands) {
    const ToolRun result = run(command);
    if (result.status != 0) return failure(command.text() + ": " + result.words());
  }
  // A line that cannot be run ends the loading here as it ends a reload; the comparison shows the
  // rest.
  if (!commands.isNull()) (void)FW::TARNFW().fwExec(commands);
  LiveFilter filter;
  std::string reason;
  if (!readFilter(filter, reason)) return failure(reason);
  Json::Value answer(Json::objectValue);
  answer["lines"] = Json::Value(Json::arrayValue);
  for (const std::string& line : baseChainLines(filter)) answer["lines"].append(line);
  return answer;
}

}  // namespace

Verification verifyLiveRules(const Json::Value& commands) {
  Verification verification;
  LiveFilter live;
  if (!readFilter(live, verification.reason)) return verification;
  Json::Value numeric = commands;
  verification.leftOut = replaceHostNames(numeric);
  const Ended ended =
      runApart(Signals::kShared, [&numeric] { return loadInScratchNamespace(numeric); });
  if (!ended.finished || !ended.result.isMember("lines")) {
    verification.reason = ended.finished && ended.result.isMember("reason")
                              ? ended.result["reason"].asString()
                              : "the comparison ended early";
    return verification;
  }
  std::vector<std::string> expected;
  for (const Json::Value& line : ended.result["lines"]) expected.push_back(line.asString());
  std::vector<std::string> found = baseChainLines(live);
  leaveOutHostNames(expected, found);
  verification.differences = differences(expected, found);
  verification.compared = true;
  return verification;
}

}  // namespace ops
