// Answers that are not what becomes of the packets: the smallest profile and query that show the
// same kind of difference, and which of the known kinds it is.

#ifndef TARNFW_TESTS_PROPERTY_DIFFERENCE_H
#define TARNFW_TESTS_PROPERTY_DIFFERENCE_H

#include <functional>
#include <string>
#include <vector>

#include "specifiedAnswer.h"
#include "tarnfirewall_records.h"
#include "truth.h"

namespace property {

// One verdict of an answer.
struct Case {
  FW::FWPROFILE profile;
  Query query;
  std::string adapter;  // whose verdict
};

// The specified verdict; -1: the answer has none for the adapter.
int verdictOf(const Case& one);

// What becomes of the packets, worked out from the rules.
Truth truthOf(const Case& one);

// Profile, query, verdict and truth.
std::string describe(const Case& one);

// The verdict differs from the truth: takes away and simplifies, one thing at a time, as long as
// the verdict stays and still differs from the truth.
Case smallest(Case one);

// The profile without the rules and defaults that it takes nothing from: `shows` holds for it and
// for nothing that is smaller by one of them.
FW::FWPROFILE smallest(FW::FWPROFILE profile,
                       const std::function<bool(const FW::FWPROFILE&)>& shows);

// A kind of difference that the specified answers are known for.
struct KnownDifference {
  const char* name;
  bool (*isShownBy)(const Case& smallest);
};

const std::vector<KnownDifference>& knownDifferences();

// The one kind that the smallest case shows; null when it is none, or several.
const KnownDifference* knownDifference(const Case& smallest);

// A case of a kind, in its simplest form.
struct Example {
  const char* difference;
  Case shows;
  int verdict;
  Truth truth;
};

// At least one for every kind.
const std::vector<Example>& examples();

}  // namespace property

#endif
