// A trial against the real packet filter: whose open connections it cuts and whose it keeps, what
// it loads on a firewall that is off, and how it leaves the built-in policies when it fails.

#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>

#include "lock.h"
#include "machine.h"
#include "network.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

namespace fs = std::filesystem;

using FW::FW_POLICY_ALLOW;
using FW::FW_POLICY_DENY;
using FW::FW_PROTO_TCP;
using FW::FWPROFILE;
using FW::FWRULE;
using FW::TARNFW;
using FW::TARNFW_PROFILE;

constexpr char kPlan[] = "/tmp/tool/plan";

// --- open connections ---

struct Path {
  const char* name;
  const char* from;
  const char* address;
};

constexpr std::array<Path, 8> kPaths = {{{"client>host", "client", "10.77.0.1"},
                                         {"client>host6", "client", "fd77::1"},
                                         {"client>lan", "client", "10.78.0.2"},
                                         {"lan>host", "lan", "10.78.0.1"},
                                         {"lan>host6", "lan", "fd78::1"},
                                         {"lan>client", "lan", "10.77.0.2"},
                                         {"host>client", "host", "10.77.0.2"},
                                         {"host>host", "host", "127.0.0.1"}}};

constexpr char kAll[] =
    " client>host client>host6 client>lan lan>host lan>host6 lan>client host>client host>host ";

// One open connection on each path.
class Connections {
 public:
  Connections() {
    for (std::size_t index = 0; index < kPaths.size(); ++index) {
      open_[index] =
          std::make_unique<road::Conversation>(kPaths[index].from, kPaths[index].address, 443);
    }
  }

  // The names of those that still answer. Those that `expected` names are waited for, the others
  // until the kernel has repeated what was said in vain.
  std::string alive(const std::string& expected) {
    std::array<bool, kPaths.size()> answers = {};
    std::vector<std::thread> threads;
    for (std::size_t index = 0; index < kPaths.size(); ++index) {
      const bool waitFor = expected.find(nameOf(index)) != std::string::npos;
      threads.emplace_back([this, index, waitFor, &answers] {
        answers[index] = waitFor ? open_[index]->answers() : !open_[index]->isDead();
      });
    }
    for (std::thread& thread : threads) thread.join();
    std::string text = " ";
    for (std::size_t index = 0; index < kPaths.size(); ++index) {
      if (answers[index]) text += nameOf(index).substr(1);
    }
    return text;
  }

 private:
  static std::string nameOf(std::size_t index) {
    return std::string(" ") + kPaths[index].name + " ";
  }

  std::array<std::unique_ptr<road::Conversation>, kPaths.size()> open_;
};

// --- the profiles that are tried ---

FWPROFILE openProfile() {
  FWPROFILE profile;
  profile.adapterPolicyMap = {{"eth0", FW_POLICY_ALLOW}, {"eth1", FW_POLICY_ALLOW}};
  return profile;
}

FWPROFILE closedAtEth0() {
  FWPROFILE profile;
  profile.adapterPolicyMap = {{"eth0", FW_POLICY_DENY}};
  return profile;
}

FWPROFILE closedEverywhere() {
  FWPROFILE profile;
  profile.adapterPolicyMap = {{"eth0", FW_POLICY_DENY}, {"eth1", FW_POLICY_DENY}};
  return profile;
}

// Closed everywhere, except for TCP 443 from one client.
FWPROFILE openForTheClient() {
  FWPROFILE profile = closedEverywhere();
  FWRULE rule;
  rule.ipList = {"10.77.0.2"};
  rule.portGroup = 1;
  rule.protocol = FW_PROTO_TCP;
  rule.portList = {"443"};
  profile.rules["eth0"] = {rule};
  return profile;
}

// The base chains, and the firewall on with a profile that lets everybody through.
class Trial : public road::RoadTest {
 protected:
  void SetUp() override {
    fs::remove_all("/tmp/tool");
    fs::create_directories("/tmp/tool");
    files::write(kPlan, "real *\n");
    road::RoadTest::SetUp();
    store(openProfile());
    ASSERT_TRUE(TARNFW().fwEnable());
    // Neighbours are known from here on: they are not what these tests are about.
    ASSERT_EQ(road::kEverybodyReachesEverybody,
              road::whoReachesWhom(road::kEverybodyReachesEverybody));
  }

  static bool tryOut(const FWPROFILE& profile, const std::optional<std::string>& address) {
    EXPECT_TRUE(TARNFW_PROFILE().CreateTestProfile("road", profile));
    return address ? TARNFW().TestApplyingProfile("road", *address)
                   : TARNFW().TestApplyingProfile("road");
  }

  road::Servers servers_;
};

// --- who is cut ---

struct CutRow {
  const char* name;
  FWPROFILE (*profile)();
  std::optional<std::string> address;
  std::string alive;

  friend void PrintTo(const CutRow& row, std::ostream* out) { *out << row.name; }
};

std::string cutRowName(const testing::TestParamInfo<CutRow>& info) { return info.param.name; }

class Cut : public Trial, public testing::WithParamInterface<CutRow> {};

// The connections outlive the trial: what it has cut goes on after the reload that ends it.
TEST_P(Cut, Row) {
  const CutRow& row = GetParam();
  Connections open;
  ASSERT_EQ(kAll, open.alive(kAll));
  EXPECT_TRUE(tryOut(row.profile(), row.address));
  EXPECT_EQ(row.alive, open.alive(row.alive));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ("on", road::status());
  EXPECT_TRUE(TARNFW().fwReload(true));
  EXPECT_EQ(kAll, open.alive(kAll));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Cut, testing::Values(
  CutRow{"WithoutAnAddressEverybodyTheProfileDoesNotLetIn", closedAtEth0, std::nullopt,
    " lan>host lan>host6 host>host "},
  CutRow{"EmptyAddressIsNone", closedAtEth0, "",
    " lan>host lan>host6 host>host "},
  CutRow{"WithoutAnAddressOnlyLoopbackIsLeftOfAClosedMachine", closedEverywhere, std::nullopt,
    " host>host "},
  CutRow{"OnlyTheClientThatTries", closedEverywhere, "10.77.0.2",
    " client>host6 lan>host lan>host6 host>host "},
  CutRow{"OnlyTheClientThatTriesOverIPv6", closedEverywhere, "fd77::2",
    " client>host client>lan lan>host lan>host6 lan>client host>client host>host "},
  CutRow{"AnotherClientThatTries", closedEverywhere, "10.78.0.2",
    " client>host client>host6 lan>host6 host>client host>host "},
  CutRow{"NobodyOfThatAddress", closedEverywhere, "10.77.0.99", kAll},
  CutRow{"NotTheOneThatTheProfileLetsIn", openForTheClient, "10.77.0.2",
    " client>host client>host6 client>lan lan>host lan>host6 host>host "}),
  cutRowName);
// clang-format on

// --- what is loaded ---

// clang-format off
constexpr char kV4WithoutState[] =
  "-N FIREWALL_RELOADING\n"
  "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
  "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n"
  "-N FORWARD_FIREWALL\n"
  "-A FORWARD_FIREWALL -i lo -j ACCEPT\n"
  "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
  "-N INPUT_FIREWALL\n"
  "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
  "-A INPUT_FIREWALL -i eth0 -j DROP\n";

constexpr char kV6WithoutState[] =
  "-N FIREWALL_RELOADING\n"
  "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
  "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n"
  "-N FORWARD_FIREWALL\n"
  "-A FORWARD_FIREWALL -i lo -j ACCEPT\n"
  "-A FORWARD_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 133 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 134 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 135 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 136 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 137 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
  "-N INPUT_FIREWALL\n"
  "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
  "-A INPUT_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 133 -j ACCEPT\n"
  "-A INPUT_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 134 -j ACCEPT\n"
  "-A INPUT_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 135 -j ACCEPT\n"
  "-A INPUT_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 136 -j ACCEPT\n"
  "-A INPUT_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 137 -j ACCEPT\n"
  "-A INPUT_FIREWALL -i eth0 -j DROP\n";

constexpr char kV4WithState[] =
  "-N FIREWALL_RELOADING\n"
  "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
  "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n"
  "-N FORWARD_FIREWALL\n"
  "-A FORWARD_FIREWALL -i lo -j ACCEPT\n"
  "-A FORWARD_FIREWALL ! -s 10.77.0.2/32 -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
  "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
  "-N INPUT_FIREWALL\n"
  "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
  "-A INPUT_FIREWALL ! -s 10.77.0.2/32 -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
  "-A INPUT_FIREWALL -i eth0 -j DROP\n";

constexpr char kNothingFromTheClient[] =
  "client > host    v4 -  v6 -\n"
  "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
  "road   > host    v4 tcp22 tcp80 udp53 ping\n"
  "client > lan     v4 -  v6 -\n"
  "lan    > client  v4 -  v6 -\n"
  "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
  "host   > client  v4 -  v6 -\n"
  "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n";
// clang-format on

TEST_F(Trial, WithoutAnAddressNoLineAsksForTheState) {
  EXPECT_TRUE(tryOut(closedAtEth0(), std::nullopt));
  EXPECT_EQ(kV4WithoutState, road::chains("iptables"));
  EXPECT_EQ(kV6WithoutState, road::chains("ip6tables"));
  EXPECT_EQ(kNothingFromTheClient, road::whoReachesWhom(kNothingFromTheClient));
  EXPECT_EQ("", road::libraryLog(""));
}

TEST_F(Trial, AnAddressIsLeftOutOfTheStateLinesOfItsFamily) {
  EXPECT_TRUE(tryOut(closedAtEth0(), "10.77.0.2"));
  EXPECT_EQ(kV4WithState, road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6("-A FORWARD_FIREWALL -i eth0 -j DROP\n"
                                       "-A INPUT_FIREWALL -i eth0 -j DROP\n"),
            road::chains("ip6tables"));
  EXPECT_EQ("", road::libraryLog(""));
}

TEST_F(Trial, OnADisabledFirewallTheRulesLoadAndItStaysOff) {
  ASSERT_TRUE(TARNFW().fwDisable());
  const std::string settings = files::read(files::kSettingsFile);
  EXPECT_TRUE(tryOut(closedAtEth0(), std::nullopt));
  EXPECT_EQ(kV4WithoutState, road::chains("iptables"));
  EXPECT_EQ(kV6WithoutState, road::chains("ip6tables"));
  EXPECT_EQ(kNothingFromTheClient, road::whoReachesWhom(kNothingFromTheClient));
  EXPECT_EQ(settings, files::read(files::kSettingsFile));
  EXPECT_EQ("off", road::status());
  // A reload leaves a disabled firewall alone; clearing ends the trial.
  EXPECT_TRUE(TARNFW().fwReload(true));
  EXPECT_EQ(kV4WithoutState, road::chains("iptables"));
  EXPECT_TRUE(TARNFW().fwClear());
  EXPECT_EQ(road::kEmptyChains, road::chains("iptables"));
  EXPECT_EQ(road::kEmptyChains, road::chains("ip6tables"));
}

TEST_F(Trial, AdoptedProfileIsLoadedByTheNextReload) {
  EXPECT_TRUE(tryOut(closedAtEth0(), "10.77.0.2"));
  EXPECT_TRUE(TARNFW_PROFILE().AdoptTestProfile("road"));
  EXPECT_TRUE(TARNFW_PROFILE().RemoveTestProfile("road"));
  EXPECT_TRUE(TARNFW().fwReload(true));
  EXPECT_EQ(road::chainsWithPreambleV4("-A FORWARD_FIREWALL -i eth0 -j DROP\n"
                                       "-A INPUT_FIREWALL -i eth0 -j DROP\n"),
            road::chains("iptables"));
}

// A trial neither waits for the execution lock nor takes it.
TEST_F(Trial, GoesOnWhileSomebodyHoldsTheExecutionLock) {
  int lock = -1;
  ASSERT_EQ(1, TLIBCFileLockTimeByFile("/tmp/firewall_iptables_exec.lock", /*mode=*/1,
                                       /*seconds=*/0, &lock));
  EXPECT_TRUE(tryOut(closedAtEth0(), std::nullopt));
  EXPECT_EQ(kV4WithoutState, road::chains("iptables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_NE(0, TLIBCFileUnlockByFile(lock));
}

// --- failures past the drop set ---

struct FailureRow {
  const char* name;
  const char* plan;
  void (*arrange)();
  std::optional<std::string> address;
  std::string log;
  const char* status;
  bool chainsAreEmpty;

  friend void PrintTo(const FailureRow& row, std::ostream* out) { *out << row.name; }
};

std::string failureRowName(const testing::TestParamInfo<FailureRow>& info) {
  return info.param.name;
}

class Failure : public Trial, public testing::WithParamInterface<FailureRow> {};

TEST_P(Failure, LeavesThePoliciesOpen) {
  const FailureRow& row = GetParam();
  ASSERT_TRUE(TARNFW_PROFILE().CreateTestProfile("road", closedAtEth0()));
  row.arrange();
  files::write(kPlan, std::string(row.plan) + "real *\n");
  EXPECT_FALSE(row.address ? TARNFW().TestApplyingProfile("road", *row.address)
                           : TARNFW().TestApplyingProfile("road"));
  EXPECT_EQ(row.log, road::libraryLog(row.log));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ(row.status, road::status());
  if (row.chainsAreEmpty) {
    EXPECT_EQ(road::kEmptyChains, road::chains("iptables"));
    EXPECT_EQ(road::kEmptyChains, road::chains("ip6tables"));
    EXPECT_EQ(road::kEverybodyReachesEverybody,
              road::whoReachesWhom(road::kEverybodyReachesEverybody));
  }
}

void nothing() {}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Failure, testing::Values(
  FailureRow{"NoTestProfile", "", [] { ASSERT_TRUE(TARNFW_PROFILE().RemoveTestProfile("road")); }, std::nullopt,
    "fwDB Failed to profileGet .test_road due to not exist\n"
    "tarnFW Failed to profileGet(.test_road)\n"
    "tarnFW Failed to fwIptablesRulesEnum()\n", "on", true},
  FailureRow{"NotAnAddress", "", nothing, "client",
    "fwIptables:661 Invalid input argument 'client' which is not an IP address.\n"
    "tarnFW Failed to fwRulesToIptablesRules()\n"
    "tarnFW Failed to fwIptablesRulesEnum()\n", "on", true},
  FailureRow{"ChainIsNotFlushed", "signal 9 ip6tables -F INPUT_FIREWALL\n", nothing, std::nullopt,
    "tarnFW Failed to execute /sbin/ip6tables\n"
    "tarnFW Failed to execute \"/sbin/ip6tables -F INPUT_FIREWALL\"\n"
    "tarnFW Failed to fwClear()\n", "on", false},
  FailureRow{"LineIsNotRun", "signal 9 iptables -t filter -A INPUT_FIREWALL -i eth0 -j DROP\n", nothing, std::nullopt,
    "tarnFW Failed to execute /sbin/iptables\n"
    "tarnFW Failed to execute \"/sbin/iptables -t filter -A INPUT_FIREWALL -i eth0 -j DROP\"\n"
    "tarnFW Failed to fwExec() so disable firewall\n", "off", true},
  FailureRow{"LineIsNotRunForAnAddress", "signal 11 ip6tables -A INPUT_FIREWALL -i lo -j ACCEPT\n", nothing, "10.77.0.2",
    "tarnFW Failed to execute /sbin/ip6tables\n"
    "tarnFW Failed to execute \"/sbin/ip6tables -A INPUT_FIREWALL -i lo -j ACCEPT\"\n"
    "tarnFW Failed to fwExec() so disable firewall\n", "off", true}),
  failureRowName);
// clang-format on

// A document that is not what it should be is an exception; it does not leave the machine shut.
TEST_F(Trial, ExceptionLeavesThePoliciesOpen) {
  files::write("/usr/tarn/etc/firewall.d/9.json",
               R"({"name": ".test_road", "adapterPolicyMap": {"eth0": "deny"}})");
  EXPECT_THROW((void)TARNFW().TestApplyingProfile("road"), Json::LogicError);
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ(road::kEmptyChains, road::chains("iptables"));
  EXPECT_EQ(road::kEmptyChains, road::chains("ip6tables"));
}

}  // namespace
