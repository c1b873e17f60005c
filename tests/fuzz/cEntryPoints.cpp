// The C entry points with any strings and lists: their results, what they make of the profiles,
// which modules they ask for, and that they leave nothing shut, locked or alive.
//
// Input: which settings there are; a flag, the service database cannot be read; the number of
// profiles and the profiles; the module lists (four texts: core, common, IPv6, NAT); the number of
// calls, each with its kind and arguments. A flag before a string that may be null: it is null.

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <json/writer.h>

#include "answerModel.h"
#include "check.h"
#include "commandModel.h"
#include "error.h"
#include "fakePlatform.h"
#include "packetFilter.h"
#include "profileInput.h"
#include "services.h"
#include "splittingModel.h"
#include "storeModel.h"
#include "tarnfirewall.h"
#include "tarnfirewall_c.h"
#include "testFiles.h"
#include "trace.h"

namespace {

constexpr char kModuleLists[] = "/usr/tarn/etc.defaults/iptables_modules_list";
constexpr char kModuleUsers[] = "/tmp/iptables_serv_mod_list";
constexpr char kActive[] = "p1";  // in the settings of every scene that has any
constexpr int kBadParameter = 0x0D00;

enum Kind { kReserve, kRemove, kAdapter, kCheck, kHup, kReset, kModules, kKinds };

enum Settings { kAbsent, kEnabled, kDisabled, kStatusIsAList, kNoJson, kSettingsKinds };

// Texts of C without line feeds, which the trace could not tell from its own.
std::string argumentOf(fuzz::Input& input) {
  std::string text = input.plainText();
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// At most four names: every one of them writes every profile.
std::string listOf(fuzz::Input& input) {
  const std::string list = argumentOf(input);
  std::size_t end = 0;
  for (int names = 0; names < 4 && end != std::string::npos; ++names) {
    end = list.find(',', end + (names > 0 ? 1 : 0));
  }
  return list.substr(0, end);
}

struct Lists {
  std::string core;
  std::string common;
  std::string ipv6;
  std::string nat;
};

struct Scene {
  Settings settings = kAbsent;
  bool services = true;
  fuzz::Profiles profiles;
  Lists lists;
  fuzz::PacketFilter filter;
};

Scene sceneOf(fuzz::Input& input) {
  Scene scene;
  scene.settings = static_cast<Settings>(input.below(kSettingsKinds));
  scene.services = !input.flag();
  for (std::size_t left = input.below(2) + 1; left > 0; --left) {
    FW::FWPROFILE profile = fuzz::profileOf(input);
    profile.name = "p" + std::to_string(left);
    scene.profiles[profile.name] = profile;
  }
  for (std::string* list :
       {&scene.lists.core, &scene.lists.common, &scene.lists.ipv6, &scene.lists.nat}) {
    *list = argumentOf(input).substr(0, 1000);
  }
  return scene;
}

void store(Scene& scene) {
  files::clear();
  fake::reset();
  fake::machine().interfaces = {"eth0", "tun0"};
  if (scene.services) fake::machine().services = fuzz::services();
  std::map<std::string, std::string>& lists = fake::machine().files[kModuleLists];
  lists["KERNEL_MODULES_CORE"] = scene.lists.core;
  lists["KERNEL_MODULES_COMMON"] = scene.lists.common;
  lists["IPV6_MODULES"] = scene.lists.ipv6;
  lists["KERNEL_MODULES_NAT"] = scene.lists.nat;
  fake::machine().exec = [&scene](const std::string& line) { return scene.filter.run(line); };
  const char* const texts[] = {nullptr, R"({"profile": "p1", "status": true})",
                               R"({"profile": "p1", "status": false})",
                               R"({"profile": "p1", "status": []})", "{"};
  if (texts[scene.settings] != nullptr) files::writeSettings(texts[scene.settings]);
  for (auto& [name, profile] : scene.profiles) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    files::write(files::kProfileDirectory + name + ".json", Json::FastWriter().write(document));
  }
  scene.profiles = fuzz::profilesOnDisk();
}

// --- the calls ---

template <class Edit>
void editAll(Scene& scene, Edit edit) {
  for (auto& [name, profile] : scene.profiles) profile = edit(profile);
}

// What a reload goes by besides the settings and the profiles.
struct Before {
  int drops;     // policies set to DROP
  bool modules;  // the firewall's are loaded
};

Before beforeCall(const Scene& scene) {
  const auto users = fake::machine().files.find(kModuleUsers);
  if (users == fake::machine().files.end()) return {scene.filter.drops(), false};
  const auto firewall = users->second.find("firewall");
  const bool modules = firewall != users->second.end() && firewall->second == "yes";
  return {scene.filter.drops(), modules};
}

enum class Reload { kDone, kWithoutModules, kDoesNotCompile, kHasTooLongALine };

Reload reloadOf(const Scene& scene, const Before& before) {
  const Lists& lists = scene.lists;
  const bool complete = !lists.core.empty() && !lists.common.empty() && !lists.ipv6.empty();
  if (!before.modules && !complete) return Reload::kWithoutModules;
  fuzz::Machine machine;
  machine.interfaces = fake::machine().interfaces;
  machine.services = fake::machine().services;
  fuzz::Commands commands;
  if (!fuzz::compile(machine, scene.profiles.at(kActive), /*withState=*/true, "", commands)) {
    return Reload::kDoesNotCompile;
  }
  for (const auto& [family, adapters] : commands) {
    const std::string tool = family == "v4" ? "/sbin/iptables " : "/sbin/ip6tables ";
    for (const auto& [adapter, lines] : adapters) {
      for (const std::string& line : lines) {
        if (!fuzz::splitOf(tool + line).message.empty()) return Reload::kHasTooLongALine;
      }
    }
  }
  return Reload::kDone;
}

bool isSwitchedOff() {
  return files::read(files::kSettingsFile).find("\"status\" : false") != std::string::npos;
}

// The result of a call whose edit succeeded and whose reload flag was `reload`.
void checkReload(const Scene& scene, int reload, int result, const Before& before) {
  const bool reached = reload == 1 && scene.settings == kEnabled;
  if (!reached) {
    fuzz::require(scene.filter.drops() == before.drops, "nothing is reloaded unasked");
    const bool fails =
        reload == 1 && (scene.settings == kStatusIsAList || scene.settings == kNoJson);
    fuzz::require(result == (fails ? -1 : 0), "the result of an edit", std::to_string(result));
    return;
  }
  const Reload expected = reloadOf(scene, before);
  fuzz::require(result == (expected == Reload::kDone ? 0 : -1), "the result of a reload",
                std::to_string(result));
  const int drops = expected == Reload::kWithoutModules ? 0 : 4;
  fuzz::require(scene.filter.drops() == before.drops + drops,
                "an enabled firewall is reloaded once");
  fuzz::require(isSwitchedOff() == (expected == Reload::kHasTooLongALine),
                "lines that cannot be run, and nothing else, switch the firewall off");
}

// The platform error of a call with bad arguments; some are logged, the others silent.
void checkBadParameter(int result, bool isLogged) {
  fuzz::require(result == -1 && TLIBCErrGet() == kBadParameter, "a bad parameter is refused");
  fuzz::require((trace::take().find("err ") != std::string::npos) == isLogged,
                "which refusals are logged");
}

void reserve(fuzz::Input& input, Scene& scene) {
  const bool isNull = input.flag();
  const std::string services = listOf(input);
  const int allow = input.number();
  const int reload = input.number();
  const Before before = beforeCall(scene);
  const int result =
      TLIBFwRuleReserveServInsert(isNull ? nullptr : services.c_str(), allow, reload);
  if (isNull || services.empty()) {
    checkBadParameter(result, /*isLogged=*/false);
    return;
  }
  std::istringstream list(services + ",");
  for (std::string name; std::getline(list, name, ',');) {
    editAll(scene, [&](const FW::FWPROFILE& profile) {
      return fuzz::reserved(profile, "global", name,
                            allow != 0 ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY);
    });
  }
  checkReload(scene, reload, result, before);
}

void remove(fuzz::Input& input, Scene& scene) {
  const std::string service = argumentOf(input);
  const Before before = beforeCall(scene);
  const int result = TLIBFwServRemoveRec(service.c_str());
  editAll(scene,
          [&](const FW::FWPROFILE& profile) { return fuzz::withoutService(profile, service); });
  checkReload(scene, 0, result, before);
}

void changeAdapter(fuzz::Input& input, Scene& scene) {
  const std::string from = argumentOf(input);
  const std::string to = argumentOf(input);
  const int reload = input.number();
  const Before before = beforeCall(scene);
  const std::string active = scene.settings == kAbsent ? "default" : kActive;
  const auto profile = scene.profiles.find(active);
  const bool concerned =
      profile != scene.profiles.end() && profile->second.adapterPolicyMap.count(from) != 0;
  const int result = TLIBFwChangeAdatper(from.c_str(), to.c_str(), reload);
  if (scene.settings == kNoJson) {
    fuzz::require(result == -1, "an adapter is not renamed without settings");
    return;
  }
  if (scene.settings == kAbsent) scene.settings = kDisabled;  // made by asking for the profile
  editAll(scene, [&](const FW::FWPROFILE& one) { return fuzz::renamedAdapter(one, from, to); });
  checkReload(scene, concerned ? reload : 0, result, before);
}

bool answerForPort(const Scene& scene, const FW::PortCompareST& port, const std::string& adapter,
                   FW::AdapterPolicyMap& verdicts) {
  if (scene.settings == kStatusIsAList || scene.settings == kNoJson) return false;
  if (scene.settings == kEnabled) {
    verdicts = fuzz::verdictsOf(scene.profiles.at(kActive), fuzz::services(), port, adapter);
  } else if (!adapter.empty()) {
    verdicts[adapter] = FW::FW_POLICY_ALLOW;
  }
  return true;
}

void checkPorts(fuzz::Input& input, const Scene& scene) {
  const bool noAdapter = input.flag();
  const std::string adapter = argumentOf(input);
  const bool noService = input.flag();
  const std::string service = argumentOf(input);
  const int result = TARNFwPortsCheckAllowByAdapter(noAdapter ? nullptr : adapter.c_str(),
                                                    noService ? nullptr : service.c_str());
  if (noService) {
    checkBadParameter(result, /*isLogged=*/true);
    return;
  }
  FW::AdapterPolicyMap verdicts;
  const bool answered =
      scene.services && fuzz::verdictsOfService(
                            fuzz::services(), service,
                            [&](const FW::PortCompareST& port, FW::AdapterPolicyMap& more) {
                              return answerForPort(scene, port, noAdapter ? "" : adapter, more);
                            },
                            verdicts);
  const bool open = std::all_of(verdicts.begin(), verdicts.end(), [](const auto& verdict) {
    return verdict.second == FW::FW_POLICY_ALLOW || verdict.second == FW::FW_POLICY_NONE;
  });
  const int expected = !answered ? -1 : open ? 1 : 0;
  fuzz::require(result == expected, "whether a service is open", std::to_string(result));
}

void hup(Scene& scene) {
  const Before before = beforeCall(scene);
  const int result = TARNFwRuleHup();
  if (!scene.services) {
    fuzz::require(result == -1 && scene.filter.drops() == before.drops,
                  "without a service table nothing is pruned");
    return;
  }
  editAll(scene,
          [](const FW::FWPROFILE& profile) { return fuzz::updated(profile, fuzz::services()); });
  checkReload(scene, 1, result, before);
}

void reset(Scene& scene) {
  TARNFwReset();
  if (scene.settings == kNoJson) return;
  const std::string text = files::read(files::kSettingsFile);
  fuzz::require(text.find("\"status\" : false") != std::string::npos,
                "a firewall that was reset is disabled", text);
  scene.settings = kDisabled;
}

std::string reversed(const std::string& list) {
  std::string text;
  std::istringstream words(list + " ");
  for (std::string word; std::getline(words, word, ' ');) text = " " + word + text;
  return text;
}

void changeModules(fuzz::Input& input, const Scene& scene) {
  const bool load = input.flag();
  const bool nat = input.flag();
  const bool isNull = input.flag();
  const std::string service = argumentOf(input);
  const auto call = nat ? (load ? TARNIptablesNATModLoad : TARNIptablesNATModUnload)
                        : (load ? TARNIptablesCodeModeLoad : TARNIptablesCoreModUnload);
  (void)trace::take();
  const int result = call(isNull ? nullptr : service.c_str());
  std::string asked;
  std::istringstream lines(trace::take());
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("mod", 0) == 0) asked += line + "\n";
  }
  const Lists& lists = scene.lists;
  const bool complete = !lists.core.empty() && !lists.common.empty() && !lists.ipv6.empty() &&
                        (!nat || !lists.nat.empty());
  std::string expected;
  if (complete && !isNull) {
    const std::string core = lists.core + " " + lists.common + " " + lists.ipv6;
    const std::string of = (load ? "modinsert " : "modremove ") + service;
    const std::string first = of + (load ? " " + core : reversed(core)) + "\n";
    const std::string second = of + (load ? " " + lists.nat : reversed(lists.nat)) + "\n";
    expected = !nat ? first : load ? first + second : second + first;
  }
  fuzz::requireEqual(expected, asked, "the modules that are asked for");
  fuzz::require(result == (expected.empty() ? -1 : 0), "the result of a module call");
  if (!expected.empty()) {
    fuzz::requireEqual(load ? "yes" : "no", fake::machine().files[kModuleUsers][service],
                       "the user of the modules");
  }
}

void call(fuzz::Input& input, Scene& scene) {
  switch (static_cast<Kind>(input.below(kKinds))) {
    case kReserve:
      return reserve(input, scene);
    case kRemove:
      return remove(input, scene);
    case kAdapter:
      return changeAdapter(input, scene);
    case kCheck:
      return checkPorts(input, scene);
    case kHup:
      return hup(scene);
    case kReset:
      return reset(scene);
    default:
      return changeModules(input, scene);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  Scene scene = sceneOf(input);
  store(scene);
  for (std::size_t left = input.below(4) + 1; left > 0; --left) {
    (void)trace::take();
    call(input, scene);
    fuzz::requireEqual(fuzz::textOf(scene.profiles), fuzz::textOf(fuzz::profilesOnDisk()),
                       "the profiles after a call");
    fuzz::require(scene.filter.open(), "no call leaves the packet filter shut");
    fuzz::requireEqual("", fake::alive(), "no call leaves a lock or a list");
    // A reload that failed may have switched the firewall off; a check may have made the settings.
    if (scene.settings == kEnabled && isSwitchedOff()) scene.settings = kDisabled;
    if (scene.settings == kAbsent && files::read(files::kSettingsFile) != "(absent)") {
      scene.settings = kDisabled;
    }
  }
  (void)trace::take();
  fake::reset();
  return 0;
}
