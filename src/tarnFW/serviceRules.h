// Rules that name services, as the edits of all profiles see them.

#ifndef TARNFW_SRC_TARNFW_SERVICERULES_H
#define TARNFW_SRC_TARNFW_SERVICERULES_H

#include <vector>

#include "tarnfirewall_records.h"

namespace FW {

// Does the rule's portList hold service names?
bool namesServices(const FWRULE& rule);

// Drops the rules that name services and have none left; the others keep their order.
void dropEmptyServiceRules(std::vector<FWRULE>& rules);

}  // namespace FW

#endif
