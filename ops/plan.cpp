#include "plan.h"

#include "constants.h"
#include "jsonText.h"
#include "memoryFile.h"
#include "printable.h"
#include "tarnfirewall.h"
#include "textDiff.h"

namespace ops {
namespace {

// What opens and what closes a drop period, in both families.
constexpr std::array<const char*, 3> kDropSet = {
    "--policy INPUT DROP", "--policy FORWARD DROP",
    "-A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"};
constexpr std::array<const char*, 3> kAcceptSet = {
    "--policy INPUT ACCEPT", "--policy FORWARD ACCEPT",
    "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"};

constexpr char kEnableHook[] = "net/firewall_enable";
constexpr char kDisableHook[] = "net/firewall_disable";

std::vector<std::string> documentLines(const Json::Value& document) {
  if (document.isNull()) return {};
  return linesOf(styledJson(document));
}

std::string describeChange(const Json::Value& step) {
  std::string text = step["do"].asString() + " " + printable(step["file"].asString());
  for (const std::string& line :
       differences(documentLines(step["before"]), documentLines(step["after"]))) {
    text += "\n    " + printable(line);
  }
  return text;
}

std::string describeModules(const Json::Value& step) {
  std::string text = step["do"].asString();
  for (const Json::Value& module : step["modules"]) text += " " + module.asString();
  return text + " for " + step["service"].asString();
}

// What a step of another kind than a change of a document is, on one line.
std::string describeAction(const Json::Value& step) {
  const std::string kind = step["do"].asString();
  if (kind == "run") return "run " + step["command"].asString();
  if (kind == "hook") return "hook " + step["name"].asString() + " " + step["when"].asString();
  if (kind == "load" || kind == "unload") return describeModules(step);
  return "set " + step["key"].asString() + " " + step["value"].asString() + " in " +
         step["file"].asString();
}

std::string describe(const Json::Value& step) {
  const std::string kind = step["do"].asString();
  const bool changes = kind == "write" || kind == "remove";
  return changes ? describeChange(step) : printable(describeAction(step));
}

Json::Value modulesStep(const char* what, const std::string& service,
                        const std::vector<std::string>& modules) {
  Json::Value step(Json::objectValue);
  step["do"] = what;
  step["service"] = service;
  step["modules"] = Json::Value(Json::arrayValue);
  for (const std::string& module : modules) step["modules"].append(module);
  return step;
}

void addSet(const std::array<const char*, 3>& set, Plan& plan) {
  for (const Family family : kFamilies) {
    for (const char* line : set) plan.run(std::string(toolOf(family)) + " " + line);
  }
}

void addLines(const char* tool, const Json::Value& lines, Plan& plan) {
  for (const Json::Value& line : lines) plan.run(std::string(tool) + " " + line.asString());
}

// In the order of the library: "global" first, then the adapters by name.
void addCompiled(const Json::Value& commands, Plan& plan) {
  for (const Family family : kFamilies) {
    const Json::Value& adapters = commands[keyOf(family)];
    if (!adapters.isObject()) continue;
    addLines(toolOf(family), adapters[FW::kGlobalAdapter], plan);
    for (const std::string& adapter : adapters.getMemberNames()) {
      if (adapter != FW::kGlobalAdapter) addLines(toolOf(family), adapters[adapter], plan);
    }
  }
}

void addModuleLoad(Plan& plan) {
  if (FW::TARN_IPTABLES_MODULES::isModuleLoad(FW::kFirewallModuleGroup)) return;
  std::vector<std::string> core;
  (void)FW::TARN_IPTABLES_MODULES::coreCommonModuleLoad(core);  // logs; an empty step shows it too
  plan.load(FW::kFirewallModuleGroup, core);
  plan.load(FW::kFirewallModuleGroup, FW::kFirewallModules);
}

void addModuleUnload(Plan& plan) {
  if (!FW::TARN_IPTABLES_MODULES::isModuleLoad(FW::kFirewallModuleGroup)) return;
  std::vector<std::string> core;
  (void)FW::TARN_IPTABLES_MODULES::coreCommonModuleLoad(core);
  plan.unload(FW::kFirewallModuleGroup,
              {FW::kFirewallModules.rbegin(), FW::kFirewallModules.rend()});
  plan.unload(FW::kFirewallModuleGroup, {core.rbegin(), core.rend()});
}

void addDropPeriod(const Json::Value& commands, Plan& plan) {
  addSet(kDropSet, plan);
  plan.add(planClear());
  addCompiled(commands, plan);
  addSet(kAcceptSet, plan);
}

}  // namespace

void Plan::run(const std::string& command) {
  Json::Value step(Json::objectValue);
  step["do"] = "run";
  step["command"] = command;
  steps_.append(step);
}

void Plan::run(const std::vector<Command>& commands) {
  for (const Command& command : commands) run(command.text());
}

void Plan::set(const std::string& file, const std::string& key, const Json::Value& value) {
  Json::Value step(Json::objectValue);
  step["do"] = "set";
  step["file"] = file;
  step["key"] = key;
  step["value"] = value;
  steps_.append(step);
}

void Plan::load(const std::string& service, const std::vector<std::string>& modules) {
  steps_.append(modulesStep("load", service, modules));
}

void Plan::unload(const std::string& service, const std::vector<std::string>& modules) {
  steps_.append(modulesStep("unload", service, modules));
}

void Plan::hook(const std::string& name, const char* when) {
  Json::Value step(Json::objectValue);
  step["do"] = "hook";
  step["name"] = name;
  step["when"] = when;
  steps_.append(step);
}

void Plan::change(const DocumentChange& change) {
  Json::Value step(Json::objectValue);
  step["do"] = change.after.isNull() ? "remove" : "write";
  step["file"] = change.file;
  step["before"] = change.before;
  step["after"] = change.after;
  steps_.append(step);
}

void Plan::add(const Plan& more) {
  for (const Json::Value& step : more.steps_) steps_.append(step);
}

std::string Plan::text() const {
  std::string text;
  for (const Json::Value& step : steps_) text += describe(step) + "\n";
  return text;
}

Plan planEnable(const Json::Value& commands) {
  Plan plan;
  addModuleLoad(plan);
  plan.hook(kEnableHook, "before");
  plan.set(FW::kSettingsFile, "status", true);
  addDropPeriod(commands, plan);
  plan.hook(kEnableHook, "after");
  return plan;
}

Plan planReload(const Json::Value& commands) {
  Plan plan;
  addModuleLoad(plan);
  addDropPeriod(commands, plan);
  return plan;
}

Plan planDisable() {
  Plan plan;
  plan.hook(kDisableHook, "before");
  plan.add(planClear());
  addModuleUnload(plan);
  plan.set(FW::kSettingsFile, "status", false);
  plan.hook(kDisableHook, "after");
  return plan;
}

Plan planClear() {
  Plan plan;
  for (const char* chain : FW::kFirewallChains) {
    for (const Family family : kFamilies) {
      plan.run(std::string(toolOf(family)) + " -F " + chain);
    }
  }
  return plan;
}

}  // namespace ops
