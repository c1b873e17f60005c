// Every operation out of every odd host: the result is right, the programs that are run see nothing
// of the host, and the host finds everything of its own as it was.

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "counts.h"
#include "figures.h"
#include "hosts.h"
#include "machine.h"
#include "operations.h"
#include "processes.h"
#include "testFiles.h"

namespace {

using namespace oddHosts;  // NOLINT(google-build-using-namespace): the test's own support

namespace fs = std::filesystem;

constexpr char kMark[] = "/tmp/poison/mark";
constexpr unsigned kPromised = 190;  // hosts times operations
constexpr unsigned kSkippable = 40;  // of them: what this machine does not let hosts do
constexpr std::chrono::seconds kPatience(60);
constexpr char kNotArranged[] = "(not arranged)";

// What every program is started with, whoever the host is.
constexpr char kFixed[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin; LC_ALL=C; ";
constexpr char kClean[] =
    "descriptors 0 /dev/null 1 output 2 output; Umask: 0022; SigPnd: 0000000000000000; "
    "ShdPnd: 0000000000000000; SigBlk: 0000000000000000; SigIgn: 0000000000000000; "
    "SigCgt: 0000000000000000; in /; own group; room for output";
// The same for a host whose limit on files cannot be raised, for want of CAP_SYS_RESOURCE: SIGXFSZ
// is ignored.
constexpr char kCleanUnderLimit[] =
    "descriptors 0 /dev/null 1 output 2 output; Umask: 0022; SigPnd: 0000000000000000; "
    "ShdPnd: 0000000000000000; SigBlk: 0000000000000000; SigIgn: 0000000001000000; "
    "SigCgt: 0000000000000000; in /; own group; no room for output";

figures::Counts tally("odd-hosts/" BACKEND,
                      {"hosts x operations", "skipped", "wrong results", "programs run",
                       "with something inherited", "hosts changed"});

class OddHosts : public testing::Test {
 protected:
  // What was inherited and is somebody else's too may move its offset at any time.
  static void SetUpTestSuite() {
    constexpr unsigned kBehindTheStandardOnes = 3;
    ASSERT_EQ(0, close_range(kBehindTheStandardOnes, ~0U, 0));
  }
};

std::set<std::string> linesOf(const std::string& text) {
  std::istringstream stream(text);
  std::set<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.insert(line);
  return lines;
}

// The lines that only one of the two has.
std::string difference(const std::string& before, const std::string& after) {
  const std::set<std::string> old = linesOf(before);
  const std::set<std::string> now = linesOf(after);
  std::string text;
  for (const std::string& line : old) text += now.count(line) == 0 ? "- " + line + "\n" : "";
  for (const std::string& line : now) text += old.count(line) == 0 ? "+ " + line + "\n" : "";
  return text;
}

// The host: it has a locale, a sequence of random numbers and an open system log of its own.
std::string runIn(const Host& host, const Operation& operation) {
  processes::Child child([&] {
    (void)std::setlocale(LC_ALL, "C.UTF-8");
    std::srand(7);
    (void)std::rand();
    const int expected = std::rand();
    syslog(LOG_DEBUG, "odd host %s", host.name);
    if (!host.arrange()) return std::string(kNotArranged);
    std::srand(7);
    (void)std::rand();
    const std::string before = stateOfHost();
    const std::string answer = operation.run();
    const std::string after = stateOfHost();
    if (std::rand() != expected) return answer + ", other random numbers";
    return before == after ? answer : answer + ", changed\n" + difference(before, after);
  });
  const std::string answer = child.answerWithin(kPatience);
  std::error_code error;
  fs::rename("/dev/log.away", "/dev/log", error);
  return answer;
}

// How the plug-ins were called; counts all programs that were run.
std::string plugInCalls() {
  std::istringstream calls(files::read("/tmp/tool/calls"));
  std::string text;
  for (std::string call; std::getline(calls, call);) {
    if (call == "(absent)") continue;
    tally.count("programs run");
    if (call.find("tables ") == std::string::npos) text += (text.empty() ? "" : ", ") + call;
  }
  return text;
}

// The surroundings of a program that are not what they must be, one a line.
std::string inherited(const Host& host) {
  std::set<std::string> allowed;
  for (const char* const variable : {"XTABLES_LOCKFILE=/dev/null; ", "RESULT=0; ", "RESULT=-1; "}) {
    allowed.insert(std::string(kFixed) + variable + kClean);
    if (host.limited) allowed.insert(std::string(kFixed) + variable + kCleanUnderLimit);
  }
  std::string text;
  for (const std::string& line : linesOf(files::read("/tmp/tool/surroundings"))) {
    if (line != "(absent)" && allowed.count(line) == 0) text += line + "\n";
  }
  return text + (fs::exists(kMark) ? "poison\n" : "");
}

void expectRow(const Host& host, const Operation& operation) {
  prepare();
  operation.arrange();
  fs::remove_all("/tmp/tool");
  fs::create_directory("/tmp/tool");
  makePoison();

  const std::string answer = runIn(host, operation);
  if (answer == kNotArranged) {
    tally.count("skipped");
    std::cout << "skipped: " << host.name << ", " << operation.name << ": cannot be arranged\n";
    return;
  }
  tally.count("hosts x operations");
  const std::string calls = plugInCalls();
  const std::string left = inherited(host);
  const std::string seen = operation.seen();
  const std::string errors = host.writesNothing ? "" : road::libraryLog("");
  const Outcome& expected = host.writesNothing ? operation.withoutFiles : operation.outcome;
  EXPECT_EQ(expected.answer, answer);
  EXPECT_EQ(expected.result, seen);
  EXPECT_EQ(expected.plugIns, calls);
  EXPECT_EQ("", errors);
  EXPECT_EQ("", left);
  const bool changed = answer.find(',') != std::string::npos;
  const bool answeredRight = answer == expected.answer || changed;
  if (changed) tally.count("hosts changed");
  if (!left.empty()) tally.count("with something inherited");
  if (!answeredRight || seen != expected.result || calls != expected.plugIns || !errors.empty()) {
    tally.count("wrong results");
  }
}

TEST_F(OddHosts, OperationsAreRightAndLeaveNoTrace) {
  for (int round = 0; round < figures::longer(); ++round) {
    for (const Host& host : hosts()) {
      SCOPED_TRACE(host.name);
      for (const Operation& operation : operations()) {
        SCOPED_TRACE(operation.name);
        expectRow(host, operation);
      }
    }
  }
  EXPECT_GE(tally.counted("hosts x operations") + tally.counted("skipped"), kPromised);
  EXPECT_LE(tally.counted("skipped"), kSkippable * static_cast<unsigned>(figures::longer()));
}

// A program started with the poisoned environment is poisoned: the mark of the sweep can be made.
TEST_F(OddHosts, PoisonWorks) {
  for (const char* const command :
       {"LD_PRELOAD=/tmp/poison/poison.so /bin/true",
        "XTABLES_LIBDIR=/tmp/poison /etc/alternatives/iptables -m state --help >/dev/null 2>&1",
        "PATH=/tmp/poison iptables"}) {
    SCOPED_TRACE(command);
    makePoison();
    (void)!std::system(command);  // NOLINT(cert-env33-c): with the shell's variables
    EXPECT_TRUE(fs::exists(kMark));
  }
}

}  // namespace
