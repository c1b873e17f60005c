// The answers of the block queries are those of a second evaluator.
//
// Input: a flag, the firewall is disabled; a flag, the active profile is not stored; the profile,
// whose policies are 0 to 7; the number of queries, each with a flag, a service; the port's side
// and protocol unless it is a service; the port or service; the adapter.

#include <array>
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

int rankOf(int verdict) {
  constexpr std::array<int, 4> kRanks = {1, 3, 0, 2};  // of allowed, blocked, undecided, partly
  return verdict <= 3 ? kRanks.at(static_cast<std::size_t>(verdict)) : 0;
}

bool answerForService(const Firewall& firewall, const Question& question,
                      FW::AdapterPolicyMap& verdicts) {
  const auto ask = [&](int direction, const fake::Ports& side) {
    for (const std::string& port : side.ports.value_or(std::vector<std::string>())) {
      FW::AdapterPolicyMap more;
      const auto protocol = static_cast<FW::FW_PORT_PROTOCOL>(side.protocol);
      if (!answer(firewall, {direction, protocol, port}, question.adapter, more)) return false;
      for (const auto& [adapter, verdict] : more) {
        const auto [known, isNew] = verdicts.emplace(adapter, verdict);
        if (!isNew && rankOf(verdict) > rankOf(known->second)) known->second = verdict;
      }
    }
    return true;
  };
  for (const fake::Service& service : fuzz::services()) {
    if (!service.available || service.name != question.name) continue;
    return ask(1, service.source) && ask(0, service.destination);
  }
  return true;
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
  const bool expectedDone = question.service
                                ? answerForService(firewall, question, expected)
                                : answer(firewall, question.port, question.adapter, expected);
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
