#include "ops/textDiff.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// A text of one-letter lines.
std::vector<std::string> lines(const std::string& letters) {
  std::vector<std::string> lines;
  for (const char letter : letters) lines.emplace_back(1, letter);
  return lines;
}

struct Row {
  const char* name;
  const char* before;
  const char* after;
  const char* differences;
};

constexpr Row kRows[] = {
    {"BothEmpty", "", "", ""},
    {"Same", "abc", "abc", ""},
    {"AllNew", "", "ab", "+a+b"},
    {"AllGone", "ab", "", "-a-b"},
    {"AddedAtStart", "bc", "abc", "+a"},
    {"AddedAtEnd", "ab", "abc", "+c"},
    {"AddedBetween", "ac", "abc", "+b"},
    {"Removed", "abc", "ac", "-b"},
    {"Replaced", "abc", "axc", "-b+x"},
    {"Moved", "abc", "bca", "-a+a"},
    {"OneCopyLess", "aaa", "aa", "-a"},
    {"NothingInCommon", "ab", "cd", "-a-b+c+d"},
    {"TwoPlaces", "abcdef", "xbcdyf", "-a+x-e+y"},
};

TEST(TextDiff, Rows) {
  for (const Row& row : kRows) {
    std::string found;
    for (const std::string& line : ops::differences(lines(row.before), lines(row.after))) {
      found += line;
    }
    EXPECT_EQ(found, row.differences) << row.name;
  }
}

}  // namespace
