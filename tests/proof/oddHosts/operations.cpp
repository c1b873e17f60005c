#include "operations.h"

#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include <json/value.h>

#include "machine.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace oddHosts {
namespace {

namespace fs = std::filesystem;
using FW::TARN_IPTABLES_MODULES;

constexpr char kRecord[] = "/tmp/iptables_serv_mod_list";
constexpr char kPlugIns[] = "/usr/tarn/libexec/plugins/net/";

// clang-format off
constexpr char kDenied[] =
  "-A FORWARD_FIREWALL -s 10.0.0.1/32 -j DROP\n"
  "-A INPUT_FIREWALL -s 10.0.0.1/32 -j DROP\n";
// clang-format on

constexpr char kOn[] = "status on, modules yes, the profile's rules, open";
constexpr char kOnTrial[] = "status off, modules yes, the trial's rules, open";
constexpr char kEveryHook[] = "enable pre 0, enable post -1, disable pre 0, disable post 0";

FW::FWPROFILE profileDenying(const std::string& address) {
  FW::FWRULE rule;
  rule.policy = FW::FW_POLICY_DENY;
  rule.ipList = {address};
  rule.portGroup = 3;  // all ports
  FW::FWPROFILE profile;
  profile.name = "road";
  profile.rules["global"] = {rule};
  return profile;
}

std::string word(bool result) { return result ? "true" : "false"; }

// --- before ---

void nothing() {}

void recordModules() { files::write(kRecord, "firewall=\"yes\"\nproof=\"yes\"\n"); }

void switchOn() {
  files::writeSettings(R"({"profile" : "road", "status" : true})");
  recordModules();
}

void switchOnWithRules() {
  switchOn();
  EXPECT_EQ("", road::output("iptables -A INPUT_FIREWALL -s 10.9.9.9 -j DROP"));
  EXPECT_EQ("", road::output("ip6tables -A FORWARD_FIREWALL -s fd99::9 -j DROP"));
}

void makeTestProfile() {
  recordModules();
  EXPECT_TRUE(FW::TARNFW_PROFILE().CreateTestProfile("road", profileDenying("10.0.0.1")));
}

// --- the operations ---

std::string enable() { return word(FW::TARNFW().fwEnable()); }
std::string reload() { return word(FW::TARNFW().fwReload(/*withState=*/true)); }
std::string disable() { return word(FW::TARNFW().fwDisable()); }
std::string trial() { return word(FW::TARNFW().TestApplyingProfile("road")); }

std::string profileSet() {
  return word(FW::TARNFW_PROFILE().profileSet("road", profileDenying("10.0.0.2")));
}

std::string configSet() {
  Json::Value change;
  change["note"] = "as it was written";
  return word(FW::TARNFW().configSet(change));
}

std::string insertModules() {
  return word(TARN_IPTABLES_MODULES::moduleInsert("proof", {"xt_proof.ko"}));
}

std::string removeModules() {
  return word(TARN_IPTABLES_MODULES::moduleRemove("proof", {"xt_proof.ko"}));
}

std::string runHooks() {
  FW::TarnFwHook hook;
  std::string answers = word(hook.RunFwEnablePreHook());
  answers += " " + word(hook.RunFwEnablePostHook(false));
  answers += " " + word(hook.RunFwDisablePreHook());
  return answers + " " + word(hook.RunFwDisablePostHook(true));
}

std::string query() {
  FW::PortCompareST port;
  port.port = "22";
  FW::AdapterPolicyMap verdicts;
  std::string text = word(FW::TARNFW().fwPortIsBlocked(port, "", verdicts));
  for (const auto& [adapter, verdict] : verdicts) {
    text += " " + adapter + " " + std::to_string(verdict);
  }
  return text;
}

// --- after ---

std::string withoutStateLines(const std::string& chains) {
  std::istringstream lines(chains);
  std::string rest;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("RELATED,ESTABLISHED") == std::string::npos) rest += line + "\n";
  }
  return rest;
}

// Which rules are in force: none, the profile's, the trial's, or all that there is.
std::string rules() {
  const std::string both = road::chains("iptables") + road::chains("ip6tables");
  const std::string profile = road::chainsWithPreambleV4(kDenied) + road::chainsWithPreambleV6("");
  if (both == std::string(road::kEmptyChains) + road::kEmptyChains) return "no rules";
  if (both == profile) return "the profile's rules";
  if (both == withoutStateLines(profile)) return "the trial's rules";
  return both;
}

std::string record(const std::string& service) {
  const std::string text = files::read(kRecord);
  for (const std::string value : {"yes", "no"}) {
    if (text.find(service + "=\"" + value + "\"\n") != std::string::npos) return value;
  }
  return "none";
}

std::string live() {
  const bool open = road::policies() == road::kOpenPolicies;
  return "status " + road::status() + ", modules " + record("firewall") + ", " + rules() + ", " +
         (open ? "open" : road::policies()) +
         (road::executionLockIsFree() ? "" : ", execution lock held");
}

std::string storedProfile() {
  FW::FWPROFILE profile;
  if (!FW::TARNFW_PROFILE().profileGet("road", profile)) return "no profile";
  const std::vector<FW::FWRULE>& stored = profile.rules["global"];
  return stored.size() == 1 && stored[0].ipList.size() == 1 ? stored[0].ipList[0] : "other rules";
}

std::string settings() {
  struct stat status = {};
  Json::Value found;
  if (stat(files::kSettingsFile, &status) != 0 || !FW::TARNFW().configGet(found)) return "none";
  std::ostringstream text;
  text << found["profile"].asString() << ", " << found["note"].asString() << ", mode " << std::oct
       << (status.st_mode & ALLPERMS);
  return text.str();
}

std::string proofRecord() { return record("proof"); }
std::string nothingToSee() { return ""; }

}  // namespace

// clang-format off
const std::vector<Operation>& operations() {
  static const std::vector<Operation> kAll = {
      {"Enable", nothing, enable, live, {"true", kOn, "enable pre 0, enable post 0"}, {"false", "status off, modules none, no rules, open", ""}},
      {"Reload", switchOn, reload, live, {"true", kOn, ""}, {"true", kOn, ""}},
      {"Disable", switchOnWithRules, disable, live, {"true", "status off, modules no, no rules, open", "disable pre 0, disable post 0"},
       {"false", "status on, modules yes, no rules, open", "disable pre 0, disable post -1"}},
      {"Trial", makeTestProfile, trial, live, {"true", kOnTrial, ""}, {"true", kOnTrial, ""}},
      {"ProfileSet", nothing, profileSet, storedProfile, {"true", "10.0.0.2", ""}, {"false", "10.0.0.1", ""}},
      {"ConfigSet", nothing, configSet, settings, {"true", "road, as it was written, mode 640", ""}, {"false", "road, , mode 640", ""}},
      {"ModuleInsert", nothing, insertModules, proofRecord, {"true", "yes", ""}, {"false", "none", ""}},
      {"ModuleRemove", recordModules, removeModules, proofRecord, {"true", "no", ""}, {"false", "yes", ""}},
      {"Hooks", nothing, runHooks, nothingToSee, {"true true true true", "", kEveryHook}, {"true true true true", "", kEveryHook}},
      {"Query", switchOn, query, nothingToSee, {"true global 3", "", ""}, {"true global 3", "", ""}},
  };
  return kAll;
}
// clang-format on

void prepare() {
  fs::remove_all("/tmp/tool");
  fs::create_directory("/tmp/tool");
  files::write("/run/syslog", "");
  road::installSeedFiles();
  road::makeBaseChains();
  files::writeSettings(R"({"profile" : "road", "status" : false})");
  fs::permissions(files::kSettingsFile, static_cast<fs::perms>(0640));
  EXPECT_TRUE(FW::TARNFW_PROFILE().profileSet("road", profileDenying("10.0.0.1")));
  for (const std::string change : {"enable", "disable"}) {
    const std::string directory = kPlugIns + ("firewall_" + change);
    fs::create_directories(directory);
    fs::copy_file(OBSERVER, directory + "/" + change);
  }
}

}  // namespace oddHosts
