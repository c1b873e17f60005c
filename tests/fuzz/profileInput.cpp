#include "profileInput.h"

namespace fuzz {
namespace {

constexpr std::size_t kMostTexts = 20;  // more than two groups of seven ports
constexpr std::size_t kMostAdapters = 4;
constexpr std::size_t kMostRules = 6;

}  // namespace

FW::FWRULE ruleOf(Input& input, std::size_t policies) {
  FW::FWRULE rule;
  rule.enable = input.flag();
  rule.adapterDirect = input.number();
  rule.policy = static_cast<FW::FW_POLICY>(input.below(policies));
  rule.blLog = input.flag();
  rule.ipType = input.number();
  rule.ipDirect = input.number();
  rule.ipGroup = input.number();
  rule.portDirect = input.number();
  rule.portGroup = input.number();
  rule.protocol = static_cast<FW::FW_PORT_PROTOCOL>(input.number());
  rule.name = input.plainText();
  rule.table = input.plainText();
  const std::vector<std::string> chains = input.plainTexts(kMostTexts);
  rule.chainList.insert(chains.begin(), chains.end());
  rule.ipList = input.plainTexts(kMostTexts);
  rule.portList = input.plainTexts(kMostTexts);
  return rule;
}

FW::FWPROFILE profileOf(Input& input, std::size_t policies) {
  FW::FWPROFILE profile;
  for (std::size_t left = input.below(kMostAdapters + 1); left > 0; --left) {
    std::vector<FW::FWRULE>& rules = profile.rules[input.plainText()];
    for (std::size_t more = input.below(kMostRules + 1); more > 0; --more) {
      rules.push_back(ruleOf(input, policies));
    }
  }
  for (std::size_t left = input.below(kMostAdapters + 1); left > 0; --left) {
    FW::FW_POLICY& policy = profile.adapterPolicyMap[input.plainText()];
    policy = static_cast<FW::FW_POLICY>(input.below(policies));
  }
  return profile;
}

}  // namespace fuzz
