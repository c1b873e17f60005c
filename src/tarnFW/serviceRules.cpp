#include "serviceRules.h"

#include <algorithm>

#include "../constants.h"

namespace FW {

bool namesServices(const FWRULE& rule) {
  return rule.portGroup == kPortsOfServices || rule.portGroup == kPortsOfReservedServices;
}

void dropEmptyServiceRules(std::vector<FWRULE>& rules) {
  const auto isEmpty = [](const FWRULE& rule) {
    return namesServices(rule) && rule.portList.empty();
  };
  rules.erase(std::remove_if(rules.begin(), rules.end(), isEmpty), rules.end());
}

}  // namespace FW
