#include "ops/printable.h"

#include <string>

#include <gtest/gtest.h>

namespace {

struct Row {
  const char* name;
  std::string text;
  const char* printable;
};

const Row kRows[] = {
    {"Empty", "", ""},
    {"Words", "a rule, 100 %", "a rule, 100 %"},
    {"LineFeedAndTab", "a\nb\tc", "a\\x0ab\\x09c"},
    {"EscapeSequence", "\033[31mred", "\\x1b[31mred"},
    {"LastAsciiAndDelete", "~\x7f", "~\\x7f"},
    {"Nul", std::string("a\0b", 3), "a\\x00b"},
    {"Utf8", "B\xc3\xbcro", "B\xc3\xbcro"},
    {"FirstAndLastOfTheUpperControls", "\xc2\x80\xc2\x9f", "\\xc2\\x80\\xc2\\x9f"},
    {"NoBreakSpaceIsNone", "\xc2\xa0", "\xc2\xa0"},
    {"CutSequence", "a\xc2", "a\xc2"},
};

TEST(Printable, Rows) {
  for (const Row& row : kRows) EXPECT_EQ(ops::printable(row.text), row.printable) << row.name;
}

}  // namespace
