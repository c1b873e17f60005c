#include "ops/lifecycle.h"

#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"
#include "ops/baseChains.h"
#include "ops/executionLock.h"
#include "tarnfirewall.h"
#include "unreadableFamily.h"

namespace {

using Verdict = ops::Supervised::Verdict;

class Lifecycle : public testing::Test {
 protected:
  void SetUp() override {
    machine::reset();
    ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
    machine::write("/usr/tarn/etc/firewall.d/1.json", machine::profileOfRules("default", 2));
  }
};

class SlowLifecycle : public Lifecycle {};

// The verdict and the reason on one line, the commands that undid something below.
std::string told(const ops::Supervised& outcome) {
  std::string text = outcome.verdict == Verdict::kDone   ? "done"
                     : outcome.verdict == Verdict::kBusy ? "busy"
                                                         : "failed";
  if (!outcome.reason.empty()) text += ": " + outcome.reason;
  text += "\n";
  for (const ops::Command& command : outcome.recovery.commands) text += command.text() + "\n";
  return text;
}

// An operation that ends in a drop period.
struct Row {
  const char* name;
  std::function<bool()> operation;
  const char* told;
};

constexpr char kOpened[] =
    "/sbin/iptables --policy INPUT ACCEPT\n"
    "/sbin/iptables --policy FORWARD ACCEPT\n"
    "/sbin/ip6tables --policy INPUT ACCEPT\n"
    "/sbin/ip6tables --policy FORWARD ACCEPT\n"
    "/sbin/iptables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
    "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n";

bool dropThen(const std::function<bool()>& end) { return FW::TARNFW().fwDefaultDrop() && end(); }

bool die(int signal) {
  (void)std::signal(signal, SIG_DFL);  // the sanitizers' own handlers would end it otherwise
  (void)raise(signal);
  return true;
}

const Row kRows[] = {
    {"Fails", [] { return dropThen([] { return false; }); },
     "failed: the library reports a failure; why is in the system log\n"},
    {"Throws", [] { return dropThen([]() -> bool { throw std::runtime_error("wrong shape"); }); },
     "failed: wrong shape\n"},
    {"IsKilled", [] { return dropThen([] { return die(SIGKILL); }); },
     "failed: the worker process was killed (Killed); the policies were opened again\n"},
    {"Crashes", [] { return dropThen([] { return die(SIGSEGV); }); },
     "failed: the worker process was killed (Segmentation fault); the policies were opened again\n"},
    {"Exits", [] { return dropThen([]() -> bool { _exit(0); }); },
     "failed: the worker process could not be started or ended early; the policies were opened "
     "again\n"},
};

TEST_F(Lifecycle, DropPeriodNeverStays) {
  const std::string open = machine::filterTables();
  for (const Row& row : kRows) {
    EXPECT_EQ(told(ops::supervise({}, row.operation)), std::string(row.told) + kOpened) << row.name;
    EXPECT_EQ(machine::filterTables(), open) << row.name;
  }
}

// The mark of the family that cannot be read stays, its policies do not.
TEST_F(Lifecycle, DeathLeavesTheFamilyThatCannotBeReadOpenToo) {
  {
    const UnreadableFamily unreadable("ip6tables");
    const ops::Supervised outcome = ops::supervise({/*needsChains=*/false, /*checked=*/false}, [] {
      return dropThen([] { return die(SIGKILL); });
    });
    EXPECT_EQ(
        told(outcome),
        "failed: the worker process was killed (Killed); the policies could not be checked: "
        "/sbin/ip6tables -S: no such family; run 'tarnfw recover'\n"
        "/sbin/iptables --policy INPUT ACCEPT\n"
        "/sbin/iptables --policy FORWARD ACCEPT\n"
        "/sbin/ip6tables --policy INPUT ACCEPT\n"
        "/sbin/ip6tables --policy FORWARD ACCEPT\n"
        "/sbin/iptables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n");
  }
  ops::LiveFilter filter;
  std::string reason;
  EXPECT_TRUE(ops::readFilter(filter, reason)) << reason;
  EXPECT_TRUE(filter.open());
}

// Before the mark is set, the record alone tells that the policy is ours; the other one was
// somebody else's before.
TEST_F(Lifecycle, ForeignPolicyStaysWhenAPolicyOfOursIsOpened) {
  ASSERT_EQ(machine::run("iptables -P FORWARD DROP").status, 0);
  const std::string before = machine::filterTables();
  const ops::Supervised outcome = ops::supervise({}, [] {
    return FW::TARNFW().cmdExec("/sbin/iptables --policy INPUT DROP") && die(SIGKILL);
  });
  EXPECT_EQ(told(outcome),
            "failed: the worker process was killed (Killed); the policies were opened again\n"
            "/sbin/iptables --policy INPUT ACCEPT\n");
  EXPECT_EQ(machine::filterTables(), before);
}

TEST_F(Lifecycle, DeathOutsideADropPeriodChangesNothing) {
  const std::string before = machine::filterTables();
  EXPECT_EQ(told(ops::supervise({}, [] { return die(SIGKILL); })),
            "failed: the worker process was killed (Killed)\n");
  EXPECT_EQ(machine::filterTables(), before);
}

TEST_F(Lifecycle, SuccessLeavesNoRecord) {
  EXPECT_EQ(told(ops::supervise({}, [] { return !ops::recordedOpenPolicies().empty(); })),
            "done\n");
  EXPECT_EQ(ops::recordedOpenPolicies().size(), 0U);
}

std::string records() { return machine::run("ls /run/tarn | grep open_policies").out; }

// Another worker that is killed while this one succeeds: what it has closed is still told apart.
TEST_F(Lifecycle, SuccessLeavesTheRecordsOfOthers) {
  const std::string open = machine::filterTables();
  const ops::Supervised outcome = ops::supervise({}, [] {
    const pid_t other = fork();
    if (other == 0) {
      (void)ops::writeOpenPolicies({"v4 INPUT"});
      (void)die(SIGKILL);
    }
    int status = 0;
    // By a tool of its own, so that the platform has no note of it.
    return waitpid(other, &status, 0) == other &&
           machine::run("iptables -P INPUT DROP").status == 0;
  });
  EXPECT_EQ(told(outcome), "done\n");
  ops::LiveFilter filter;
  EXPECT_EQ(ops::recover(filter).commands.size(), 1U);
  EXPECT_EQ(machine::filterTables(), open);
  EXPECT_EQ(records(), "");
}

// Each way out, but for the worker that could not see whether the policies are open.
TEST_F(Lifecycle, EveryWayOutRemovesTheRecord) {
  for (const Row& row : kRows) {
    (void)ops::supervise({}, row.operation);
    EXPECT_EQ(records(), "") << row.name;
  }
  (void)ops::supervise({}, [] {
    (void)std::fprintf(stderr, "tarnFW:1 TIMEOUT: getting lock\n");
    return false;
  });
  EXPECT_EQ(records(), "") << "busy";
  (void)ops::disableFirewall();
  EXPECT_EQ(records(), "") << "disabled";
}

// The policy that somebody has closed meanwhile is not opened by the next recovery.
TEST_F(Lifecycle, BusyWorkerLeavesForeignPoliciesAlone) {
  const ops::Supervised outcome = ops::supervise({}, [] {
    (void)std::fprintf(stderr, "tarnFW:1 TIMEOUT: getting lock\n");
    return false;
  });
  EXPECT_EQ(told(outcome), "busy: another reload holds the execution lock\n");
  ASSERT_EQ(machine::run("iptables -P FORWARD DROP").status, 0);
  ops::LiveFilter filter;
  EXPECT_EQ(ops::recover(filter).commands.size(), 0U);
}

TEST_F(Lifecycle, ManyRefusedCommandsAreNotToldTwice) {
  const ops::Supervised outcome = ops::supervise({}, [] {
    for (const char* chain : {"A", "B", "C"}) {
      const std::string command = std::string("/sbin/iptables -X NOSUCH") + chain;
      (void)std::fprintf(stderr, "tarnPlatform:1 %s: exit status 1: words\n", command.c_str());
      (void)std::fprintf(stderr, "tarnPlatform:1 after %s\n", chain);
      if (!FW::TARNFW().cmdExec(command)) return false;
    }
    return true;
  });
  EXPECT_EQ(outcome.refusals.first.size(), 3U);
  EXPECT_EQ(outcome.messages,
            (std::vector<std::string>{"tarnPlatform:1 after A", "tarnPlatform:1 after B",
                                      "tarnPlatform:1 after C"}));
}

TEST_F(Lifecycle, RefusedCommandsFailAndAreNotToldTwice) {
  const ops::Supervised outcome = ops::supervise({}, [] {
    (void)std::fprintf(stderr, "tarnPlatform:1 /sbin/iptables -X NOSUCH: exit status 1: words\n");
    (void)std::fprintf(stderr, "tarnFW:1 something else\n");
    return FW::TARNFW().cmdExec("/sbin/iptables -X NOSUCH");
  });
  EXPECT_EQ(told(outcome), "failed: the packet filter refused 1 command(s)\n");
  ASSERT_EQ(outcome.refusals.first.size(), 1U);
  EXPECT_EQ(outcome.refusals.first[0].command, "/sbin/iptables -X NOSUCH");
  EXPECT_EQ(outcome.messages, std::vector<std::string>{"tarnFW:1 something else"});
}

TEST_F(Lifecycle, MissingChainsAreRefusedBeforeTheDropPeriod) {
  ASSERT_EQ(machine::run("iptables -F INPUT; iptables -X INPUT_FIREWALL").status, 0);
  EXPECT_EQ(told(ops::enableFirewall()),
            "failed: chains are missing: INPUT_FIREWALL (IPv4); run 'tarnfw setup'\n");
  EXPECT_EQ(told(ops::reloadFirewall()), "done\n") << "nothing to load";
}

TEST_F(Lifecycle, OnReloadOffAndOnAgain) {
  EXPECT_EQ(told(ops::enableFirewall()), "done\n");
  const std::string loaded = machine::filterTables();
  EXPECT_EQ(told(ops::reloadFirewall()), "done\n");
  EXPECT_EQ(machine::filterTables(), loaded);
  EXPECT_EQ(told(ops::disableFirewall()), "done\n");
  EXPECT_EQ(told(ops::reloadFirewall()), "done\n");
  EXPECT_NE(machine::filterTables(), loaded);
  EXPECT_EQ(told(ops::enableFirewall()), "done\n");
  EXPECT_EQ(machine::filterTables(), loaded);
}

TEST_F(Lifecycle, UseLoadsTheOtherProfile) {
  machine::write("/usr/tarn/etc/firewall.d/2.json", machine::profileOfRules("office", 1));
  EXPECT_EQ(told(ops::enableFirewall()), "done\n");
  EXPECT_EQ(told(ops::useProfile("office")), "done\n");
  EXPECT_EQ(machine::run("iptables -S INPUT_FIREWALL | grep -c dport").out, "1\n");
}

// What a reload that had begun before has loaded by the time the chains were flushed.
void loadLate() {
  ASSERT_EQ(
      machine::run("mkdir -p /usr/tarn/libexec/plugins/net/firewall_disable && printf "
                   "'#!/bin/sh\\n[ \"$1\" = post ] && /sbin/iptables -A INPUT_FIREWALL -j "
                   "DROP\\n:\\n' > /usr/tarn/libexec/plugins/net/firewall_disable/late && chmod "
                   "755 /usr/tarn/libexec/plugins/net/firewall_disable/late")
          .status,
      0);
}

TEST_F(Lifecycle, DisabledFirewallEndsEmpty) {
  EXPECT_EQ(told(ops::enableFirewall()), "done\n");
  loadLate();
  EXPECT_EQ(told(ops::disableFirewall()), "done\n");
  EXPECT_EQ(machine::run("iptables -S INPUT_FIREWALL").out, "-N INPUT_FIREWALL\n");
  EXPECT_EQ(machine::run("rm -r /usr/tarn/libexec/plugins/net").status, 0);
}

TEST_F(Lifecycle, DisableOpensAndEmptiesTheFamilyThatCanBeRead) {
  EXPECT_EQ(told(ops::enableFirewall()), "done\n");
  loadLate();
  ASSERT_TRUE(FW::TARNFW().cmdExec("/sbin/iptables --policy INPUT DROP"));
  {
    const UnreadableFamily unreadable("ip6tables");
    EXPECT_EQ(told(ops::disableFirewall()),
              "failed: /sbin/ip6tables -S: no such family\n"
              "/sbin/iptables --policy INPUT ACCEPT\n");
  }
  EXPECT_EQ(machine::run("iptables -S INPUT_FIREWALL; iptables -S | grep -c 'P INPUT ACCEPT'").out,
            "-N INPUT_FIREWALL\n1\n");
  EXPECT_EQ(machine::run("rm -r /usr/tarn/libexec/plugins/net").status, 0);
}

TEST_F(Lifecycle, DisableWorksWithoutATool) {
  EXPECT_EQ(told(ops::enableFirewall()), "done\n");
  ASSERT_EQ(machine::run("mv /etc/alternatives/ip6tables /etc/alternatives/ip6tables-gone").status,
            0);
  EXPECT_EQ(told(ops::disableFirewall()),
            "failed: /sbin/ip6tables -S: No such file or directory\n");
  ASSERT_EQ(machine::run("mv /etc/alternatives/ip6tables-gone /etc/alternatives/ip6tables").status,
            0);
  EXPECT_NE(machine::read("/usr/tarn/etc/firewall.d/firewall_settings.json").find("false"),
            std::string::npos);
}

TEST_F(Lifecycle, ClearEmptiesTheChains) {
  EXPECT_EQ(told(ops::enableFirewall()), "done\n");
  EXPECT_EQ(told(ops::clearFirewall()), "done\n");
  EXPECT_EQ(machine::run("iptables -S INPUT_FIREWALL").out, "-N INPUT_FIREWALL\n");
}

// A load that fails does not take back what was recorded before it.
TEST_F(Lifecycle, FailureTellsWhatIsOnRecord) {
  machine::write("/usr/tarn/etc/firewall.d/2.json",
                 R"({"name": "broken", "rules": {"global": [{"policy": "deny"}]}})");
  EXPECT_EQ(told(ops::enableFirewall()), "done\n");
  EXPECT_EQ(told(ops::useProfile("broken")),
            "failed: Value is not convertible to Int.; 'broken' is the active profile now\n");
  EXPECT_EQ(told(ops::enableFirewall()),
            "failed: Value is not convertible to Int.; the firewall is recorded as on\n");
  EXPECT_EQ(told(ops::useProfile("nosuch")),
            "failed: the library reports a failure; why is in the system log\n");
}

TEST_F(SlowLifecycle, BusyAfterThirtySeconds) {
  const ops::ExecutionLock lock;
  ASSERT_TRUE(lock.held());
  EXPECT_EQ(told(ops::reloadFirewall()), "busy: another reload holds the execution lock\n");
}

// The lock is lost between the look at the machine and the load: a hook of the enabling takes it.
TEST_F(SlowLifecycle, LockLostOnTheWay) {
  machine::write("/run/tarn/hold",
                 "#!/bin/sh\n"
                 "[ \"$1\" = pre ] || exit 0\n"
                 "exec 9>>/tmp/firewall_iptables_exec.lock\n"
                 "/usr/bin/flock 9\n"
                 "/usr/bin/setsid /bin/sleep 90 >/dev/null 2>&1 &\n"
                 "echo $! > /run/tarn/holder\n");
  const std::string hooks = "/usr/tarn/libexec/plugins/net/firewall_enable";
  ASSERT_EQ(machine::run("mkdir -p " + hooks + " && install -m 755 /run/tarn/hold " + hooks).status,
            0);
  openlog("lifecycle", LOG_PERROR, LOG_USER);  // as the command does: the worker reads its log
  EXPECT_EQ(told(ops::enableFirewall()),
            "busy: another reload holds the execution lock; the firewall is recorded as on\n");
  closelog();
  EXPECT_EQ(records(), "") << "would open what others close meanwhile";
  EXPECT_EQ(machine::run("kill $(cat /run/tarn/holder); rm -r " + hooks).status, 0);
}

}  // namespace
