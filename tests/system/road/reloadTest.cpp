// A reload stopped half-way, by a tool that waits: who gets through at each stage, and what a
// reload that is killed there leaves to the next one.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "machine.h"
#include "network.h"
#include "processes.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

namespace fs = std::filesystem;

constexpr char kPlan[] = "/tmp/tool/plan";
constexpr char kWaiting[] = "/tmp/tool/waiting";

struct Row {
  const char* name;
  const char* command;  // the reload stops before it
  const char* reach;

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

std::string rowName(const testing::TestParamInfo<Row>& info) { return info.param.name; }

// Switched on with a profile that lets everybody through.
class StoppedReload : public road::RoadTest, public testing::WithParamInterface<Row> {
 protected:
  void SetUp() override {
    fs::remove_all("/tmp/tool");
    fs::create_directories("/tmp/tool");
    files::write(kPlan, "real *\n");
    road::RoadTest::SetUp();
    FW::FWPROFILE profile;
    profile.adapterPolicyMap = {{"eth0", FW::FW_POLICY_ALLOW}};
    store(profile);
    ASSERT_TRUE(FW::TARNFW().fwEnable());
    ASSERT_EQ(road::kEverybodyReachesEverybody,
              road::whoReachesWhom(road::kEverybodyReachesEverybody));
  }

  static void stopBefore(const std::string& command) {
    files::write(kPlan, "wait " + command + "\nreal *\n");
  }

  static bool isStopped() {
    return processes::eventually([] { return fs::exists(kWaiting); });
  }

  static void goOn() {
    files::write(kPlan, "real *\n");
    fs::remove(kWaiting);
  }

  road::Servers servers_;
};

TEST_P(StoppedReload, LetsThrough) {
  std::vector<std::unique_ptr<road::Conversation>> open;
  for (const char* address : {"10.77.0.1", "fd77::1", "10.78.0.2", "fd78::2"}) {
    open.push_back(std::make_unique<road::Conversation>("client", address, 443));
  }
  stopBefore(GetParam().command);
  bool result = false;
  std::thread reload([&result] { result = FW::TARNFW().fwReload(true); });
  EXPECT_TRUE(isStopped());
  EXPECT_EQ(GetParam().reach, road::whoReachesWhom(GetParam().reach));
  for (const auto& conversation : open) EXPECT_TRUE(conversation->answers());

  goOn();
  reload.join();
  EXPECT_TRUE(result);
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));
}

// clang-format off
constexpr char kOnlyTheHost[] =
  "client > host    v4 -  v6 -\n"
  "lan    > host    v4 -  v6 -\n"
  "road   > host    v4 -\n"
  "client > lan     v4 -  v6 -\n"
  "lan    > client  v4 -  v6 -\n"
  "road   > lan     v4 -\n"
  "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
  "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n";

constexpr char kOnlyTheHostInV6[] =
  "client > host    v4 tcp22 tcp80 udp53 ping  v6 -\n"
  "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 -\n"
  "road   > host    v4 tcp22 tcp80 udp53 ping\n"
  "client > lan     v4 tcp22 tcp80 udp53 ping  v6 -\n"
  "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 -\n"
  "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
  "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
  "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n";

INSTANTIATE_TEST_SUITE_P(Table, StoppedReload, testing::Values(
  Row{"BeforeTheDropSet", "iptables --policy INPUT DROP", road::kEverybodyReachesEverybody},
  Row{"BetweenTheFamilies", "ip6tables --policy INPUT DROP",
    "client > host    v4 -  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > host    v4 -  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 -\n"
    "client > lan     v4 -  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > client  v4 -  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 -\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"BeforeTheFlush", "iptables -F INPUT_FIREWALL", kOnlyTheHost},
  Row{"BeforeTheFirstRule", "iptables -A INPUT_FIREWALL -i lo -j ACCEPT", kOnlyTheHost},
  Row{"BeforeTheLastRule", "ip6tables -t filter -A INPUT_FIREWALL -i eth0 -j RETURN", kOnlyTheHost},
  Row{"BeforeTheAcceptSet", "iptables --policy INPUT ACCEPT", kOnlyTheHost},
  Row{"BetweenTheFamiliesAgain", "ip6tables --policy INPUT ACCEPT", kOnlyTheHostInV6}),
  rowName);
// clang-format on

// A process that is killed cannot open anything; the next reload does, and its lock is free. One
// accept rule of the drop period stays behind: it is the mark by which a recovery knows what
// happened.
TEST_F(StoppedReload, KilledOneLeavesTheNextOneToOpen) {
  stopBefore("ip6tables -F FORWARD_FIREWALL");
  const pid_t reload = fork();
  if (reload == 0) _exit(FW::TARNFW().fwReload(true) ? 0 : 1);
  EXPECT_TRUE(isStopped());
  ASSERT_EQ(0, kill(reload, SIGKILL));
  ASSERT_EQ(reload, waitpid(reload, nullptr, 0));
  EXPECT_EQ(kOnlyTheHost, road::whoReachesWhom(kOnlyTheHost));
  goOn();

  EXPECT_TRUE(FW::TARNFW().fwReload(true));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));
  for (const std::string tool : {"iptables", "ip6tables"}) {
    EXPECT_EQ(
        "-N FIREWALL_RELOADING\n"
        "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
        "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n"
        "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n",
        road::output(tool + " -S FIREWALL_RELOADING"));
  }
}

}  // namespace
