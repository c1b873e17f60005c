#include "places.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>

#include <json/value.h>

#include "attacker.h"
#include "ownTime.h"
#include "processes.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace squatting {
namespace {

namespace fs = std::filesystem;
using FW::TARN_IPTABLES_MODULES;

constexpr char kProfileText[] =
    "{\"name\": \"road\", \"rules\": null, \"adapterPolicyMap\": null}\n";
constexpr char kSettingsText[] = "{\"profile\": \"road\", \"status\": false}\n";
constexpr unsigned int kTooLong = 10;  // seconds

// --- operations ---

bool reload() { return FW::TARNFW().fwReload(true); }  // the firewall is off: it takes the lock

bool recordModules() {
  // The attacker's record must not be believed.
  if (TARN_IPTABLES_MODULES::isModuleLoad("proof")) return false;
  return TARN_IPTABLES_MODULES::moduleInsert("proof", {}) &&
         TARN_IPTABLES_MODULES::isModuleLoad("proof");
}

bool set() {
  Json::Value wanted;
  wanted["profile"] = "road";
  Json::Value found;
  return FW::TARNFW().configSet(wanted) && FW::TARNFW().configGet(found) &&
         found["profile"].asString() == "road";
}

bool storeProfile() {
  FW::FWPROFILE profile;
  profile.name = "road";
  return FW::TARNFW_PROFILE().profileSet("road", profile);
}

bool removeProfile() { return FW::TARNFW_JSON_DB().profileDelete("road"); }
bool removeUnknownProfile() { return FW::TARNFW_JSON_DB().profileDelete("nosuch"); }

bool everything() { return set() && storeProfile() && recordModules() && reload(); }

// --- what is there ---

std::set<std::string> namesIn(const std::string& directory) {
  const std::vector<std::string> names = files::list(directory);
  return {names.begin(), names.end()};
}

const std::set<std::string>& machinesOwn() {
  static const std::set<std::string> kNames = namesIn("/tmp");
  return kNames;
}

// True for a directory of root's with a directory in it that cannot be removed.
bool movedAside(const std::string& path) {
  struct stat status = {};
  return path.find(".moved-") != std::string::npos && lstat(path.c_str(), &status) == 0 &&
         S_ISDIR(status.st_mode) && status.st_uid == 0 && (status.st_mode & ALLPERMS) == 0700 &&
         files::listing(path) == "moved" && !files::listing(path + "/moved").empty();
}

// Names in /tmp that are neither the sandbox's nor the places' nor those of things moved aside.
std::string strangers() {
  std::set<std::string> known = machinesOwn();
  known.insert("attacker");
  for (const Place& place : openPlaces()) known.insert(fs::path(place.path).filename());
  std::string names;
  for (const std::string& name : namesIn("/tmp")) {
    if (known.count(name) == 0 && !movedAside("/tmp/" + name)) names += " " + name;
  }
  return names;
}

std::string faultOfFile(const char* path, mode_t mode, const std::string& text) {
  struct stat status = {};
  if (lstat(path, &status) != 0) return std::string(path) + " is absent";
  if (!S_ISREG(status.st_mode) || status.st_uid != 0 || status.st_nlink != 1 ||
      (status.st_mode & ALLPERMS) != mode) {
    return "not root's file: " + description(path);
  }
  return files::read(path) == text ? "" : "other text: " + files::read(path);
}

}  // namespace

// clang-format off
const std::vector<Place>& openPlaces() {
  static const std::vector<Place> kAll = {
      {"ExecutionLock", "/tmp/firewall_iptables_exec.lock", false, reload, After::kLockFile},
      {"ModuleRecord", "/tmp/iptables_serv_mod_list", false, recordModules, After::kStateFile},
      {"ModuleRecordTemporary", "/tmp/iptables_serv_mod_list.tmp", false, recordModules, After::kUntouched},
      {"LockDirectory", "/var/lock/firewall", false, everything, After::kUntouched},
      {"SettingsLock", "/tmp/firewall_settings.json.lock", true, set, After::kLockFile},
      {"ProfileLock", "/tmp/1.json.lock", true, storeProfile, After::kLockFile},
      {"RemovedProfileLock", "/tmp/1.json.lock", true, removeProfile, After::kGone},
      {"ModuleRecordLock", "/tmp/iptables_serv_mod_list.lock", true, recordModules, After::kLockFile},
      {"UnknownProfileLock", "/tmp/..lock", true, removeUnknownProfile, After::kGone},
  };
  return kAll;
}

const std::vector<std::string>& closedPlaces() {
  static const std::vector<std::string> kAll = {
      "/var/lock/firewall/firewall_settings.json.lock", "/var/lock/firewall/1.json.lock",
      "/var/lock/firewall/iptables_serv_mod_list.lock", "/run/tarn/iptables_modules", "/run/tarn/iptables_modules.lock",
      "/run/tarn/base_chains.lock", "/run/tarn/lock_gate", "/run/tarn/open_policies.1.2.json", "/run/tarn/pppoe_interface", "/run/xtables.lock.1", "/run/ppp-link.pid",
      "/usr/tarn/etc/firewall.d/2.json", "/usr/tarn/etc/firewall.d/2.json.tmp", "/usr/tarn/etc/firewall.d/firewall_settings.json.tmp"};
  return kAll;
}
// clang-format on

const Place& placeOf(const char* name) {
  for (const Place& place : openPlaces()) {
    if (std::strcmp(place.name, name) == 0) return place;
  }
  std::abort();  // a test that asks for what there is not
}

void reset() {
  const std::set<std::string>& own = machinesOwn();
  for (const std::string& name : namesIn("/tmp")) {
    if (own.count(name) == 0 && name != "attacker") fs::remove_all("/tmp/" + name);
  }
  for (const std::string& name : namesIn("/var/lock")) fs::remove_all("/var/lock/" + name);
  fs::remove_all("/run/tarn");
  for (const std::string& name : files::list(files::kProfileDirectory)) {
    fs::remove_all(files::kProfileDirectory + name);
  }
  files::write(files::kProfileDirectory + std::string("1.json"), kProfileText);
  files::write(files::kSettingsFile, kSettingsText);
}

std::string answer(bool (*operation)()) {
  processes::Child root([operation] {
    (void)alarm(kTooLong);
    const long start = figures::ownMilliseconds();
    const std::string result = operation() ? "true" : "false";
    return result + (figures::ownMilliseconds() - start < 1000 ? "" : ", late");
  });
  return root.answer();
}

std::string fault(const Place& place, const std::string& squat) {
  const std::string names = strangers();
  if (!names.empty()) return "new in /tmp:" + names;
  switch (place.after) {
    case After::kLockFile:
      return faultOfFile(place.path, 0600, "");
    case After::kStateFile:
      return faultOfFile(place.path, 0644, "proof=\"yes\"\n");
    case After::kGone:
      return fs::exists(fs::symlink_status(place.path)) && !fs::is_directory(place.path)
                 ? "still there"
                 : "";
    case After::kUntouched:
      return squat == description(place.path) ? "" : "changed: " + description(place.path);
  }
  return "what is to be there?";
}

}  // namespace squatting
