// Are the rules in the kernel those that a command document asks for? The document is loaded a
// second time, by the same tools into the same base chains, in a network namespace that exists for
// the comparison only: so the two listings are in the same words, and a rule that the tools refuse
// is missing from both.

#ifndef TARNFW_OPS_VERIFICATION_H
#define TARNFW_OPS_VERIFICATION_H

#include <cstddef>
#include <string>
#include <vector>

#include <json/value.h>

namespace ops {

// The outcome of a comparison.
//   compared     false: it could not be made, `reason` says why
//   leftOut      how many lines were not compared, because they have a host name: what it stands
//                for may have changed, and is not known in the other namespace
//   differences  "-" + rule that is missing, "+" + rule that is surplus; a rule starts with its
//                tool
struct Verification {
  bool compared = false;
  std::string reason;
  std::size_t leftOut = 0;
  std::vector<std::string> differences;
};

// Compares FIREWALL_RELOADING, INPUT_FIREWALL and FORWARD_FIREWALL of both families with what base
// chains and the lines of `commands` give. A null document asks for empty firewall chains.
Verification verifyLiveRules(const Json::Value& commands);

}  // namespace ops

#endif
