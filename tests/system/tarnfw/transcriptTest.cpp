// The command as its users see it. Each file in transcripts/ is a session:
//
//   # What it shows, in one sentence.
//   $ tarnfw profile list          a command, run by the shell on a new machine
//   > word                         a further line of it
//   default                        what it prints on standard output
//   ! tarnfw: profile list: ...    and on standard error
//   ? 3                            its exit status, unless it is 0
//
// Line numbers of log messages are written as N, the numbers of new profile documents as STEM.

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

std::string withoutNumbers(const std::string& text) {
  static const std::regex kLine(R"((\w+):[0-9]+ )");
  static const std::regex kStem(R"(/[0-9]{9,}\.json)");
  return std::regex_replace(std::regex_replace(text, kLine, "$1:N "), kStem, "/STEM.json");
}

std::string indented(const std::string& text, const char* mark) {
  std::string result;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) result += mark + line + "\n";
  return result;
}

// The session with what the commands print now.
std::string replayed(const std::string& session) {
  std::string result;
  std::string command;
  const auto finish = [&] {
    if (command.empty()) return;
    const machine::Result ended = machine::run(command);
    result += withoutNumbers(indented(ended.out, "") + indented(ended.err, "! "));
    if (ended.status != 0) result += "? " + std::to_string(ended.status) + "\n";
    command.clear();
  };
  std::istringstream lines(session);
  for (std::string line; std::getline(lines, line);) {
    const std::string mark = line.substr(0, 2);
    if (mark == "$ " || mark == "# ") finish();
    if (mark == "$ " || mark == "> ") {
      command += (command.empty() ? "" : "\n") + line.substr(2);
    }
    if (mark == "$ " || mark == "> " || mark == "# ") result += line + "\n";
  }
  finish();
  return result;
}

std::vector<std::string> sessions() {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(
           std::string(TARNFW_SOURCES) + "/tests/system/tarnfw/transcripts")) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

class Transcript : public testing::TestWithParam<std::string> {};

TEST_P(Transcript, IsWhatIsPrinted) {
  machine::reset();
  const std::string expected = machine::read(GetParam());
  EXPECT_EQ(replayed(expected), expected);
}

std::string nameOf(const testing::TestParamInfo<std::string>& session) {
  return std::filesystem::path(session.param).stem().string();
}

INSTANTIATE_TEST_SUITE_P(Sessions, Transcript, testing::ValuesIn(sessions()), nameOf);

}  // namespace
