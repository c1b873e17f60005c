#include "ops/verification.h"

#include <string>

#include <gtest/gtest.h>

#include "machine.h"
#include "ops/baseChains.h"
#include "ops/jsonText.h"
#include "tarnfirewall.h"

namespace {

constexpr char kCommands[] = R"({
  "v4": {"global": ["-A INPUT_FIREWALL -s 192.0.2.1 -j DROP", "-A INPUT_FIREWALL -p tcp --dport 22 -j RETURN"]},
  "v6": {"global": ["-A FORWARD_FIREWALL -p icmpv6 -j RETURN"]}})";

struct Row {
  const char* name;
  const char* change;  // shell commands after the lines were loaded
  const char* differences;
};

// clang-format off
constexpr Row kRows[] = {
    {"Same", ":", ""},
    {"Missing", "iptables -D INPUT_FIREWALL -s 192.0.2.1 -j DROP", "-/sbin/iptables -A INPUT_FIREWALL -s 192.0.2.1/32 -j DROP\n"},
    {"Surplus", "ip6tables -A INPUT_FIREWALL -j RETURN", "+/sbin/ip6tables -A INPUT_FIREWALL -j RETURN\n"},
    {"OtherOrder", "iptables -D INPUT_FIREWALL 1; iptables -A INPUT_FIREWALL -s 192.0.2.1 -j DROP",
     "-/sbin/iptables -A INPUT_FIREWALL -s 192.0.2.1/32 -j DROP\n+/sbin/iptables -A INPUT_FIREWALL -s 192.0.2.1/32 -j DROP\n"},
    {"StaleMark", "ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
     "+/sbin/ip6tables -A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"},
    {"ChainGone", "ip6tables -F FORWARD; ip6tables -F FORWARD_FIREWALL; ip6tables -X FORWARD_FIREWALL",
     "-/sbin/ip6tables -N FORWARD_FIREWALL\n-/sbin/ip6tables -A FORWARD_FIREWALL -p ipv6-icmp -j RETURN\n"},
    {"ForeignChainsAreNotLookedAt", "iptables -N OTHER; iptables -A OTHER -j DROP; iptables -I INPUT -j OTHER", ""},
};
// clang-format on

class Verification : public testing::Test {
 protected:
  void SetUp() override {
    machine::reset();
    ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
    ASSERT_TRUE(ops::parseJson(kCommands, commands_));
    ASSERT_TRUE(FW::TARNFW().fwExec(commands_));
  }

  Json::Value commands_;
};

std::string verified(const Json::Value& commands) {
  const ops::Verification verification = ops::verifyLiveRules(commands);
  if (!verification.compared) return verification.reason;
  std::string text;
  for (const std::string& line : verification.differences) text += line + "\n";
  return text;
}

TEST_F(Verification, Rows) {
  for (const Row& row : kRows) {
    SetUp();
    ASSERT_EQ(machine::run(row.change).status, 0) << row.name;
    EXPECT_EQ(verified(commands_), row.differences) << row.name;
  }
}

TEST_F(Verification, TouchesNoLiveRule) {
  const std::string before = machine::state();
  EXPECT_EQ(verified(commands_), "");
  EXPECT_EQ(machine::state(), before);
}

TEST_F(Verification, RefusedLineIsInNeither) {
  commands_["v4"]["global"].append("-A NOSUCHCHAIN -j DROP");
  EXPECT_EQ(verified(commands_), "");
}

struct HostRow {
  const char* name;
  const char* line;    // compiled, with a host name
  const char* change;  // shell commands that put into the kernel what it has given
  std::size_t leftOut;
  const char* differences;
};

// clang-format off
constexpr HostRow kHostRows[] = {
    {"ResolvedWhenLoaded", "-A INPUT_FIREWALL -s host.invalid -p tcp --dport 80 -j DROP",
     "iptables -A INPUT_FIREWALL -s 192.0.2.7,192.0.2.8 -p tcp --dport 80 -j DROP", 1, ""},
    {"NotResolvedWhenLoaded", "-A INPUT_FIREWALL -d host.invalid -j DROP", ":", 1, ""},
    {"AnotherForm", "-A INPUT_FIREWALL -s host.invalid -p tcp --dport 80 -j DROP",
     "iptables -A INPUT_FIREWALL -s 192.0.2.7 -p tcp --dport 81 -j DROP", 1,
     "+/sbin/iptables -A INPUT_FIREWALL -s 192.0.2.7/32 -p tcp -m tcp --dport 81 -j DROP\n"},
    {"RuleOfTheSameFormIsCompared", "-A INPUT_FIREWALL -s host.invalid -j DROP",
     "iptables -D INPUT_FIREWALL -s 192.0.2.1 -j DROP", 1,
     "-/sbin/iptables -A INPUT_FIREWALL -s 192.0.2.1/32 -j DROP\n"},
    {"RuleOfTheSameFormIsFound", "-A INPUT_FIREWALL -s host.invalid -j DROP",
     "iptables -A INPUT_FIREWALL -s 192.0.2.9 -j DROP", 1, ""},
    {"Address", "-A INPUT_FIREWALL -s 192.0.2.0/24 -j DROP",
     ":", 0, "-/sbin/iptables -A INPUT_FIREWALL -s 192.0.2.0/24 -j DROP\n"},
};
// clang-format on

TEST_F(Verification, HostNamesAreNotCompared) {
  for (const HostRow& row : kHostRows) {
    SetUp();
    Json::Value commands = commands_;
    commands["v4"]["global"].append(row.line);
    ASSERT_EQ(machine::run(row.change).status, 0) << row.name;
    EXPECT_EQ(verified(commands), row.differences) << row.name;
    EXPECT_EQ(ops::verifyLiveRules(commands).leftOut, row.leftOut) << row.name;
  }
}

TEST_F(Verification, HostNamesOfTheOtherFamily) {
  Json::Value commands = commands_;
  commands["v6"]["global"].append("-A INPUT_FIREWALL -s host.invalid/64 -j DROP");
  ASSERT_EQ(machine::run("ip6tables -A INPUT_FIREWALL -s 2001:db8::7 -j DROP").status, 0);
  EXPECT_EQ(verified(commands), "");
}

TEST_F(Verification, NullAsksForEmptyChains) {
  EXPECT_EQ(verified(Json::Value()),
            "+/sbin/iptables -A INPUT_FIREWALL -s 192.0.2.1/32 -j DROP\n"
            "+/sbin/iptables -A INPUT_FIREWALL -p tcp -m tcp --dport 22 -j RETURN\n"
            "+/sbin/ip6tables -A FORWARD_FIREWALL -p ipv6-icmp -j RETURN\n");
  ASSERT_TRUE(FW::TARNFW().fwClear());
  EXPECT_EQ(verified(Json::Value()), "");
}

TEST_F(Verification, UnreadableTablesAreAReason) {
  ASSERT_EQ(machine::run("mv /etc/alternatives/iptables /etc/alternatives/iptables-gone").status,
            0);
  EXPECT_EQ(verified(commands_), "/sbin/iptables -S: No such file or directory");
  ASSERT_EQ(machine::run("mv /etc/alternatives/iptables-gone /etc/alternatives/iptables").status,
            0);
}

}  // namespace
