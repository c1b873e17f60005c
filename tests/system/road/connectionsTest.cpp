// What happens to connections: those that are open when the firewall is switched on or reloaded,
// those that are tried in the drop period, and everybody's after it is switched off.

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>

#include "machine.h"
#include "network.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

using FW::FW_POLICY_ALLOW;
using FW::FW_POLICY_DENY;
using FW::FW_POLICY_NONE;

// clang-format off

// Only the host's own connections.
constexpr char kOnlyTheHost[] =
  "client > host    v4 -  v6 -\n"
  "lan    > host    v4 -  v6 -\n"
  "road   > host    v4 -\n"
  "client > lan     v4 -  v6 -\n"
  "lan    > client  v4 -  v6 -\n"
  "road   > lan     v4 -\n"
  "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
  "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n";

constexpr char kNothingFromTheClient[] =
  "client > host    v4 -  v6 -\n"
  "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
  "road   > host    v4 tcp22 tcp80 udp53 ping\n"
  "client > lan     v4 -  v6 -\n"
  "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
  "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
  "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
  "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n";

constexpr char kDeniedFromTheClient[] =
  "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
  "-A INPUT_FIREWALL -i eth0 -j DROP\n";
// clang-format on

// Connections from the client to the host and through it, over both families, and to the host
// itself.
class Conversations {
 public:
  Conversations() {
    for (const char* address : {"10.77.0.1", "fd77::1", "10.78.0.2", "fd78::2"}) {
      all_.push_back(std::make_unique<road::Conversation>("client", address, 443));
    }
    for (const char* address : {"127.0.0.1", "::1"}) {
      all_.push_back(std::make_unique<road::Conversation>("host", address, 443));
    }
  }

  // How many of the six still answer.
  int alive() {
    int count = 0;
    for (const auto& conversation : all_) count += conversation->answers() ? 1 : 0;
    return count;
  }

 private:
  std::vector<std::unique_ptr<road::Conversation>> all_;
};

class Connections : public road::RoadTest {
 protected:
  void SetUp() override {
    road::RoadTest::SetUp();
    // Neighbours are known from here on: they are not what these tests are about.
    ASSERT_EQ(road::kEverybodyReachesEverybody,
              road::whoReachesWhom(road::kEverybodyReachesEverybody));
  }

  static void storeDenied() {
    FW::FWPROFILE profile;
    profile.adapterPolicyMap = {{"eth0", FW_POLICY_DENY}};
    store(profile);
  }

  road::Servers servers_;
};

TEST_F(Connections, OpenOnesSurviveTheFirstEnable) {
  Conversations open;
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());
  EXPECT_EQ(6, open.alive());
  EXPECT_EQ(kNothingFromTheClient, road::whoReachesWhom(kNothingFromTheClient));
  EXPECT_EQ(6, open.alive());
}

TEST_F(Connections, OpenOnesSurviveReloads) {
  Conversations open;
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());

  std::atomic<bool> done(false);
  int least = 6;
  int rounds = 0;
  std::thread talk([&] {
    while (!done) {
      least = std::min(least, open.alive());
      ++rounds;
    }
  });
  for (int reload = 0; reload < 5; ++reload) EXPECT_TRUE(FW::TARNFW().fwReload(true));
  done = true;
  talk.join();
  EXPECT_EQ(6, least);
  EXPECT_LT(0, rounds);
  EXPECT_EQ(road::chainsWithPreambleV4(kDeniedFromTheClient), road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6(kDeniedFromTheClient), road::chains("ip6tables"));
}

// The connection-state lines are what keeps them: without, the default of the adapter has them.
TEST_F(Connections, OpenOnesDieInAReloadWithoutState) {
  road::Conversation toLan("client", "10.78.0.2", 443);
  road::Conversation loopback("host", "127.0.0.1", 443);
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());
  EXPECT_TRUE(toLan.answers());
  EXPECT_TRUE(FW::TARNFW().fwReload(false));
  EXPECT_TRUE(loopback.answers());
  EXPECT_TRUE(toLan.isDead());
}

TEST_F(Connections, NewOnesAreDroppedInTheDropPeriod) {
  Conversations open;
  EXPECT_TRUE(FW::TARNFW().fwEnable());
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));

  // The drop set alone: the chains still hold the rules of before.
  EXPECT_TRUE(FW::TARNFW().fwDefaultDrop());
  EXPECT_EQ("iptables INPUT DROP FORWARD DROP ip6tables INPUT DROP FORWARD DROP", road::policies());
  EXPECT_EQ(kOnlyTheHost, road::whoReachesWhom(kOnlyTheHost));
  EXPECT_EQ(6, open.alive());

  // The chains flushed as well: what lives now lives by FIREWALL_RELOADING.
  EXPECT_TRUE(FW::TARNFW().fwClear());
  EXPECT_EQ(kOnlyTheHost, road::whoReachesWhom(kOnlyTheHost));
  EXPECT_EQ(6, open.alive());

  EXPECT_TRUE(FW::TARNFW().fwDefaultAccept());
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ(road::kEmptyChains, road::chains("iptables"));
  EXPECT_EQ(road::kEmptyChains, road::chains("ip6tables"));
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));
}

TEST_F(Connections, DisableOpensEverything) {
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());
  EXPECT_EQ(kNothingFromTheClient, road::whoReachesWhom(kNothingFromTheClient));

  EXPECT_TRUE(FW::TARNFW().fwDisable());
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));
  EXPECT_EQ(road::kEmptyChains, road::chains("iptables"));
  EXPECT_EQ(road::kEmptyChains, road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ("off", road::status());

  // And a reload leaves it at that.
  EXPECT_TRUE(FW::TARNFW().fwReload(true));
  EXPECT_EQ(road::kEmptyChains, road::chains("iptables"));
  EXPECT_EQ("", road::libraryLog(""));
}

TEST_F(Connections, AnotherProfileReplacesTheRules) {
  FW::FWPROFILE home;
  home.name = "home";
  home.adapterPolicyMap = {{"eth1", FW_POLICY_ALLOW}};
  ASSERT_TRUE(FW::TARNFW_PROFILE().profileSet("home", home));
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());
  EXPECT_EQ(kNothingFromTheClient, road::whoReachesWhom(kNothingFromTheClient));

  constexpr char kHome[] =
      "-A FORWARD_FIREWALL -i eth1 -j RETURN\n"
      "-A INPUT_FIREWALL -i eth1 -j RETURN\n";
  EXPECT_TRUE(FW::TARNFW().fwProfileConfigSet("home", true));
  EXPECT_EQ(road::chainsWithPreambleV4(kHome), road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6(kHome), road::chains("ip6tables"));
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));
}

TEST_F(Connections, ProfileThatDoesNotCompileLeavesTheMachineOpen) {
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());
  FW::FWPROFILE broken;
  broken.adapterPolicyMap = {{"eth0", static_cast<FW::FW_POLICY>(7)}};
  store(broken);

  EXPECT_FALSE(FW::TARNFW().fwReload(true));
  EXPECT_EQ(road::kEmptyChains, road::chains("iptables"));
  EXPECT_EQ(road::kEmptyChains, road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ("on", road::status());
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));
}

TEST_F(Connections, ProfileThatThrowsLeavesTheMachineOpen) {
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());
  // The name sorts before that of the stored profile, so that this is the profile "road" now.
  files::writeProfile("0", "road", R"({"eth0": [{"ipGroup": "any"}]})");

  EXPECT_THROW(FW::TARNFW().fwReload(true), Json::LogicError);
  EXPECT_EQ(road::kEmptyChains, road::chains("iptables"));
  EXPECT_EQ(road::kEmptyChains, road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ("on", road::status());
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));
}

// How many packets each rule has seen, and the rule, for those that begin with `beginning`:
// "1 -A INPUT_FIREWALL -i eth0 -j LOG".
std::string packets(const std::string& tool, const std::string& beginning) {
  return road::output(tool + "-save -c | sed -nE 's/^\\[([0-9]+):[0-9]+\\] (-A " + beginning +
                      " .*)/\\1 \\2/p'");
}

TEST_F(Connections, LoggedRulesCount) {
  FW::FWRULE rule;
  rule.policy = FW_POLICY_DENY;
  rule.blLog = true;
  rule.ipType = 2;
  rule.ipGroup = 5;
  rule.portGroup = 1;
  rule.protocol = FW::FW_PROTO_UDP;
  rule.portList = {"53"};
  FW::FWPROFILE profile;
  profile.rules["eth0"] = {rule};
  profile.adapterPolicyMap = {{"eth0", FW_POLICY_NONE}};
  store(profile);
  EXPECT_TRUE(FW::TARNFW().fwEnable());

  EXPECT_FALSE(road::udpAnswers("client", "10.77.0.1", 53));
  EXPECT_FALSE(road::udpAnswers("client", "10.77.0.1", 53));
  EXPECT_TRUE(road::udpAnswers("client", "10.77.0.1", 123));
  EXPECT_FALSE(road::udpAnswers("client", "10.78.0.2", 53));
  EXPECT_FALSE(road::udpAnswers("client", "fd77::1", 53));
  EXPECT_FALSE(road::udpAnswers("client", "fd77::1", 53));
  EXPECT_FALSE(road::udpAnswers("client", "fd77::1", 53));

  // clang-format off
  EXPECT_EQ(
    "2 -A INPUT_FIREWALL -i eth0 -p udp -m udp --dport 53 -j LOG\n"
    "2 -A INPUT_FIREWALL -i eth0 -p udp -m udp --dport 53 -j DROP\n", packets("iptables", "INPUT_FIREWALL -i eth0"));
  EXPECT_EQ(
    "1 -A FORWARD_FIREWALL -i eth0 -p udp -m udp --dport 53 -j LOG\n"
    "1 -A FORWARD_FIREWALL -i eth0 -p udp -m udp --dport 53 -j DROP\n", packets("iptables", "FORWARD_FIREWALL -i eth0"));
  EXPECT_EQ(
    "3 -A INPUT_FIREWALL -i eth0 -p udp -m udp --dport 53 -j LOG\n"
    "3 -A INPUT_FIREWALL -i eth0 -p udp -m udp --dport 53 -j DROP\n", packets("ip6tables", "INPUT_FIREWALL -i eth0"));
  // clang-format on
}

// The client forgets the host and asks for it again: the answers come although all else is dropped.
TEST_F(Connections, NeighbourDiscoverySurvivesADenyingDefault) {
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());

  ASSERT_EQ("", road::output("ip netns exec client ip -6 neighbour flush dev c0"));
  EXPECT_FALSE(road::udpAnswers("client", "fd77::1", 123));
  const std::string neighbour =
      road::output("ip netns exec client ip -6 neighbour show fd77::1 dev c0");
  EXPECT_NE(std::string::npos, neighbour.find("lladdr")) << neighbour;

  // And the other way: the host asks for the client.
  ASSERT_EQ("", road::output("ip -6 neighbour flush dev eth0"));
  EXPECT_TRUE(road::udpAnswers("host", "fd77::2", 123));
}

// The rule of the drop period is missing with its chain; all the rest works, and open connections
// are kept by the profile's own rules outside the drop period.
TEST_F(Connections, NoChainForReloading) {
  for (const std::string tool : {"iptables", "ip6tables"}) {
    ASSERT_EQ("", road::output(tool + " -F FIREWALL_RELOADING"));
    ASSERT_EQ("", road::output(tool + " -D INPUT -j FIREWALL_RELOADING"));
    ASSERT_EQ("", road::output(tool + " -D FORWARD -j FIREWALL_RELOADING"));
    ASSERT_EQ("", road::output(tool + " -X FIREWALL_RELOADING"));
  }
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());
  EXPECT_EQ("on", road::status());
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ(kNothingFromTheClient, road::whoReachesWhom(kNothingFromTheClient));
  EXPECT_EQ("", road::libraryLog(""));
  EXPECT_TRUE(FW::TARNFW().fwDisable());
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));
}

// Without the firewall's own chains every line is refused, and the machine stays open.
TEST_F(Connections, NoFirewallChains) {
  for (const std::string tool : {"iptables", "ip6tables"}) {
    ASSERT_EQ("", road::output(tool + " -F"));
    ASSERT_EQ("", road::output(tool + " -X"));
  }
  storeDenied();
  EXPECT_TRUE(FW::TARNFW().fwEnable());
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ(road::kEverybodyReachesEverybody,
            road::whoReachesWhom(road::kEverybodyReachesEverybody));
  EXPECT_EQ("", road::libraryLog(""));
}

}  // namespace
