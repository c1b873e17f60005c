// What the verbs that plan or supervise have in common.

#ifndef TARNFW_TOOLS_LIFECYCLEVERBS_H
#define TARNFW_TOOLS_LIFECYCLEVERBS_H

#include "ops/lifecycle.h"
#include "ops/plan.h"
#include "verbs.h"

namespace tarnfw {

// The answer of --dry-run.
Answer planAnswer(const ops::Plan& plan);

// The answer of a supervised operation.
Answer supervisedAnswer(const ops::Supervised& outcome);

}  // namespace tarnfw

#endif
