// A profile document is read as a second reader reads it, and what is written of it reads back the
// same.
//
// Input: the text of a document.

#include <string>

#include <json/reader.h>
#include <json/writer.h>

#include "check.h"
#include "fakePlatform.h"
#include "recordText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

constexpr char kDocument[] = "/usr/tarn/etc/firewall.d/1.json";
constexpr std::size_t kFileEvery = 8;  // inputs of every eighth length go through a file

// --- the second reader: each member looked up by its name ---

std::vector<std::string> textsOf(const Json::Value& list) {
  std::vector<std::string> texts;
  for (const Json::Value& text : list) texts.push_back(text.asString());
  return texts;
}

FW::FWRULE readRule(const Json::Value& object) {
  FW::FWRULE rule;
  rule.ruleID = object["ruleID"].asInt();
  rule.enable = object["enable"].asBool();
  rule.adapterDirect = object["adapterDirect"].asInt();
  rule.protocol = static_cast<FW::FW_PORT_PROTOCOL>(object["protocol"].asInt());
  rule.policy = static_cast<FW::FW_POLICY>(object["policy"].asInt());
  rule.blLog = object["blLog"].asBool();
  rule.name = object["name"].asString();
  rule.table = object["table"].asString();
  rule.labelList = textsOf(object["labelList"]);
  for (const std::string& chain : textsOf(object["chainList"])) rule.chainList.insert(chain);
  rule.ipType = object["ipType"].asInt();
  rule.ipDirect = object["ipDirect"].asInt();
  rule.ipGroup = object["ipGroup"].asInt();
  rule.ipList = textsOf(object["ipList"]);
  rule.portDirect = object["portDirect"].asInt();
  rule.portGroup = object["portGroup"].asInt();
  rule.portList = textsOf(object["portList"]);
  return rule;
}

FW::FWPROFILE readProfile(const Json::Value& document) {
  FW::FWPROFILE profile;
  profile.name = document["name"].asString();
  const Json::Value& rules = document["rules"];
  for (const std::string& adapter : rules.getMemberNames()) {
    for (const Json::Value& rule : rules[adapter]) {
      profile.rules[adapter].push_back(readRule(rule));
    }
  }
  const Json::Value& policies = document["adapterPolicyMap"];
  for (const std::string& adapter : policies.getMemberNames()) {
    profile.adapterPolicyMap[adapter] = static_cast<FW::FW_POLICY>(policies[adapter].asInt());
  }
  return profile;
}

// What `read` makes of a document, or that the JSON library refuses it.
template <class Read>
std::string outcomeOf(Read read, FW::FWPROFILE& profile) {
  try {
    profile = read();
  } catch (const Json::Exception& exception) {
    return std::string("refused: ") + exception.what();
  }
  return describe(profile);
}

// --- what a document keeps ---

// The styled writer ends a member's name at a NUL, and writes what is not UTF-8 as U+FFFD.
bool isKept(const std::string& text) {
  Json::Value value(text);
  std::string styled = Json::StyledWriter().write(value);
  Json::Value again;
  return Json::Reader().parse(styled, again) && again.isString() && again.asString() == text;
}

bool areKept(const std::vector<std::string>& texts) {
  for (const std::string& text : texts) {
    if (!isKept(text)) return false;
  }
  return true;
}

bool isKeptKey(const std::string& key) {
  return key.find('\0') == std::string::npos && isKept(key);
}

bool isKept(const FW::FWPROFILE& profile) {
  for (const auto& [adapter, rules] : profile.rules) {
    if (!isKeptKey(adapter)) return false;
    for (const FW::FWRULE& rule : rules) {
      if (!areKept({rule.name, rule.table}) || !areKept(rule.labelList) || !areKept(rule.ipList) ||
          !areKept({rule.chainList.begin(), rule.chainList.end()}) || !areKept(rule.portList)) {
        return false;
      }
    }
  }
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
    if (!isKeptKey(adapter)) return false;
  }
  return isKept(profile.name);
}

// --- there and back ---

Json::Value throughText(const Json::Value& document) {
  Json::Value again;
  fuzz::require(Json::Reader().parse(Json::StyledWriter().write(document), again),
                "what is written parses");
  return again;
}

Json::Value throughFile(const Json::Value& document) {
  Json::Value again;
  fuzz::require(jsonFileDump(document, kDocument), "a document is written");
  fuzz::requireEqual(Json::StyledWriter().write(document), files::read(kDocument),
                     "the file is the styled rendering");
  fuzz::require(jsonFileLoad(again, kDocument), "what is written loads");
  return again;
}

Json::Value documentOf(const FW::FWPROFILE& profile) {
  Json::Value document;
  FW::TARNFW_JSON_DB().profileToJson(profile, document);
  return document;
}

FW::FWPROFILE libraryReads(const Json::Value& document) {
  FW::FWPROFILE profile;
  FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
  return profile;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* const begin = reinterpret_cast<const char*>(data);
  Json::Value document;
  try {
    if (!Json::Reader().parse(begin, begin + size, document)) return 0;
  } catch (const Json::Exception&) {
    return 0;  // nested too deep
  }
  FW::FWPROFILE expected;
  FW::FWPROFILE read;
  const std::string expectedText = outcomeOf([&] { return readProfile(document); }, expected);
  fuzz::requireEqual(expectedText, outcomeOf([&] { return libraryReads(document); }, read),
                     "the profile that a document holds");
  if (expectedText.rfind("refused", 0) == 0) return 0;

  const Json::Value written = documentOf(read);
  const Json::Value again = size % kFileEvery == 0 ? throughFile(written) : throughText(written);
  FW::FWPROFILE back = libraryReads(again);
  if (isKept(read)) {
    for (auto& [adapter, rules] : read.rules) {
      for (FW::FWRULE& rule : rules) rule.ruleID = 0;  // not written
    }
    fuzz::requireEqual(describe(read), describe(back), "a profile comes back as it was");
  }
  // What could not be kept is lost once, and a chain name that was not UTF-8 may change its place
  // among the others; from then on the document stays as it is.
  Json::Value before = again;
  Json::Value after = documentOf(back);
  if (!isKept(read)) {
    before = after;
    after = documentOf(libraryReads(throughText(after)));
  }
  fuzz::requireEqual(Json::StyledWriter().write(before), Json::StyledWriter().write(after),
                     "a document that was written once stays the same");
  (void)trace::take();
  return 0;
}
