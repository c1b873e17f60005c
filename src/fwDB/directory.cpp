// The profile directory. A profile is found by the "name" inside its document; the file's name is a
// number drawn when the profile is first written and never changes:
//
//   /usr/tarn/etc/firewall.d/1690000042.json     {"name" : "office", ...}
//
// Each look-up reads every *.json file anew. Profiles are few, and nothing has to be kept in step.

#include <fcntl.h>
#include <glob.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <optional>

#include <json/value.h>
#include <boost/interprocess/exceptions.hpp>
#include <boost/lexical_cast.hpp>

#include "../cleanup.h"
#include "../constants.h"
#include "../documentLock.h"
#include "../log.h"
#include "../member.h"
#include "cancellation.h"
#include "descriptor.h"
#include "files.h"
#include "tarnfirewall.h"

namespace FW {
namespace {

constexpr LogSite here(int line = __builtin_LINE()) { return {"fwDB", line}; }

constexpr char kSuffix[] = ".json";
constexpr char kName[] = "name";
constexpr char kFileName[] = "fileName";
constexpr int kStemSpread = 100;  // seconds that a new stem may lie ahead of the clock
constexpr char kNoMeta[] = "Failed to create meta json from /usr/tarn/etc/firewall.d/";

std::string pathOfStem(const std::string& stem) { return kProfileDirectory + stem + kSuffix; }

std::string stemOf(const std::string& path) {
  const std::string base = path.substr(path.find_last_of('/') + 1);
  return base.substr(0, base.find_last_of('.'));
}

// Claims the file `path` for a new profile: another process may have drawn the same stem, as both
// draw from the same clock and an unseeded rand(). The claim is the temporary file that the
// document is written to, made under the document's lock, so that nobody is writing through it;
// whoever makes it first and finds no document yet has the stem. False without a claim when the
// stem is taken; true too when the temporary file cannot be made or the lock not be had at all,
// which the dump reports.
bool claim(const std::string& path) {
  const tarn::CancellationHold noCancellation;
  DocumentLock lock(getLockFile(path));
  if (!lock.take()) return true;
  if (access(path.c_str(), F_OK) == 0) return false;
  const std::string temporary = path + ".tmp";
  const tarn::Descriptor file(
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.valid()) return errno != EEXIST;
  if (access(path.c_str(), F_OK) != 0) return true;
  (void)unlink(temporary.c_str());  // a thread of this process was faster; locks keep none out
  return false;
}

// Gives every adapter with rules a policy, and "global" none: its rules apply on top of the
// adapters'.
void completePolicies(FWPROFILE& profile) {
  for (const auto& [adapter, rules] : profile.rules) {
    profile.adapterPolicyMap.emplace(adapter, FW_POLICY_ALLOW);
  }
  profile.adapterPolicyMap[kGlobalAdapter] = FW_POLICY_NONE;
}

}  // namespace

bool TARNFW_JSON_DB::profileMetaCreate(Json::Value& meta) {
  glob_t matches = {};
  const Cleanup release([&matches] { globfree(&matches); });
  const std::string pattern = std::string(kProfileDirectory) + "*" + kSuffix;
  if (glob(pattern.c_str(), GLOB_ERR, nullptr, &matches) != 0) {
    return here().fail("Fail to read file from %s", kProfileDirectory);
  }
  if (meta.isNull()) meta = Json::Value(Json::objectValue);
  // Backwards: of several files with the same profile name, the one that sorts first wins.
  for (std::size_t index = matches.gl_pathc; index-- > 0;) {
    const std::string path = matches.gl_pathv[index];
    Json::Value document;
    if (!jsonFileLoad(document, path)) {
      here().error("Failed to load json from %s", path.c_str());
      continue;
    }
    if (!hasMember(document, kName) || !document[kName].isString()) continue;
    Json::Value entry(Json::objectValue);
    entry[kFileName] = stemOf(path);
    meta[document[kName].asString()] = entry;
  }
  return true;
}

std::string TARNFW_JSON_DB::profilePathGet(const std::string& name) {
  Json::Value meta;
  if (!profileMetaCreate(meta)) {
    here().error(kNoMeta);
    return {};
  }
  if (!hasMember(meta, name)) return {};
  return pathOfStem(meta[name][kFileName].asString());
}

std::string TARNFW_JSON_DB::profilePathNameGen(const Json::Value& meta) {
  for (;;) {
    auto candidate = boost::lexical_cast<std::string>(time(nullptr) + rand() % kStemSpread);
    bool compared = false;
    bool clash = false;
    for (const Json::Value& entry : meta) {
      compared = true;
      clash = clash || entry[kFileName].asString() == candidate;
    }
    // Kept: without a single entry to compare with, no candidate is ever accepted.
    if (compared && !clash) return candidate;
  }
}

bool TARNFW_JSON_DB::profileDbLoad(const std::string& name, Json::Value& doc) {
  return jsonFileLoad(doc, profilePathGet(name));
}

bool TARNFW_JSON_DB::profileDbDump(const std::string& name, const Json::Value& doc) {
  Json::Value meta;
  if (!profileMetaCreate(meta)) return here().fail(kNoMeta);
  if (hasMember(meta, name)) return jsonFileDump(doc, profilePathGet(name));
  std::string path;
  do {
    path = pathOfStem(profilePathNameGen(meta));
  } while (!claim(path));
  return jsonFileDump(doc, path);
}

// Under the document's lock: a writer at work, whose lock file were taken away, would share its
// temporary file with the next one. A removal cannot fail; one that does not get the lock goes on
// without it.
bool TARNFW_JSON_DB::profileDbRemove(const std::string& name) {
  const std::string path = profilePathGet(name);
  const tarn::CancellationHold noCancellation;
  const std::string lockFile = getLockFile(path);
  std::optional<DocumentLock> lock;
  try {
    if (!path.empty()) (void)lock.emplace(lockFile).take();
  } catch (const boost::interprocess::interprocess_exception&) {
    lock.reset();
  }
  (void)unlink(path.c_str());  // an unknown name gives the empty path, which is no file
  if (TLIBCFileExist(lockFile.c_str()) == 1) (void)unlink(lockFile.c_str());
  return true;
}

bool TARNFW_JSON_DB::profileExist(const std::string& name) {
  return TLIBCFileExist(profilePathGet(name).c_str()) == 1;
}

bool TARNFW_JSON_DB::profileDelete(const std::string& name) { return profileDbRemove(name); }

bool TARNFW_JSON_DB::profileEnum(std::vector<std::string>& names) {
  Json::Value meta;
  if (!profileMetaCreate(meta)) return here().fail(kNoMeta);
  for (const std::string& name : meta.getMemberNames()) names.push_back(name);
  return true;
}

bool TARNFW_JSON_DB::profileEnum(std::map<std::string, FWPROFILE>& profiles) {
  Json::Value meta;
  if (!profileMetaCreate(meta)) return here().fail(kNoMeta);
  for (const std::string& name : meta.getMemberNames()) {
    FWPROFILE profile;
    if (!profileGet(name, profile)) {
      return here().fail("Failed to profileDbLoad() [%s]", name.c_str());
    }
    profiles[name] = std::move(profile);
  }
  return true;
}

bool TARNFW_JSON_DB::profileGet(const std::string& name, FWPROFILE& profile) {
  if (!profileExist(name)) {
    return here().fail("Failed to profileGet %s due to not exist", name.c_str());
  }
  Json::Value document;
  if (!profileDbLoad(name, document)) return here().fail("Failed to profileDbLoad()");
  jsonToProfile(document, profile);
  return true;
}

bool TARNFW_JSON_DB::profileSet(const std::string& name, const FWPROFILE& profile) {
  FWPROFILE completed = profile;
  completePolicies(completed);
  Json::Value document;
  profileToJson(completed, document);
  if (!profileDbDump(name, document)) return here().fail("Failed to profileDbDump()");
  return true;
}

bool TARNFW_JSON_DB::profileCreate(const std::string& name) {
  if (profileExist(name)) return here().fail("The profile %s already exist", name.c_str());
  FWPROFILE profile;
  profile.name = name;
  if (!profileSet(name, profile)) return here().fail("Failed to profileSet");
  return true;
}

bool TARNFW_JSON_DB::profileRename(const std::string& oldName, const std::string& newName) {
  if (profileExist(newName)) {
    return here().fail("profile %s already exist", newName.c_str());
  }
  TARNFW firewall;
  Json::Value config;
  if (!firewall.configGet(config)) return here().fail("Falied to config.configGet()");
  FWPROFILE profile;
  if (!profileGet(oldName, profile)) {
    return here().fail("Failed to get profile %s", oldName.c_str());
  }
  const std::string path = profilePathGet(profile.name);
  profile.name = newName;
  Json::Value document;
  profileToJson(profile, document);
  if (!jsonFileDump(document, path)) {
    return here().fail("Failed to jsonFileDump [%s]", path.c_str());
  }
  if (hasMember(config, "profile") && config["profile"].asString() == oldName) {
    config["profile"] = newName;
    if (!firewall.configSet(config)) return here().fail("Falied to config.configSet()");
  }
  return true;
}

}  // namespace FW
