// Switching the firewall on and off, and the reload:
//
//   execution lock, status, kernel modules
//   drop set            INPUT and FORWARD policies DROP; established connections go on
//   flush               INPUT_FIREWALL, FORWARD_FIREWALL
//   compile and run     the active profile
//   accept set          policies ACCEPT; the profile's own defaults are rules by now
//   lock released
//
// What is recorded as "status" is what the next reload goes by. A profile that does not compile
// leaves the firewall on with empty chains; lines that cannot be run switch it off.

#include <json/value.h>

#include "../cleanup.h"
#include "../constants.h"
#include "cancellation.h"
#include "lock.h"
#include "module.h"
#include "serviceRules.h"
#include "services.h"

namespace FW {
namespace {

// Excludes every other reload, of this process and of others, until it goes out of scope.
class ExecutionLock {
 public:
  ExecutionLock() = default;
  ~ExecutionLock() {
    if (fd_ < 0) return;
    const tarn::CancellationHold noCancellation;  // none may come out of a destructor
    if (TLIBCFileUnlockByFile(fd_) == 0) here().error("Failed to unlock");
  }
  ExecutionLock(const ExecutionLock&) = delete;
  ExecutionLock& operator=(const ExecutionLock&) = delete;

  bool take() {
    return TLIBCFileLockTimeByFile(kExecutionLock, kExclusive, kLockTimeoutSeconds, &fd_) != 0;
  }

 private:
  int fd_ = -1;
};

// The part of a reload between drop set and accept set.
bool applyActiveProfile(TARNFW& firewall, bool withState) {
  (void)firewall.fwClear();  // a chain that does not flush stops nothing
  std::string profile;
  if (!firewall.fwProfileConfigGet(profile)) return here().fail("Failed to fwProfileConfigGet()");
  Json::Value commands;
  if (!firewall.fwIptablesRulesEnum(profile, commands, withState)) {
    return here().fail("Failed to fwIptablesRulesEnum()");
  }
  if (!firewall.fwExec(std::move(commands))) {
    (void)firewall.fwDisable();
    return here().fail("Failed to fwExec() so disable firewall");
  }
  return true;
}

// Kept: the messages of the load path, which the log's readers know.
void firewallModUnload() {
  if (!TARN_IPTABLES_MODULES::isModuleLoad(kFirewallModuleGroup)) return;
  const std::vector<std::string> reversed(kFirewallModules.rbegin(), kFirewallModules.rend());
  if (!TARN_IPTABLES_MODULES::moduleRemove(kFirewallModuleGroup, reversed)) {
    here().error("Failed to moduleInsert()");
    return;
  }
  if (!TARN_IPTABLES_MODULES::iptablesCoreModUnload(kFirewallModuleGroup)) {
    here().error("Failed to iptablesCoreModLoad");
  }
}

bool statusSet(TARNFW& firewall, bool enabled) {
  Json::Value config;
  config["status"] = enabled;
  if (!firewall.configSet(config)) return here().fail("Falied to configSet()");
  return true;
}

// Takes the services that are gone out of the rule's list, and sets its protocol to what the rest
// use.
void pruneServices(const TARNFW_SERVICE_LIST* services, FWRULE& rule) {
  bool tcp = false;
  bool udp = false;
  std::vector<std::string> kept;
  for (std::string& name : rule.portList) {
    const TARNFW_SERVICE* record = TARNFWServiceFind(services, name.c_str());
    if (record == nullptr || record->available == 0) continue;
    tcp = tcp || record->protocol == FW_PROTO_TCP;
    udp = udp || record->protocol == FW_PROTO_UDP;
    kept.push_back(std::move(name));
  }
  rule.portList = std::move(kept);
  if (rule.portList.empty()) return;
  if (tcp && udp) {
    rule.protocol = FW_PROTO_TCP_UDP;
  } else if (tcp) {
    rule.protocol = FW_PROTO_TCP;
  } else if (udp) {
    rule.protocol = FW_PROTO_UDP;
  }
}

// Prunes every rule that names services; a rule with none left goes.
void pruneRules(const TARNFW_SERVICE_LIST* services, std::vector<FWRULE>& rules) {
  for (FWRULE& rule : rules) {
    if (namesServices(rule)) pruneServices(services, rule);
  }
  dropEmptyServiceRules(rules);
}

}  // namespace

bool firewallModLoad() {
  if (TARN_IPTABLES_MODULES::isModuleLoad(kFirewallModuleGroup)) return true;
  if (!TARN_IPTABLES_MODULES::iptablesCoreModLoad(kFirewallModuleGroup)) {
    return here().fail("Failed to iptablesCoreModLoad");
  }
  if (!TARN_IPTABLES_MODULES::moduleInsert(kFirewallModuleGroup, kFirewallModules)) {
    return here().fail("Failed to moduleInsert()");
  }
  return true;
}

bool TARNFW::fwReload(bool withState) {
  ExecutionLock lock;
  if (!lock.take()) return here().fail("TIMEOUT: getting lock");
  bool enabled = false;
  if (!fwStatus(enabled)) return here().fail("Failed to check status");
  if (!enabled) return true;
  if (!firewallModLoad()) return here().fail("Failed to firewallModLoad()");
  return throughDropPeriod(*this, [&] { return applyActiveProfile(*this, withState); });
}

bool TARNFW::fwEnable() {
  if (!firewallModLoad()) return here().fail("Failed to firewallModLoad()");
  TarnFwHook hook;
  if (!hook.RunFwEnablePreHook()) here().error("Failed to run firewall enable pre-hook.");
  // Recorded first: the reload leaves a disabled firewall alone.
  bool enabled = statusSet(*this, true);
  if (enabled && !fwReload(/*withState=*/true)) {
    enabled = here().fail("Failed to apply firewall rules");
  }
  if (!hook.RunFwEnablePostHook(enabled)) {
    here().error("Failed to run firewall enable post-hook.");
  }
  return enabled;
}

bool TARNFW::fwDisable() {
  TarnFwHook hook;
  if (!hook.RunFwDisablePreHook()) here().error("Failed to run firewall disable pre-hook.");
  (void)fwClear();  // "status" is recorded whatever happens to the chains
  firewallModUnload();
  const bool disabled = statusSet(*this, false);
  if (!hook.RunFwDisablePostHook(disabled)) {
    here().error("Failed to run firewall disable post-hook.");
  }
  return disabled;
}

bool TARNFW::fwReset() { return fwDisable(); }

bool TARNFW::fwClear() {
  bool cleared = true;
  for (const char* chain : kFirewallChains) {
    for (const char* tool : {kIptables, kIp6tables}) {
      const std::string command = std::string(tool) + " -F " + chain;
      if (!cmdExec(command)) cleared = here().fail("Failed to execute \"%s\"", command.c_str());
    }
  }
  return cleared;
}

bool TARNFW::fwUpdate() {
  TARNFW_PROFILE manager;
  std::map<std::string, FWPROFILE> profiles;
  if (!manager.profileEnum(profiles)) {
    return here().fail("Failed to enum profiles to profile list");
  }
  TARNFW_SERVICE_LIST* services = nullptr;
  const Cleanup release([&services] {
    if (services != nullptr) TARNFwServiceFree(services);
  });
  if (TARNFwServiceEnum(&services) <= 0) return here().fail("Failed to enum FW services");
  for (auto& [name, profile] : profiles) {
    for (auto& [adapter, rules] : profile.rules) pruneRules(services, rules);
    if (!manager.profileSet(name, profile)) return here().fail("Failed to set profile");
  }
  return true;
}

}  // namespace FW
