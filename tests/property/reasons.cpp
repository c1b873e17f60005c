#include "reasons.h"

#include <algorithm>
#include <string>
#include <utility>

#include "evaluation.h"
#include "network.h"
#include "packetFilter.h"

namespace property {
namespace {

using FW::FWPROFILE;
using FW::FWRULE;
using FW::PortCompareST;

constexpr char kGlobal[] = "global";

// --- ports ---

enum class Ports { kNone, kAll, kPart, kOtherSide };

// What a rule's lines match of the ports asked about.
Ports portsOf(const FWRULE& rule, const PortCompareST& query) {
  if (rule.portGroup == 3) return Ports::kAll;
  const auto isAsked = [&query](const PortSet& set) {
    return (set.protocol & query.protocol & (kTcp | kUdp)) != 0;
  };
  bool overlapsSome = false;
  for (const PortSet& set : portSetsOf(rule, query.portDirect)) {
    if (covers(set, query)) return Ports::kAll;
    overlapsSome = overlapsSome || (overlaps(set, query) && isAsked(set));
  }
  // Kept by the answer: a rule that denies icmp stops a question about both protocols.
  if (overlapsSome || concerns(rule, query)) return Ports::kPart;
  for (const PortSet& set : portSetsOf(rule, 1 - query.portDirect)) {
    if (set.direction != query.portDirect && isAsked(set)) return Ports::kOtherSide;
  }
  return Ports::kNone;
}

// --- addresses ---

constexpr unsigned kEverybody = (1U << kSendersPerPacket) - 1;

// A profile whose only rule denies everything from or to the rule's addresses.
FWPROFILE onlyAddressesOf(const FWRULE& rule) {
  FWRULE alone;
  alone.policy = FW::FW_POLICY_DENY;
  alone.ipType = rule.ipType;
  alone.ipDirect = rule.ipDirect;
  alone.ipGroup = rule.ipGroup;
  alone.ipList = rule.ipList;
  alone.portGroup = 3;
  FWPROFILE profile;
  profile.rules[kGlobal] = {alone};
  return profile;
}

// The senders that a rule names, a bit each, and whether it names anybody at all: a rule for
// receivers names every sender, of packets to them.
struct Named {
  unsigned senders = 0;
  bool anybody = false;
};

Named namedBy(const FWRULE& rule) {
  Named named;
  const PacketFilter filter(onlyAddressesOf(rule));
  const std::vector<Packet>& packets = allPackets();
  for (std::size_t group = 0; group < packets.size() && !named.anybody;
       group += kSendersPerPacket) {
    for (std::size_t sender = 0; sender < kSendersPerPacket; ++sender) {
      if (filter.passes(packets[group + sender])) continue;
      named.senders |= 1U << sender;
      named.anybody = true;
    }
  }
  return named;
}

// --- adapters ---

// The other name of an adapter's interface under which rules for it are loaded.
std::string otherNameOf(const std::string& adapter) {
  if (adapter == "vpn") return "tun0";
  if (adapter == "tun0") return "vpn";
  if (adapter == kPppoeLink) return "pppoe";
  return "";
}

// "global", then everybody in name order.
std::vector<std::string> adaptersOf(const FWPROFILE& profile) {
  std::set<std::string> names;
  for (const auto& [adapter, rules] : profile.rules) names.insert(adapter);
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) names.insert(adapter);
  std::vector<std::string> adapters = {kGlobal};
  names.erase(kGlobal);
  adapters.insert(adapters.end(), names.begin(), names.end());
  return adapters;
}

// The adapter's default policy, or `otherwise`.
int defaultOf(const FWPROFILE& profile, const std::string& adapter, int otherwise) {
  const auto policy = profile.adapterPolicyMap.find(adapter);
  return policy == profile.adapterPolicyMap.end() ? otherwise : static_cast<int>(policy->second);
}

bool hasDefaultLine(const FWPROFILE& profile, const std::string& adapter) {
  return defaultOf(profile, adapter, FW::FW_POLICY_NONE) != FW::FW_POLICY_NONE;
}

// --- the lines, in the order that packets meet them ---

class Lines {
 public:
  Lines(const Case& one, Reasons& reasons) : one_(one), reasons_(reasons) {}

  void pass() {
    for (const std::string& adapter : adaptersOf(one_.profile)) {
      if (adapter == one_.adapter) named_ = 0;
      const auto rules = one_.profile.rules.find(adapter);
      if (rules != one_.profile.rules.end()) {
        for (const FWRULE& rule : rules->second) {
          if (rule.enable && passRule(adapter, rule)) return;
        }
      }
      if (hasDefaultLine(one_.profile, adapter) && passDefault(adapter)) return;
    }
  }

 private:
  // True for a rule that decides about all packets that are asked about.
  bool passRule(const std::string& adapter, const FWRULE& rule) {
    const Ports ports = portsOf(rule, one_.query.port);
    if (ports == Ports::kNone) return false;
    const bool hasLines = rule.policy != FW::FW_POLICY_NONE && rule.table == "filter";
    if (adapter != kGlobal && adapter != one_.adapter) {
      if (hasLines) passOther(adapter, rule);
      return false;
    }
    const bool isOutgoing = rule.adapterDirect == 0 && adapter != kGlobal;
    if (!hasLines || adapter == kPppoeLink || isOutgoing) {
      if (!concerns(rule, one_.query.port)) return false;
      return note(!hasLines    ? Reason::kWithoutEffect
                  : isOutgoing ? Reason::kOutgoing
                               : Reason::kOtherName);
    }
    if (ports == Ports::kPart) return note(Reason::kPartOfPorts);
    if (ports == Ports::kOtherSide) return note(Reason::kOtherSide);
    if (rule.ipGroup != 5) return passSome(rule);
    if (rule.ipType != 2) return note(Reason::kOneFamily);
    return true;
  }

  bool passSome(const FWRULE& rule) {
    const Named named = namedBy(rule);
    if (!named.anybody) return note(Reason::kWithoutEffect);
    if (rule.ipDirect == 0) return note(Reason::kDestination);
    const unsigned before = std::exchange(named_, named_ | named.senders);
    if (named_ == before || named_ == kEverybody) return note(Reason::kNotCompared);
    return false;
  }

  // A rule of an adapter that the answer does not look at.
  void passOther(const std::string& adapter, const FWRULE& rule) {
    if (rule.adapterDirect == 0) {
      if (adapter == kWayOut) note(Reason::kOutgoing);
    } else if (adapter == otherNameOf(one_.adapter)) {
      note(Reason::kOtherName);
    }
  }

  // True when nothing comes after the default policy.
  bool passDefault(const std::string& adapter) {
    if (adapter == kGlobal) {
      note(Reason::kGlobalDefault);
      return true;
    }
    if (adapter == otherNameOf(one_.adapter)) note(Reason::kOtherName);
    if (adapter != one_.adapter) return false;
    if (adapter == kPppoeLink) return note(Reason::kOtherName);
    return true;
  }

  // A reason says nothing about the lines that follow.
  bool note(Reason reason) {
    reasons_.insert(reason);
    return false;
  }

  const Case& one_;
  Reasons& reasons_;
  unsigned named_ =
      0;  // senders that rules for some addresses have named, of "global" or of the adapter
};

// --- what the answer makes of rules for some addresses ---

void addCombinations(const Case& one, Reasons& reasons) {
  const Walk global = walk(one.profile, kGlobal, one.query.port, kUndecided);
  if (global.verdict == kAllowed || global.verdict == kBlocked || global.verdict == kPartly) return;
  if (global.verdict != kUndecided) reasons.insert(Reason::kGlobalOpen);

  const int policy = defaultOf(one.profile, one.adapter, kAllowed);
  const Walk own = walk(one.profile, one.adapter, one.query.port, policy);
  if (own.hasPassedOver && own.verdict == (policy == kAllowed ? kBlocked : kAllowed)) {
    reasons.insert(Reason::kLikeDefault);
  }
  constexpr int kSomeAllowed = 4;
  if (policy == kUndecided && own.verdict == kSomeAllowed && !own.isDecided) {
    reasons.insert(Reason::kWithoutDefault);
  }
}

}  // namespace

const std::vector<Reason>& allReasons() {
  static const std::vector<Reason> reasons = {
      Reason::kPartOfPorts,   Reason::kOtherSide,     Reason::kOneFamily,
      Reason::kDestination,   Reason::kWithoutEffect, Reason::kOutgoing,
      Reason::kGlobalDefault, Reason::kOtherName,     Reason::kGlobalOpen,
      Reason::kNotCompared,   Reason::kLikeDefault,   Reason::kWithoutDefault};
  return reasons;
}

const char* nameOf(Reason reason) {
  switch (reason) {
    case Reason::kPartOfPorts:
      return "part of the ports";
    case Reason::kOtherSide:
      return "ports of the other side";
    case Reason::kOneFamily:
      return "every address of one family";
    case Reason::kDestination:
      return "destination addresses";
    case Reason::kWithoutEffect:
      return "rule without effect";
    case Reason::kOutgoing:
      return "outgoing interface";
    case Reason::kGlobalDefault:
      return "default of global";
    case Reason::kOtherName:
      return "two names of one interface";
    case Reason::kGlobalOpen:
      return "global left open";
    case Reason::kNotCompared:
      return "addresses are not compared";
    case Reason::kLikeDefault:
      return "exception like the default";
    case Reason::kWithoutDefault:
      return "exception without a default";
  }
  return "";
}

std::string describe(const Reasons& reasons) {
  std::string text;
  for (const Reason reason : reasons)
    text += (text.empty() ? "" : ", ") + std::string(nameOf(reason));
  return text.empty() ? "no reason" : text;
}

Reasons reasonsOf(const Case& one) {
  Reasons reasons;
  Lines(one, reasons).pass();
  addCombinations(one, reasons);
  return reasons;
}

}  // namespace property
