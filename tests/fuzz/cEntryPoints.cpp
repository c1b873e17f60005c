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

#include "check.h"
#include "error.h"
#include "fakePlatform.h"
#include "packetFilter.h"
#include "profileInput.h"
#include "services.h"
#include "storeModel.h"
#include "tarnfirewall.h"
#include "tarnfirewall_c.h"
#include "testFiles.h"
#include "trace.h"

namespace {

constexpr char kModuleLists[] = "/usr/tarn/etc.defaults/iptables_modules_list";
constexpr char kModuleUsers[] = "/tmp/iptables_serv_mod_list";
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

// The result of a call whose edit succeeded and whose reload flag was `reload`.
void checkReload(const Scene& scene, int reload, int result, int dropsBefore) {
  const bool reached = reload == 1 && scene.settings == kEnabled;
  if (!reached) {
    fuzz::require(scene.filter.drops() == dropsBefore, "nothing is reloaded unasked");
    const bool fails =
        reload == 1 && (scene.settings == kStatusIsAList || scene.settings == kNoJson);
    fuzz::require(result == (fails ? -1 : 0), "the result of an edit", std::to_string(result));
    return;
  }
  fuzz::require(result == 0 || result == -1, "the result of a reload", std::to_string(result));
  if (result == 0) {
    fuzz::require(scene.filter.drops() == dropsBefore + 4, "an enabled firewall is reloaded once");
  }
}

// The platform error and the silence of a call with bad arguments.
void checkBadParameter(int result, const std::string& message) {
  fuzz::require(result == -1 && TLIBCErrGet() == kBadParameter, "a bad parameter is refused");
  fuzz::require((trace::take().find("err ") != std::string::npos) == !message.empty(),
                "which refusals are logged");
}

void reserve(fuzz::Input& input, Scene& scene) {
  const bool isNull = input.flag();
  const std::string services = listOf(input);
  const int allow = input.number();
  const int reload = input.number();
  const int before = scene.filter.drops();
  const int result =
      TLIBFwRuleReserveServInsert(isNull ? nullptr : services.c_str(), allow, reload);
  if (isNull || services.empty()) {
    checkBadParameter(result, "");
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
  const int before = scene.filter.drops();
  const int result = TLIBFwServRemoveRec(service.c_str());
  editAll(scene,
          [&](const FW::FWPROFILE& profile) { return fuzz::withoutService(profile, service); });
  checkReload(scene, 0, result, before);
}

void changeAdapter(fuzz::Input& input, Scene& scene) {
  const std::string from = argumentOf(input);
  const std::string to = argumentOf(input);
  const int reload = input.number();
  const int before = scene.filter.drops();
  const std::string active = scene.settings == kAbsent ? "default" : "p1";
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

void checkPorts(fuzz::Input& input) {
  const bool noAdapter = input.flag();
  const std::string adapter = argumentOf(input);
  const bool noService = input.flag();
  const std::string service = argumentOf(input);
  const int result = TARNFwPortsCheckAllowByAdapter(noAdapter ? nullptr : adapter.c_str(),
                                                    noService ? nullptr : service.c_str());
  if (noService) {
    checkBadParameter(result, "Bad parameters");
    return;
  }
  // The block queries have a target of their own; here it is what the entry point makes of them.
  int expected = -1;
  FW::AdapterPolicyMap verdicts;
  try {
    if (FW::TARNFW().fwServIsBlocked(service, noAdapter ? "" : adapter, verdicts)) {
      const bool open = std::all_of(verdicts.begin(), verdicts.end(), [](const auto& verdict) {
        return verdict.second == 0 || verdict.second == 2;
      });
      expected = open ? 1 : 0;
    }
  } catch (const Json::Exception&) {
  }
  fuzz::require(result == expected, "whether a service is open", std::to_string(result));
}

void hup(Scene& scene) {
  const int before = scene.filter.drops();
  const int result = TARNFwRuleHup();
  if (!scene.services) {
    fuzz::require(result == -1 && scene.filter.drops() == before,
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
      return checkPorts(input);
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
    const std::string text = files::read(files::kSettingsFile);
    if (scene.settings == kEnabled && text.find("\"status\" : false") != std::string::npos) {
      scene.settings = kDisabled;
    }
    if (scene.settings == kAbsent && text != "(absent)") scene.settings = kDisabled;
  }
  (void)trace::take();
  fake::reset();
  return 0;
}
