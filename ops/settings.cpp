#include "settings.h"

#include <unistd.h>

#include <exception>

#include <json/value.h>

#include "constants.h"
#include "tarnfirewall.h"

namespace ops {

const char* settingsFile() { return FW::kSettingsFile; }

bool readSettings(Settings& settings, std::string& reason) {
  FW::TARNFW firewall;
  reason = std::string(FW::kSettingsFile) + " cannot be read";
  try {
    if (access(FW::kSettingsFile, F_OK) == 0) {
      return firewall.fwStatus(settings.enabled) && firewall.fwProfileConfigGet(settings.profile);
    }
  } catch (const std::exception&
               exception) {  // a member of another type, a lock file that does not open
    reason += std::string(": ") + exception.what();
    return false;
  }
  Json::Value defaults;
  (void)firewall.initJconfig(defaults);  // fills in two members, nothing that can fail
  settings.enabled = defaults["status"].asBool();
  settings.profile = defaults["profile"].asString();
  return true;
}

}  // namespace ops
