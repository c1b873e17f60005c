#include "ops/readiness.h"

#include <string>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

struct Row {
  const char* name;
  const char* spoil;  // shell commands
  const char* mend;
  const char* problems;
};

// clang-format off
constexpr Row kRows[] = {
    {"AllThere", ":", ":", ""},
    {"NoTool", "mv /etc/alternatives/ip6tables /etc/alternatives/ip6tables-gone", "mv /etc/alternatives/ip6tables-gone /etc/alternatives/ip6tables",
     "/sbin/ip6tables is not installed\n"},
    {"TwoVariants", "ln -sfn /usr/sbin/ip6tables-legacy /etc/alternatives/ip6tables", "ln -sfn /usr/sbin/ip6tables-nft /etc/alternatives/ip6tables",
     "/sbin/iptables and /sbin/ip6tables are different variants, nft and legacy\n"},
    {"RulesOfTheOtherVariant", "iptables-legacy -A INPUT -j ACCEPT", "iptables-legacy -F",
     "/usr/sbin/iptables-legacy holds rules besides those of /sbin/iptables; a packet must pass both\n"},
    {"PolicyOfTheOtherVariant", "ip6tables-legacy -P FORWARD DROP", "ip6tables-legacy -P FORWARD ACCEPT",
     "/usr/sbin/ip6tables-legacy holds rules besides those of /sbin/ip6tables; a packet must pass both\n"},
    {"EmptyTableOfTheOtherVariant", "iptables-legacy -S", ":", ""},
    {"NoModuleList", "rm /usr/tarn/etc.defaults/iptables_modules_list", ":",
     "the list of kernel modules cannot be read, so the firewall cannot be enabled\n"},
    {"NoServiceTable", "rm /usr/tarn/etc.defaults/firewall_services.json", ":",
     "the service table cannot be read, so profiles with service rules do not compile\n"},
    {"NoProtocols", "mv /etc/protocols /etc/protocols-gone", "mv /etc/protocols-gone /etc/protocols",
     "/etc/protocols does not name igmp; its rules will be refused\n"},
};
// clang-format on

TEST(Readiness, Rows) {
  for (const Row& row : kRows) {
    machine::reset();
    ASSERT_EQ(machine::run("ln -sfn /usr/sbin/iptables-nft /etc/alternatives/iptables; ln -sfn "
                           "/usr/sbin/ip6tables-nft /etc/alternatives/ip6tables")
                  .status,
              0);
    ASSERT_EQ(machine::run(row.spoil).status, 0) << row.name;
    std::string found;
    for (const std::string& problem : ops::readinessProblems()) found += problem + "\n";
    EXPECT_EQ(found, row.problems) << row.name;
    ASSERT_EQ(machine::run(row.mend).status, 0) << row.name;
  }
}

TEST(Readiness, LegacyMachineWithNftRules) {
  machine::reset();
  ASSERT_EQ(machine::run("for tool in iptables ip6tables; do ln -sfn /usr/sbin/$tool-legacy "
                         "/etc/alternatives/$tool; done; iptables-nft -A INPUT -j ACCEPT")
                .status,
            0);
  std::string found;
  for (const std::string& problem : ops::readinessProblems()) found += problem + "\n";
  EXPECT_EQ(
      found,
      "/usr/sbin/iptables-nft holds rules besides those of /sbin/iptables; a packet must pass "
      "both\n");
  ASSERT_EQ(machine::run("iptables-nft -F").status, 0);
}

TEST(Readiness, ActiveProfile) {
  machine::reset();
  EXPECT_EQ(ops::activeProfileProblem(), "the active profile 'default' is not stored");
  machine::write("/usr/tarn/etc/firewall.d/1.json", R"({"name": "default"})");
  EXPECT_EQ(ops::activeProfileProblem(), "");
  machine::write("/usr/tarn/etc/firewall.d/firewall_settings.json", R"({"profile": "office"})");
  EXPECT_EQ(ops::activeProfileProblem(), "the active profile 'office' is not stored");
}

}  // namespace
