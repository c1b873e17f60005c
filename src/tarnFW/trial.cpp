// Trial application: loads the test profile of a profile into the live packet filter, so that a
// caller can see whether his connection survives before he adopts it. The same drop period as a
// reload, with these differences, all on purpose:
//
//   no execution lock; "status" neither consulted nor changed; a chain that does not flush ends the
//   trial; without an address to exempt, no connection-state accept lines at all

#include <utility>

#include <json/value.h>

#include "../constants.h"
#include "module.h"

namespace FW {
namespace {

// The part of a trial between drop set and accept set.
bool applyTestProfile(TARNFW& firewall, const std::string& test, const std::string& address) {
  if (!firewall.fwClear()) return here().fail("Failed to fwClear()");
  Json::Value commands;
  const bool compiled = address.empty()
                            ? firewall.fwIptablesRulesEnum(test, commands, /*withState=*/false)
                            : firewall.fwIptablesRulesEnum(test, commands, address);
  if (!compiled) return here().fail("Failed to fwIptablesRulesEnum()");
  if (!firewall.fwExec(std::move(commands))) {
    (void)firewall.fwDisable();
    return here().fail("Failed to fwExec() so disable firewall");
  }
  return true;
}

}  // namespace

bool TARNFW::TestApplyingProfile(std::string name, const std::string& address) {
  const std::string test = kTestProfilePrefix + name;
  if (!firewallModLoad()) return here().fail("Failed to firewallModLoad()");
  return throughDropPeriod(*this, [&] { return applyTestProfile(*this, test, address); });
}

bool TARNFW::TestApplyingProfile(std::string name) {
  return TestApplyingProfile(std::move(name), /*address=*/"");
}

}  // namespace FW
