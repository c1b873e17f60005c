// The records as text with every field, so that a difference between two of them can be read.

#ifndef TARNFW_TESTS_FAKE_RECORD_TEXT_H
#define TARNFW_TESTS_FAKE_RECORD_TEXT_H

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "tarnfirewall_records.h"

inline std::string bracketed(const std::vector<std::string>& texts) {
  std::string text;
  for (const std::string& one : texts) text += "[" + one + "]";
  return text;
}

// Every field of a rule, in the order of their declaration.
inline std::string describe(const FW::FWRULE& rule) {
  const std::vector<std::string> chains(rule.chainList.begin(), rule.chainList.end());
  std::ostringstream text;
  text << "ruleID " << rule.ruleID << ", enable " << rule.enable << ", adapterDirect "
       << rule.adapterDirect << ", policy " << static_cast<std::int32_t>(rule.policy) << ", blLog "
       << rule.blLog << ", labelList " << bracketed(rule.labelList) << ", name [" << rule.name
       << "], table [" << rule.table << "], chainList " << bracketed(chains) << ", ipType "
       << rule.ipType << ", ipDirect " << rule.ipDirect << ", ipGroup " << rule.ipGroup
       << ", ipList " << bracketed(rule.ipList) << ", portDirect " << rule.portDirect
       << ", portGroup " << rule.portGroup << ", protocol "
       << static_cast<std::int32_t>(rule.protocol) << ", portList " << bracketed(rule.portList);
  return text.str();
}

inline std::string describe(const FW::FWPROFILE& profile) {
  std::ostringstream text;
  text << "profile [" << profile.name << "]";
  for (const auto& [adapter, rules] : profile.rules) {
    text << "\nrules of " << adapter << ":";
    for (const FW::FWRULE& rule : rules) text << "\n  " << describe(rule);
  }
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
    text << "\npolicy of " << adapter << ": " << static_cast<std::int32_t>(policy);
  }
  return text.str();
}

#endif
