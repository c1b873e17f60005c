#include "documentChanges.h"

#include "lifecycleVerbs.h"
#include "logCapture.h"
#include "ops/profileStore.h"

namespace tarnfw {
namespace {

// Fills `plan` with what the rehearsed change did to the documents. False with `answer` filled when
// it was not done.
bool planChanges(const ops::Rehearsal& rehearsal, const std::string& failure, ops::Plan& plan,
                 Answer& answer) {
  if (!rehearsal.rehearsed || !rehearsal.done) {
    answer = failed(rehearsal.rehearsed ? failure : rehearsal.reason);
    return false;
  }
  for (const ops::DocumentChange& one : rehearsal.changes) plan.change(one);
  return true;
}

}  // namespace

std::string quoted(const std::string& name) { return "'" + name + "'"; }

Answer changeDocuments(const Request& request, const std::function<bool()>& change,
                       const std::string& failure) {
  if (!request.dryRun) return change() ? Answer() : failed(failure);
  const ops::Rehearsal rehearsal = ops::rehearse(change);
  Answer answer;
  ops::Plan plan;
  if (planChanges(rehearsal, failure, plan, answer)) answer = planAnswer(plan);
  answer.complain(withoutProgramName(rehearsal.messages));
  return answer;
}

Answer planChangeAndLoad(const std::function<bool()>& change, const std::string& failure,
                         const std::string& loaded) {
  const ops::Rehearsal rehearsal = ops::rehearse(change, [&loaded] {
    Answer problem;
    Json::Value seen(Json::objectValue);
    if (!compileProfile(loaded, seen["commands"], problem)) seen["error"] = problem.error;
    return seen;
  });
  Answer answer;
  ops::Plan plan;
  if (planChanges(rehearsal, failure, plan, answer)) {
    plan.add(ops::planReload(rehearsal.seen["commands"]));
    const std::string error = rehearsal.seen["error"].asString();
    answer = error.empty() ? planAnswer(plan) : failed(error);
  }
  answer.complain(withoutProgramName(rehearsal.messages));
  return answer;
}

}  // namespace tarnfw
