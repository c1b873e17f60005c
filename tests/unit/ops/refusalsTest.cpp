#include "ops/refusals.h"

#include <string>

#include <gtest/gtest.h>

#include "process.h"

namespace {

void runShell(std::string script) {
  std::string shell = "/bin/sh";
  std::string option = "-c";
  char* const arguments[] = {shell.data(), option.data(), script.data(), nullptr};
  (void)TLIBCExecv("/bin/sh", arguments, /*wait=*/1);
}

TEST(Refusals, HasWhatFailedSinceTheLastClear) {
  runShell("exit 1");
  ops::clearRefusals();
  runShell("exit 0");
  runShell("echo no such thing; exit 2");
  runShell("exit 3");
  const ops::Refusals refusals = ops::refusals();
  EXPECT_EQ(refusals.count, 2);
  ASSERT_EQ(refusals.first.size(), 2U);
  EXPECT_EQ(refusals.first[0].command, "/bin/sh -c echo no such thing; exit 2");
  EXPECT_EQ(refusals.first[0].status, 2);
  EXPECT_EQ(refusals.first[0].words, "no such thing");
  EXPECT_EQ(refusals.first[1].status, 3);
}

TEST(Refusals, HasEachOfMany) {
  ops::clearRefusals();
  for (int count = 0; count < 300; ++count) runShell("exit 1 #" + std::to_string(count));
  const ops::Refusals refusals = ops::refusals();
  EXPECT_EQ(refusals.count, 300);
  ASSERT_EQ(refusals.first.size(), 300U);
  EXPECT_EQ(refusals.first.back().command, "/bin/sh -c exit 1 #299");
}

TEST(Refusals, PassThroughJson) {
  ops::Refusals refusals;
  refusals.count = 3;
  refusals.first.push_back({"/sbin/iptables -A \"x\"", 2, "Bad argument `x'"});
  const ops::Refusals read = ops::refusalsFromJson(ops::toJson(refusals));
  EXPECT_EQ(read.count, 3);
  ASSERT_EQ(read.first.size(), 1U);
  EXPECT_EQ(read.first[0].command, "/sbin/iptables -A \"x\"");
  EXPECT_EQ(read.first[0].status, 2);
  EXPECT_EQ(read.first[0].words, "Bad argument `x'");
}

TEST(Refusals, NoneInANullValue) {
  const ops::Refusals read = ops::refusalsFromJson(Json::Value());
  EXPECT_EQ(read.count, 0);
  EXPECT_EQ(read.first.size(), 0U);
}

}  // namespace
