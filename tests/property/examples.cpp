#include <functional>
#include <utility>

#include "reasons.h"

namespace property {
namespace {

using FW::FW_POLICY;
using FW::FW_POLICY_ALLOW;
using FW::FW_POLICY_DENY;
using FW::FW_POLICY_NONE;
using FW::FWPROFILE;
using FW::FWRULE;

using Policies = FW::AdapterPolicyMap;
using Rules = FW::RuleList;

// A rule for every address and every port.
FWRULE every(FW_POLICY policy, const std::function<void(FWRULE&)>& change = {}) {
  FWRULE rule;
  rule.policy = policy;
  rule.ipType = 2;
  rule.ipGroup = 5;
  rule.portGroup = 3;
  if (change) change(rule);
  return rule;
}

// A rule for one address and every port.
FWRULE some(FW_POLICY policy, const std::function<void(FWRULE&)>& change = {}) {
  FWRULE rule;
  rule.policy = policy;
  rule.ipGroup = 0;
  rule.ipList = {"10.77.0.2"};
  rule.portGroup = 3;
  if (change) change(rule);
  return rule;
}

std::function<void(FWRULE&)> ports(FW::FW_PORT_PROTOCOL protocol, const std::string& list,
                                   int direction = 0) {
  return [=](FWRULE& rule) {
    rule.portGroup = 1;
    rule.protocol = protocol;
    rule.portDirect = direction;
    rule.portList = {list};
  };
}

// The verdict of `adapter` on TCP port 21, unless something else is asked.
Case ask(const std::string& adapter, Rules rules, Policies policies,
         const FW::PortCompareST& port = {0, FW::FW_PROTO_TCP, "21"}) {
  FWPROFILE profile;
  profile.name = "property";
  profile.rules = std::move(rules);
  profile.adapterPolicyMap = std::move(policies);
  return {profile, {port, adapter}, adapter};
}

constexpr FW_POLICY kAllow = FW_POLICY_ALLOW;
constexpr FW_POLICY kDeny = FW_POLICY_DENY;
constexpr FW_POLICY kNone = FW_POLICY_NONE;
constexpr FW::FW_PORT_PROTOCOL kTcpOnly = FW::FW_PROTO_TCP;
constexpr FW::FW_PORT_PROTOCOL kUdpOnly = FW::FW_PROTO_UDP;
constexpr FW::FW_PORT_PROTOCOL kTcpAndUdp = FW::FW_PROTO_TCP_UDP;

std::vector<Example> makeExamples() {
  const auto oneFamily = [](FWRULE& rule) { rule.ipType = 0; };
  const auto outgoing = [](FWRULE& rule) { rule.adapterDirect = 0; };
  const auto otherTable = [](FWRULE& rule) { rule.table = "mangle"; };
  const auto toTheMachine = [](FWRULE& rule) {
    rule.ipDirect = 0;
    rule.ipList = {"10.77.0.1"};
  };
  const auto toTheMachineOverIPv6 = [](FWRULE& rule) {
    rule.ipDirect = 0;
    rule.ipType = 1;
    rule.ipList = {"fd77::1"};
  };
  const auto country = [](FWRULE& rule) {
    rule.ipGroup = 3;
    rule.ipList = {"DE"};
  };
  const auto wholeSubnet = [](FWRULE& rule) {
    rule.ipGroup = 1;
    rule.ipList = {"10.77.0.0", "24"};
  };
  const auto allOfIPv4 = [](FWRULE& rule) {
    rule.ipGroup = 1;
    rule.ipList = {"0.0.0.0", "0"};
  };
  const auto allOfIPv6 = [](FWRULE& rule) {
    rule.ipType = 1;
    rule.ipGroup = 1;
    rule.ipList = {"::", "0"};
  };
  // clang-format off
  return {
    {Reason::kGlobalOpen, ask("eth0", {{"global", {some(kDeny)}}}, {{"eth0", kAllow}}), kAllowed, Truth::kBySource},
    {Reason::kGlobalOpen, ask("eth0", {{"global", {some(kAllow), every(kDeny)}}}, {{"eth0", kAllow}}), kAllowed, Truth::kBySource},
    {Reason::kGlobalOpen, ask("eth0", {{"global", {some(kAllow)}}}, {{"eth0", kDeny}}), kBlocked, Truth::kBySource},
    {Reason::kGlobalDefault, ask("eth0", {}, {{"eth0", kAllow}, {"global", kDeny}}), kAllowed, Truth::kNonePasses},
    {Reason::kGlobalDefault, ask("eth0", {}, {{"eth0", kDeny}, {"global", kAllow}}), kBlocked, Truth::kAllPass},
    {Reason::kOtherName, ask("tun0", {}, {{"vpn", kDeny}}), kAllowed, Truth::kNonePasses},
    {Reason::kOtherName, ask("vpn", {{"tun0", {every(kAllow)}}}, {{"vpn", kDeny}}), kBlocked, Truth::kAllPass},
    {Reason::kOtherName, ask("ppp0", {}, {{"ppp0", kDeny}}), kBlocked, Truth::kAllPass},
    {Reason::kOtherName, ask("ppp0", {}, {{"ppp0", kAllow}, {"pppoe", kDeny}}), kAllowed, Truth::kNonePasses},
    {Reason::kOtherSide, ask("eth0", {{"eth0", {every(kDeny, ports(kTcpOnly, "21", 1))}}}, {{"eth0", kAllow}}), kAllowed, Truth::kByOther},
    {Reason::kOtherSide, ask("eth0", {{"eth0", {every(kAllow, ports(kTcpOnly, "22"))}}}, {{"eth0", kDeny}}, {1, kTcpOnly, "21"}), kBlocked, Truth::kByOther},
    {Reason::kPartOfPorts, ask("eth0", {{"eth0", {every(kDeny, ports(kTcpOnly, "22"))}}}, {{"eth0", kAllow}}, {0, kTcpOnly, "21-23"}), kBlocked, Truth::kByOther},
    {Reason::kPartOfPorts, ask("eth0", {{"eth0", {every(kDeny, ports(kTcpOnly, "21"))}}}, {{"eth0", kAllow}}, {0, kTcpAndUdp, "21"}), kBlocked, Truth::kByOther},
    {Reason::kPartOfPorts, ask("eth0", {{"eth0", {every(kAllow, ports(kTcpOnly, "21")), every(kAllow, ports(kUdpOnly, "21"))}}}, {{"eth0", kDeny}}, {0, kTcpAndUdp, "21"}), kBlocked, Truth::kAllPass},
    {Reason::kPartOfPorts, ask("eth0", {{"eth0", {every(kAllow, ports(kTcpOnly, "21-22")), every(kAllow, ports(kTcpOnly, "23"))}}}, {{"eth0", kDeny}}, {0, kTcpOnly, "21-23"}), kBlocked, Truth::kAllPass},
    {Reason::kOneFamily, ask("eth0", {{"eth0", {every(kAllow, oneFamily)}}}, {{"eth0", kDeny}}), kAllowed, Truth::kBySource},
    {Reason::kOneFamily, ask("eth0", {{"global", {every(kDeny, oneFamily)}}}, {{"eth0", kAllow}}), kBlocked, Truth::kBySource},
    {Reason::kOutgoing, ask("eth0", {{"eth0", {every(kDeny, outgoing)}}}, {{"eth0", kAllow}}), kBlocked, Truth::kAllPass},
    {Reason::kOutgoing, ask("tun0", {{"eth1", {every(kDeny, outgoing)}}}, {{"tun0", kAllow}}), kAllowed, Truth::kByOther},
    {Reason::kDestination, ask("eth0", {{"eth0", {some(kDeny, toTheMachine), some(kDeny, toTheMachineOverIPv6)}}}, {{"eth0", kAllow}}), kPartly, Truth::kByOther},
    {Reason::kWithoutEffect, ask("eth0", {{"eth0", {some(kDeny, country)}}}, {{"eth0", kAllow}}), kPartly, Truth::kAllPass},
    {Reason::kNotCompared, ask("eth0", {{"eth0", {some(kAllow, wholeSubnet), some(kDeny)}}}, {{"eth0", kAllow}}), kPartly, Truth::kAllPass},
    {Reason::kNotCompared, ask("eth0", {{"eth0", {some(kDeny, allOfIPv4), some(kDeny, allOfIPv6)}}}, {{"eth0", kAllow}}), kPartly, Truth::kNonePasses},
    {Reason::kLikeDefault, ask("eth0", {{"eth0", {some(kDeny), every(kAllow)}}}, {{"eth0", kDeny}}), kAllowed, Truth::kBySource},
    {Reason::kLikeDefault, ask("eth0", {{"eth0", {some(kAllow), every(kDeny)}}}, {{"eth0", kAllow}}), kBlocked, Truth::kBySource},
    {Reason::kWithoutDefault, ask("eth0", {{"eth0", {some(kAllow)}}}, {{"eth0", kNone}}), kPartly, Truth::kAllPass},
    {Reason::kWithoutEffect, ask("eth0", {{"eth0", {every(kNone)}}}, {{"eth0", kDeny}}), kUndecided, Truth::kNonePasses},
    {Reason::kWithoutEffect, ask("eth0", {{"eth0", {every(kDeny, otherTable)}}}, {{"eth0", kAllow}}), kBlocked, Truth::kAllPass},
    {Reason::kOtherSide, ask("eth0", {{"eth0", {every(kDeny, ports(kTcpOnly, "21", 2))}}}, {{"eth0", kAllow}}, {1, kTcpOnly, "21"}), kAllowed, Truth::kNonePasses}};
  // clang-format on
}

}  // namespace

const std::vector<Example>& examples() {
  static const std::vector<Example> all = makeExamples();
  return all;
}

}  // namespace property
