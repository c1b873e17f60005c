#include "settings.h"

#include <unistd.h>

#include <cerrno>
#include <exception>
#include <functional>

#include <json/value.h>

#include "constants.h"
#include "tarnfirewall.h"

namespace ops {

namespace {

// The words of the first exception are put in `words`: of a member of another type, of a lock file
// that does not open.
bool reads(const std::function<bool()>& read, std::string& words) {
  try {
    return read();
  } catch (const std::exception& exception) {
    if (words.empty()) words = std::string(": ") + exception.what();
    return false;
  }
}

Settings defaultSettings() {
  Json::Value defaults;
  (void)FW::TARNFW().initJconfig(defaults);  // fills in two members, nothing that can fail
  return {defaults["status"].asBool(), defaults["profile"].asString(), /*knowsEnabled=*/true,
          /*knowsProfile=*/true};
}

}  // namespace

const char* settingsFile() { return FW::kSettingsFile; }

bool readSettings(Settings& settings, std::string& reason) {
  settings = {};
  // Only what is known to be absent: settings that cannot be looked up are not the defaults.
  if (access(FW::kSettingsFile, F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
    settings = defaultSettings();
    return true;
  }
  std::string words;
  settings.knowsEnabled = reads([&] { return FW::TARNFW().fwStatus(settings.enabled); }, words);
  // A document that cannot be read at all need not be read, and complained of, a second time.
  if (settings.knowsEnabled || !words.empty()) {
    settings.knowsProfile =
        reads([&] { return FW::TARNFW().fwProfileConfigGet(settings.profile); }, words);
  }
  reason = std::string(FW::kSettingsFile) + " cannot be read" + words;
  return settings.knowsEnabled && settings.knowsProfile;
}

}  // namespace ops
