#include "textDiff.h"

#include <algorithm>
#include <cstddef>

namespace ops {
namespace {

using Lines = std::vector<std::string>;

// For every pair of rests, the length of the longest sequence of lines that both have in that
// order.
class CommonLengths {
 public:
  CommonLengths(const Lines& before, const Lines& after)
      : columns_(after.size() + 1), lengths_((before.size() + 1) * columns_) {
    for (std::size_t row = before.size(); row-- > 0;) {
      for (std::size_t column = after.size(); column-- > 0;) {
        at(row, column) = before[row] == after[column]
                              ? at(row + 1, column + 1) + 1
                              : std::max(at(row + 1, column), at(row, column + 1));
      }
    }
  }
  std::size_t& at(std::size_t row, std::size_t column) { return lengths_[row * columns_ + column]; }

 private:
  std::size_t columns_;
  std::vector<std::size_t> lengths_;
};

// The common start and the common end are cut off: what differs between two rule sets is small.
void cutCommonEnds(Lines& before, Lines& after) {
  const auto [left, right] =
      std::mismatch(before.begin(), before.end(), after.begin(), after.end());
  before.erase(before.begin(), left);
  after.erase(after.begin(), right);
  while (!before.empty() && !after.empty() && before.back() == after.back()) {
    before.pop_back();
    after.pop_back();
  }
}

}  // namespace

std::vector<std::string> differences(const std::vector<std::string>& before,
                                     const std::vector<std::string>& after) {
  Lines left = before;
  Lines right = after;
  cutCommonEnds(left, right);
  CommonLengths common(left, right);
  Lines found;
  std::size_t row = 0;
  std::size_t column = 0;
  while (row < left.size() || column < right.size()) {
    if (row < left.size() && column < right.size() && left[row] == right[column]) {
      ++row;
      ++column;
    } else if (column == right.size() ||
               (row < left.size() && common.at(row + 1, column) >= common.at(row, column + 1))) {
      found.push_back("-" + left[row++]);
    } else {
      found.push_back("+" + right[column++]);
    }
  }
  return found;
}

}  // namespace ops
