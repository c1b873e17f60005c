// Answers that are not what becomes of the packets, and the smallest profile and query that show
// one.

#ifndef TARNFW_TESTS_PROPERTY_DIFFERENCE_H
#define TARNFW_TESTS_PROPERTY_DIFFERENCE_H

#include <functional>
#include <string>
#include <vector>

#include "evaluation.h"
#include "tarnfirewall_records.h"
#include "truth.h"

namespace property {

// One verdict of an answer.
struct Case {
  FW::FWPROFILE profile;
  Query query;
  std::string adapter;  // whose verdict
};

// The verdict, worked out; -1: the answer has none for the adapter.
int verdictOf(const Case& one);

// What becomes of the packets, worked out from the rules.
Truth truthOf(const Case& one);

// Profile, query, verdict and truth.
std::string describe(const Case& one);

// Takes away and simplifies, one thing at a time, as long as `shows` holds.
Case smallest(Case one, const std::function<bool(const Case&)>& shows);

// The profile without the rules and defaults that it takes nothing from: `shows` holds for it and
// for nothing that is smaller by one of them.
FW::FWPROFILE smallest(FW::FWPROFILE profile,
                       const std::function<bool(const FW::FWPROFILE&)>& shows);

}  // namespace property

#endif
