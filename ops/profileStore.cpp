#include "profileStore.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <system_error>

#include "constants.h"
#include "files.h"
#include "jsonText.h"
#include "runApart.h"
#include "tarnfirewall.h"

namespace ops {
namespace {

constexpr char kSeedName[] = "default";
constexpr char kLockDirectories[] = "/var/lock";
constexpr unsigned int kDirectoryMode = 0755;  // octal

std::string seedPath() { return std::string(FW::kProfileDirectory) + kSeedName + ".json"; }

Json::Value seedDocument() {
  FW::FWPROFILE profile;
  profile.name = kSeedName;
  profile.adapterPolicyMap[FW::kGlobalAdapter] = FW::FW_POLICY_NONE;
  Json::Value document;
  FW::TARNFW_JSON_DB().profileToJson(profile, document);
  return document;
}

std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// Path -> content of the regular files of the profile directory.
using Files = std::map<std::string, std::string>;

Files readFiles() {
  Files files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(FW::kProfileDirectory, error)) {
    if (!entry.is_regular_file(error)) continue;
    std::ifstream stream(entry.path(), std::ios::binary);
    files[entry.path()] = {std::istreambuf_iterator<char>(stream), {}};
  }
  return files;
}

bool writeFiles(const Files& files) {
  for (const auto& [path, content] : files) {
    std::ofstream stream(path, std::ios::binary);
    stream << content;
    stream.close();
    if (!stream) return false;
  }
  return true;
}

// The document in `text`; a text that is none is a string.
Json::Value documentOf(const std::string& text) {
  Json::Value document;
  return parseJson(text, document) ? document : Json::Value(text);
}

Json::Value valueAt(const Files& files, const std::string& path) {
  const auto found = files.find(path);
  return found == files.end() ? Json::Value() : documentOf(found->second);
}

Json::Value changesBetween(const Files& before, const Files& after) {
  std::set<std::string> paths;
  for (const auto& [path, content] : before) paths.insert(path);
  for (const auto& [path, content] : after) paths.insert(path);
  Json::Value changes(Json::arrayValue);
  for (const std::string& path : paths) {
    Json::Value change(Json::objectValue);
    change["file"] = path;
    change["before"] = valueAt(before, path);
    change["after"] = valueAt(after, path);
    if (change["before"] != change["after"]) changes.append(change);
  }
  return changes;
}

// In a process of its own. {"done": bool, "changes": [...], "seen": value} or {"reason": text}.
Json::Value rehearseOnCopy(const std::function<bool()>& change,
                           const std::function<Json::Value()>& look) {
  Json::Value answer(Json::objectValue);
  const Files before = readFiles();
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("rehearsal", FW::kProfileDirectory, "tmpfs", 0, "mode=0755") != 0 ||
      mount("rehearsal", kLockDirectories, "tmpfs", 0, "mode=0755") != 0 || !writeFiles(before)) {
    answer["reason"] = errnoText("no private copy of the profile directory");
    return answer;
  }
  answer["done"] = change();
  answer["changes"] = changesBetween(before, readFiles());
  if (look && answer["done"].asBool()) answer["seen"] = look();
  return answer;
}

}  // namespace

bool hasProfileDocument() {
  Json::Value meta;
  return FW::TARNFW_JSON_DB().profileMetaCreate(meta) && !meta.empty();
}

Seed planSeed() {
  Seed seed;
  std::error_code error;
  const bool anyFile = std::filesystem::exists(FW::kProfileDirectory, error) &&
                       !std::filesystem::is_empty(FW::kProfileDirectory, error);
  if (anyFile && hasProfileDocument()) return seed;
  seed.file = seedPath();
  seed.document = seedDocument();
  if (access(seed.file.c_str(), F_OK) == 0)
    seed.error = seed.file + " is there but holds no profile";
  return seed;
}

Seed seedProfile() {
  if (TARNFSMkdirP(FW::kProfileDirectory, 0, /*createParents=*/1, 0, 0, kDirectoryMode) < 0) {
    Seed failed;
    failed.error = errnoText(FW::kProfileDirectory);
    return failed;
  }
  Seed seed = planSeed();
  if (seed.error.empty() && !seed.file.empty() && !jsonFileDump(seed.document, seed.file)) {
    seed.error = "could not write " + seed.file;
  }
  return seed;
}

Rehearsal rehearse(const std::function<bool()>& change, const std::function<Json::Value()>& look) {
  const Ended ended = runApart(Signals::kShared, [&] { return rehearseOnCopy(change, look); });
  Rehearsal rehearsal;
  rehearsal.messages = ended.messages;
  if (!ended.finished || !ended.result.isMember("done")) {
    rehearsal.reason = !ended.exception.empty()          ? ended.exception
                       : ended.result.isMember("reason") ? ended.result["reason"].asString()
                                                         : "the rehearsal ended early";
    return rehearsal;
  }
  rehearsal.rehearsed = true;
  rehearsal.done = ended.result["done"].asBool();
  rehearsal.seen = ended.result["seen"];
  for (const Json::Value& entry : ended.result["changes"]) {
    rehearsal.changes.push_back({entry["file"].asString(), entry["before"], entry["after"]});
  }
  return rehearsal;
}

}  // namespace ops
