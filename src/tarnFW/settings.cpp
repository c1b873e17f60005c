// The settings document, /usr/tarn/etc/firewall.d/firewall_settings.json:
//
//   {"profile": "default", "status": false}
//
// Members that we do not know are kept.

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <json/value.h>

#include "../constants.h"
#include "../member.h"
#include "module.h"

namespace FW {
namespace {

constexpr char kStatus[] = "status";
constexpr char kProfile[] = "profile";
constexpr char kDefaultProfile[] = "default";

}  // namespace

bool TARNFW::initJconfig(Json::Value& out) {
  out[kStatus] = false;
  out[kProfile] = kDefaultProfile;
  return true;
}

bool TARNFW::configGet(Json::Value& out) {
  // Only what is known to be absent: settings that cannot be looked up (no descriptor left, an
  // error of the disk) would be lost to the defaults.
  if (access(kSettingsFile, F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
    (void)initJconfig(out);
    (void)jsonFileDump(out, kSettingsFile);  // a machine that cannot store them still has defaults
    return true;
  }
  return jsonFileLoad(out, kSettingsFile);
}

bool TARNFW::configSet(const Json::Value& in) {
  Json::Value current;
  if (!configGet(current)) return here().fail("Falied to config.configGet()");
  for (const std::string& key : in.getMemberNames()) current[key] = in[key];
  return jsonFileDump(current, kSettingsFile);
}

bool TARNFW::fwStatus(bool& enabled) {
  Json::Value config;
  if (!configGet(config)) return here().fail("Falied to configGet()");
  enabled = hasMember(config, kStatus) && config[kStatus].asBool();
  return true;
}

bool TARNFW::fwProfileConfigGet(std::string& name) {
  Json::Value config;
  if (!configGet(config)) return here().fail("Falied to configGet()");
  if (!hasMember(config, kProfile)) {
    return here().fail("There are no key: %s in config", kProfile);
  }
  name = config[kProfile].asString();
  return true;
}

bool TARNFW::fwProfileConfigSet(const std::string& name, bool reload) {
  std::vector<std::string> names;
  if (!TARNFW_PROFILE().profileEnum(names)) return here().fail("Failed to profileEnum()");
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    return here().fail("Profile %s is not in database", name.c_str());
  }
  Json::Value config;
  if (!configGet(config)) return here().fail("Falied to configGet()");
  config[kProfile] = name;
  if (!configSet(config)) return here().fail("Falied to configSet()");
  if (reload && !TARNFW().fwReload(/*withState=*/true)) {
    return here().fail("Failed to reload firewall");
  }
  return true;
}

}  // namespace FW
