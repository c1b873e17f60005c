#include "documentChanges.h"

#include "lifecycleVerbs.h"
#include "logCapture.h"
#include "ops/profileStore.h"

namespace tarnfw {

std::string quoted(const std::string& name) { return "'" + name + "'"; }

Answer changeDocuments(const Request& request, const std::function<bool()>& change,
                       const std::string& failure) {
  if (!request.dryRun) return change() ? Answer() : failed(failure);
  const ops::Rehearsal rehearsal = ops::rehearse(change);
  Answer answer;
  if (rehearsal.rehearsed && rehearsal.done) {
    ops::Plan plan;
    for (const ops::DocumentChange& one : rehearsal.changes) plan.change(one);
    answer = planAnswer(plan);
  } else {
    answer = failed(rehearsal.rehearsed ? failure : rehearsal.reason);
  }
  for (const std::string& line : withoutProgramName(rehearsal.messages)) {
    answer.notes.push_back(line);
  }
  return answer;
}

}  // namespace tarnfw
