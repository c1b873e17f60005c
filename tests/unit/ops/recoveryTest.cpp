#include "ops/recovery.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"
#include "ops/baseChains.h"

namespace {

constexpr char kMark[] = "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n";
constexpr char kOpen[] = "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n";
constexpr char kClosed[] = "-P INPUT DROP\n-P FORWARD DROP\n";

struct Row {
  const char* name;
  std::string v4;
  std::string v6;
  std::vector<std::string> record;
  const char* commands;
};

// clang-format off
const Row kRows[] = {
    {"NothingToDo", kOpen, kOpen, {}, ""},
    {"ForeignPolicies", kClosed, kClosed, {}, ""},
    {"WholeDropSet", std::string(kClosed) + kMark, std::string(kClosed) + kMark, {},
     "/sbin/iptables --policy INPUT ACCEPT\n"
     "/sbin/iptables --policy FORWARD ACCEPT\n"
     "/sbin/ip6tables --policy INPUT ACCEPT\n"
     "/sbin/ip6tables --policy FORWARD ACCEPT\n"
     "/sbin/iptables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
     "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"},
    {"MarkOfOneFamilySpeaksForBoth", std::string(kClosed) + kMark, "-P INPUT DROP\n-P FORWARD ACCEPT\n", {},
     "/sbin/iptables --policy INPUT ACCEPT\n"
     "/sbin/iptables --policy FORWARD ACCEPT\n"
     "/sbin/ip6tables --policy INPUT ACCEPT\n"
     "/sbin/iptables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"},
    {"EveryCopy", kOpen, std::string(kOpen) + kMark + kMark + kMark, {},
     "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
     "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
     "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"},
    {"RecordedPolicyWithoutMark", "-P INPUT DROP\n-P FORWARD DROP\n", kOpen, {"v4 INPUT", "v6 INPUT", "v6 FORWARD"},
     "/sbin/iptables --policy INPUT ACCEPT\n"},
    {"RecordOfOpenPolicies", kOpen, kOpen, {"v4 INPUT", "v4 FORWARD", "v6 INPUT", "v6 FORWARD"}, ""},
};
// clang-format on

TEST(Recovery, Rows) {
  for (const Row& row : kRows) {
    ops::LiveFilter filter;
    filter.v4 = ops::parseRules(row.v4);
    filter.v6 = ops::parseRules(row.v6);
    std::string text;
    for (const ops::Command& command : ops::recoveryCommands(filter, row.record)) {
      text += command.text() + "\n";
    }
    EXPECT_EQ(text, row.commands) << row.name;
  }
}

TEST(Recovery, OpenPolicies) {
  ops::LiveFilter filter;
  filter.v4 = ops::parseRules("-P INPUT ACCEPT\n-P FORWARD DROP\n");
  filter.v6 = ops::parseRules(kOpen);
  EXPECT_EQ(ops::openPolicies(filter),
            (std::vector<std::string>{"v4 INPUT", "v6 INPUT", "v6 FORWARD"}));
}

TEST(Recovery, RecordIsReadAsWrittenUntilForgotten) {
  machine::reset();
  EXPECT_EQ(ops::recordedOpenPolicies(), std::vector<std::string>());
  const std::vector<std::string> policies = {"v4 INPUT", "v6 FORWARD"};
  EXPECT_TRUE(ops::writeOpenPolicies(policies));
  EXPECT_EQ(ops::recordedOpenPolicies(), policies);
  ops::forgetOpenPolicies();
  EXPECT_EQ(ops::recordedOpenPolicies(), std::vector<std::string>());
}

TEST(Recovery, DamagedRecordsAreNone) {
  machine::reset();
  ASSERT_TRUE(ops::writeOpenPolicies({}));
  for (const char* text : {"", "{", "{}", "7", "[7, null]"}) {
    machine::write("/run/tarn/open_policies.json", text);
    EXPECT_EQ(ops::recordedOpenPolicies(), std::vector<std::string>()) << text;
  }
}

TEST(Recovery, UndoesWhatIsInTheKernel) {
  machine::reset();
  ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
  const std::string before = machine::filterTables();
  ASSERT_EQ(machine::run("iptables -P INPUT DROP; ip6tables -P FORWARD DROP; for copy in 1 2; do "
                         "iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j "
                         "ACCEPT; done")
                .status,
            0);
  ops::LiveFilter filter;
  const ops::Recovery recovery = ops::recover(filter);
  EXPECT_EQ(recovery.marks, 2U);
  EXPECT_EQ(recovery.commands.size(), 4U);
  EXPECT_EQ(recovery.errors.size(), 0U);
  EXPECT_EQ(filter.marks(), 0U);
  EXPECT_TRUE(filter.open());
  EXPECT_EQ(machine::filterTables(), before);
}

TEST(Recovery, PlanChangesNothing) {
  machine::reset();
  ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
  ASSERT_EQ(machine::run("iptables -P INPUT DROP; iptables -A FIREWALL_RELOADING -m state --state "
                         "ESTABLISHED,RELATED -j ACCEPT")
                .status,
            0);
  const std::string before = machine::state();
  EXPECT_EQ(ops::planRecovery().commands.size(), 2U);
  EXPECT_EQ(machine::state(), before);
}

}  // namespace
