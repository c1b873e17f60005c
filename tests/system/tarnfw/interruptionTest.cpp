// A reload of some 200 lines that is interrupted: whatever dies, and wherever, the machine takes
// new connections again, and nothing of the drop period stays behind.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

constexpr char kAlternatives[] = "/etc/alternatives/";
constexpr int kManyRules = 48;  // four lines each, and the preamble: more than 200
constexpr int kFewRules = 2;

class Interruption : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const std::string tool : {"iptables", "ip6tables"}) {
      const std::string link = kAlternatives + tool;
      ASSERT_EQ(rename(link.c_str(), (link + "-before").c_str()), 0);
      ASSERT_EQ(symlink(TARNFW_INTERRUPTING_TOOL, link.c_str()), 0);
    }
  }
  static void TearDownTestSuite() {
    for (const std::string tool : {"iptables", "ip6tables"}) {
      const std::string link = kAlternatives + tool;
      ASSERT_EQ(rename((link + "-before").c_str(), link.c_str()), 0);
    }
  }

  // A machine whose firewall is on, with a profile of so many rules.
  void switchOn(int rules) {
    machine::reset();
    machine::write("/usr/tarn/etc/firewall.d/default.json",
                   machine::profileOfRules("default", rules));
    const machine::Result on = machine::run("tarnfw setup -q 2>/tmp/setup && tarnfw enable");
    ASSERT_EQ(on.status, 0) << on.err;
    whole_ = machine::filterTables();
    calls_ = countCalls();
  }

  // Runs a reload whose call `call` is preceded by `signal` to `target`.
  static machine::Result interrupted(long call, const std::string& signal,
                                     const std::string& target) {
    (void)mkdir("/run/interruption", 0700);
    (void)unlink("/run/interruption/calls");
    (void)unlink("/run/interruption/worker");
    (void)unlink("/run/interruption/tool");
    machine::write("/run/interruption/plan",
                   std::to_string(call) + " " + signal + " " + target + "\n");
    machine::Result result = machine::run("exec tarnfw reload");
    EXPECT_TRUE(machine::eventually([] { return isGone("worker"); }));
    // The call that a killed worker leaves behind goes on to its end.
    EXPECT_TRUE(call == 0 || machine::eventually([] { return isGone("tool"); }));
    EXPECT_EQ(unlink("/run/interruption/plan"), 0);
    return result;
  }

  static bool isGone(const std::string& process) {
    const std::string number = machine::read("/run/interruption/" + process);
    return access(("/proc/" + number).c_str(), F_OK) != 0;
  }

  static long countCalls() {
    EXPECT_EQ(interrupted(0, "KILL", "worker").status, 0);
    return static_cast<long>(machine::read("/run/interruption/calls").size());
  }

  // What of a drop period is there: closed policies and marks, one line each.
  static std::string remains() {
    return machine::run(
               "for tool in iptables ip6tables; do $tool -S | "
               "grep -E '^-P (INPUT|FORWARD) DROP|FIREWALL_RELOADING.*ESTABLISHED'; done")
        .out;
  }

  std::string whole_;  // the filter tables after a reload that was left alone
  long calls_ = 0;     // of a worker that reloads
};

TEST_F(Interruption, KilledWorkerLeavesPoliciesOpen) {
  switchOn(kManyRules);
  ASSERT_GT(calls_, 200);
  // The drop set, the flush, lines of both families, the accept set.
  for (const long call : {1L, 2L, 3L, 4L, 5L, 6L, 7L, 11L, calls_ / 4, calls_ / 2, calls_ - 6,
                          calls_ - 4, calls_ - 3, calls_ - 1, calls_}) {
    SCOPED_TRACE("call " + std::to_string(call) + " of " + std::to_string(calls_));
    const machine::Result result = interrupted(call, "KILL", "worker");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("tarnfw: reload: the worker process was killed (Killed)"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(remains(), "");
  }
  EXPECT_EQ(machine::run("tarnfw reload").status, 0);
  EXPECT_EQ(machine::filterTables(), whole_);
}

TEST_F(Interruption, RecoverUndoesWhatTwoKilledProcessesLeave) {
  switchOn(kManyRules);
  // Before the first call there is no mark yet: only the record tells whose policy it is.
  for (const long call : {1L, 3L, 4L, 6L, calls_ / 2, calls_ - 1}) {
    SCOPED_TRACE("call " + std::to_string(call) + " of " + std::to_string(calls_));
    EXPECT_EQ(interrupted(call, "KILL", "both").status, 128 + SIGKILL);
    EXPECT_NE(remains(), "");
    const machine::Result result = machine::run("tarnfw recover");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(machine::filterTables(), whole_);
  }
}

TEST_F(Interruption, NextReloadUndoesItToo) {
  switchOn(kFewRules);
  EXPECT_EQ(interrupted(calls_ / 2, "KILL", "both").status, 128 + SIGKILL);
  EXPECT_NE(remains(), "");
  const machine::Result result = machine::run("tarnfw reload");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(machine::filterTables(), whole_);
}

TEST_F(Interruption, DisableAfterTwoKilledProcessesOpensThePolicies) {
  switchOn(kFewRules);
  EXPECT_EQ(interrupted(calls_ / 2, "KILL", "both").status, 128 + SIGKILL);
  EXPECT_NE(remains(), "");
  EXPECT_EQ(machine::run("tarnfw disable").status, 0);
  EXPECT_EQ(remains(), "");
}

// A key pressed at the terminal, a terminal that hangs up and a service manager all signal the
// group.
TEST_F(Interruption, SignalsToTheGroupAreSatOut) {
  switchOn(kFewRules);
  for (const char* signal : {"INT", "QUIT", "HUP", "TERM"}) {
    for (const long call : {1L, calls_ / 2, calls_}) {
      SCOPED_TRACE(std::string(signal) + " at call " + std::to_string(call));
      const machine::Result result = interrupted(call, signal, "group");
      EXPECT_EQ(result.status, 0) << result.err;
      EXPECT_EQ(machine::filterTables(), whole_);
    }
  }
}

TEST_F(Interruption, WorkerGoesOnWithoutItsCaller) {
  switchOn(kManyRules);
  EXPECT_EQ(interrupted(calls_ / 2, "KILL", "caller").status, 128 + SIGKILL);
  EXPECT_EQ(machine::filterTables(), whole_);
}

}  // namespace
