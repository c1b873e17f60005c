#include "profiles.h"

#include <array>
#include <sstream>
#include <utility>

namespace property {
namespace {

using FW::FWPROFILE;
using FW::FWRULE;
using Texts = std::vector<std::string>;

// What is said of addresses: the group, and its list.
struct Addresses {
  int group;
  Texts list;
};

const std::vector<Addresses> kSources = {{0, {"10.77.0.2"}},
                                         {0, {"10.77.0.70"}},
                                         {0, {"198.51.100.9"}},
                                         {1, {"10.77.0.64", "26"}},
                                         {1, {"10.77.0.0", "24"}},
                                         {1, {"10.77.0.0", "255.255.255.0"}},
                                         {1, {"0.0.0.0", "0"}},
                                         {4, {"10.77.0.2", "10.77.0.99"}},
                                         {4, {"10.77.0.150", "10.77.0.220"}},
                                         {0, {"fd77::2"}},
                                         {0, {"fd77::70"}},
                                         {1, {"fd77::40", "122"}},
                                         {1, {"fd77::", "64"}},
                                         {1, {"::", "0"}},
                                         {4, {"fd77::2", "fd77::99"}},
                                         {4, {"fd77::150", "fd77::220"}}};

const std::vector<Addresses> kDestinations = {{0, {"10.77.0.1"}},
                                              {0, {"10.78.0.2"}},
                                              {1, {"10.78.0.0", "24"}},
                                              {0, {"fd77::1"}},
                                              {1, {"fd78::", "64"}}};

// Rules of these groups are never lines: countries have no ranges here, one address is one too few.
const std::vector<Addresses> kNobody = {{2, {}}, {3, {"DE"}}, {1, {"10.77.0.0"}}, {0, {}}};

const Texts kAdapters = {"eth0", "eth0", "tun0", "vpn", "pppoe", "eth1", "ppp0", "eth9"};
const Texts kOrdinaryAdapters = {"eth0", "eth0", "vpn", "pppoe", "eth1"};
const Texts kServices = {"tcp21",  "udp22",     "both23", "tcp21to23", "tcp21and25",
                         "from24", "udp21to22", "gone",   "nosuch"};
const Texts kOrdinaryServices = {"tcp21", "udp22", "both23", "tcp21to23", "tcp21and25", "gone"};
const Texts kListedPorts = {"21",    "22",    "23",    "24",    "25",    "21-22",
                            "22-24", "21-25", "24-25", "23-23", "20-24", "21-40"};

bool isV6(const Addresses& addresses) {
  return !addresses.list.empty() && addresses.list[0].find(':') != std::string::npos;
}

// Makes one profile. Every other one is ordinary: it holds what an editor of profiles would write,
// and answers about it have few reasons to differ. The others have all that a document can hold.
class Maker {
 public:
  explicit Maker(Random& random) : random_(random), ordinary_(random.oneIn(2)) {}

  FWPROFILE make() {
    FWPROFILE profile;
    profile.name = "property";
    profile.adapterPolicyMap["global"] = FW::FW_POLICY_NONE;
    if (oddly(16)) profile.adapterPolicyMap["global"] = policy(2);
    if (random_.oneIn(3)) addRules(profile, "global", 1 + random_.below(2));
    for (std::size_t adapters = 1 + random_.below(3); adapters > 0; --adapters) {
      const std::string adapter = random_.oneOf(ordinary_ ? kOrdinaryAdapters : kAdapters);
      addRules(profile, adapter, random_.below(4));
      if (!oddly(8)) profile.adapterPolicyMap[adapter] = policy(ordinary_ ? 2 : 3);
    }
    return profile;
  }

 private:
  // True for one in `count` of the profiles that are not ordinary.
  bool oddly(std::size_t count) { return random_.oneIn(count) && !ordinary_; }

  FW::FW_POLICY policy(std::size_t count) {
    return static_cast<FW::FW_POLICY>(random_.below(count));
  }

  void addRules(FWPROFILE& profile, const std::string& adapter, std::size_t count) {
    std::vector<FWRULE>& rules = profile.rules[adapter];
    for (; count > 0; --count) rules.push_back(rule());
    if (oddly(24)) addRulesToTheMachine(rules);
    if (rules.empty()) profile.rules.erase(adapter);
  }

  FWRULE rule() {
    FWRULE rule;
    rule.enable = !random_.oneIn(10);
    rule.policy = policy(2);
    if (oddly(16)) rule.policy = FW::FW_POLICY_NONE;
    rule.blLog = random_.oneIn(8);
    if (oddly(16)) rule.adapterDirect = 0;
    if (oddly(24)) rule.table = "mangle";
    setAddresses(rule);
    setPorts(rule);
    if (oddly(24)) rule.portDirect = 2;
    return rule;
  }

  void setAddresses(FWRULE& rule) {
    rule.ipType = 2;
    if (random_.oneIn(2)) {
      rule.ipGroup = 5;
      if (oddly(3)) rule.ipType = static_cast<std::int32_t>(random_.below(2));
      return;
    }
    Addresses addresses = random_.oneOf(kSources);
    if (oddly(12)) {
      addresses = random_.oneOf(kDestinations);
      rule.ipDirect = 0;
    } else if (oddly(12)) {
      addresses = random_.oneOf(kNobody);
    }
    rule.ipType = isV6(addresses) ? 1 : 0;
    if (oddly(5)) rule.ipType = static_cast<std::int32_t>(random_.below(3));
    rule.ipGroup = addresses.group;
    rule.ipList = addresses.list;
  }

  void setPorts(FWRULE& rule) {
    rule.portDirect = oddly(5) ? 1 : 0;
    switch (random_.below(4)) {
      case 0:
        rule.portGroup = 3;
        return;
      case 1:
        rule.portGroup = random_.oneIn(2) ? 0 : 2;
        for (std::size_t count = 1 + random_.below(2); count > 0; --count) {
          rule.portList.push_back(random_.oneOf(ordinary_ ? kOrdinaryServices : kServices));
        }
        return;
      default:
        rule.portGroup = 1;
        rule.protocol = static_cast<FW::FW_PORT_PROTOCOL>(1 + random_.below(3));
        if (oddly(20)) rule.protocol = FW::FW_PROTO_ICMP;
        for (std::size_t count = random_.oneIn(20) ? 9 : 1 + random_.below(2); count > 0; --count) {
          rule.portList.push_back(random_.oneOf(kListedPorts));
        }
    }
  }

  // The same for the machine's addresses of both families.
  void addRulesToTheMachine(std::vector<FWRULE>& rules) {
    FWRULE rule;
    rule.policy = policy(2);
    rule.ipDirect = 0;
    rule.ipList = {"10.77.0.1"};
    rule.portGroup = 3;
    rules.push_back(rule);
    rule.ipType = 1;
    rule.ipList = {"fd77::1"};
    rules.push_back(rule);
  }

  Random& random_;
  bool ordinary_;
};

}  // namespace

FWPROFILE randomProfile(Random& random) { return Maker(random).make(); }

const std::vector<Query>& allQueries() {
  static const std::vector<Query> queries = [] {
    std::vector<Query> all;
    for (const char* adapter : {"eth0", "tun0", "vpn", "pppoe", "ppp0", ""}) {
      for (const int direction : {0, 1}) {
        for (const FW::FW_PORT_PROTOCOL protocol :
             {FW::FW_PROTO_TCP, FW::FW_PROTO_UDP, FW::FW_PROTO_TCP_UDP}) {
          for (const char* port : {"21", "22", "23", "24", "25", "21-22", "22-24", "21-25"}) {
            all.push_back({{direction, protocol, port}, adapter});
          }
        }
      }
    }
    return all;
  }();
  return queries;
}

std::string describe(const FWPROFILE& profile) {
  const auto join = [](const Texts& texts) {
    std::string text;
    for (const std::string& one : texts) text += (text.empty() ? "" : ",") + one;
    return text;
  };
  const FWRULE usual;
  std::ostringstream text;
  for (const auto& [adapter, rules] : profile.rules) {
    for (const FWRULE& rule : rules) {
      text << adapter << ": ";
      text << (rule.policy == FW::FW_POLICY_ALLOW  ? "allow"
               : rule.policy == FW::FW_POLICY_DENY ? "deny"
                                                   : "none");
      if (!rule.enable) text << " (disabled)";
      if (rule.adapterDirect == 0) text << " adapterDirect 0";
      if (rule.table != usual.table) text << " table " << rule.table;
      text << ", ipType " << rule.ipType << " ipGroup " << rule.ipGroup;
      if (rule.ipGroup != 5) text << " [" << join(rule.ipList) << "]";
      if (rule.ipDirect == 0) text << " ipDirect 0";
      text << ", portGroup " << rule.portGroup;
      if (rule.portGroup == 1) text << " protocol " << static_cast<int>(rule.protocol);
      if (rule.portGroup != 3) text << " [" << join(rule.portList) << "]";
      if (rule.portDirect != 0) text << " portDirect " << rule.portDirect;
      text << "\n";
    }
  }
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
    text << adapter << " by default: " << static_cast<int>(policy) << "\n";
  }
  return text.str();
}

}  // namespace property
