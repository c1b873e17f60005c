// Profile documents whose types make the JSON library throw when they are read.

#ifndef TARNFW_TESTS_FAKE_THROWING_DOCUMENTS_H
#define TARNFW_TESTS_FAKE_THROWING_DOCUMENTS_H

#include <ostream>

namespace files {

struct ThrowingDocument {
  const char* name;
  const char* rules;  // JSON texts
  const char* policies;

  friend void PrintTo(const ThrowingDocument& row, std::ostream* out) { *out << row.name; }
};

// One for each way in which the reading of a profile comes upon a wrong type.
// clang-format off
inline constexpr ThrowingDocument kThrowingDocuments[] = {
  {"RulesAreText", R"("none")", "null"},
  {"RulesAreAnArray", R"([{"enable": true}])", "null"},
  {"RulesAreANumber", "5", "null"},
  {"RuleIsANumber", R"({"eth0": [5]})", "null"},
  {"RuleIsText", R"({"eth0": ["allow"]})", "null"},
  {"IdIsText", R"({"eth0": [{"ruleID": "1"}]})", "null"},
  {"EnableIsText", R"({"eth0": [{"enable": "yes"}]})", "null"},
  {"PolicyIsTooLarge", R"({"eth0": [{"policy": 2147483648}]})", "null"},
  {"NameIsAnArray", R"({"eth0": [{"name": ["ssh"]}]})", "null"},
  {"AddressIsAnObject", R"({"eth0": [{"ipList": ["10.0.0.1", {}]}]})", "null"},
  {"PoliciesAreText", "null", R"("deny")"},
  {"PolicyOfAnAdapterIsText", "null", R"({"eth0": "deny"})"}};
// clang-format on

}  // namespace files

#endif
