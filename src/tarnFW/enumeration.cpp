// From a stored profile to its command document; the adapters that rules may be filed under.

#include <array>

#include "../constants.h"
#include "error.h"
#include "files.h"
#include "model.h"
#include "module.h"
#include "network.h"

namespace FW {

namespace {

bool compileProfile(const std::string& name, Json::Value& commands, bool withState,
                    const std::string& exempt) {
  FWPROFILE profile;
  if (!TARNFW_PROFILE().profileGet(name, profile)) {
    return here().fail("Failed to profileGet(%s)", name.c_str());
  }
  if (!TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(withState, profile.rules,
                                                      profile.adapterPolicyMap, commands, exempt)) {
    return here().fail("Failed to fwRulesToIptablesRules()");
  }
  return true;
}

}  // namespace

bool TARNFW::fwIptablesRulesEnum(std::string name, Json::Value& commands, bool withState) {
  return compileProfile(name, commands, withState, /*exempt=*/"");
}

bool TARNFW::fwIptablesRulesEnum(std::string name, Json::Value& commands,
                                 const std::string& exempt) {
  return compileProfile(name, commands, /*withState=*/true, exempt);
}

bool TARNFW::fwAdapterEnum(std::set<std::string>& adapters) {
  std::array<TLIBNETIF, kInterfaceLimit> table = {};
  const int count = TLIBNetGetInterfaceInfo(table.data(), kInterfaceLimit, kFirewallInterfaces);
  if (count < 0) {
    return here().fail("Failed to TLIBNetGetInterfaceInfo(%d) [0x%04X %s:%d]", count,
                       static_cast<unsigned>(TLIBCErrGet()), TLIBCErrorGetFile(),
                       TLIBCErrorGetLine());
  }
  for (int index = 0; index < count; ++index) {
    adapters.insert(table[static_cast<std::size_t>(index)].name);
  }
  if (TLIBCSupportGet("support_wireless") != 0 &&
      TLIBCFileCheckKeyValue(kModelFile, "support_wireless", "yes", 0) != 0) {
    adapters.insert(kWirelessAdapter);
  }
  adapters.insert(kPredefinedAdapters.begin(), kPredefinedAdapters.end());
  return true;
}

}  // namespace FW
