#include "operations.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include "tarnfirewall.h"

namespace operations {
namespace {

constexpr char kProfiles[] = "/usr/tarn/etc/firewall.d/";
constexpr char kSettings[] = "firewall_settings.json";
constexpr char kDocument[] = "document.json";
constexpr char kCarelessFile[] = "careless.json";
constexpr int kWords = 1500;  // in a document: several blocks of the file system
constexpr int kRules = 40;

// --- what is written ---

// An array that holds nothing but `number`.
Json::Value numbered(int number) {
  Json::Value document(Json::arrayValue);
  for (int word = 0; word < kWords; ++word) document.append(number);
  return document;
}

FW::FWPROFILE profileOf(const std::string& name, int number) {
  FW::FWRULE rule;
  rule.name = std::to_string(number);
  FW::FWPROFILE profile;
  profile.name = name;
  profile.rules["global"].assign(kRules, rule);
  return profile;
}

std::string newName(int number) { return "new " + std::to_string(number); }
std::string emptyName(int number) { return "empty " + std::to_string(number); }

bool dump(int number) { return jsonFileDump(numbered(number), std::string(kProfiles) + kDocument); }

bool setConfig(int number) {
  Json::Value settings;
  settings["profile"] = std::to_string(number);
  settings["kept"] = numbered(number);  // members that nobody knows are kept
  return FW::TARNFW().configSet(settings);
}

bool setProfile(int number) {
  return FW::TARNFW_PROFILE().profileSet("first", profileOf("first", number));
}

bool setNewProfile(int number) {
  return FW::TARNFW_PROFILE().profileSet(newName(number), profileOf(newName(number), number));
}

// An empty profile: its name is all that there is to be torn.
bool createProfile(int number) { return FW::TARNFW_PROFILE().profileCreate(emptyName(number)); }

bool writeCarelessly(const std::string& path, int number) {
  const std::string temporary = path + ".tmp";
  std::ofstream stream(temporary, std::ios::trunc);
  stream << Json::writeString(Json::StreamWriterBuilder(), numbered(number));
  stream.close();
  return stream && std::rename(temporary.c_str(), path.c_str()) == 0;
}

bool replaceCarelessly(int number) {
  return writeCarelessly(std::string(kProfiles) + kCarelessFile, number);
}

bool createCarelessly(int number) {
  return writeCarelessly(std::string(kProfiles) + std::to_string(number) + ".careless", number);
}

// --- what is found ---

// False when it is no whole JSON text.
bool load(const std::string& path, Json::Value& document) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  std::istringstream again(text.str());
  Json::CharReaderBuilder reader;
  reader["failIfExtra"] = true;
  std::string errors;
  return !text.str().empty() && Json::parseFromStream(reader, again, &document, &errors);
}

bool isWhole(const Json::Value& document, int number) { return document == numbered(number); }

int foundIn(const std::string& path) {
  if (!std::filesystem::exists(path)) return kNone;
  Json::Value document;
  if (!load(path, document) || !document.isArray() || document.empty()) return kDamaged;
  const int number = document[0].asInt();
  return isWhole(document, number) ? number : kDamaged;
}

int foundDump(const std::string& directory, int) { return foundIn(directory + kDocument); }

int foundConfig(const std::string& directory, int) {
  if (!std::filesystem::exists(directory + kSettings)) return kNone;
  Json::Value settings;
  if (!load(directory + kSettings, settings) || !settings.isObject()) return kDamaged;
  const Json::Value& kept = settings["kept"];
  if (!kept.isArray() || kept.empty()) return kDamaged;
  const int number = kept[0].asInt();
  const bool whole = isWhole(kept, number) && settings["profile"] == std::to_string(number) &&
                     settings["status"].isBool();
  return whole ? number : kDamaged;
}

// What every rule of a profile that holds some says; kDamaged when they do not agree.
int foundRules(const Json::Value& profile) {
  const Json::Value& rules = profile["rules"]["global"];
  if (!rules.isArray() || rules.size() != static_cast<Json::ArrayIndex>(kRules)) return kDamaged;
  const std::string number = rules[0]["name"].asString();
  for (const Json::Value& rule : rules) {
    if (rule["name"] != number) return kDamaged;
  }
  return std::stoi(number);
}

// Has the document `name` into `profile`; kDamaged when any document of the directory is.
int findProfile(const std::string& directory, const std::string& name, Json::Value& found) {
  int result = kNone;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().extension() != ".json") continue;
    Json::Value profile;
    if (!load(entry.path(), profile)) return kDamaged;
    if (!profile.isObject() || profile["name"] != name) continue;
    found = profile;
    result = 0;
  }
  return result;
}

int foundSet(const std::string& directory, int) {
  Json::Value profile;
  const int result = findProfile(directory, "first", profile);
  return result < 0 ? result : foundRules(profile);
}

int foundNew(const std::string& directory, int number) {
  Json::Value profile;
  const int result = findProfile(directory, newName(number), profile);
  return result < 0 ? result : foundRules(profile);
}

int foundEmpty(const std::string& directory, int number) {
  Json::Value profile;
  const int result = findProfile(directory, emptyName(number), profile);
  return result < 0 ? result : number;
}

int foundReplacedCarelessly(const std::string& directory, int) {
  return foundIn(directory + kCarelessFile);
}

int foundCreatedCarelessly(const std::string& directory, int number) {
  return foundIn(directory + std::to_string(number) + ".careless");
}

}  // namespace

const std::vector<Operation> kAll = {
    {"jsonFileDump", false, dump, foundDump},
    {"configSet", false, setConfig, foundConfig},
    {"profileSet", false, setProfile, foundSet},
    {"profileSet of a new name", true, setNewProfile, foundNew},
    {"profileCreate", true, createProfile, foundEmpty},
};

const std::vector<Operation> kCareless = {
    {"careless replacement", false, replaceCarelessly, foundReplacedCarelessly},
    {"careless new document", true, createCarelessly, foundCreatedCarelessly},
};

const Operation* find(const std::string& name) {
  for (const std::vector<Operation>* all : {&kAll, &kCareless}) {
    for (const Operation& operation : *all) {
      if (operation.name == name) return &operation;
    }
  }
  return nullptr;
}

}  // namespace operations
