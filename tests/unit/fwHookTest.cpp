#include <map>
#include <ostream>
#include <string>

#include "fakePlatform.h"
#include "tarnfirewall.h"
#include "trace.h"

namespace {

using FW::TarnFwHook;

struct HookRow {
  const char* name;
  bool (*run)(TarnFwHook& hook);
  std::map<std::string, fake::Answer> answers;
  bool failedInitLeavesHandle;
  bool result;
  const char* trace;
};

void PrintTo(const HookRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const HookRow kHookRows[] = {
    {"BeforeEnabling", [](TarnFwHook& hook) { return hook.RunFwEnablePreHook(); }, {}, false, true,
     "plugin init net net/firewall_enable\nplugin set RESULT=0\nplugin action 4\nplugin exit"},
    {"AfterEnabling", [](TarnFwHook& hook) { return hook.RunFwEnablePostHook(true); }, {}, false, true,
     "plugin init net net/firewall_enable\nplugin set RESULT=0\nplugin action 5\nplugin exit"},
    {"AfterEnablingThatFailed", [](TarnFwHook& hook) { return hook.RunFwEnablePostHook(false); }, {}, false, true,
     "plugin init net net/firewall_enable\nplugin set RESULT=-1\nplugin action 5\nplugin exit"},
    {"BeforeDisabling", [](TarnFwHook& hook) { return hook.RunFwDisablePreHook(); }, {}, false, true,
     "plugin init net net/firewall_disable\nplugin set RESULT=0\nplugin action 4\nplugin exit"},
    {"AfterDisabling", [](TarnFwHook& hook) { return hook.RunFwDisablePostHook(true); }, {}, false, true,
     "plugin init net net/firewall_disable\nplugin set RESULT=0\nplugin action 5\nplugin exit"},
    {"AfterDisablingThatFailed", [](TarnFwHook& hook) { return hook.RunFwDisablePostHook(false); }, {}, false, true,
     "plugin init net net/firewall_disable\nplugin set RESULT=-1\nplugin action 5\nplugin exit"},
    {"AnyHookCanRun", [](TarnFwHook& hook) { return hook.RunFwHook("net/other", TarnFwHook::PRE_HOOK, false); }, {}, false, true,
     "plugin init net net/other\nplugin set RESULT=-1\nplugin action 4\nplugin exit"},
    {"ActionThatAnswersMoreThanZeroIsDone", [](TarnFwHook& hook) { return hook.RunFwEnablePreHook(); },
     {{"plugin init net net/firewall_enable", 1}, {"plugin set RESULT=0", 1}, {"plugin action 4", 3}}, false, true,
     "plugin init net net/firewall_enable\nplugin set RESULT=0\nplugin action 4\nplugin exit"},

    {"InitFails", [](TarnFwHook& hook) { return hook.RunFwEnablePreHook(); },
     {{"plugin init net net/firewall_enable", -1}}, false, false,
     "plugin init net net/firewall_enable\nerr fwHook Failed to init hook plugin"},
    {"InitFailsAndLeavesAHandle", [](TarnFwHook& hook) { return hook.RunFwDisablePostHook(true); },
     {{"plugin init net net/firewall_disable", -2}}, true, false,
     "plugin init net net/firewall_disable\nerr fwHook Failed to init hook plugin\nplugin exit"},
    {"ArgumentFailsAndTheHookRuns", [](TarnFwHook& hook) { return hook.RunFwEnablePostHook(false); },
     {{"plugin set RESULT=-1", -1}}, false, true,
     "plugin init net net/firewall_enable\nplugin set RESULT=-1\nerr fwHook Failed to set RESULT = -1\nplugin action 5\nplugin exit"},
    {"ActionFails", [](TarnFwHook& hook) { return hook.RunFwDisablePreHook(); },
     {{"plugin action 4", -1}}, false, false,
     "plugin init net net/firewall_disable\nplugin set RESULT=0\nplugin action 4\nerr fwHook Failed to run hook: net/firewall_disable\nplugin exit"},
    {"ArgumentAndActionFail", [](TarnFwHook& hook) { return hook.RunFwEnablePostHook(true); },
     {{"plugin set RESULT=0", -1}, {"plugin action 5", -1}}, false, false,
     "plugin init net net/firewall_enable\nplugin set RESULT=0\nerr fwHook Failed to set RESULT = 0\nplugin action 5\nerr fwHook Failed to run hook: net/firewall_enable\nplugin exit"},
};
// clang-format on

class Hooks : public fake::MachineTest, public testing::WithParamInterface<HookRow> {};

TEST_P(Hooks, RunPlugins) {
  fake::machine().answers = GetParam().answers;
  fake::machine().failedPluginInitLeavesHandle = GetParam().failedInitLeavesHandle;
  TarnFwHook hook;
  EXPECT_EQ(GetParam().result, GetParam().run(hook));
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, Hooks, testing::ValuesIn(kHookRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(HookActions, HaveTheirNumbers) {
  EXPECT_EQ(0, TarnFwHook::PRE_HOOK);
  EXPECT_EQ(1, TarnFwHook::POST_HOOK);
}

}  // namespace
