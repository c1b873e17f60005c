// Plug-in hooks around enabling and disabling.

#include "plugins.h"

#include "cleanup.h"
#include "log.h"
#include "tarnfirewall.h"

namespace FW {
namespace {

constexpr LogSite here(int line = __builtin_LINE()) { return {"fwHook", line}; }

constexpr char kCategory[] = "net";
constexpr char kEnableHook[] = "net/firewall_enable";
constexpr char kDisableHook[] = "net/firewall_disable";
constexpr char kResultKey[] = "RESULT";

constexpr int kPreAction = 4;   // the platform's number for a run before the change
constexpr int kPostAction = 5;  // and after it

}  // namespace

bool TarnFwHook::RunFwEnablePreHook() { return RunFwHook(kEnableHook, PRE_HOOK, true); }

bool TarnFwHook::RunFwEnablePostHook(bool result) {
  return RunFwHook(kEnableHook, POST_HOOK, result);
}

bool TarnFwHook::RunFwDisablePreHook() { return RunFwHook(kDisableHook, PRE_HOOK, true); }

bool TarnFwHook::RunFwDisablePostHook(bool result) {
  return RunFwHook(kDisableHook, POST_HOOK, result);
}

bool TarnFwHook::RunFwHook(const std::string& name, HookAction action, bool result) {
  TLIBPLUGIN* plugin = nullptr;
  const Cleanup release([&plugin] { TLIBPluginExit(plugin); });
  if (TLIBPluginSDKInit(kCategory, name.c_str(), &plugin) < 0) {
    return here().fail("Failed to init hook plugin");
  }
  const char* value = result ? "0" : "-1";
  if (TLIBPluginSetArg(plugin, kResultKey, value) < 0) {
    here().error("Failed to set %s = %s", kResultKey, value);
  }
  if (TLIBPluginAction(action == PRE_HOOK ? kPreAction : kPostAction, plugin) < 0) {
    return here().fail("Failed to run hook: %s", name.c_str());
  }
  return true;
}

}  // namespace FW
