// The answers of the block queries are those of a second evaluator.
//
// Input: a flag, the firewall is disabled; a flag, the active profile is not stored; the profile,
// whose policies are 0 to 7; the number of queries, each with a flag, a service; the port's side
// and protocol unless it is a service; the port or service; the adapter.

#include <string>
#include <vector>

#include <json/writer.h>

#include "answerModel.h"
#include "check.h"
#include "fakePlatform.h"
#include "profileInput.h"
#include "services.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

constexpr std::size_t kPolicies = 8;
constexpr std::size_t kMostQueries = 4;
constexpr char kProfile[] = "/usr/tarn/etc/firewall.d/1.json";

struct Question {
  bool service = false;
  std::string name;  // of the service
  FW::PortCompareST port;
  std::string adapter;
};

Question questionOf(fuzz::Input& input) {
  Question question;
  question.service = input.flag();
  if (question.service) {
    question.name = input.plainText();
  } else {
    question.port.portDirect = input.number();
    question.port.protocol = static_cast<FW::FW_PORT_PROTOCOL>(input.number());
    question.port.port = input.plainText();
  }
  question.adapter = input.plainText();
  return question;
}

std::string textOf(bool done, const FW::AdapterPolicyMap& verdicts) {
  std::string text = done ? "true" : "false";
  for (const auto& [adapter, verdict] : verdicts) {
    text += " " + adapter + "=" + std::to_string(static_cast<int>(verdict));
  }
  return text;
}

// --- what is to be answered ---

struct Firewall {
  bool enabled;
  bool stored;
  FW::FWPROFILE profile;
};

bool answer(const Firewall& firewall, const FW::PortCompareST& port, const std::string& adapter,
            FW::AdapterPolicyMap& verdicts) {
  if (!firewall.enabled) {
    if (!adapter.empty()) verdicts[adapter] = FW::FW_POLICY_ALLOW;
    return true;
  }
  if (firewall.stored) {
    verdicts = fuzz::verdictsOf(firewall.profile, fuzz::services(), port, adapter);
  }
  return firewall.stored;
}

bool answer(const Firewall& firewall, const Question& question, FW::AdapterPolicyMap& verdicts) {
  if (!question.service) return answer(firewall, question.port, question.adapter, verdicts);
  return fuzz::verdictsOfService(
      fuzz::services(), question.name,
      [&](const FW::PortCompareST& port, FW::AdapterPolicyMap& more) {
        return answer(firewall, port, question.adapter, more);
      },
      verdicts);
}

// --- the library ---

void store(const Firewall& firewall) {
  files::writeSettings(std::string(R"({"profile": "active", "status": )") +
                       (firewall.enabled ? "true}" : "false}"));
  FW::FWPROFILE named = firewall.profile;
  named.name = firewall.stored ? "active" : "other";
  Json::Value document;
  FW::TARNFW_JSON_DB().profileToJson(named, document);
  files::write(kProfile, Json::FastWriter().write(document));
}

void check(const Firewall& firewall, const Question& question) {
  FW::AdapterPolicyMap expected;
  FW::AdapterPolicyMap found;
  const bool expectedDone = answer(firewall, question, expected);
  const bool done = question.service
                        ? FW::TARNFW().fwServIsBlocked(question.name, question.adapter, found)
                        : FW::TARNFW().fwPortIsBlocked(question.port, question.adapter, found);
  fuzz::requireEqual(textOf(expectedDone, expected), textOf(done, found),
                     "the answer of a block query");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool kPrepared = [] {
    files::clear();
    fake::reset();
    fake::machine().services = fuzz::services();
    return true;
  }();
  (void)kPrepared;
  fuzz::Input input(data, size);
  const bool enabled = !input.flag();
  const bool stored = !input.flag();
  const Firewall firewall = {enabled, stored, fuzz::profileOf(input, kPolicies)};
  store(firewall);
  for (std::size_t left = input.below(kMostQueries) + 1; left > 0; --left) {
    check(firewall, questionOf(input));
  }
  (void)trace::take();
  fuzz::requireEqual("", fake::alive(), "the service database is released");
  return 0;
}
