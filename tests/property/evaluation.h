// The answer to a block query, worked out a second time, in memory and from two tables: what the
// library answers has to be the same, and looking for the smallest profile that shows a difference
// takes thousands of answers.

#ifndef TARNFW_TESTS_PROPERTY_EVALUATION_H
#define TARNFW_TESTS_PROPERTY_EVALUATION_H

#include <string>
#include <vector>

#include "tarnfirewall_records.h"

namespace property {

// A query and the adapter that it asks about; empty: every adapter.
struct Query {
  FW::PortCompareST port;
  std::string adapter;
};

// "dst tcp 21-23 on eth0"
std::string describe(const Query& query);

enum Verdict { kAllowed = 0, kBlocked = 1, kUndecided = 2, kPartly = 3 };

// The verdicts for an enabled firewall with that active profile.
FW::AdapterPolicyMap workedOutAnswer(const FW::FWPROFILE& profile, const Query& query);

// The first and the last port of "21-23"; of "21" twice the same.
struct PortRange {
  long first;
  long last;
};
PortRange rangeOf(const std::string& text);

// Ports of one side and one protocol.
struct PortSet {
  int direction;  // 1 source ports, 0 destination ports
  int protocol;
  std::vector<std::string> ports;
};

// The sets that a rule names on one side. Explicit ports are one set, whichever side is asked for.
std::vector<PortSet> portSetsOf(const FW::FWRULE& rule, int direction);

// A set that covers a query has all of its protocols and ports, one that overlaps with it any.
bool covers(const PortSet& set, const FW::PortCompareST& query);
bool overlaps(const PortSet& set, const FW::PortCompareST& query);

// Is the rule one that the answer takes into account?
bool concerns(const FW::FWRULE& rule, const FW::PortCompareST& query);

// A walk over the rules of one adapter.
struct Walk {
  int verdict;             // with the working states 4 and 5
  bool matched = false;    // any rule
  bool isDecided = false;  // it ended at a rule
  // It passed over a rule for some addresses, because that had the policy that the walk was at.
  bool hasPassedOver = false;
};

// The walk that starts from the verdict `start`.
Walk walk(const FW::FWPROFILE& profile, const std::string& adapter, const FW::PortCompareST& query,
          int start);

}  // namespace property

#endif
