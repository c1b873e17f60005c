// Reloads of many processes, and of many threads of one process: the commands of one never come
// between those of another. The tools are a stand-in that keeps the order of all commands.

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "crowd.h"
#include "figures.h"
#include "machine.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

constexpr std::uint64_t kLongestCall = 35000;  // milliseconds; the lock is waited for 30 seconds
constexpr char kCommands[] = "/tmp/commands";

// clang-format off
// A whole reload of a profile that denies 10.0.0.1.
constexpr char kReload[] =
  "iptables --policy INPUT DROP\n"
  "iptables --policy FORWARD DROP\n"
  "iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
  "ip6tables --policy INPUT DROP\n"
  "ip6tables --policy FORWARD DROP\n"
  "ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
  "iptables -F INPUT_FIREWALL\n"
  "ip6tables -F INPUT_FIREWALL\n"
  "iptables -F FORWARD_FIREWALL\n"
  "ip6tables -F FORWARD_FIREWALL\n"
  "iptables -A INPUT_FIREWALL -i lo -j ACCEPT\n"
  "iptables -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
  "iptables -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
  "iptables -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
  "iptables -t filter -A FORWARD_FIREWALL -s 10.0.0.1 -j DROP\n"
  "iptables -t filter -A INPUT_FIREWALL -s 10.0.0.1 -j DROP\n"
  "ip6tables -A INPUT_FIREWALL -i lo -j ACCEPT\n"
  "ip6tables -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
  "ip6tables -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
  "ip6tables -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
  "ip6tables -A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
  "ip6tables -A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
  "ip6tables -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
  "ip6tables -A FORWARD_FIREWALL -i lo -j ACCEPT\n"
  "ip6tables -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
  "ip6tables -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
  "ip6tables -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
  "ip6tables -A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
  "ip6tables -A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n"
  "ip6tables -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
  "iptables --policy INPUT ACCEPT\n"
  "iptables --policy FORWARD ACCEPT\n"
  "iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
  "ip6tables --policy INPUT ACCEPT\n"
  "ip6tables --policy FORWARD ACCEPT\n"
  "ip6tables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n";
// clang-format on

// Seconds, for a whole process.
unsigned patience() { return 110U * static_cast<unsigned>(figures::longer()); }

// How many whole reloads the log holds, one after the other, and what follows them.
struct Order {
  std::uint64_t reloads = 0;
  std::string rest;
};

Order orderOf(const std::string& commands) {
  const std::string reload = kReload;
  Order order;
  std::size_t at = 0;
  while (commands.compare(at, reload.size(), reload) == 0) {
    at += reload.size();
    ++order.reloads;
  }
  order.rest = commands.substr(at, reload.size());
  return order;
}

// The reloads that gave up because the lock was not had in 30 seconds. On a machine that is busy
// enough it is not: the lock has no queue.
std::uint64_t timeouts() {
  const std::string log = files::read("/run/syslog");
  std::uint64_t count = 0;
  for (std::size_t at = log.find("TIMEOUT: getting lock"); at != std::string::npos;
       at = log.find("TIMEOUT: getting lock", at + 1)) {
    ++count;
  }
  return count;
}

class ManyReloads : public testing::Test {
 protected:
  static void SetUpTestSuite() { figures::open("many-at-once/reloads"); }

  void SetUp() override {
    road::installSeedFiles();
    files::write("/run/syslog", "");
    FW::FWRULE rule;
    rule.policy = FW::FW_POLICY_DENY;
    rule.ipList = {"10.0.0.1"};
    rule.portGroup = 3;
    FW::FWPROFILE profile;
    profile.name = "office";
    profile.rules["global"] = {rule};
    ASSERT_TRUE(FW::TARNFW_PROFILE().profileSet("office", profile));
    ASSERT_TRUE(FW::TARNFW().fwProfileConfigSet("office", false));
    ASSERT_TRUE(FW::TARNFW().fwEnable());
    files::write(kCommands, "");
  }

  // Every call ended, none took too long, and what was run is one whole reload after the other.
  void expectWholeReloads(std::uint64_t calls) {
    EXPECT_EQ(calls, counts().succeeded + timeouts());
    EXPECT_EQ(0U, counts().threw);
    EXPECT_GE(counts().succeeded, calls * 9 / 10);
    EXPECT_LT(counts().longest, kLongestCall);
    const Order order = orderOf(files::read(kCommands));
    EXPECT_EQ(counts().succeeded, order.reloads);
    EXPECT_EQ("", order.rest);
    EXPECT_TRUE(road::executionLockIsFree());
  }

  void reload() {
    (void)crowd::call(counts(), [] { return FW::TARNFW().fwReload(true); });
  }

  crowd::Calls& counts() { return *counts_; }

 private:
  crowd::Shared<crowd::Calls> counts_;
};

TEST_F(ManyReloads, OfProcessesNeverInterleave) {
  constexpr int kProcesses = 16;
  const int each = 20 * figures::longer();
  const auto work = [&](int /*number*/) {
    for (int round = 0; round < each; ++round) reload();
    return std::string("done");
  };
  EXPECT_EQ("", crowd::others(crowd::run(kProcesses, patience(), work), "done"));
  expectWholeReloads(static_cast<std::uint64_t>(kProcesses) * static_cast<std::uint64_t>(each));
  figures::add(counts().all(), "reloads of 16 processes");
  figures::add(timeouts(), "timed out");
}

TEST_F(ManyReloads, OfThreadsNeverInterleave) {
  constexpr int kThreads = 4;
  const int each = 25 * figures::longer();
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([this, each] {
      for (int round = 0; round < each; ++round) reload();
    });
  }
  for (std::thread& thread : threads) thread.join();
  expectWholeReloads(static_cast<std::uint64_t>(kThreads) * static_cast<std::uint64_t>(each));
  figures::add(counts().all(), "reloads of 4 threads");
  figures::add(timeouts(), "timed out");
}

// Threads in several processes: the lock belongs to the open file, not to the process.
TEST_F(ManyReloads, OfThreadsOfProcessesNeverInterleave) {
  constexpr int kProcesses = 3;
  constexpr int kThreads = 3;
  const int each = 5 * figures::longer();
  const auto work = [&](int /*number*/) {
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
      threads.emplace_back([this, each] {
        for (int round = 0; round < each; ++round) reload();
      });
    }
    for (std::thread& thread : threads) thread.join();
    return std::string("done");
  };
  EXPECT_EQ("", crowd::others(crowd::run(kProcesses, patience(), work), "done"));
  expectWholeReloads(static_cast<std::uint64_t>(kProcesses * kThreads) *
                     static_cast<std::uint64_t>(each));
  figures::add(counts().all(), "of threads of 3 processes");
  figures::add(timeouts(), "timed out");
}

}  // namespace
