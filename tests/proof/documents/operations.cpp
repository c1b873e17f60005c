#include "operations.h"

#include <algorithm>
#include <exception>
#include <initializer_list>
#include <iterator>
#include <new>
#include <set>

#include <json/reader.h>
#include <json/value.h>
#include <boost/interprocess/exceptions.hpp>

#include "tarnfirewall.h"
#include "texts.h"

namespace operations {
namespace {

using FW::FWPROFILE;
using FW::FWRULE;
using FW::TARN_IPTABLES_MODULES;
using FW::TARNFW;
using FW::TARNFW_PROFILE;

const std::string kDefault = std::string(store::kProfiles) + "1.json";
const std::string kOffice = std::string(store::kProfiles) + "2.json";
const std::string kTest = std::string(store::kProfiles) + "3.json";
const std::string kClaims = "# module, how it came in, the services that use it\n";

// "true", but what was read is not what stands in the document.
class Untrue : public std::exception {
 public:
  const char* what() const noexcept override { return "true, but read something else"; }
};

FWPROFILE edited(const std::string& name) {
  FWRULE rule;
  rule.name = "Edited";
  rule.ipGroup = 5;
  rule.portGroup = 0;
  rule.portList = {"mail"};
  FWPROFILE profile;
  profile.name = name;
  profile.rules["eth1"] = {rule};
  return profile;
}

std::string editedText(const std::string& name) {
  return texts::profile(name, {{"eth1", 0}, {"global", 2}}, "eth1", {{"Edited", {"mail"}}});
}

Json::Value settingsValue() {
  Json::Value value;
  value["profile"] = "default";
  value["site"] = "north";
  value["status"] = false;
  return value;
}

bool load() {
  Json::Value value;
  if (!jsonFileLoad(value, store::kSettings)) return false;
  if (value.size() != 3 || value["profile"] != "office" || value["site"] != "north" ||
      value["status"] != true) {
    throw Untrue();
  }
  return true;
}

bool readProfile() {
  FWPROFILE profile;
  if (!TARNFW_PROFILE().profileGet("office", profile)) return false;
  if (profile.name != "office" || profile.rules.size() != 1 || profile.rules["eth0"].size() != 1 ||
      profile.rules["eth0"][0].portList != std::vector<std::string>{"ssh", "web", "gone"} ||
      profile.adapterPolicyMap !=
          FW::AdapterPolicyMap{{"eth0", FW::FW_POLICY_DENY}, {"global", FW::FW_POLICY_NONE}}) {
    throw Untrue();
  }
  return true;
}

Json::Value note(const std::string& key, const Json::Value& value) {
  Json::Value members;
  members[key] = value;
  return members;
}

using texts::ServiceRule;

const texts::Policies kOfficePolicies = {{"eth0", 1}, {"global", 2}};
const std::vector<ServiceRule> kOfficeRules = {{"Web", {"ssh", "web", "gone"}}};

const store::Documents kTestProfile = {
    {kTest,
     texts::profile(".test_office", {{"eth0", 0}, {"global", 2}}, "eth0", {{"Try", {"ssh"}}})}};

// clang-format off
const std::vector<Operation> kOperations = {
    {"load", load, {}, {}, {}},
    {"profileGet", readProfile, {}, {}, {}},
    {"dump", [] { return jsonFileDump(settingsValue(), store::kSettings); },
     {}, {{store::kSettings, texts::settings("default", false)}}, {}},
    {"dumpNew", [] { return jsonFileDump(settingsValue(), std::string(store::kProfiles) + "77.json"); },
     {}, {{store::kNewProfile, texts::settings("default", false)}}, {}},
    {"configSet", [] { return TARNFW().configSet(note("status", false)); },
     {}, {{store::kSettings, texts::settings("office", false)}}, {}},
    {"fwProfileConfigSet", [] { return TARNFW().fwProfileConfigSet("default", /*reload=*/false); },
     {}, {{store::kSettings, texts::settings("default", true)}}, {}},
    {"profileSet", [] { return TARNFW_PROFILE().profileSet("office", edited("office")); },
     {}, {{kOffice, editedText("office")}}, {}},
    {"profileCreate", [] { return TARNFW_PROFILE().profileCreate("branch"); },
     {}, {{store::kNewProfile, texts::profile("branch", {{"global", 2}})}}, {}, store::kNewProfile},
    {"profileRename", [] { return TARNFW_PROFILE().profileRename("office", "hq"); },
     {}, {{kOffice, texts::profile("hq", kOfficePolicies, "eth0", kOfficeRules)},
      {store::kSettings, texts::settings("hq", true)}}, {}, kOffice.c_str()},
    {"profileDelete", [] { return TARNFW_PROFILE().profileDelete("default"); },
     {}, {{kDefault, kAbsent}}, {}, nullptr, false, /*alwaysTrue=*/true},
    {"CreateTestProfile", [] { return TARNFW_PROFILE().CreateTestProfile("office", edited("office")); },
     kTestProfile, {{kTest, kAbsent}, {store::kNewProfile, editedText(".test_office")}},
     {{store::kNewProfile, texts::profile(".test_office", {{"global", 2}})}}},
    {"AdoptTestProfile", [] { return TARNFW_PROFILE().AdoptTestProfile("office"); },
     kTestProfile, {{kOffice, texts::profile("office", {{"eth0", 0}, {"global", 2}}, "eth0", {{"Try", {"ssh"}}})}}, {}},
    {"RemoveTestProfile", [] { return TARNFW_PROFILE().RemoveTestProfile("office"); },
     kTestProfile, {{kTest, kAbsent}}, {}, nullptr, false, /*alwaysTrue=*/true},
    // "gone" goes; "ssh" is tcp and "web" udp.
    {"fwUpdate", [] { return TARNFW().fwUpdate(); },
     {}, {{kOffice, texts::profile("office", kOfficePolicies, "eth0", {{"Web", {"ssh", "web"}, 0, 0, 0, 3}})}}, {}, nullptr, /*everyProfile=*/true},
    {"profileAddServToReserve",
     [] { return TARNFW_PROFILE().profileAddServToReserve("eth0", "mail", FW::FW_POLICY_DENY, /*reload=*/false); },
     {}, {{kDefault, texts::profile("default", {{"eth0", 0}, {"global", 2}}, "eth0", {{"Service", {"mail"}, 1, 2, 2, 3}})},
      {kOffice, texts::profile("office", kOfficePolicies, "eth0",
                               {{"Service", {"mail"}, 1, 2, 2, 3}, {"Web", {"ssh", "web", "gone"}}})}}, {}, nullptr, /*everyProfile=*/true},
    {"profileRemoveServ", [] { return TARNFW_PROFILE().profileRemoveServ("web"); },
     {}, {{kOffice, texts::profile("office", kOfficePolicies, "eth0", {{"Web", {"ssh", "gone"}}})}}, {}, nullptr, /*everyProfile=*/true},
    {"profileChangeAdapter", [] { return TARNFW_PROFILE().profileChangeAdapter("eth0", "eth1", /*reload=*/false); },
     {}, {{kOffice, texts::profile("office", {{"eth1", 1}, {"global", 2}}, "eth1", kOfficeRules)}}, {}, nullptr, /*everyProfile=*/true},
    {"moduleInsert", [] { return TARN_IPTABLES_MODULES::moduleInsert("vpn", {"xt_alpha.ko", "xt_beta.ko"}); },
     {}, {{store::kModuleState, "firewall=\"yes\"\nvpn=\"yes\"\n"},
      {store::kModuleClaims, kClaims + "xt_alpha\tfound\tfirewall\tvpn\nxt_beta\tfound\tvpn\n"}}, {},
     nullptr, false, false, store::kModuleClaims},
    {"moduleRemove", [] { return TARN_IPTABLES_MODULES::moduleRemove("firewall", {"xt_alpha.ko"}); },
     {}, {{store::kModuleState, "firewall=\"no\"\n"}, {store::kModuleClaims, kClaims}}, {},
     nullptr, false, false, store::kModuleClaims},
};
// clang-format on

std::string textOf(const store::Documents& documents, const std::string& path) {
  const auto found = documents.find(path);
  return found == documents.end() ? kAbsent : found->second;
}

bool isTextOf(const store::Documents& documents, const std::string& text) {
  return std::any_of(documents.begin(), documents.end(),
                     [&text](const auto& document) { return document.second == text; });
}

std::set<std::string> pathsOf(std::initializer_list<const store::Documents*> states) {
  std::set<std::string> paths;
  for (const store::Documents* documents : states) {
    for (const auto& [path, text] : *documents) paths.insert(path);
  }
  return paths;
}

}  // namespace

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

const std::vector<Operation>& all() { return kOperations; }

store::Documents before(const Operation& operation) {
  store::Documents documents = store::beginning();
  documents.insert(operation.before.begin(), operation.before.end());
  return documents;
}

store::Documents after(const Operation& operation) {
  store::Documents documents = before(operation);
  for (const auto& [path, text] : operation.changes) {
    if (text == kAbsent) {
      documents.erase(path);
    } else {
      documents[path] = text;
    }
  }
  return documents;
}

std::string damage(const Operation& operation, const store::Documents& documents) {
  const store::Documents start = before(operation);
  const store::Documents end = after(operation);
  std::string damaged;
  for (const std::string& path : pathsOf({&start, &end, &documents})) {
    const std::string text = textOf(documents, path);
    if (text == textOf(start, path) || text == textOf(end, path)) continue;
    const auto between = operation.between.find(path);
    if (between != operation.between.end() && text == between->second) continue;
    damaged.append(path).append(": ").append(text).append("\n");
  }
  return damaged;
}

std::string damageBesideTwin(const Operation& operation, store::Documents documents) {
  for (auto document = documents.lower_bound(store::kNewProfile);
       document != documents.end() && document->first.rfind(store::kNewProfile, 0) == 0;) {
    const bool known = isTextOf(before(operation), document->second) ||
                       isTextOf(operation.changes, document->second) ||
                       isTextOf(operation.between, document->second);
    document = known ? documents.erase(document) : std::next(document);
  }
  return damage(operation, documents);
}

bool standsIn(const store::Documents& documents, const std::string& path, const std::string& text) {
  if (textOf(documents, path) == text) return true;
  return std::any_of(
      documents.lower_bound(store::kNewProfile), documents.end(), [&text](const auto& document) {
        return document.first.rfind(store::kNewProfile, 0) == 0 && document.second == text;
      });
}

std::string difference(const store::Documents& expected, const store::Documents& documents) {
  std::string different;
  for (const std::string& path : pathsOf({&expected, &documents})) {
    const std::string text = textOf(documents, path);
    if (text == textOf(expected, path)) continue;
    different.append(path).append(": ").append(text).append("\n");
  }
  return different;
}

std::string answer(const Operation& operation) {
  try {
    return operation.run() ? "true" : "false";
  } catch (const std::bad_alloc&) {
    return "bad_alloc";
  } catch (const Json::Exception&) {
    return "JSON exception";
  } catch (const boost::interprocess::interprocess_exception&) {
    return "lock exception";
  } catch (const std::exception& exception) {
    return exception.what();
  }
}

bool isException(const std::string& answer) {
  return answer == "JSON exception" || answer == "lock exception" || answer == "bad_alloc";
}

std::string further() {
  const bool noted = TARNFW().configSet(note("note", "after"));
  const bool rewritten = TARNFW_PROFILE().profileRemoveServ("unknown");
  return std::string(noted ? "true" : "false") + (rewritten ? " true" : " false");
}

store::Documents afterFurther(store::Documents documents) {
  std::string& settings = documents[store::kSettings];
  settings = texts::withNote(settings);
  return documents;
}

}  // namespace operations
