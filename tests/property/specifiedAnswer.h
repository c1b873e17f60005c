// The answer of a block query as it is specified, worked out in memory: what the library answers
// has to be the same, and looking for the smallest profile that shows a difference takes thousands
// of answers.

#ifndef TARNFW_TESTS_PROPERTY_SPECIFIEDANSWER_H
#define TARNFW_TESTS_PROPERTY_SPECIFIEDANSWER_H

#include <string>

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
FW::AdapterPolicyMap specifiedAnswer(const FW::FWPROFILE& profile, const Query& query);

// The first and the last port of "21-23"; of "21" twice the same.
struct PortRange {
  long first;
  long last;
};
PortRange rangeOf(const std::string& text);

// Does the query ask about the rule's ports at all?
bool concerns(const FW::FWRULE& rule, const FW::PortCompareST& query);

}  // namespace property

#endif
