// The block queries answered a second time, from tables.

#ifndef TARNFW_TESTS_FUZZ_ANSWER_MODEL_H
#define TARNFW_TESTS_FUZZ_ANSWER_MODEL_H

#include <functional>
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

// The answer to a question about ports; false when there is none.
using PortAnswer =
    std::function<bool(const FW::PortCompareST& query, FW::AdapterPolicyMap& verdicts)>;

// The severest verdicts of the service's ports; false when one of them has no answer.
bool verdictsOfService(const std::vector<fake::Service>& services, const std::string& name,
                       const PortAnswer& answer, FW::AdapterPolicyMap& verdicts);

}  // namespace fuzz

#endif
