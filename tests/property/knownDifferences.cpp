// The kinds of differences between the specified answers and the packet filter, each recognised in
// the smallest case that shows it. known_differences.md tells the same to people.
//
// In a smallest case everything that can be plain is: a rule is for all ports, and for every
// address of both families or for one IPv4 address; the adapter has a default, nothing else has.
// What is left that is not plain is what makes the difference, and each kind wants exactly one such
// thing. Whatever shows another one, or several, is not known.

#include <algorithm>
#include <set>

#include "difference.h"
#include "network.h"
#include "packetFilter.h"

namespace property {
namespace {

using FW::FWRULE;

enum class Odd {
  kPpp0,            // the adapter asked about is ppp0
  kOtherName,       // rules or a default under the other name of the adapter's interface
  kOtherAdapter,    // rules of an adapter that is not asked about
  kGlobalDefault,   // a default of "global"
  kOutgoing,        // adapterDirect 0
  kOtherTable,      // a table other than "filter"
  kPolicyNone,      // a rule of policy 2
  kOneFamily,       // every address, but of one family
  kDestination,     // ipDirect 0
  kNobody,          // addresses that no packet has, or that are no line
  kOtherAddresses,  // other addresses than the one
  kPart,            // some of the ports or protocols asked about
  kOtherSide,       // ports of the other side
  kOtherNumber,     // portDirect neither 0 nor 1
  kOtherPorts       // ports that have nothing to do with the query
};

using Odds = std::set<Odd>;

// --- what is not plain about a rule ---

// A profile whose only rule denies everything from and to the rule's addresses.
FW::FWPROFILE onlyAddressesOf(const FWRULE& rule) {
  FWRULE alone;
  alone.policy = FW::FW_POLICY_DENY;
  alone.ipType = rule.ipType;
  alone.ipDirect = rule.ipDirect;
  alone.ipGroup = rule.ipGroup;
  alone.ipList = rule.ipList;
  alone.portGroup = 3;
  FW::FWPROFILE profile;
  profile.rules["global"] = {alone};
  return profile;
}

bool matchesSomebody(const FWRULE& rule) {
  const PacketFilter filter(onlyAddressesOf(rule));
  return std::any_of(allPackets().begin(), allPackets().end(),
                     [&filter](const Packet& packet) { return !filter.passes(packet); });
}

void addAddressOdds(const FWRULE& rule, Odds& odds) {
  if (rule.ipGroup == 5) {
    if (rule.ipType != 2) odds.insert(Odd::kOneFamily);
  } else if (!matchesSomebody(rule)) {
    odds.insert(Odd::kNobody);
  } else if (rule.ipDirect == 0) {
    odds.insert(Odd::kDestination);
  } else if (rule.ipGroup != 0 || rule.ipType != 0 || rule.ipList.front() != "10.77.0.2") {
    odds.insert(Odd::kOtherAddresses);
  }
}

// Does a deny rule of the same ports concern any port of that side of the query's protocols?
bool concernsSide(FWRULE rule, FW::PortCompareST query, int side, const char* ports) {
  rule.policy = FW::FW_POLICY_DENY;
  query.portDirect = side;
  query.port = ports;
  return concerns(rule, query);
}

void addPortOdds(const FWRULE& rule, const FW::PortCompareST& query, Odds& odds) {
  constexpr char kAny[] = "0-65535";
  if (rule.portGroup == 3) return;
  if (rule.portGroup == 1 && rule.portDirect != 0 && rule.portDirect != 1) {
    odds.insert(Odd::kOtherNumber);
  } else if (concernsSide(rule, query, query.portDirect, query.port.c_str())) {
    odds.insert(Odd::kPart);
  } else if (concernsSide(rule, query, 1 - query.portDirect, kAny)) {
    odds.insert(Odd::kOtherSide);
  } else {
    odds.insert(Odd::kOtherPorts);
  }
}

void addRuleOdds(const FWRULE& rule, const FW::PortCompareST& query, Odds& odds) {
  if (rule.adapterDirect == 0) odds.insert(Odd::kOutgoing);
  if (rule.table != "filter") odds.insert(Odd::kOtherTable);
  if (rule.policy == FW::FW_POLICY_NONE) odds.insert(Odd::kPolicyNone);
  addAddressOdds(rule, odds);
  addPortOdds(rule, query, odds);
}

std::string otherNameOf(const std::string& adapter) {
  if (adapter == "vpn") return "tun0";
  if (adapter == "tun0") return "vpn";
  if (adapter == kPppoeLink) return "pppoe";
  return "";
}

// What is not plain about a case.
Odds oddsOf(const Case& one) {
  Odds odds;
  const std::string otherName = otherNameOf(one.adapter);
  const Odd other = one.adapter == kPppoeLink ? Odd::kPpp0 : Odd::kOtherName;
  if (one.adapter == kPppoeLink) odds.insert(other);
  for (const auto& [adapter, policy] : one.profile.adapterPolicyMap) {
    if (adapter == one.adapter) continue;
    odds.insert(adapter == "global"    ? Odd::kGlobalDefault
                : adapter == otherName ? other
                                       : Odd::kOtherAdapter);
  }
  for (const auto& [adapter, rules] : one.profile.rules) {
    if (adapter == otherName) odds.insert(other);
    for (const FWRULE& rule : rules) addRuleOdds(rule, one.query.port, odds);
  }
  return odds;
}

bool isOnly(const Case& one, Odd odd) { return oddsOf(one) == Odds{odd}; }

// --- cases without anything that is not plain ---

// The rules of an adapter in short: A allow and D deny for every address, a and d for one.
std::string lettersOf(const Case& one, const std::string& adapter) {
  std::string letters;
  const auto rules = one.profile.rules.find(adapter);
  if (rules == one.profile.rules.end()) return letters;
  for (const FWRULE& rule : rules->second) {
    const bool allow = rule.policy == FW::FW_POLICY_ALLOW;
    letters += rule.ipGroup == 5 ? (allow ? 'A' : 'D') : (allow ? 'a' : 'd');
  }
  return letters;
}

int defaultOf(const Case& one) {
  const auto policy = one.profile.adapterPolicyMap.find(one.adapter);
  return policy == one.profile.adapterPolicyMap.end() ? -1 : static_cast<int>(policy->second);
}

bool isPlain(const Case& one) { return oddsOf(one).empty(); }

// --- the kinds ---

bool isPpp0(const Case& one) { return isOnly(one, Odd::kPpp0); }
bool isOtherName(const Case& one) { return isOnly(one, Odd::kOtherName); }
bool isGlobalDefault(const Case& one) { return isOnly(one, Odd::kGlobalDefault); }
bool isOutgoing(const Case& one) { return isOnly(one, Odd::kOutgoing); }
bool isOtherTable(const Case& one) { return isOnly(one, Odd::kOtherTable); }
bool isPolicyNone(const Case& one) { return isOnly(one, Odd::kPolicyNone); }
bool isOneFamily(const Case& one) { return isOnly(one, Odd::kOneFamily); }
bool isDestination(const Case& one) { return isOnly(one, Odd::kDestination); }
bool isNobody(const Case& one) { return isOnly(one, Odd::kNobody); }
bool isPart(const Case& one) { return isOnly(one, Odd::kPart); }
bool isOtherSide(const Case& one) { return isOnly(one, Odd::kOtherSide); }
bool isOtherNumber(const Case& one) { return isOnly(one, Odd::kOtherNumber); }

// Rules of "global" that say something to some addresses without deciding for all: then an adapter
// of which nothing is said is open.
bool leavesGlobalOpen(const Case& one) {
  if (lettersOf(one, "global").find_first_of("ad") == std::string::npos) return false;
  constexpr char kUnheardOf[] = "eth9";
  return verdictOf({one.profile, {one.query.port, kUnheardOf}, kUnheardOf}) == kAllowed;
}

bool isPlainButForAddresses(const Case& one) {
  const Odds odds = oddsOf(one);
  return odds.empty() || odds == Odds{Odd::kOtherAddresses};
}

// The adapter does not hear of what "global" says to some addresses.
bool isGlobalLeftOpen(const Case& one) {
  return isPlainButForAddresses(one) && leavesGlobalOpen(one);
}

bool isSaidTwice(const Case& one) {
  const std::string letters = lettersOf(one, one.adapter);
  return isPlain(one) && lettersOf(one, "global").empty() &&
         ((defaultOf(one) == kBlocked && letters == "dA") ||
          (defaultOf(one) == kAllowed && letters == "aD"));
}

bool isWithoutDefault(const Case& one) {
  return isPlain(one) && lettersOf(one, "global").empty() && lettersOf(one, one.adapter) == "a" &&
         defaultOf(one) == kUndecided;
}

// The senders that a rule names, a bit each.
unsigned sendersOf(const FWRULE& rule) {
  unsigned senders = 0;
  const PacketFilter filter(onlyAddressesOf(rule));
  for (std::size_t sender = 0; sender < kSendersPerPacket; ++sender) {
    if (!filter.passes(allPackets()[sender])) senders |= 1U << sender;
  }
  return senders;
}

// Rules for some addresses that leave nobody: one of them names only senders that those before it
// have named, or all together name everybody. Addresses are not compared.
bool isNobodyLeft(const Case& one) {
  if (!isPlainButForAddresses(one) || leavesGlobalOpen(one)) return false;
  constexpr unsigned kEverybody = (1U << kSendersPerPacket) - 1;
  unsigned named = 0;
  bool isNamedAgain = false;
  for (const std::string& adapter : {std::string("global"), one.adapter}) {
    const auto rules = one.profile.rules.find(adapter);
    if (rules == one.profile.rules.end()) continue;
    for (const FWRULE& rule : rules->second) {
      if (rule.ipGroup == 5) continue;
      const unsigned senders = sendersOf(rule);
      isNamedAgain = isNamedAgain || (senders & ~named) == 0;
      named |= senders;
    }
  }
  return verdictOf(one) == kPartly && (isNamedAgain || named == kEverybody);
}

}  // namespace

const std::vector<KnownDifference>& knownDifferences() {
  static const std::vector<KnownDifference> kinds = {
      {"global left open", isGlobalLeftOpen},
      {"default of global", isGlobalDefault},
      {"two names of one interface", isOtherName},
      {"the PPPoE link by its own name", isPpp0},
      {"ports of the other side", isOtherSide},
      {"part of what is asked", isPart},
      {"every address of one family", isOneFamily},
      {"outgoing interface", isOutgoing},
      {"destination addresses", isDestination},
      {"addresses of nobody", isNobody},
      {"addresses that leave nobody", isNobodyLeft},
      {"exception from a default that is like it", isSaidTwice},
      {"exception without a default", isWithoutDefault},
      {"rule of policy none", isPolicyNone},
      {"rule of another table", isOtherTable},
      {"port direction of another number", isOtherNumber}};
  return kinds;
}

const KnownDifference* knownDifference(const Case& smallest) {
  const KnownDifference* found = nullptr;
  for (const KnownDifference& kind : knownDifferences()) {
    if (!kind.isShownBy(smallest)) continue;
    if (found != nullptr) return nullptr;
    found = &kind;
  }
  return found;
}

}  // namespace property
