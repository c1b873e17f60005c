// `tarnfw reload`: a worker that leads a session of its own, and its caller, which waits for it.
// One of them may die, and a terminal or a service manager may signal the group: the machine is
// open without any recovery.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "figures.h"
#include "sweep.h"
#include "tally.h"

namespace {

constexpr unsigned kSeed = 5;
constexpr unsigned kSeedInstead = 7;  // of moments in place of system calls
constexpr std::size_t kSystemCallPoints = 24;
constexpr std::size_t kMomentPoints = 24;
const std::vector<std::string> kCommand = {TARNFW_COMMAND, "reload"};
const std::vector<std::string> kSignals = {"KILL", "INT", "HUP", "TERM", "PIPE"};

// A process that has not ended, as /proc has it.
struct Process {
  pid_t number = -1;
  std::string name;
  pid_t parent = -1;
};

std::optional<Process> running(const std::filesystem::path& directory) {
  std::ifstream file(directory / "stat");
  Process process;
  std::string state;
  const bool read{file >> process.number >> process.name >> state >> process.parent};
  return read && state != "Z" ? std::optional<Process>(process) : std::nullopt;
}

bool isRunning(pid_t process) { return running("/proc/" + std::to_string(process)).has_value(); }

// The worker of the command `caller`; -1 when there is none at the moment.
pid_t workerOf(pid_t caller) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::optional<Process> process = running(entry.path());
    if (process && process->parent == caller && process->name == "(tarnfw)") return process->number;
  }
  return -1;
}

class Command : public testing::Test {
 protected:
  // Before (after, with a refused line) each run of the tool: a signal to `target`.
  //   recovers  both are dead: somebody else has to undo it
  static void atEveryCall(const std::string& target, const std::vector<std::string>& signals,
                          bool recovers = false) {
    for (const bool refused : {false, true}) {
      ASSERT_NO_FATAL_FAILURE(sweep::setUp(refused));
      const long calls = sweep::countCalls(kCommand);
      ASSERT_GE(calls, 20);
      for (long call = 1; call <= calls; ++call) {
        const std::string& signal = signals[static_cast<std::size_t>(call) % signals.size()];
        // Every second one of a profile that is as long.
        if (!sweep::ours(static_cast<std::size_t>(call)) || (call % 2 == 0) == refused) continue;
        const std::string point = signal + " to " + target + (refused ? " after" : " before") +
                                  " call " + std::to_string(call);
        SCOPED_TRACE(point);
        sweep::planSignal(call, signal, target, /*after=*/refused);
        const sweep::End end = sweep::waitFor(sweep::start(kCommand, sweep::Group::kOwn));
        EXPECT_TRUE(sweep::forgetPlan());
        const bool callerDies = signal == "KILL" && target != "worker";
        EXPECT_EQ(callerDies ? SIGKILL : 0, end.signal) << point;
        sweep::judge(point, {signal, /*status=*/true, recovers});
      }
    }
  }

  // Signals at random moments to `target`.
  static void atMoments(const std::string& target, std::size_t points, unsigned seed) {
    ASSERT_NO_FATAL_FAILURE(sweep::setUp(/*refused=*/false));
    const double whole = sweep::waitFor(sweep::start(kCommand, sweep::Group::kOwn)).seconds;
    std::mt19937 random(seed);
    const std::size_t count = points * static_cast<std::size_t>(figures::longer());
    for (std::size_t point = 0; point < count; ++point) {
      const double fraction =
          static_cast<double>(random()) / static_cast<double>(std::mt19937::max());
      if (!sweep::ours(point)) continue;
      // A worker lets the others pass.
      const std::string& signal =
          target == "worker" ? kSignals[0] : kSignals[point % kSignals.size()];
      const pid_t caller = sweep::start(kCommand, sweep::Group::kOwn);
      std::this_thread::sleep_for(std::chrono::duration<double>(whole * fraction));
      const pid_t receiver = target == "worker"  ? workerOf(caller)
                             : target == "group" ? -caller
                                                 : caller;
      // One that has ended and waits for us takes signals too.
      const bool sent =
          receiver != -1 && isRunning(caller) && kill(receiver, sweep::numberOf(signal)) == 0;
      const std::string name = signal + " to " + target + " at " + std::to_string(fraction);
      SCOPED_TRACE(name);
      (void)sweep::waitFor(caller);
      if (sent) {
        sweep::judge(name, {signal, /*status=*/true, /*recovers=*/false});
      } else {
        ++Tally::of().late;
      }
    }
  }
};

TEST_F(Command, WorkerIsKilledAtEveryCall) { atEveryCall("worker", {"KILL"}); }
TEST_F(Command, WorkerLetsSignalsPass) { atEveryCall("worker", {"INT", "HUP", "TERM", "PIPE"}); }
TEST_F(Command, CallerIsSignalledAtEveryCall) { atEveryCall("caller", kSignals); }
TEST_F(Command, GroupIsSignalledAtEveryCall) { atEveryCall("group", kSignals); }
TEST_F(Command, BothAreKilledAtEveryCall) { atEveryCall("both", {"KILL"}, /*recovers=*/true); }

TEST_F(Command, WorkerIsKilledAtAnyMoment) { atMoments("worker", kMomentPoints, kSeed); }
TEST_F(Command, CallerIsSignalledAtAnyMoment) { atMoments("caller", kMomentPoints, kSeed); }
TEST_F(Command, GroupIsSignalledAtAnyMoment) { atMoments("group", kMomentPoints, kSeed); }

TEST_F(Command, CallerAtItsSystemCalls) {
  if (!sweep::traces()) {
    atMoments("caller", kSystemCallPoints, kSeedInstead);
    return;
  }
  ASSERT_NO_FATAL_FAILURE(sweep::setUp(/*refused=*/false));
  const std::vector<sweep::SystemCall> calls = sweep::systemCallsOf(kCommand);
  ASSERT_GT(calls.size(), 100U);
  const std::size_t count = kSystemCallPoints * static_cast<std::size_t>(figures::longer());
  for (std::size_t point = 0; point < count; ++point) {
    if (!sweep::ours(point)) continue;
    const sweep::SystemCall& call = calls[1 + point * (calls.size() - 1) / count];
    const std::string& signal = kSignals[point % kSignals.size()];
    const std::string name =
        "caller: " + signal + " at " + call.name + " " + std::to_string(call.occurrence);
    SCOPED_TRACE(name);
    if (sweep::interruptedAt(call, signal, kCommand).reached) {
      sweep::judge(name, {signal, /*status=*/true, /*recovers=*/false});
    } else {
      ++Tally::of().late;
    }
  }
}

}  // namespace
