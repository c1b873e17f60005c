#include "tarnFW/serviceRules.h"

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

FW::FWRULE ruleOf(int portGroup, const std::string& name, std::vector<std::string> ports) {
  FW::FWRULE rule;
  rule.portGroup = portGroup;
  rule.name = name;
  rule.portList = std::move(ports);
  return rule;
}

TEST(ServiceRules, PortGroupsThatNameServices) {
  const std::vector<std::pair<int, bool>> rows = {{-1, false}, {0, true},  {1, false},
                                                  {2, true},   {3, false}, {4, false}};
  for (const auto& [portGroup, expected] : rows) {
    EXPECT_EQ(expected, FW::namesServices(ruleOf(portGroup, "", {}))) << "portGroup " << portGroup;
  }
}

struct DropRow {
  const char* name;
  std::vector<FW::FWRULE> rules;
  const char* left;  // names of the rules that stay
};

void PrintTo(const DropRow& row, std::ostream* out) { *out << row.name; }

std::string rowName(const testing::TestParamInfo<DropRow>& info) { return info.param.name; }

class Drop : public testing::TestWithParam<DropRow> {};

TEST_P(Drop, Row) {
  std::vector<FW::FWRULE> rules = GetParam().rules;
  FW::dropEmptyServiceRules(rules);
  std::string left;
  for (const FW::FWRULE& rule : rules) left += rule.name;
  EXPECT_EQ(GetParam().left, left);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Drop, testing::Values(
  DropRow{"NoRules", {}, ""},
  DropRow{"WithServicesStay", {ruleOf(0, "a", {"ssh"}), ruleOf(2, "b", {"ssh"})}, "ab"},
  DropRow{"AnEmptyNameIsAService", {ruleOf(0, "a", {""})}, "a"},
  DropRow{"WithoutServicesGo", {ruleOf(0, "a", {}), ruleOf(2, "b", {})}, ""},
  DropRow{"OtherGroupsStay", {ruleOf(1, "a", {}), ruleOf(3, "b", {}), ruleOf(4, "c", {}), ruleOf(-1, "d", {})}, "abcd"},
  DropRow{"TheOthersKeepTheirOrder", {ruleOf(0, "a", {}), ruleOf(1, "b", {}), ruleOf(2, "c", {}), ruleOf(0, "d", {"ssh"}), ruleOf(0, "e", {}), ruleOf(3, "f", {})}, "bdf"}),
  rowName);
// clang-format on

}  // namespace
