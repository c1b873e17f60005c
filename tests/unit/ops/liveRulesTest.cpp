#include "ops/liveRules.h"

#include <string>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

constexpr char kMark[] = "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n";

// "INPUT=ACCEPT; INPUT: rule | rule; ..."
std::string summary(const ops::LiveRules& rules) {
  std::string text;
  for (const auto& [chain, policy] : rules.policies) text += chain + "=" + policy + "; ";
  for (const auto& [chain, lines] : rules.chains) {
    text += chain + ":";
    for (const std::string& line : lines) text += " " + line + " |";
    text += "; ";
  }
  return text;
}

struct Row {
  const char* name;
  std::string listing;
  const char* summary;
  std::size_t marks;
  bool open;
};

const Row kRows[] = {
    {"Nothing", "", "", 0, false},
    {"FreshMachine", "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n-P OUTPUT ACCEPT\n",
     "FORWARD=ACCEPT; INPUT=ACCEPT; OUTPUT=ACCEPT; FORWARD:; INPUT:; OUTPUT:; ", 0, true},
    {"ClosedForward", "-P INPUT ACCEPT\n-P FORWARD DROP\n",
     "FORWARD=DROP; INPUT=ACCEPT; FORWARD:; INPUT:; ", 0, false},
    {"ClosedOutputIsNobodysBusiness", "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n-P OUTPUT DROP\n",
     "FORWARD=ACCEPT; INPUT=ACCEPT; OUTPUT=DROP; FORWARD:; INPUT:; OUTPUT:; ", 0, true},
    {"WarningsAreSkipped",
     "# Warning: iptables-legacy tables present, use iptables-legacy to see them\n\n-N A\n", "A:; ",
     0, false},
    {"RulesInOrder", "-N A\n-A A -j B\n-A A -m comment --comment \"-P x y\" -j C\n",
     "A: -A A -j B | -A A -m comment --comment \"-P x y\" -j C |; ", 0, false},
    {"TwoMarks", std::string("-N FIREWALL_RELOADING\n") + kMark + kMark,
     "FIREWALL_RELOADING: -A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT | "
     "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT |; ",
     2, false},
    {"OtherAcceptsAreNoMarks",
     "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
     "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n"
     "-A INPUT_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT\n",
     "FIREWALL_RELOADING: -A FIREWALL_RELOADING -i lo -j ACCEPT | "
     "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN |; "
     "INPUT_FIREWALL: -A INPUT_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT |; ",
     0, false},
};

TEST(LiveRules, Rows) {
  for (const Row& row : kRows) {
    const ops::LiveRules rules = ops::parseRules(row.listing);
    EXPECT_EQ(summary(rules), row.summary) << row.name;
    EXPECT_EQ(rules.marks().size(), row.marks) << row.name;
    EXPECT_EQ(rules.open(), row.open) << row.name;
  }
}

TEST(LiveRules, MissingChains) {
  ops::LiveFilter filter;
  EXPECT_EQ(ops::missingChains(filter).size(), 0U) << "a family that was not read";
  filter.v4 = ops::parseRules("-P INPUT ACCEPT\n-N INPUT_FIREWALL\n");
  filter.v6 = ops::parseRules(
      "-P INPUT ACCEPT\n-N INPUT_FIREWALL\n-N FORWARD_FIREWALL\n-N FIREWALL_RELOADING\n");
  EXPECT_EQ(ops::missingWords(ops::missingChains(filter)),
            "chains are missing: FIREWALL_RELOADING (IPv4), FORWARD_FIREWALL (IPv4); run 'tarnfw "
            "setup'");
}

TEST(LiveRules, BaseChainLines) {
  ops::LiveFilter filter;
  filter.v4 = ops::parseRules("-N INPUT_FIREWALL\n-A INPUT_FIREWALL -j DROP\n-A OTHER -j DROP\n");
  filter.v6 = ops::parseRules("-N FIREWALL_RELOADING\n");
  std::string text;
  for (const std::string& line : ops::baseChainLines(filter)) text += line + "\n";
  EXPECT_EQ(text,
            "/sbin/iptables -N INPUT_FIREWALL\n"
            "/sbin/iptables -A INPUT_FIREWALL -j DROP\n"
            "/sbin/ip6tables -N FIREWALL_RELOADING\n");
}

TEST(LiveRules, KernelsMarkIsKnown) {
  machine::reset();
  ASSERT_EQ(machine::run("for tool in iptables ip6tables; do $tool -N FIREWALL_RELOADING; $tool -A "
                         "FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT; done")
                .status,
            0);
  ops::LiveFilter filter;
  std::string reason;
  ASSERT_TRUE(ops::readFilter(filter, reason)) << reason;
  EXPECT_EQ(filter.v4.marks().size(), 1U);
  EXPECT_EQ(filter.v6.marks().size(), 1U);
  EXPECT_TRUE(filter.open());
}

TEST(LiveRules, ToolThatDoesNotAnswerIsTheReason) {
  machine::reset();
  ASSERT_EQ(machine::run("mv /etc/alternatives/ip6tables /etc/alternatives/ip6tables-gone").status,
            0);
  ops::LiveFilter filter;
  std::string reason;
  EXPECT_FALSE(ops::readFilter(filter, reason));
  EXPECT_EQ(reason, "/sbin/ip6tables -S: No such file or directory");
  ASSERT_EQ(machine::run("mv /etc/alternatives/iptables /etc/alternatives/iptables-gone").status,
            0);
  EXPECT_FALSE(ops::readFilter(filter, reason));
  EXPECT_EQ(reason,
            "/sbin/iptables -S: No such file or directory, "
            "/sbin/ip6tables -S: No such file or directory");
  ASSERT_EQ(machine::run("mv /etc/alternatives/iptables-gone /etc/alternatives/iptables").status,
            0);
  ASSERT_EQ(machine::run("mv /etc/alternatives/ip6tables-gone /etc/alternatives/ip6tables").status,
            0);
}

}  // namespace
