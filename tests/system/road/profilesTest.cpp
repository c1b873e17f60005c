// Profiles on the road from the store to the kernel: what is stored, the rules that the real tools
// then list, and which packets pass.

#include <ostream>
#include <string>

#include "machine.h"
#include "network.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

using FW::FW_POLICY_ALLOW;
using FW::FW_POLICY_DENY;
using FW::FW_POLICY_NONE;
using FW::FWPROFILE;
using FW::FWRULE;

struct Row {
  const char* name;
  void (*fill)(FWPROFILE& profile);
  std::string v4;  // the rules after the preamble
  std::string v6;
  std::string reach;

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

class Profiles : public road::RoadTest, public testing::WithParamInterface<Row> {
 protected:
  road::Servers servers_;
};

TEST_P(Profiles, ReachTheKernel) {
  const Row& row = GetParam();
  FWPROFILE profile;
  row.fill(profile);
  store(profile);

  EXPECT_TRUE(FW::TARNFW().fwEnable());
  EXPECT_EQ(road::chainsWithPreambleV4(row.v4), road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6(row.v6), road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ(row.reach, road::whoReachesWhom(row.reach));
  EXPECT_EQ("", road::libraryLog(""));
  EXPECT_EQ("on", road::status());
}

std::string rowName(const testing::TestParamInfo<Row>& info) { return info.param.name; }

// A rule for every address and every port, of both families.
FWRULE everything(FW::FW_POLICY policy) {
  FWRULE rule;
  rule.policy = policy;
  rule.ipType = 2;
  rule.ipGroup = 5;
  rule.portGroup = 3;
  return rule;
}

// A rule for ports of one protocol and every address, of both families.
FWRULE ports(FW::FW_POLICY policy, FW::FW_PORT_PROTOCOL protocol,
             const std::vector<std::string>& list) {
  FWRULE rule = everything(policy);
  rule.portGroup = 1;
  rule.protocol = protocol;
  rule.portList = list;
  return rule;
}

// A rule for named services and every address, of both families.
FWRULE services(FW::FW_POLICY policy, const std::vector<std::string>& names) {
  FWRULE rule = everything(policy);
  rule.portGroup = 0;
  rule.portList = names;
  return rule;
}

// A rule for IPv4 addresses and every port.
FWRULE addresses(FW::FW_POLICY policy, int group, const std::vector<std::string>& list) {
  FWRULE rule = everything(policy);
  rule.ipType = 0;
  rule.ipGroup = group;
  rule.ipList = list;
  return rule;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Defaults, Profiles, testing::Values(
  Row{"NoRules", [](FWPROFILE&) {}, "", "", road::kEverybodyReachesEverybody},
  Row{"DenyOnOneAdapter", [](FWPROFILE& profile) { profile.adapterPolicyMap = {{"eth0", FW_POLICY_DENY}}; },
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "client > host    v4 -  v6 -\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 -  v6 -\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"DenyOnEveryAdapter", [](FWPROFILE& profile) { profile.adapterPolicyMap = {{"eth0", FW_POLICY_DENY}, {"eth1", FW_POLICY_DENY}, {"tun0", FW_POLICY_DENY}}; },
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth1 -j DROP\n"
    "-A FORWARD_FIREWALL -i tun0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth1 -j DROP\n"
    "-A INPUT_FIREWALL -i tun0 -j DROP\n",
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth1 -j DROP\n"
    "-A FORWARD_FIREWALL -i tun0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth1 -j DROP\n"
    "-A INPUT_FIREWALL -i tun0 -j DROP\n",
    "client > host    v4 -  v6 -\n"
    "lan    > host    v4 -  v6 -\n"
    "road   > host    v4 -\n"
    "client > lan     v4 -  v6 -\n"
    "lan    > client  v4 -  v6 -\n"
    "road   > lan     v4 -\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"AllowOnOneAdapter", [](FWPROFILE& profile) { profile.adapterPolicyMap = {{"eth0", FW_POLICY_ALLOW}}; },
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    road::kEverybodyReachesEverybody},
  Row{"AdaptersThatAreNotThere", [](FWPROFILE& profile) { profile.adapterPolicyMap = {{"eth9", FW_POLICY_DENY}, {"ppp0", FW_POLICY_DENY}, {"pppoe", FW_POLICY_DENY}}; profile.rules["eth9"] = {everything(FW_POLICY_DENY)}; },
    "", "", road::kEverybodyReachesEverybody}),
  rowName);

INSTANTIATE_TEST_SUITE_P(Rules, Profiles, testing::Values(
  Row{"SshFromOneNetOnly", [](FWPROFILE& profile) {
      FWRULE rule = ports(FW_POLICY_ALLOW, FW::FW_PROTO_TCP, {"22"});
      rule.ipType = 0;
      rule.ipGroup = 1;
      rule.ipList = {"10.77.0.0", "24"};
      profile.rules["eth0"] = {rule};
      profile.adapterPolicyMap = {{"eth0", FW_POLICY_DENY}};
    },
    "-A FORWARD_FIREWALL -s 10.77.0.0/24 -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -s 10.77.0.0/24 -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "client > host    v4 tcp22  v6 -\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 tcp22  v6 -\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"FirstRuleThatMatchesDecides", [](FWPROFILE& profile) {
      profile.rules["eth0"] = {ports(FW_POLICY_DENY, FW::FW_PROTO_TCP, {"22"}), ports(FW_POLICY_ALLOW, FW::FW_PROTO_TCP, {"22", "80"}), ports(FW_POLICY_DENY, FW::FW_PROTO_TCP, {"80"})};
    },
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m multiport --dports 22,80 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m multiport --dports 22,80 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m multiport --dports 22,80 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m multiport --dports 22,80 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    "client > host    v4 tcp80 udp53 ping  v6 tcp80 udp53 ping\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 tcp80 udp53 ping  v6 tcp80 udp53 ping\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"GlobalAppliesToEveryAdapterAndNotToLoopback", [](FWPROFILE& profile) { profile.rules["global"] = {ports(FW_POLICY_DENY, FW::FW_PROTO_TCP_UDP, {"80", "53"})}; },
    "-A FORWARD_FIREWALL -p tcp -m multiport --dports 80,53 -j DROP\n"
    "-A FORWARD_FIREWALL -p udp -m multiport --dports 80,53 -j DROP\n"
    "-A INPUT_FIREWALL -p tcp -m multiport --dports 80,53 -j DROP\n"
    "-A INPUT_FIREWALL -p udp -m multiport --dports 80,53 -j DROP\n",
    "-A FORWARD_FIREWALL -p tcp -m multiport --dports 80,53 -j DROP\n"
    "-A FORWARD_FIREWALL -p udp -m multiport --dports 80,53 -j DROP\n"
    "-A INPUT_FIREWALL -p tcp -m multiport --dports 80,53 -j DROP\n"
    "-A INPUT_FIREWALL -p udp -m multiport --dports 80,53 -j DROP\n",
    "client > host    v4 tcp22 ping  v6 tcp22 ping\n"
    "lan    > host    v4 tcp22 ping  v6 tcp22 ping\n"
    "road   > host    v4 tcp22 ping\n"
    "client > lan     v4 tcp22 ping  v6 tcp22 ping\n"
    "lan    > client  v4 tcp22 ping  v6 tcp22 ping\n"
    "road   > lan     v4 tcp22 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"Ipv6Only", [](FWPROFILE& profile) {
      FWRULE rule = ports(FW_POLICY_ALLOW, FW::FW_PROTO_TCP, {"22"});
      rule.ipType = 1;
      rule.ipGroup = 1;
      rule.ipList = {"fd77::", "64"};
      profile.rules["eth0"] = {rule};
      profile.adapterPolicyMap = {{"eth0", FW_POLICY_DENY}};
    },
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "-A FORWARD_FIREWALL -s fd77::/64 -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -s fd77::/64 -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "client > host    v4 -  v6 tcp22\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 -  v6 tcp22\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"Pings", [](FWPROFILE& profile) { profile.rules["eth0"] = {ports(FW_POLICY_ALLOW, FW::FW_PROTO_ICMP, {})}; profile.adapterPolicyMap = {{"eth0", FW_POLICY_DENY}}; },
    "-A FORWARD_FIREWALL -i eth0 -p icmp -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p icmp -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "-A FORWARD_FIREWALL -i eth0 -p ipv6-icmp -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p ipv6-icmp -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "client > host    v4 ping  v6 ping\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 ping  v6 ping\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"ServicesOfTheShippedTable", [](FWPROFILE& profile) {
      FWRULE reserved = services(FW_POLICY_ALLOW, {"dns"});
      reserved.portGroup = 2;
      profile.rules["eth0"] = {services(FW_POLICY_ALLOW, {"ssh", "no such service"}), reserved};
      profile.adapterPolicyMap = {{"eth0", FW_POLICY_DENY}};
    },
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 53 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -p udp -m udp --dport 53 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 53 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p udp -m udp --dport 53 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 53 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -p udp -m udp --dport 53 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 53 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p udp -m udp --dport 53 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j DROP\n",
    "client > host    v4 tcp22 udp53  v6 tcp22 udp53\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 tcp22 udp53  v6 tcp22 udp53\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"NinePortsAndARangeInTwoGroups", [](FWPROFILE& profile) { profile.rules["eth0"] = {ports(FW_POLICY_DENY, FW::FW_PROTO_TCP, {"1", "2", "3", "4", "5", "6", "7", "8", "9", "20-25"})}; },
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m multiport --dports 1,2,3,4,5,6,7 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m multiport --dports 8,9,20:25 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m multiport --dports 1,2,3,4,5,6,7 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m multiport --dports 8,9,20:25 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m multiport --dports 1,2,3,4,5,6,7 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m multiport --dports 8,9,20:25 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m multiport --dports 1,2,3,4,5,6,7 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m multiport --dports 8,9,20:25 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    "client > host    v4 tcp80 udp53 ping  v6 tcp80 udp53 ping\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 tcp80 udp53 ping  v6 tcp80 udp53 ping\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"SourcePorts", [](FWPROFILE& profile) {
      FWRULE rule = ports(FW_POLICY_DENY, FW::FW_PROTO_UDP, {"10000-32000"});
      rule.portDirect = 1;
      profile.rules["eth1"] = {rule};
    },
    "-A FORWARD_FIREWALL -i eth1 -p udp -m multiport --sports 10000:32000 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth1 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth1 -p udp -m multiport --sports 10000:32000 -j DROP\n"
    "-A INPUT_FIREWALL -i eth1 -j RETURN\n",
    "-A FORWARD_FIREWALL -i eth1 -p udp -m multiport --sports 10000:32000 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth1 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth1 -p udp -m multiport --sports 10000:32000 -j DROP\n"
    "-A INPUT_FIREWALL -i eth1 -j RETURN\n",
    "client > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > host    v4 tcp22 tcp80 ping  v6 tcp22 tcp80 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > client  v4 tcp22 tcp80 ping  v6 tcp22 tcp80 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"OneAddressAndARange", [](FWPROFILE& profile) { profile.rules["global"] = {addresses(FW_POLICY_DENY, 0, {"10.77.0.2"}), addresses(FW_POLICY_DENY, 4, {"10.79.0.1", "10.79.0.9"})}; },
    "-A FORWARD_FIREWALL -s 10.77.0.2/32 -j DROP\n"
    "-A FORWARD_FIREWALL -m iprange --src-range 10.79.0.1-10.79.0.9 -j DROP\n"
    "-A INPUT_FIREWALL -s 10.77.0.2/32 -j DROP\n"
    "-A INPUT_FIREWALL -m iprange --src-range 10.79.0.1-10.79.0.9 -j DROP\n", "",
    "client > host    v4 -  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 -\n"
    "client > lan     v4 -  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 -\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"DestinationAndOutgoingInterface", [](FWPROFILE& profile) {
      FWRULE destination = addresses(FW_POLICY_DENY, 0, {"10.78.0.2"});
      destination.ipDirect = 0;
      FWRULE outgoing = ports(FW_POLICY_DENY, FW::FW_PROTO_TCP, {"80"});
      outgoing.adapterDirect = 0;
      profile.rules["global"] = {destination};
      profile.rules["eth0"] = {outgoing};
    },
    "-A FORWARD_FIREWALL -d 10.78.0.2/32 -j DROP\n"
    "-A FORWARD_FIREWALL -o eth0 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -d 10.78.0.2/32 -j DROP\n"
    "-A INPUT_FIREWALL -o eth0 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    "-A FORWARD_FIREWALL -o eth0 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -o eth0 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    "client > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 -  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > client  v4 tcp22 udp53 ping  v6 tcp22 udp53 ping\n"
    "road   > lan     v4 -\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"VpnIsEveryTunnelButTheReservedOne", [](FWPROFILE& profile) { profile.rules["vpn"] = {ports(FW_POLICY_DENY, FW::FW_PROTO_TCP, {"22"})}; profile.adapterPolicyMap = {{"vpn", FW_POLICY_NONE}}; },
    "-A FORWARD_FIREWALL -i tun0 -p tcp -m tcp --dport 22 -j DROP\n"
    "-A INPUT_FIREWALL -i tun0 -p tcp -m tcp --dport 22 -j DROP\n",
    "-A FORWARD_FIREWALL -i tun0 -p tcp -m tcp --dport 22 -j DROP\n"
    "-A INPUT_FIREWALL -i tun0 -p tcp -m tcp --dport 22 -j DROP\n",
    "client > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp80 udp53 ping\n"
    "client > lan     v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  Row{"DisabledAndUndecidedRules", [](FWPROFILE& profile) {
      FWRULE disabled = everything(FW_POLICY_DENY);
      disabled.enable = false;
      profile.rules["eth0"] = {disabled, everything(FW_POLICY_NONE)};
    },
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    "-A FORWARD_FIREWALL -i eth0 -j RETURN\n"
    "-A INPUT_FIREWALL -i eth0 -j RETURN\n",
    road::kEverybodyReachesEverybody},
  Row{"LoggedRuleHasTwoLines", [](FWPROFILE& profile) {
      FWRULE rule = ports(FW_POLICY_DENY, FW::FW_PROTO_TCP, {"80"});
      rule.blLog = true;
      profile.rules["eth1"] = {rule};
      profile.adapterPolicyMap = {{"eth1", FW_POLICY_NONE}};
    },
    "-A FORWARD_FIREWALL -i eth1 -p tcp -m tcp --dport 80 -j LOG\n"
    "-A FORWARD_FIREWALL -i eth1 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A INPUT_FIREWALL -i eth1 -p tcp -m tcp --dport 80 -j LOG\n"
    "-A INPUT_FIREWALL -i eth1 -p tcp -m tcp --dport 80 -j DROP\n",
    "-A FORWARD_FIREWALL -i eth1 -p tcp -m tcp --dport 80 -j LOG\n"
    "-A FORWARD_FIREWALL -i eth1 -p tcp -m tcp --dport 80 -j DROP\n"
    "-A INPUT_FIREWALL -i eth1 -p tcp -m tcp --dport 80 -j LOG\n"
    "-A INPUT_FIREWALL -i eth1 -p tcp -m tcp --dport 80 -j DROP\n",
    "client > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > host    v4 tcp22 udp53 ping  v6 tcp22 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > client  v4 tcp22 udp53 ping  v6 tcp22 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"},
  // The tools refuse a port that is none, a table that has no such chain and a match that this kernel
  // lacks; the other rules stand.
  Row{"RefusedLinesAreLeftOut", [](FWPROFILE& profile) {
      files::write("/usr/share/xt_geoip/DE.iv4", std::string(8, '\x01'));
      FWRULE otherTable = everything(FW_POLICY_DENY);
      otherTable.table = "mangle";
      profile.rules["eth0"] = {ports(FW_POLICY_DENY, FW::FW_PROTO_TCP, {"70000"}), otherTable, addresses(FW_POLICY_DENY, 3, {"DE"}), ports(FW_POLICY_DENY, FW::FW_PROTO_TCP, {"22"})};
      profile.adapterPolicyMap = {{"eth0", FW_POLICY_NONE}};
    },
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j DROP\n",
    "-A FORWARD_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j DROP\n"
    "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 22 -j DROP\n",
    "client > host    v4 tcp80 udp53 ping  v6 tcp80 udp53 ping\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 tcp80 udp53 ping  v6 tcp80 udp53 ping\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"}),
  rowName);
// clang-format on

}  // namespace
