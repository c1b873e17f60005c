#include "ops/packetFilter.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Row {
  const char* name;
  const char* program;
  std::vector<std::string> arguments;
  int status;
  const char* output;
  const char* words;
};

const Row kRows[] = {
    {"Silent", "/bin/true", {}, 0, "", "exit status 0"},
    {"Refusing", "/bin/false", {}, 1, "", "exit status 1"},
    {"BothOutputs", "/bin/sh", {"-c", "echo out; echo err >&2; exit 3"}, 3, "out\nerr\n", "out"},
    {"FirstLineWithWords", "/bin/sh", {"-c", "echo; echo why; exit 2"}, 2, "\nwhy\n", "why"},
    {"ArgumentsAsTheyAre", "/bin/echo", {"a b", "", "$HOME"}, 0, "a b  $HOME\n", "a b  $HOME"},
    {"Missing", "/nonexistent", {}, -1, "No such file or directory", "No such file or directory"},
    {"Killed", "/bin/sh", {"-c", "kill -9 $$"}, -1, "killed: Killed", "killed: Killed"},
    {"FixedEnvironment", "/bin/sh", {"-c", "echo $LC_ALL $TARNFW_TEST"}, 0, "C\n", "C"},
};

TEST(PacketFilter, Rows) {
  ASSERT_EQ(setenv("TARNFW_TEST", "seen", 1), 0);
  for (const Row& row : kRows) {
    const ops::ToolRun run = ops::runProgram(row.program, row.arguments);
    EXPECT_EQ(run.status, row.status) << row.name;
    EXPECT_EQ(run.output, row.output) << row.name;
    EXPECT_EQ(run.words(), row.words) << row.name;
  }
}

TEST(PacketFilter, CommandText) {
  const ops::Command command = {ops::Family::kV6, {"-I", "INPUT", "1"}};
  EXPECT_EQ(command.text(), "/sbin/ip6tables -I INPUT 1");
}

}  // namespace
