// Which adapters the machine has, and what an adapter's name means on a command line. What is
// learnt of the machine is kept for the life of the compiler object.

#include <algorithm>
#include <array>

#include "../constants.h"
#include "error.h"
#include "files.h"
#include "model.h"
#include "module.h"
#include "network.h"

namespace FW {
namespace {

constexpr std::size_t kInterfaceName = 256;  // bytes, NUL included
constexpr char kPppPrefix[] = "ppp";
constexpr char kTunPrefix[] = "tun";
constexpr char kReservedTun[] = "tun1000";  // the system's own, no VPN server's

bool startsWith(const std::string& name, const std::string& prefix) {
  return name.compare(0, prefix.size(), prefix) == 0;
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

bool TARNFW_IPTABLES_RULES::enabledAdapterEnum() {
  if (!enabledAdapters.empty()) return true;
  std::array<TLIBNETIF, kInterfaceLimit> table = {};
  const int count = TLIBNetGetInterfaceInfo(table.data(), kInterfaceLimit, kFirewallInterfaces);
  if (count < 0) {
    return at(202).fail("Failed to TLIBNetGetInterfaceInfo(%d) [0x%04X %s:%d]", count,
                        static_cast<unsigned>(TLIBCErrGet()), TLIBCErrorGetFile(),
                        TLIBCErrorGetLine());
  }
  for (int index = 0; index < count; ++index) {
    enabledAdapters.emplace_back(table[static_cast<std::size_t>(index)].name);
  }
  if (TLIBCSupportGet("support_wireless") != 0 &&
      TLIBCFileCheckKeyValue(kModelFile, "support_wireless", "yes", 0) != 0) {
    enabledAdapters.emplace_back(kWirelessAdapter);
  }
  // Kept: neighbours only, without sorting; a wlan0 that the platform lists earlier occurs twice.
  enabledAdapters.erase(std::unique(enabledAdapters.begin(), enabledAdapters.end()),
                        enabledAdapters.end());
  return true;
}

void TARNFW_IPTABLES_RULES::pppoeAdaterGet() {
  if (!pppoeAdapter.empty()) return;
  std::array<char, kInterfaceName> name = {};
  if (TARNPPPoeIntfGet(name.data(), static_cast<int>(name.size())) < 0) {
    at(231).debug("Failed to TARNPPPoeIntfGet()");
    return;
  }
  pppoeAdapter = name.data();
}

bool TARNFW_IPTABLES_RULES::vpnAdatperEnum() {
  if (!vpnAdapters.empty()) return true;
  if (!enabledAdapterEnum()) return at(245).fail("Failed to enabledAdapterEnum()");
  pppoeAdaterGet();
  for (const std::string& name : enabledAdapters) {
    const bool vpn = startsWith(name, kPppPrefix)
                         ? name != pppoeAdapter
                         : startsWith(name, kTunPrefix) && name != kReservedTun;
    if (vpn) vpnAdapters.push_back(name);
  }
  return true;
}

bool TARNFW_IPTABLES_RULES::adapterIsEnabled(const std::string& adapter) {
  if (adapter == kGlobalAdapter) return true;
  if (adapter == kVpnAdapter) {
    (void)vpnAdatperEnum();  // it has logged; without interfaces there is no VPN
    return !vpnAdapters.empty();
  }
  if (adapter == kPppoeAdapter) {
    pppoeAdaterGet();
    return !pppoeAdapter.empty();
  }
  if (!enabledAdapterEnum()) return at(278).fail("Failed to enabledAdapterEnum()");
  return contains(enabledAdapters, adapter);
}

bool TARNFW_IPTABLES_RULES::adapterToIptablesArg(const std::string& adapter, const FWRULE& rule,
                                                 Json::Value& args) {
  const std::string prefix = rule.adapterDirect != 0 ? "-i " : "-o ";
  Json::Value& fragments = args[kArgAdapter];
  if (adapter == kPppoeAdapter) {
    pppoeAdaterGet();
    if (pppoeAdapter.empty()) return at(315).fail("pppoe interface is empty");
    fragments.append(prefix + pppoeAdapter);
  } else if (adapter == kVpnAdapter) {
    if (!vpnAdatperEnum()) return at(321).fail("Failed to vpnAdatperEnum()");
    for (const std::string& name : vpnAdapters) fragments.append(prefix + name);
  } else if (adapter == kGlobalAdapter) {
    fragments.append("");
  } else if (std::find(kPredefinedAdapters.begin(), kPredefinedAdapters.end(), adapter) !=
             kPredefinedAdapters.end()) {
    return at(331).fail("Failed to convert pre-defined adapter %s", adapter.c_str());
  }
  // Kept: "vpn" without a VPN interface ends here too.
  if (fragments.empty()) fragments.append(prefix + adapter);
  return true;
}

}  // namespace FW
