#include "store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include <gtest/gtest.h>

#include "testFiles.h"
#include "texts.h"

namespace store {
namespace {

constexpr char kModuleDirectory[] = "/run/tarn/";
constexpr char kWorkingDirectory[] = "/run/working";  // nothing has business there
constexpr char kTemporaryDirectory[] = "/tmp/";
constexpr std::size_t kShortName = 6;    // "1.json": there from the beginning
constexpr std::size_t kMarkLength = 17;  // of a temporary key/value file: "." and 16 digits

bool endsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool isNumber(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char character) {
    return std::isdigit(character) != 0;
  });
}

// "iptables_modules.0123456789abcdef" of "iptables_modules".
bool isTemporaryOf(std::string_view name, std::string_view document) {
  return name.size() == document.size() + kMarkLength &&
         name.substr(0, document.size()) == document && name[document.size()] == '.' &&
         name.find_first_not_of("0123456789abcdef", document.size() + 1) == std::string_view::npos;
}

std::string nameOf(std::string_view path) {
  return std::string(path.substr(path.find_last_of('/') + 1));
}

// A folder in /tmp is what the sandbox keeps visible there.
bool isDirectory(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void removeFiles(const std::string& directory) {
  for (const std::string& name : files::list(directory)) {
    (void)unlink((directory + name).c_str());
  }
}

void lookAtProfiles(Found& found) {
  std::string key = kNewProfile;
  for (const std::string& name : files::list(kProfiles)) {
    const std::string path = kProfiles + name;
    if (path == kSettings || (name.size() == kShortName && endsWith(name, ".json"))) {
      found.documents[path] = files::read(path);
    } else if (endsWith(name, ".json") && isNumber(name.substr(0, name.size() - 5))) {
      found.documents[key] = files::read(path);
      key += "'";
    } else if (endsWith(name, ".json.tmp")) {
      ++found.temporaries;
    } else {
      found.strays += " " + path;
    }
  }
}

// The directory of a key/value file, which lies there beside lock files.
void lookAtModules(const std::string& directory, const std::string& document, Found& found) {
  for (const std::string& name : files::list(directory)) {
    const std::string path = directory + name;
    if (path == document) {
      found.documents[path] = files::read(path);
    } else if (isTemporaryOf(name, nameOf(document))) {
      ++found.temporaries;
    } else if (!endsWith(name, ".lock") && !isDirectory(path)) {
      found.strays += " " + path;
    }
  }
}

}  // namespace

const Documents& beginning() {
  static const Documents documents = {
      {kSettings, texts::settings("office", true)},
      {std::string(kProfiles) + "1.json", texts::profile("default", {{"global", 2}})},
      {std::string(kProfiles) + "2.json",
       texts::profile("office", {{"eth0", 1}, {"global", 2}}, "eth0",
                      {{"Web", {"ssh", "web", "gone"}}})},
      {kModuleState, "firewall=\"yes\"\n"},
      {kModuleClaims,
       "# module, how it came in, the services that use it\nxt_alpha\tfound\tfirewall\n"}};
  return documents;
}

void reset(const Documents& documents) {
  removeFiles(kProfiles);
  removeFiles(files::kLockDirectory);
  removeFiles(kTemporaryDirectory);
  removeFiles(kModuleDirectory);
  removeFiles("./");
  (void)mkdir(kModuleDirectory, 0755);
  (void)rmdir(files::kLockDirectory);
  for (const auto& [path, text] : documents) files::write(path, text);
}

Found look() {
  Found found;
  lookAtProfiles(found);
  lookAtModules(kTemporaryDirectory, kModuleState, found);
  lookAtModules(kModuleDirectory, kModuleClaims, found);
  for (const std::string& name : files::list(files::kLockDirectory)) {
    if (!endsWith(name, ".lock")) found.strays += " " + (files::kLockDirectory + name);
  }
  for (const std::string& name : files::list(".")) found.strays += " ./" + name;
  return found;
}

void prepare() {
  (void)mkdir(kWorkingDirectory, 0755);
  ASSERT_EQ(0, chdir(kWorkingDirectory));
  files::write("/usr/tarn/etc.defaults/firewall_services.json",
               R"({"ssh": {"destination": {"protocol": "tcp", "ports": ["22"]}},
                   "mail": {"destination": {"protocol": "tcp", "ports": ["25"]}},
                   "web": {"destination": {"protocol": "udp", "ports": ["443"]}}})");
}

}  // namespace store
