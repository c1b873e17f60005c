// The system log of the test programs, as lines of the trace.

#include <syslog.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "trace.h"

namespace {

struct Row {
  const char* name;
  int priority;
  std::string message;
  std::string line;
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<Row> kRows = {
    {"Error", LOG_ERR, "fwDB:218 Failed to profileSet", "err fwDB Failed to profileSet"},
    {"Debug", LOG_DEBUG, "utils:9 Failed to create path: File exists", "debug utils Failed to create path: File exists"},
    {"OtherPriority", LOG_INFO, "fwDB:1 text", "6 fwDB text"},
    {"PriorityWithFacility", LOG_DAEMON | LOG_ERR, "fwDB:1 text", "27 fwDB text"},
    {"KnownNumber", LOG_ERR, "fwIptables:574 Unknown policy 7", "err fwIptables:574 Unknown policy 7"},
    {"NumberThatIsNotKnown", LOG_ERR, "fwIptables:575 text", "err fwIptables text"},
    {"KnownNumberOfAnotherModule", LOG_ERR, "fwDB:574 text", "err fwDB text"},
    {"ColonInTheText", LOG_ERR, "utils:12 Failed: it:5 is", "err utils Failed: it:5 is"},
    {"NoModule", LOG_ERR, "Failed to read", "err Failed to read"},
    {"NoNumber", LOG_ERR, "error: no such file", "err error: no such file"},
    {"NoText", LOG_ERR, "fwDB:12", "err fwDB:12"},
    {"Percent", LOG_ERR, "fwDB:1 100 %s", "err fwDB 100 %s"},
};
// clang-format on

class Syslog : public testing::TestWithParam<Row> {};

TEST_P(Syslog, IsALineOfTheTrace) {
  syslog(GetParam().priority, "%s", GetParam().message.c_str());
  EXPECT_EQ(GetParam().line, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Trace, Syslog, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Trace, LinesAreJoinedAndTakenOnce) {
  trace::add("one");
  syslog(LOG_ERR, "%s:%d %s", "fwDB", 7, "two");
  trace::add("three");
  EXPECT_EQ("one\nerr fwDB two\nthree", trace::take());
  EXPECT_EQ("", trace::take());
}

}  // namespace
