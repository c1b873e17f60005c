// Deleting profiles, and test profiles: copies under ".test_" + name, through which an edited
// profile is tried before it is adopted. Nothing is rolled back when a step fails.

#include <json/value.h>

#include "../constants.h"
#include "../member.h"
#include "module.h"

namespace FW {
namespace {

std::string testName(const std::string& name) { return kTestProfilePrefix + name; }

}  // namespace

bool TARNFW_PROFILE::profileDelete(const std::string& name) {
  Json::Value config;
  if (!TARNFW().configGet(config)) return here().fail("Falied to config.configGet()");
  if (hasMember(config, "profile") && config["profile"].asString() == name) {
    return here().fail("The profile %s is used now so cannot remove", name.c_str());
  }
  return TARNFW_JSON_DB::profileDelete(name);
}

bool TARNFW_PROFILE::CreateTestProfile(std::string name, const FWPROFILE& profile) {
  FWPROFILE copy = profile;
  const std::string test = testName(name);
  if (profileExist(test) && !profileDelete(test)) {
    return here().fail("failed to profileDelete()");
  }
  if (!profileCreate(test)) return here().fail("failed to profileCreate()");
  copy.name = test;
  if (!profileSet(test, copy)) return here().fail("failed to profileSet()");
  return true;
}

bool TARNFW_PROFILE::AdoptTestProfile(std::string name) {
  const std::string test = testName(name);
  if (!profileExist(test)) return here().fail("profile does not exist");
  FWPROFILE profile;
  if (!profileGet(test, profile)) return here().fail("failed to profileGet()");
  profile.name = name;
  if (!profileSet(name, profile)) return here().fail("failed to profileSet()");
  return true;
}

bool TARNFW_PROFILE::RemoveTestProfile(std::string name) {
  if (!profileDelete(testName(name))) return here().fail("failed to profileDelete()");
  return true;
}

}  // namespace FW
