#include "ops/baseChains.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

std::string textOf(const std::vector<ops::Command>& commands) {
  std::string text;
  for (const ops::Command& command : commands) text += command.text() + "\n";
  return text;
}

constexpr char kBuiltIn[] = "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n-P OUTPUT ACCEPT\n";
constexpr char kChains[] = "-N FIREWALL_RELOADING\n-N FORWARD_FIREWALL\n-N INPUT_FIREWALL\n";
constexpr char kPermanent[] =
    "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
    "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n";
constexpr char kForwardJumps[] =
    "-A FORWARD -j FIREWALL_RELOADING\n-A FORWARD -j FORWARD_FIREWALL\n";

struct Row {
  const char* name;
  std::string input;  // rules of INPUT; the rest is in place
  const char* commands;
};

// clang-format off
const Row kInputRows[] = {
    {"InPlace", "-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n", ""},
    {"Neither", "-A INPUT -j OTHER\n",
     "/sbin/iptables -I INPUT 1 -j FIREWALL_RELOADING\n"
     "/sbin/iptables -I INPUT 2 -j INPUT_FIREWALL\n"},
    {"BehindOthers", "-A INPUT -j OTHER\n-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n", ""},
    {"OthersBetween", "-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j OTHER\n-A INPUT -j INPUT_FIREWALL\n", ""},
    {"FirewallAlone", "-A INPUT -j OTHER\n-A INPUT -j INPUT_FIREWALL\n",
     "/sbin/iptables -I INPUT 2 -j FIREWALL_RELOADING\n"},
    {"ReloadingAlone", "-A INPUT -j OTHER\n-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j LAST\n",
     "/sbin/iptables -I INPUT 3 -j INPUT_FIREWALL\n"},
    {"WrongOrder", "-A INPUT -j INPUT_FIREWALL\n-A INPUT -j FIREWALL_RELOADING\n",
     "/sbin/iptables -D INPUT -j FIREWALL_RELOADING\n"
     "/sbin/iptables -I INPUT 1 -j FIREWALL_RELOADING\n"},
    {"WrongOrderBehindOthers", "-A INPUT -j OTHER\n-A INPUT -j INPUT_FIREWALL\n-A INPUT -j LAST\n-A INPUT -j FIREWALL_RELOADING\n",
     "/sbin/iptables -D INPUT -j FIREWALL_RELOADING\n"
     "/sbin/iptables -I INPUT 2 -j FIREWALL_RELOADING\n"},
    {"ConditionalJumpIsNone", "-A INPUT -i eth0 -j INPUT_FIREWALL\n-A INPUT -j FIREWALL_RELOADING\n",
     "/sbin/iptables -I INPUT 3 -j INPUT_FIREWALL\n"},
    {"TwiceIsEnough", "-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n", ""},
};

struct ReloadingRow {
  const char* name;
  const char* reloading;  // rules of FIREWALL_RELOADING
  const char* commands;
};

constexpr ReloadingRow kReloadingRows[] = {
    {"NoLoopback", "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n",
     "/sbin/iptables -I FIREWALL_RELOADING 1 -i lo -j ACCEPT\n"},
    {"NoTracking", "-A FIREWALL_RELOADING -i lo -j ACCEPT\n",
     "/sbin/iptables -I FIREWALL_RELOADING 2 -m state --state INVALID -j RETURN\n"},
    {"TrackingByItsOtherName", "-A FIREWALL_RELOADING -i lo -j ACCEPT\n-A FIREWALL_RELOADING -m conntrack --ctstate INVALID -j RETURN\n", ""},
    {"BehindAMark", "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n-A FIREWALL_RELOADING -i lo -j ACCEPT\n",
     "/sbin/iptables -I FIREWALL_RELOADING 3 -m state --state INVALID -j RETURN\n"},
    {"OnlyAMark", "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n",
     "/sbin/iptables -I FIREWALL_RELOADING 1 -i lo -j ACCEPT\n"
     "/sbin/iptables -I FIREWALL_RELOADING 2 -m state --state INVALID -j RETURN\n"},
};

constexpr char kWholeSetUp[] =
    "/sbin/ip6tables -N FIREWALL_RELOADING\n"
    "/sbin/ip6tables -N INPUT_FIREWALL\n"
    "/sbin/ip6tables -N FORWARD_FIREWALL\n"
    "/sbin/ip6tables -I FIREWALL_RELOADING 1 -i lo -j ACCEPT\n"
    "/sbin/ip6tables -I FIREWALL_RELOADING 2 -m state --state INVALID -j RETURN\n"
    "/sbin/ip6tables -I INPUT 1 -j FIREWALL_RELOADING\n"
    "/sbin/ip6tables -I INPUT 2 -j INPUT_FIREWALL\n"
    "/sbin/ip6tables -I FORWARD 1 -j FIREWALL_RELOADING\n"
    "/sbin/ip6tables -I FORWARD 2 -j FORWARD_FIREWALL\n";
// clang-format on

std::string commandsFor(const std::string& listing) {
  return textOf(ops::baseChainCommands(ops::Family::kV4, ops::parseRules(listing)));
}

TEST(BaseChains, JumpRows) {
  for (const Row& row : kInputRows) {
    EXPECT_EQ(commandsFor(std::string(kBuiltIn) + kChains + kPermanent + kForwardJumps + row.input),
              row.commands)
        << row.name;
  }
}

TEST(BaseChains, PermanentRuleRows) {
  const std::string jumps =
      std::string(kForwardJumps) + "-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n";
  for (const ReloadingRow& row : kReloadingRows) {
    EXPECT_EQ(commandsFor(std::string(kBuiltIn) + kChains + jumps + row.reloading), row.commands)
        << row.name;
  }
}

TEST(BaseChains, WholeSetUp) {
  EXPECT_EQ(textOf(ops::baseChainCommands(ops::Family::kV6, ops::parseRules(kBuiltIn))),
            kWholeSetUp);
}

TEST(BaseChains, SetUpMakesThemAndThenNothing) {
  machine::reset();
  const std::string plan = textOf(ops::planBaseChains().commands);
  const ops::BaseChains made = ops::setUpBaseChains();
  EXPECT_EQ(made.errors.size(), 0U);
  EXPECT_EQ(textOf(made.commands), plan);
  const std::string tables = machine::filterTables();
  EXPECT_EQ(textOf(ops::setUpBaseChains().commands), "");
  EXPECT_EQ(machine::filterTables(), tables);
}

TEST(BaseChains, SeveralAtOnceMakeThemOnce) {
  machine::reset();
  EXPECT_EQ(ops::setUpBaseChains().errors.size(), 0U);
  const std::string tables = machine::filterTables();
  machine::reset();
  std::vector<std::thread> others;
  for (int count = 0; count < 8; ++count) {
    others.emplace_back([] { EXPECT_EQ(ops::setUpBaseChains().errors.size(), 0U); });
  }
  for (std::thread& other : others) other.join();
  EXPECT_EQ(machine::filterTables(), tables);
}

TEST(BaseChains, RefusedCommandIsAnError) {
  machine::reset();
  // A tool that lists an empty machine and makes nothing.
  ASSERT_EQ(
      machine::run("mv /etc/alternatives/ip6tables /etc/alternatives/ip6tables-real && "
                   "printf '#!/bin/sh\\n[ \"$1\" = -S ] && exit 0\\necho cannot >&2; exit 4\\n' "
                   "> /etc/alternatives/ip6tables && chmod +x /etc/alternatives/ip6tables")
          .status,
      0);
  const ops::BaseChains chains = ops::setUpBaseChains();
  ASSERT_EQ(chains.errors.size(), 9U);
  EXPECT_EQ(chains.errors.front(), "/sbin/ip6tables -N FIREWALL_RELOADING: cannot");
  EXPECT_EQ(chains.commands.size(), 9U) << "those of the other family";
  EXPECT_EQ(machine::run("mv /etc/alternatives/ip6tables-real /etc/alternatives/ip6tables").status,
            0);
}

}  // namespace
