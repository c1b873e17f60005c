// Why an answer may not be what becomes of the packets. The reasons are few, each is a fact about
// the profile and the question that can be told without sending a packet, and together they are
// all: where none applies, answer and packets agree. doc/using.md tells the same to people.
//
// A packet meets the lines of "global", then those of the other adapters in name order, each
// adapter's default policy last; the first line that fits decides. The answer walks the rules of
// "global" and then those of one adapter, and knows of each rule only whether it matches the
// question, and whether it is for every address or for some. So it is true when
//   1. a rule matches either nothing that is asked about, or all of it for every sender, or all of
//      it for some senders, and the answer takes it for what it is;
//   2. no other line decides about the packets;
//   3. rules for some addresses combine to what the answer makes of them without comparing them.
// Every reason is one way in which one of the three fails.

#ifndef TARNFW_TESTS_PROPERTY_REASONS_H
#define TARNFW_TESTS_PROPERTY_REASONS_H

#include <set>
#include <vector>

#include "difference.h"
#include "truth.h"

namespace property {

enum class Reason {
  // 1. A rule is not what the answer takes it for.
  kPartOfPorts,    // it is about some of the ports or protocols asked about, not about all
  kOtherSide,      // it is about ports of the side that is not asked about
  kOneFamily,      // for every address, but of one family
  kDestination,    // for some addresses, but of the receiver
  kWithoutEffect,  // no packet matches its lines, or it has none
  kOutgoing,       // about packets that leave through its adapter
  // 2. Lines that the answer does not look at.
  kGlobalDefault,  // a default policy of "global"
  kOtherName,      // rules or a default under the other name of the adapter's interface
  // 3. Rules for some addresses.
  kGlobalOpen,     // "global" has some that match, and comes to no decision
  kNotCompared,    // one adds no sender to those before it in its list, or they leave none
  kLikeDefault,    // one that repeats the default, followed by a rule for every address against it
  kWithoutDefault  // allowing ones alone, on an adapter whose default is "none"
};

using Reasons = std::set<Reason>;

const std::vector<Reason>& allReasons();

const char* nameOf(Reason reason);

// "part of the ports, ports of the other side"
std::string describe(const Reasons& reasons);

// The reasons that apply to a verdict, those behind a rule that decides about everything left out.
// Neither the verdict nor the packets are looked at.
Reasons reasonsOf(const Case& one);

// A verdict that is not what becomes of the packets, for one reason only.
struct Example {
  Reason reason;
  Case shows;
  int verdict;
  Truth truth;
};

// At least one for every reason.
const std::vector<Example>& examples();

}  // namespace property

#endif
