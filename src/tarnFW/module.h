// What the files of the module tarnFW share.

#ifndef TARNFW_SRC_TARNFW_MODULE_H
#define TARNFW_SRC_TARNFW_MODULE_H

#include "cancellation.h"
#include "log.h"
#include "tarnfirewall.h"

namespace FW {

constexpr LogSite here(int line = __builtin_LINE()) { return {"tarnFW", line}; }

// Makes sure that the firewall's kernel modules are loaded.
bool firewallModLoad();

// Opens the built-in policies of both families and takes back the drop period's accept rule. For a
// handler of exceptions: allocates nothing, throws nothing, ignores failures.
void openPolicies() noexcept;

// Runs `apply` inside the drop period: drop set, apply, accept set. After a failed drop set neither
// of the others runs and the policies stay as it left them. A failed accept set disables the
// firewall. The result is that of `apply`, false when a set failed.
//
// An exception leaves the policies open too. That takes a handler: a guard's destructor would not
// run, since the runtime ends the process without unwinding when no handler is found up the stack.
// A thread that is cancelled meanwhile is cancelled when the policies are open again.
template <class Apply>
bool throughDropPeriod(TARNFW& firewall, Apply apply) {
  const tarn::CancellationHold noCancellation;
  try {
    if (!firewall.fwDefaultDrop()) return false;
    bool applied = apply();
    if (!firewall.fwDefaultAccept()) {
      (void)firewall.fwDisable();
      applied = false;
    }
    return applied;
  } catch (...) {
    openPolicies();
    throw;
  }
}

}  // namespace FW

#endif
