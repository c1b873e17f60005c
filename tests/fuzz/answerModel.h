// The block queries answered a second time, from tables.

#ifndef TARNFW_TESTS_FUZZ_ANSWER_MODEL_H
#define TARNFW_TESTS_FUZZ_ANSWER_MODEL_H

#include <string>
#include <vector>

#include "fakePlatform.h"
#include "tarnfirewall_records.h"

namespace fuzz {

// The verdicts of an enabled firewall with that active profile. Policies are 0 or more.
//   adapter  the one asked about, or empty for every adapter
FW::AdapterPolicyMap verdictsOf(const FW::FWPROFILE& profile,
                                const std::vector<fake::Service>& services,
                                const FW::PortCompareST& query, const std::string& adapter);

}  // namespace fuzz

#endif
