#include "ops/runApart.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

using ops::Ended;
using ops::runApart;
using ops::Signals;

TEST(RunApart, ReturnsTheResult) {
  const Ended ended = runApart(Signals::kShared, [] {
    Json::Value value;
    value["answer"] = 42;
    return value;
  });
  EXPECT_TRUE(ended.finished);
  EXPECT_EQ(ended.result["answer"].asInt(), 42);
  EXPECT_EQ(ended.signal, 0);
  EXPECT_EQ(ended.messages.size(), 0U);
}

TEST(RunApart, LeavesTheCallersMemoryAlone) {
  int value = 1;
  EXPECT_TRUE(runApart(Signals::kShared, [&value] { return Json::Value(value = 2); }).finished);
  EXPECT_EQ(value, 1);
}

TEST(RunApart, ReturnsWhatIsThrown) {
  const Ended ended =
      runApart(Signals::kShared, []() -> Json::Value { throw std::runtime_error("because"); });
  EXPECT_TRUE(ended.finished);
  EXPECT_EQ(ended.exception, "because");
}

TEST(RunApart, ReportsTheSignalThatKills) {
  const Ended ended = runApart(Signals::kKeptOff, []() -> Json::Value {
    (void)std::fprintf(stderr, "last words\n");
    (void)raise(SIGKILL);
    return {};
  });
  EXPECT_FALSE(ended.finished);
  EXPECT_EQ(ended.signal, SIGKILL);
  EXPECT_EQ(ended.messages, std::vector<std::string>{"last words"});
}

TEST(RunApart, NoticesAnEarlyExit) {
  const Ended ended = runApart(Signals::kShared, []() -> Json::Value { _exit(0); });
  EXPECT_FALSE(ended.finished);
  EXPECT_EQ(ended.signal, 0);
}

TEST(RunApart, CollectsBothOutputsInOrder) {
  const Ended ended = runApart(Signals::kShared, [] {
    (void)std::fprintf(stderr, "one\n");
    (void)std::printf("two\n");
    (void)std::fflush(stdout);
    (void)std::fprintf(stderr, "three");
    return Json::Value();
  });
  EXPECT_EQ(ended.messages, (std::vector<std::string>{"one", "two", "three"}));
}

TEST(RunApart, ALotOfOutputDoesNotBlock) {
  const Ended ended = runApart(Signals::kShared, [] {
    const std::string line(1023, 'x');
    for (int count = 0; count < 8 * 1024; ++count) (void)std::fprintf(stderr, "%s\n", line.c_str());
    return Json::Value("done");
  });
  EXPECT_EQ(ended.result.asString(), "done");
  EXPECT_EQ(ended.messages.size(), 8U * 1024);
}

TEST(RunApart, ReadsNothing) {
  const Ended ended =
      runApart(Signals::kShared, [] { return Json::Value(std::fgetc(stdin) == EOF); });
  EXPECT_TRUE(ended.result.asBool());
}

TEST(RunApart, KeepsTheTerminalsSignalsOff) {
  const Ended ended = runApart(Signals::kKeptOff, [] {
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGPIPE}) {
      (void)kill(getpid(), signal);
      (void)kill(getppid(), signal);
    }
    return Json::Value(getsid(0) == getpid());
  });
  EXPECT_TRUE(ended.finished);
  EXPECT_TRUE(ended.result.asBool());
  struct sigaction after = {};
  ASSERT_EQ(sigaction(SIGINT, nullptr, &after), 0);
  EXPECT_EQ(after.sa_handler, SIG_DFL) << "the caller's own way is back";
}

TEST(RunApart, SharedSignalsReachTheWork) {
  const Ended ended = runApart(Signals::kShared, []() -> Json::Value {
    (void)raise(SIGTERM);
    return {};
  });
  EXPECT_EQ(ended.signal, SIGTERM);
}

TEST(RunApart, LeavesNoDescriptorOpen) {
  const int before = dup(0);
  (void)close(before);
  (void)runApart(Signals::kShared, [] { return Json::Value(); });
  const int after = dup(0);
  (void)close(after);
  EXPECT_EQ(after, before);
}

// A tool that its dead caller has left behind: a process of the session that goes on, and does
// something last.
TEST(WaitForSession, EndsWithTheLastOfIt) {
  const std::string pipe = "/run/straggler";
  const std::string trace = "/run/straggler-was-here";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const Ended ended = runApart(Signals::kKeptOff, [&]() -> Json::Value {
    if (fork() == 0) {
      (void)open(pipe.c_str(), O_RDONLY);  // until somebody opens it for writing
      machine::write(trace, "done");
      _exit(0);
    }
    (void)raise(SIGKILL);
    return {};
  });
  ASSERT_EQ(ended.signal, SIGKILL);
  EXPECT_EQ(machine::read(trace), "");
  const pid_t releaser = fork();
  if (releaser == 0) _exit(open(pipe.c_str(), O_WRONLY) < 0 ? 1 : 0);
  ops::waitForSession(ended.process);
  EXPECT_EQ(machine::read(trace), "done");
  int status = -1;
  ASSERT_EQ(waitpid(releaser, &status, 0), releaser);
  EXPECT_EQ(status, 0);
}

}  // namespace
