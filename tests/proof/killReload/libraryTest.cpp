// Programs that call the library themselves and have no supervisor. What their death leaves behind,
// `tarnfw recover` undoes.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "figures.h"
#include "machine.h"
#include "sweep.h"
#include "tally.h"

namespace {

using sweep::Operation;

constexpr unsigned kSeed = 4;
constexpr unsigned kSeedInstead = 6;           // of moments in place of system calls
constexpr std::size_t kSystemCallPoints = 24;  // of each operation
constexpr std::size_t kMomentPoints = 8;       // of each operation
const std::vector<std::string> kPoliteSignals = {"INT", "HUP", "TERM", "PIPE"};

std::string nameOf(const Operation& operation) {
  return std::string(operation.name) + (operation.on ? "" : " when off");
}

// Judges what a victim left that was to die of `signal`; one that had ended before is no point.
void judgeDead(const sweep::End& end, const std::string& signal, const std::string& point,
               std::optional<bool> status) {
  if (end.signal == sweep::numberOf(signal)) {
    sweep::judge(point, {signal, status, /*recovers=*/true});
    return;
  }
  EXPECT_EQ(0, end.signal) << point;
  EXPECT_EQ(0, end.status) << point;
  ++Tally::of().late;
}

class Library : public testing::Test {
 protected:
  // At each run of the tool: killed before it, and, with a line that is refused, killed after it or
  // by one of the signals that the library holds back while a tool runs.
  static void atEveryCall(const Operation& operation) {
    for (const bool refused : {false, true}) {
      ASSERT_NO_FATAL_FAILURE(sweep::setUp(refused));
      ASSERT_NO_FATAL_FAILURE(sweep::prepare(operation));
      const long calls = sweep::countCalls(sweep::victim(operation));
      ASSERT_GE(calls, 4);
      for (long call = 1; call <= calls; ++call) {
        if (!sweep::ours(static_cast<std::size_t>(call / 2))) continue;
        if (!refused) {
          atCall(operation, call, "KILL", /*after=*/false);
        } else if (call % 2 == 0) {
          atCall(operation, call, "KILL", /*after=*/true);
        } else {
          const auto turn = static_cast<std::size_t>(call / 2);
          atCall(operation, call, kPoliteSignals[turn % kPoliteSignals.size()], /*after=*/false);
        }
      }
    }
  }

  // "status" is written before the first command of enable and after the last one of disable, so
  // that at a command it is certain.
  static void atCall(const Operation& operation, long call, const std::string& signal, bool after) {
    ASSERT_NO_FATAL_FAILURE(sweep::prepare(operation));
    const std::string point = nameOf(operation) + ": " + signal + (after ? " after" : " before") +
                              " call " + std::to_string(call);
    SCOPED_TRACE(point);
    sweep::planSignal(call, signal, "worker", after);
    const sweep::End end = sweep::waitFor(sweep::start(sweep::victim(operation)));
    EXPECT_TRUE(sweep::forgetPlan());
    judgeDead(end, signal, point, operation.on || operation.after);
  }

  // "status" after a death at the system call `at`. One that kills prevents the call, the others
  // let it end.
  static std::optional<bool> statusAt(const std::vector<sweep::SystemCall>& calls, std::size_t at,
                                      const std::string& signal, const Operation& operation) {
    const auto stores = std::find_if(calls.begin(), calls.end(), [](const sweep::SystemCall& call) {
      return call.name == "rename" &&
             call.text.find("firewall_settings.json\"") != std::string::npos;
    });
    const auto index = static_cast<std::size_t>(stores - calls.begin());
    const bool stored = at > index || (at == index && signal != "KILL");
    return stored ? operation.after : operation.on;
  }

  static void atSystemCalls(const Operation& operation) {
    ASSERT_NO_FATAL_FAILURE(sweep::setUp(/*refused=*/false));
    ASSERT_NO_FATAL_FAILURE(sweep::prepare(operation));
    const std::vector<sweep::SystemCall> calls = sweep::systemCallsOf(sweep::victim(operation));
    ASSERT_GT(calls.size(), 100U);
    const std::size_t count =
        std::min(calls.size() - 1, kSystemCallPoints * static_cast<std::size_t>(figures::longer()));
    for (std::size_t point = 0; point < count; ++point) {
      if (!sweep::ours(point)) continue;
      const std::size_t at =
          1 + point * (calls.size() - 1) / count;  // the first is the exec itself
      const std::string signal = point % 2 == 0 ? "KILL" : kPoliteSignals[point / 2 % 4];
      ASSERT_NO_FATAL_FAILURE(sweep::prepare(operation));
      const sweep::SystemCall& call = calls[at];
      const std::string name = nameOf(operation) + ": " + signal + " at " + call.name + " " +
                               std::to_string(call.occurrence);
      SCOPED_TRACE(name);
      const sweep::End end = sweep::interruptedAt(call, signal, sweep::victim(operation));
      judgeDead(end, signal, name, statusAt(calls, at, signal, operation));
    }
  }

  // Moments that are neither the beginning of a system call nor the end of a tool: `points` of
  // them.
  static void atMoments(const Operation& operation, std::size_t points, unsigned seed) {
    ASSERT_NO_FATAL_FAILURE(sweep::setUp(/*refused=*/true));
    ASSERT_NO_FATAL_FAILURE(sweep::prepare(operation));
    const double whole = sweep::waitFor(sweep::start(sweep::victim(operation))).seconds;
    std::mt19937 random(seed);
    const std::size_t count = points * static_cast<std::size_t>(figures::longer());
    for (std::size_t point = 0; point < count; ++point) {
      const double fraction =
          static_cast<double>(random()) / static_cast<double>(std::mt19937::max());
      if (!sweep::ours(point)) continue;
      const std::string signal = point % 2 == 0 ? "KILL" : kPoliteSignals[point / 2 % 4];
      ASSERT_NO_FATAL_FAILURE(sweep::prepare(operation));
      const pid_t process = sweep::start(sweep::victim(operation));
      std::this_thread::sleep_for(std::chrono::duration<double>(whole * fraction));
      EXPECT_EQ(0, kill(process, sweep::numberOf(signal)));
      const std::string name =
          nameOf(operation) + ": " + signal + " at " + std::to_string(fraction);
      SCOPED_TRACE(name);
      judgeDead(sweep::waitFor(process), signal, name,
                operation.on == operation.after ? std::optional<bool>(operation.on) : std::nullopt);
    }
  }
};

TEST_F(Library, EnableAtEveryCall) { atEveryCall(sweep::kEnable); }
TEST_F(Library, ReloadAtEveryCall) { atEveryCall(sweep::kReload); }
TEST_F(Library, DisableAtEveryCall) { atEveryCall(sweep::kDisable); }
TEST_F(Library, TrialAtEveryCall) { atEveryCall(sweep::kTrial); }
TEST_F(Library, TrialWhenOffAtEveryCall) { atEveryCall(sweep::kTrialWhenOff); }

TEST_F(Library, SystemCalls) {
  const bool traced = sweep::traces();
  for (const Operation& operation :
       {sweep::kEnable, sweep::kReload, sweep::kDisable, sweep::kTrial}) {
    if (traced) {
      atSystemCalls(operation);
    } else {
      atMoments(operation, kSystemCallPoints, kSeedInstead);
    }
  }
}

TEST_F(Library, Moments) {
  for (const Operation& operation :
       {sweep::kEnable, sweep::kReload, sweep::kDisable, sweep::kTrial}) {
    atMoments(operation, kMomentPoints, kSeed);
  }
}

}  // namespace
