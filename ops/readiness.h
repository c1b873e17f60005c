// What this machine lacks for the firewall to work.

#ifndef TARNFW_OPS_READINESS_H
#define TARNFW_OPS_READINESS_H

#include <string>
#include <vector>

namespace ops {

// One sentence for each thing that is missing or in the way; empty when all is there. Changes
// nothing.
std::vector<std::string> readinessProblems();

// The sentence on an active profile that is not stored; empty when it is.
std::string activeProfileProblem();

}  // namespace ops

#endif
