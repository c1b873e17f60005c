#include "ops/recovery.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"
#include "ops/baseChains.h"
#include "ops/processes.h"
#include "unreadableFamily.h"

namespace {

constexpr char kMark[] = "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n";
constexpr char kOpen[] = "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n";
constexpr char kClosed[] = "-P INPUT DROP\n-P FORWARD DROP\n";

struct Row {
  const char* name;
  std::string v4;
  std::string v6;
  std::vector<std::string> record;
  const char* commands;
};

// clang-format off
const Row kRows[] = {
    {"NothingToDo", kOpen, kOpen, {}, ""},
    {"ForeignPolicies", kClosed, kClosed, {}, ""},
    {"WholeDropSet", std::string(kClosed) + kMark, std::string(kClosed) + kMark, {},
     "/sbin/iptables --policy INPUT ACCEPT\n"
     "/sbin/iptables --policy FORWARD ACCEPT\n"
     "/sbin/ip6tables --policy INPUT ACCEPT\n"
     "/sbin/ip6tables --policy FORWARD ACCEPT\n"
     "/sbin/iptables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
     "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"},
    {"MarkOfOneFamilySpeaksForBoth", std::string(kClosed) + kMark, "-P INPUT DROP\n-P FORWARD ACCEPT\n", {},
     "/sbin/iptables --policy INPUT ACCEPT\n"
     "/sbin/iptables --policy FORWARD ACCEPT\n"
     "/sbin/ip6tables --policy INPUT ACCEPT\n"
     "/sbin/iptables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"},
    {"EveryCopy", kOpen, std::string(kOpen) + kMark + kMark + kMark, {},
     "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
     "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
     "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"},
    {"RecordedPolicyWithoutMark", "-P INPUT DROP\n-P FORWARD DROP\n", kOpen, {"v4 INPUT", "v6 INPUT", "v6 FORWARD"},
     "/sbin/iptables --policy INPUT ACCEPT\n"},
    {"RecordOfOpenPolicies", kOpen, kOpen, {"v4 INPUT", "v4 FORWARD", "v6 INPUT", "v6 FORWARD"}, ""},
    {"MarkDoesNotSpeakForAFamilyThatWasNotRead", std::string(kClosed) + kMark, "", {},
     "/sbin/iptables --policy INPUT ACCEPT\n"
     "/sbin/iptables --policy FORWARD ACCEPT\n"
     "/sbin/iptables -D FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n"},
    {"RecordSpeaksForAFamilyThatWasNotRead", "", kClosed, {"v4 FORWARD", "v6 INPUT"},
     "/sbin/iptables --policy FORWARD ACCEPT\n"
     "/sbin/ip6tables --policy INPUT ACCEPT\n"},
};
// clang-format on

// A record whose worker has ended: the process has that number, but another start.
std::string deadRecord(int start) {
  return "/run/tarn/open_policies." + std::to_string(getpid()) + "." + std::to_string(start) +
         ".json";
}

std::string records() { return machine::run("ls /run/tarn | grep open_policies").out; }

// The note of a policy in this network namespace.
std::string noteOf(const std::string& policy) {
  return "/run/tarn/closed_policy." + policy + "." +
         machine::run("stat -Lc %i /proc/self/ns/net | tr -d '\\n'").out;
}

std::vector<std::string> texts(const std::vector<ops::Command>& commands) {
  std::vector<std::string> all;
  for (const ops::Command& command : commands) all.push_back(command.text());
  return all;
}

// A process that leads a session, has done something and waits for its end; with a child of its own
// if that is asked for.
class Worker {
 public:
  explicit Worker(const std::function<bool()>& work, pid_t* child = nullptr) {
    std::array<int, 2> ends = {};
    EXPECT_EQ(pipe(ends.data()), 0);
    number_ = fork();
    if (number_ == 0) {
      (void)setsid();
      const pid_t tool = work() && child != nullptr ? fork() : -1;
      if (tool != 0) (void)write(ends[1], &tool, sizeof tool);
      for (;;) (void)pause();
    }
    pid_t tool = 0;
    EXPECT_EQ(read(ends[0], &tool, sizeof tool), static_cast<ssize_t>(sizeof tool));
    if (child != nullptr) *child = tool;
    for (const int end : ends) (void)close(end);
  }
  ~Worker() { kill(); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  pid_t number() const { return number_; }
  void kill() {
    if (!alive_) return;
    alive_ = false;
    EXPECT_EQ(::kill(number_, SIGKILL), 0);
    EXPECT_EQ(waitpid(number_, nullptr, 0), number_);
  }

 private:
  pid_t number_ = 0;
  bool alive_ = true;
};

TEST(Recovery, Rows) {
  for (const Row& row : kRows) {
    ops::LiveFilter filter;
    filter.v4 = ops::parseRules(row.v4);
    filter.v6 = ops::parseRules(row.v6);
    std::string text;
    for (const ops::Command& command : ops::recoveryCommands(filter, row.record)) {
      text += command.text() + "\n";
    }
    EXPECT_EQ(text, row.commands) << row.name;
  }
}

TEST(Recovery, OpenPolicies) {
  ops::LiveFilter filter;
  filter.v4 = ops::parseRules("-P INPUT ACCEPT\n-P FORWARD DROP\n");
  filter.v6 = ops::parseRules(kOpen);
  EXPECT_EQ(ops::openPolicies(filter),
            (std::vector<std::string>{"v4 INPUT", "v6 INPUT", "v6 FORWARD"}));
}

TEST(Recovery, RecordIsReadAsWrittenUntilForgotten) {
  machine::reset();
  EXPECT_EQ(ops::recordedOpenPolicies(), std::vector<std::string>());
  const std::vector<std::string> policies = {"v4 INPUT", "v6 FORWARD"};
  EXPECT_TRUE(ops::writeOpenPolicies(policies));
  EXPECT_EQ(ops::recordedOpenPolicies(), policies);
  ops::forgetOpenPolicies();
  EXPECT_EQ(ops::recordedOpenPolicies(), std::vector<std::string>());
}

TEST(Recovery, RecordIsRootsAloneWhateverTheMask) {
  machine::reset();
  const mode_t mask = umask(0);
  EXPECT_TRUE(ops::writeOpenPolicies({"v4 INPUT"}));
  EXPECT_EQ(machine::run("stat -c %a /run/tarn/open_policies.*").out, "600\n");
  EXPECT_EQ(machine::run("chmod 666 /run/tarn/open_policies.*").status, 0);
  EXPECT_TRUE(ops::writeOpenPolicies({}));
  EXPECT_EQ(machine::run("cd /run/tarn && stat -c %a open_policies.* && cat open_policies.*").out,
            "600\n[]");
  (void)umask(mask);
  ops::forgetOpenPolicies();
}

TEST(Recovery, DamagedRecordsAreNone) {
  machine::reset();
  ASSERT_TRUE(ops::writeOpenPolicies({}));
  for (const std::string& text :
       {std::string(), std::string("{"), std::string("{}"), std::string("7"),
        std::string("[7, null]"), std::string(2000, '[')}) {
    machine::write(deadRecord(1), text);
    EXPECT_EQ(ops::recordedOpenPolicies(), std::vector<std::string>()) << text;
  }
}

TEST(Recovery, OtherFilesAreNoRecords) {
  machine::reset();
  ASSERT_TRUE(ops::writeOpenPolicies({}));
  for (const char* name : {"open_policies.json", "open_policies.1.json", "open_policies.1.x.json",
                           "open_policies.1.2.json.tmp", "open_policies.99999999999.2.json"}) {
    machine::write(std::string("/run/tarn/") + name, R"(["v4 INPUT"])");
    EXPECT_EQ(ops::recordedOpenPolicies(), std::vector<std::string>()) << name;
  }
}

TEST(Recovery, RecordsOfDeadWorkersCountTogether) {
  machine::reset();
  ASSERT_TRUE(ops::writeOpenPolicies({"v6 INPUT"}));
  machine::write(deadRecord(1), R"(["v4 INPUT", "v4 FORWARD"])");
  machine::write(deadRecord(2), R"(["v4 FORWARD"])");
  EXPECT_EQ(ops::recordedOpenPolicies(),
            (std::vector<std::string>{"v4 FORWARD", "v4 INPUT", "v6 INPUT"}));
}

// What the platform has noted counts whoever ran the reload.
TEST(Recovery, NotedPoliciesAreOursWithoutMarkAndRecord) {
  machine::reset();
  ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
  ASSERT_EQ(machine::run("iptables -P INPUT DROP && iptables -P FORWARD DROP").status, 0);
  ops::LiveFilter filter;
  EXPECT_EQ(ops::recover(filter).commands.size(), 0U);
  const std::string note = noteOf("ip6tables.FORWARD");
  ASSERT_EQ(machine::run("touch " + noteOf("iptables.INPUT") + " " + note).status, 0);
  const ops::Recovery recovery = ops::recover(filter);
  ASSERT_EQ(recovery.commands.size(), 1U);
  EXPECT_EQ(recovery.commands[0].text(), "/sbin/iptables --policy INPUT ACCEPT");
  EXPECT_EQ(machine::run("ls /run/tarn/closed*").out, note + "\n");
  ASSERT_EQ(machine::run("iptables -P FORWARD ACCEPT").status, 0);

  // The tool of a note that is new may be on the way; an old one has nothing to tell.
  ASSERT_EQ(machine::run("touch -d '2 minutes ago' " + note).status, 0);
  EXPECT_EQ(ops::recover(filter).commands.size(), 0U);
  EXPECT_EQ(machine::run("ls /run/tarn | grep policy").out, "");
}

TEST(Recovery, NotesOfOtherNetworkNamespacesAreNotOurs) {
  machine::reset();
  ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
  ASSERT_EQ(machine::run("iptables -P INPUT DROP && cd /run/tarn && touch -d '2 minutes ago' "
                         "closed_policy.iptables.INPUT.1 closed_policy.ip6tables.INPUT.1")
                .status,
            0);
  ops::LiveFilter filter;
  EXPECT_EQ(ops::recover(filter).commands.size(), 0U);
  EXPECT_EQ(machine::run("ls /run/tarn | grep policy").out,
            "closed_policy.ip6tables.INPUT.1\nclosed_policy.iptables.INPUT.1\n");
}

// A living worker without the execution lock has closed nothing, so what is closed is somebody
// else's.
TEST(Recovery, RecordOfALivingWorkerDoesNotCount) {
  machine::reset();
  ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
  Worker worker([] { return ops::writeOpenPolicies({"v4 INPUT"}); });
  ASSERT_EQ(machine::run("iptables -P INPUT DROP").status, 0);
  ops::LiveFilter filter;
  EXPECT_EQ(ops::recover(filter).commands.size(), 0U);
  worker.kill();
  EXPECT_EQ(ops::recover(filter).commands.size(), 1U);
  EXPECT_TRUE(filter.open());
  EXPECT_EQ(records(), "") << "done with";
}

// A tool that a killed worker has left behind may still close a policy.
TEST(Recovery, RecordStaysWhileAToolIsLeftBehind) {
  machine::reset();
  ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
  pid_t tool = 0;
  Worker worker([] { return ops::writeOpenPolicies({"v4 INPUT"}); }, &tool);
  worker.kill();
  ops::LiveFilter filter;
  EXPECT_EQ(ops::recover(filter).errors.size(), 0U);
  EXPECT_NE(records(), "");
  ASSERT_EQ(kill(tool, SIGKILL), 0);
  ASSERT_TRUE(machine::eventually([&] { return !ops::anyoneIn(worker.number()); }));
  EXPECT_EQ(ops::recover(filter).errors.size(), 0U);
  EXPECT_EQ(records(), "");
}

TEST(Recovery, RecordStaysWhenNothingCouldBeRead) {
  machine::reset();
  machine::write(deadRecord(1), R"(["v4 INPUT"])");
  ASSERT_EQ(machine::run("mv /etc/alternatives/iptables /etc/alternatives/iptables-gone").status,
            0);
  ops::LiveFilter filter;
  EXPECT_EQ(ops::recover(filter).errors,
            (std::vector<std::string>{
                "/sbin/iptables -S: No such file or directory",
                "/sbin/iptables --policy INPUT ACCEPT: No such file or directory"}));
  EXPECT_NE(records(), "");
  ASSERT_EQ(machine::run("mv /etc/alternatives/iptables-gone /etc/alternatives/iptables").status,
            0);
}

// The other one is opened, and in this one what is ours by record; the foreign policy stays.
TEST(Recovery, FamilyThatCannotBeReadKeepsNothingShut) {
  for (const std::string& tool : {std::string("iptables"), std::string("ip6tables")}) {
    machine::reset();
    ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
    ASSERT_EQ(machine::run("iptables -P INPUT DROP; ip6tables -P INPUT DROP; " + tool +
                           " -P FORWARD DROP")
                  .status,
              0);
    machine::write(deadRecord(1), R"(["v4 INPUT", "v6 INPUT"])");
    const std::vector<std::string> commands = {"/sbin/iptables --policy INPUT ACCEPT",
                                               "/sbin/ip6tables --policy INPUT ACCEPT"};
    const std::vector<std::string> errors = {"/sbin/" + tool + " -S: no such family"};
    {
      const UnreadableFamily unreadable(tool);
      const ops::Recovery plan = ops::planRecovery();
      EXPECT_EQ(texts(plan.commands), commands);
      EXPECT_EQ(plan.errors, errors);
      ops::LiveFilter filter;
      const ops::Recovery recovery = ops::recover(filter);
      EXPECT_EQ(texts(recovery.commands), commands);
      EXPECT_EQ(recovery.errors, errors);
    }
    EXPECT_EQ(machine::run("iptables -S INPUT; ip6tables -S INPUT; " + tool + " -S FORWARD").out,
              "-P INPUT ACCEPT\n-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n"
              "-P INPUT ACCEPT\n-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n"
              "-P FORWARD DROP\n-A FORWARD -j FIREWALL_RELOADING\n-A FORWARD -j FORWARD_FIREWALL\n")
        << tool;
    EXPECT_NE(records(), "") << tool;
  }
}

TEST(Recovery, UndoesWhatIsInTheKernel) {
  machine::reset();
  ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
  const std::string before = machine::filterTables();
  ASSERT_EQ(machine::run("iptables -P INPUT DROP; ip6tables -P FORWARD DROP; for copy in 1 2; do "
                         "iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j "
                         "ACCEPT; done")
                .status,
            0);
  ops::LiveFilter filter;
  const ops::Recovery recovery = ops::recover(filter);
  EXPECT_EQ(recovery.marks, 2U);
  EXPECT_EQ(recovery.commands.size(), 4U);
  EXPECT_EQ(recovery.errors.size(), 0U);
  EXPECT_EQ(filter.marks(), 0U);
  EXPECT_TRUE(filter.open());
  EXPECT_EQ(machine::filterTables(), before);
}

TEST(Recovery, PlanChangesNothing) {
  machine::reset();
  ASSERT_EQ(ops::setUpBaseChains().errors.size(), 0U);
  ASSERT_EQ(machine::run("iptables -P INPUT DROP; iptables -A FIREWALL_RELOADING -m state --state "
                         "ESTABLISHED,RELATED -j ACCEPT")
                .status,
            0);
  const std::string before = machine::state();
  EXPECT_EQ(ops::planRecovery().commands.size(), 2U);
  EXPECT_EQ(machine::state(), before);
}

}  // namespace
