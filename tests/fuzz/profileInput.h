// Rules and profiles of an input.

#ifndef TARNFW_TESTS_FUZZ_PROFILE_INPUT_H
#define TARNFW_TESTS_FUZZ_PROFILE_INPUT_H

#include "input.h"
#include "tarnfirewall_records.h"

namespace fuzz {

// A rule is ten numbers (enable, adapterDirect, policy, blLog, ipType, ipDirect, ipGroup,
// portDirect, portGroup, protocol), its name and table, and the lists of chains, addresses and
// ports, each with the number of its texts before them:
//
//   1101001011drop ssh
//   filter
//   0
//   110.0.0.1
//   122
//
// All texts are plain: documents keep them. The policy is below `policies`.
FW::FWRULE ruleOf(Input& input, std::size_t policies);

// The number of adapters with rules, each with its name, the number of its rules and the rules; the
// number of policies, each with the adapter's name and the policy. Of four policies one is unknown.
FW::FWPROFILE profileOf(Input& input, std::size_t policies = 4);

}  // namespace fuzz

#endif
