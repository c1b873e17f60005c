// What a matching rule makes of the verdict so far, in two tables.

#ifndef TARNFW_TESTS_FUZZ_VERDICT_TABLE_H
#define TARNFW_TESTS_FUZZ_VERDICT_TABLE_H

#include <algorithm>
#include <array>
#include <cstddef>

#include "tarnfirewall_records.h"

namespace verdictTable {

constexpr int kKeep = -1;

struct Cell {
  int verdict;  // or kKeep
  bool goesOn;
};

// `entry`: the verdict so far, with the working states 4 and 5.
inline Cell cellFor(const FW::FWRULE& rule, int entry) {
  // Rows: the entry is 0, 1 or 2; 3; 4; 5; 6 or more. Columns: the rule allows, denies, does
  // neither.
  constexpr int kItsPolicy = -2;
  constexpr std::array<std::array<Cell, 3>, 5> kEveryAddress = {
      {{{{kItsPolicy, false}, {kItsPolicy, false}, {kItsPolicy, false}}},
       {{{kKeep, false}, {kKeep, false}, {kKeep, false}}},
       {{{0, false}, {4, false}, {kKeep, false}}},
       {{{5, false}, {1, false}, {kKeep, false}}},
       {{{kKeep, false}, {kKeep, false}, {kKeep, false}}}}};
  constexpr std::array<std::array<Cell, 3>, 5> kSomeAddresses = {
      {{{{4, true}, {5, true}, {kKeep, true}}},
       {{{kKeep, false}, {kKeep, false}, {kKeep, false}}},
       {{{kKeep, true}, {3, false}, {kKeep, false}}},
       {{{3, false}, {kKeep, true}, {kKeep, false}}},
       {{{kKeep, false}, {kKeep, false}, {kKeep, false}}}}};

  const int policy = rule.policy;
  if (rule.ipGroup != 5 && entry <= 2 && entry == policy) return {kKeep, true};
  const std::size_t row = entry <= 2 ? 0 : static_cast<std::size_t>(std::min(entry, 6) - 2);
  const std::size_t column = policy == 0 ? 0 : policy == 1 ? 1 : 2;
  Cell cell = (rule.ipGroup == 5 ? kEveryAddress : kSomeAddresses)[row][column];
  if (cell.verdict == kItsPolicy) cell.verdict = policy;
  return cell;
}

}  // namespace verdictTable

#endif
