// The settings document, whatever is in it, under every operation on it: results, what is answered
// and what is on the disk afterwards, against a model of the document's text.
//
// Input: the number of operations, each with its kind and what it takes; then 0, there is no
// document, or 1 and the text of one.

#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include <json/reader.h>
#include <json/writer.h>

#include "check.h"
#include "fakePlatform.h"
#include "input.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

enum Kind { kGet, kSet, kStatus, kProfile, kUseProfile, kDefaults, kKinds };

struct Operation {
  Kind kind = kGet;
  std::string text;  // the members to set, the profile's name, the value to put defaults into
};

const std::string kStoredProfile = "default";

bool parse(const std::string& text, Json::Value& value) {
  return Json::Reader().parse(text, value);
}

Json::Value withoutComments(const Json::Value& value) {
  if (value.isObject() && !value.empty()) {
    Json::Value bare(Json::objectValue);
    for (const std::string& name : value.getMemberNames()) {
      bare[name] = withoutComments(value[name]);
    }
    return bare;
  }
  if (value.isArray() && !value.empty()) {
    Json::Value bare(Json::arrayValue);
    for (const Json::Value& element : value) bare.append(withoutComments(element));
    return bare;
  }
  Json::Value bare;
  Json::Value copy = value;
  bare.swapPayload(copy);  // leaves the comments behind
  return bare;
}

// Comments stay, but for those that the writer lets swallow something.
std::string styled(const Json::Value& value) {
  std::string text = Json::StyledWriter().write(value);
  if (text.find("//") == std::string::npos && text.find("/*") == std::string::npos) return text;
  Json::Value read;
  const std::string bare = Json::StyledWriter().write(withoutComments(value));
  const bool same = Json::Reader().parse(text, read, /*collectComments=*/false) &&
                    Json::StyledWriter().write(read) == bare;
  return same ? text : bare;
}

// What an operation is given; text that is no JSON stands for the usual change.
Json::Value argumentOf(const std::string& text) {
  Json::Value value;
  try {
    if (parse(text, value)) return value;
  } catch (const Json::Exception&) {
  }
  value = Json::Value(Json::objectValue);
  value["status"] = text.size() % 2 == 1;
  return value;
}

// --- the model ---

class Model {
 public:
  explicit Model(std::optional<std::string> text) : text_(std::move(text)) {}

  std::string text() const { return text_.value_or("(absent)"); }

  bool get(Json::Value& out) {
    if (text_) return parse(*text_, out);
    out["status"] = false;
    out["profile"] = "default";
    text_ = styled(out);
    return true;
  }

  bool set(const Json::Value& in) {
    Json::Value current;
    if (!get(current)) return false;
    for (const std::string& key : in.getMemberNames()) current[key] = in[key];
    text_ = styled(current);
    return true;
  }

  bool status(bool& enabled) {
    Json::Value current;
    if (!get(current)) return false;
    enabled = current.isObject() && current.isMember("status") && current["status"].asBool();
    return true;
  }

  bool profile(std::string& name) {
    Json::Value current;
    if (!get(current) || !current.isObject() || !current.isMember("profile")) return false;
    name = current["profile"].asString();
    return true;
  }

  bool useProfile(const std::string& name) {
    if (name != kStoredProfile && name != ownName()) return false;
    Json::Value current;
    if (!get(current)) return false;
    current["profile"] = name;
    return set(current);
  }

 private:
  // The settings lie among the profiles: with a "name" they are one.
  std::optional<std::string> ownName() {
    Json::Value current;
    if (!text_ || !parse(*text_, current) || !current.isObject()) return std::nullopt;
    if (!current.isMember("name") || !current["name"].isString()) return std::nullopt;
    return current["name"].asString();
  }

  std::optional<std::string> text_;
};

// The library behind the same names.
struct Library {
  FW::TARNFW firewall;

  bool get(Json::Value& out) { return firewall.configGet(out); }
  bool set(const Json::Value& in) { return firewall.configSet(in); }
  bool status(bool& enabled) { return firewall.fwStatus(enabled); }
  bool profile(std::string& name) { return firewall.fwProfileConfigGet(name); }
  bool useProfile(const std::string& name) { return firewall.fwProfileConfigSet(name, false); }
};

// Result and answer of one operation.
template <class Settings>
std::string outcomeOf(Settings& settings, const Operation& operation) {
  const auto result = [](bool done) { return std::string(done ? "true" : "false"); };
  Json::Value value;
  bool enabled = operation.text.size() % 2 == 1;
  std::string name = "untouched";
  switch (operation.kind) {
    case kGet: {
      // What a failed parse leaves is not promised.
      const bool done = settings.get(value);
      return done ? "true " + toText(value) : "false";
    }
    case kSet:
      return result(settings.set(argumentOf(operation.text)));
    case kStatus: {
      const bool done = settings.status(enabled);
      return result(done) + (enabled ? " enabled" : " disabled");
    }
    case kProfile: {
      const bool done = settings.profile(name);
      return result(done) + " " + name;
    }
    default:
      return result(settings.useProfile(operation.text));
  }
}

template <class Settings>
std::string caughtOutcomeOf(Settings& settings, const Operation& operation) {
  try {
    return outcomeOf(settings, operation);
  } catch (const Json::Exception&) {
    return "exception of the JSON library";
  }
}

void checkDefaults(const std::string& text) {
  Json::Value value = argumentOf(text);
  if (!value.isObject()) return;
  Json::Value expected = value;
  expected["status"] = false;
  expected["profile"] = "default";
  fuzz::require(FW::TARNFW().initJconfig(value), "the defaults are had");
  fuzz::requireEqual(toText(expected), toText(value), "the defaults leave other members");
}

// What was written must be read again: a document is never made unreadable.
void checkReadable(const std::string& text) {
  Json::Value value;
  try {
    fuzz::require(parse(text, value), "a document that was written can be read", text);
  } catch (const Json::Exception& exception) {
    fuzz::broken("a document that was written can be read", exception.what());
  }
}

std::vector<Operation> operationsOf(fuzz::Input& input) {
  std::vector<Operation> operations(input.below(6));
  for (Operation& operation : operations) {
    operation.kind = static_cast<Kind>(input.below(kKinds));
    const bool takesText =
        operation.kind == kSet || operation.kind == kUseProfile || operation.kind == kDefaults;
    operation.text = takesText ? input.text() : input.flag() ? "1" : "";
  }
  return operations;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool kPrepared = [] {
    files::clear();
    files::writeProfile("1", kStoredProfile);
    return true;
  }();
  (void)kPrepared;
  fuzz::Input input(data, size);
  const std::vector<Operation> operations = operationsOf(input);
  std::optional<std::string> text;
  (void)unlink(files::kSettingsFile);
  if (input.flag()) {
    text = input.all();
    files::writeSettings(*text);
  }
  Model model(std::move(text));
  Library library;
  for (const Operation& operation : operations) {
    if (operation.kind == kDefaults) {
      checkDefaults(operation.text);
      continue;
    }
    const std::string before = model.text();
    const std::string expected = caughtOutcomeOf(model, operation);
    fuzz::requireEqual(expected, caughtOutcomeOf(library, operation),
                       "an operation on the settings");
    fuzz::requireEqual(model.text(), files::read(files::kSettingsFile), "the settings document");
    if (model.text() != before) checkReadable(model.text());
  }
  (void)trace::take();
  return 0;
}
