// What the verbs that plan or supervise have in common.

#ifndef TARNFW_TOOLS_LIFECYCLEVERBS_H
#define TARNFW_TOOLS_LIFECYCLEVERBS_H

#include <string>

#include <json/value.h>

#include "ops/lifecycle.h"
#include "ops/plan.h"
#include "verbs.h"

namespace tarnfw {

// Compiles a profile as a reload does. False with `answer` filled when it does not compile.
bool compileProfile(const std::string& name, Json::Value& commands, Answer& answer);

// The answer of --dry-run.
Answer planAnswer(const ops::Plan& plan);

// The answer of a supervised operation.
Answer supervisedAnswer(const ops::Supervised& outcome);

}  // namespace tarnfw

#endif
