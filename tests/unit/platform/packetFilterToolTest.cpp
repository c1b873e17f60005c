// Running iptables and ip6tables: the lock that all programs which change rules take, and what is
// done when it is busy. The tools are shell scripts of the tests.

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "linux/execReport.h"
#include "linux/packetFilterTool.h"
#include "platformTest.h"
#include "process.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kXtablesLock[] = "/run/xtables.lock";
constexpr char kTool[] = "/tmp/platform/tool";
constexpr char kRecord[] = "/tmp/platform/record";  // what the runs of the tool write

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

int execute(const char* tool = "/sbin/iptables") {
  const Arguments arguments({tool, "-F", "INPUT_FIREWALL"});
  return TLIBCExecv(arguments.path(), arguments.get(), /*wait=*/1);
}

class PacketFilterTool : public PlatformTest {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(kXtablesLock);
    PlatformTest::SetUp();
  }
};

// Another program that changes rules.
class OtherHolder {
 public:
  OtherHolder() : lock_(open(kXtablesLock, O_RDONLY | O_CREAT | O_CLOEXEC, 0600)) {
    EXPECT_EQ(0, flock(lock_, LOCK_EX));
  }
  ~OtherHolder() { release(); }
  OtherHolder(const OtherHolder&) = delete;
  OtherHolder& operator=(const OtherHolder&) = delete;

  void release() {
    if (lock_ >= 0) (void)close(lock_);
    lock_ = -1;
  }

 private:
  int lock_;
};

struct PathRow {
  const char* path;
  bool isTool;
};

TEST(PacketFilterToolPath, TwoPathsAreTools) {
  const PathRow rows[] = {{"/sbin/iptables", true},
                          {"/sbin/ip6tables", true},
                          {"/usr/sbin/iptables", false},
                          {"iptables", false},
                          {"/sbin/iptables-save", false},
                          {"/sbin/ebtables", false},
                          {"", false}};
  for (const PathRow& row : rows) {
    EXPECT_EQ(row.isTool, tarnrun::isPacketFilterTool(row.path)) << row.path;
  }
}

// --- the environment, which tells whether the lock is held ---

constexpr char kSayEnvironment[] =
    "env | grep -E '^(PATH|LC_ALL|XTABLES_LOCKFILE)=' | sort >>/tmp/platform/record\n"
    "ls -l /proc/$$/fd | grep -c xtables >>/tmp/platform/record\n"
    "flock -n /run/xtables.lock true && echo free || echo held\n";
constexpr char kLocked[] =
    "LC_ALL=C\n"
    "PATH=/usr/sbin:/usr/bin:/sbin:/bin\n"
    "XTABLES_LOCKFILE=/dev/null\n"
    "0\n";
constexpr char kNotLocked[] =
    "LC_ALL=C\n"
    "PATH=/usr/sbin:/usr/bin:/sbin:/bin\n"
    "0\n";

struct LockRow {
  const char* name;
  const char* prepare;      // shell command
  const char* environment;  // of the tool
  const char* lockFile;     // afterwards
};

void PrintTo(const LockRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<LockRow> kLockRows = {
    {"FileIsMade", "true", kLocked, "100600 1 links, owner 0"},
    {"FileIsThere", "touch /run/xtables.lock; chmod 0644 /run/xtables.lock", kLocked, "100644 1 links, owner 0"},
    {"LinkIsNotFollowed", "ln -s /tmp/platform/elsewhere /run/xtables.lock", kNotLocked, "120777 1 links, owner 0"},
    {"LinkToAFileIsNotFollowed", "touch /tmp/platform/elsewhere; ln -s /tmp/platform/elsewhere /run/xtables.lock", kNotLocked, "120777 1 links, owner 0"},
    {"SocketCannotBeOpened", "python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"/run/xtables.lock\")'", kNotLocked, "140755 1 links, owner 0"},
};
// clang-format on

class Lock : public PacketFilterTool, public testing::WithParamInterface<LockRow> {};

TEST_P(Lock, IsTakenWhenItsFileCanBeOpened) {
  files::write(kTool, kSayEnvironment);
  run(GetParam().prepare);
  for (const char* tool : {"/sbin/iptables", "/sbin/ip6tables"}) {
    (void)std::remove(kRecord);
    EXPECT_EQ(0, execute(tool));
    EXPECT_EQ(GetParam().environment, files::read(kRecord));
  }
  EXPECT_EQ(GetParam().lockFile, statusOf(kXtablesLock));
  EXPECT_EQ("(absent)", statusOf("/tmp/platform/elsewhere2"));
}

INSTANTIATE_TEST_SUITE_P(PacketFilterTool, Lock, testing::ValuesIn(kLockRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(PacketFilterTool, OtherProgramsTakeNoLock) {
  const OtherHolder holder;
  const auto start = Clock::now();
  const Arguments arguments({"/bin/true"});
  EXPECT_EQ(0, TLIBCExecv(arguments.path(), arguments.get(), /*wait=*/1));
  EXPECT_LT(secondsSince(start), 1.0);
}

TEST_F(PacketFilterTool, WaitsForAnotherHolder) {
  files::write(kTool, kSayEnvironment);
  OtherHolder holder;
  int status = -1;
  std::thread thread([&status] { status = execute(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ("(absent)", files::read(kRecord));
  holder.release();
  thread.join();
  EXPECT_EQ(0, status);
  EXPECT_EQ(kLocked, files::read(kRecord));
}

TEST_F(PacketFilterTool, LockIsHeldWhileTheToolRunsAndFreeAfterwards) {
  files::write(kTool, "flock -n /run/xtables.lock true && exit 1; exit 0\n");
  EXPECT_EQ(0, execute());
  run("flock -n /run/xtables.lock true");
}

TEST_F(PacketFilterTool, ThreadsTakeTurns) {
  files::write(kTool,
               "mkdir /tmp/platform/turn || exit 1\n"
               "sleep 0.002\n"
               "rmdir /tmp/platform/turn\n");
  std::vector<std::thread> threads;
  std::atomic<int> failures = 0;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&failures] {
      for (int turn = 0; turn < 10; ++turn) failures += execute() == 0 ? 0 : 1;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, failures);
}

// --- policies that are closed and opened ---

struct PolicyRow {
  const char* name;
  std::vector<std::string> arguments;
  const char* during;      // files of /run/tarn while the tool runs; NS: the network namespace
  const char* afterwards;  // and when it has ended with status 0
};

// The same text with the inode number of the network namespace written as NS.
std::string withoutNamespace(std::string text) {
  struct stat status = {};
  EXPECT_EQ(0, stat("/proc/self/ns/net", &status));
  const std::string number = "." + std::to_string(status.st_ino);
  for (std::size_t at = 0; (at = text.find(number, at)) != std::string::npos;) {
    text.replace(at, number.size(), ".NS");
  }
  return text;
}

int setPolicy(const char* target) {
  const Arguments arguments({"/sbin/iptables", "--policy", "INPUT", target});
  return TLIBCExecv(arguments.path(), arguments.get(), /*wait=*/1);
}

void PrintTo(const PolicyRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<PolicyRow> kPolicyRows = {
    {"Closes", {"/sbin/iptables", "--policy", "INPUT", "DROP"}, "closed_policy.iptables.INPUT.NS noted\n", "closed_policy.iptables.INPUT.NS noted"},
    {"ClosesForward", {"/sbin/ip6tables", "--policy", "FORWARD", "DROP"}, "closed_policy.ip6tables.FORWARD.NS noted\n", "closed_policy.ip6tables.FORWARD.NS noted"},
    {"Opens", {"/sbin/iptables", "--policy", "FORWARD", "ACCEPT"}, "noted\n", "noted"},
    {"OtherChain", {"/sbin/iptables", "--policy", "OUTPUT", "DROP"}, "noted\n", "noted"},
    {"NoPlainChain", {"/sbin/iptables", "--policy", "../INPUT", "DROP"}, "noted\n", "noted"},
    {"OtherWord", {"/sbin/iptables", "-P", "INPUT", "DROP"}, "noted\n", "noted"},
    {"OneWordMore", {"/sbin/iptables", "--policy", "INPUT", "DROP", "-w"}, "noted\n", "noted"},
    {"OneWordLess", {"/sbin/iptables", "--policy", "INPUT"}, "noted\n", "noted"},
};
// clang-format on

class Policy : public PacketFilterTool, public testing::WithParamInterface<PolicyRow> {};

TEST_P(Policy, IsNotedBeforeItIsClosed) {
  files::write(kTool, "echo $(ls /run/tarn) >/tmp/platform/record\n");
  run("mkdir /run/tarn && touch /run/tarn/noted");
  const Arguments arguments(GetParam().arguments);
  EXPECT_EQ(0, TLIBCExecv(arguments.path(), arguments.get(), /*wait=*/1));
  EXPECT_EQ(GetParam().during, withoutNamespace(files::read(kRecord)));
  EXPECT_EQ(GetParam().afterwards, withoutNamespace(files::listing("/run/tarn")));
}

INSTANTIATE_TEST_SUITE_P(PacketFilterTool, Policy, testing::ValuesIn(kPolicyRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(PacketFilterTool, PolicyIsForgottenWhenTheToolHasOpenedIt) {
  files::write(kTool, "exit 0\n");
  EXPECT_EQ(0, setPolicy("DROP"));
  EXPECT_EQ("100600 1 links, owner 0", statusOf("/run/tarn/" + files::listing("/run/tarn")));
  EXPECT_EQ(0, setPolicy("ACCEPT"));
  EXPECT_EQ("", files::listing("/run/tarn"));
  EXPECT_EQ(0, setPolicy("DROP"));
  files::write(kTool, "kill -KILL $$\n");
  EXPECT_EQ(-1, setPolicy("ACCEPT"));
  EXPECT_EQ("closed_policy.iptables.INPUT.NS", withoutNamespace(files::listing("/run/tarn")))
      << "it may still be closed";
  (void)trace::take();
}

// How the run ends that is to close a policy.
struct ClosingRow {
  const char* name;
  bool notedBefore;
  const char* tool;
  int status;
  const char* afterwards;
};

void PrintTo(const ClosingRow& row, std::ostream* out) { *out << row.name; }

const std::vector<ClosingRow> kClosingRows = {
    {"RefusedClosesNothing", false, "exit 1", 1, ""},
    {"RefusedForLackOfRights", false, "exit 4", 4, ""},
    {"RefusedAfterAnotherHasClosed", true, "exit 1", 1, "closed_policy.iptables.INPUT.NS"},
    {"KilledMayHaveClosed", false, "kill -KILL $$", -1, "closed_policy.iptables.INPUT.NS"},
};

class Closing : public PacketFilterTool, public testing::WithParamInterface<ClosingRow> {};

TEST_P(Closing, LeavesANoteUnlessItWasRefused) {
  run("mkdir /run/tarn");
  files::write(kTool, "exit 0\n");
  if (GetParam().notedBefore) {
    EXPECT_EQ(0, setPolicy("DROP"));
  }
  files::write(kTool, std::string(GetParam().tool) + "\n");
  EXPECT_EQ(GetParam().status, setPolicy("DROP"));
  EXPECT_EQ(GetParam().afterwards, withoutNamespace(files::listing("/run/tarn")));
  (void)trace::take();
}

INSTANTIATE_TEST_SUITE_P(PacketFilterTool, Closing, testing::ValuesIn(kClosingRows),
                         [](const auto& row) { return std::string(row.param.name); });

// The notes of a thread are those of its own network namespace.
TEST_F(PacketFilterTool, PolicyIsNotedForTheNetworkNamespaceOfTheThread) {
  files::write(kTool,
               "echo $(stat -Lc %i /proc/self/ns/net) $(ls /run/tarn) >>/tmp/platform/record\n");
  std::thread thread([] {
    EXPECT_EQ(0, unshare(CLONE_NEWNET));
    EXPECT_EQ(0, setPolicy("DROP"));
  });
  thread.join();
  std::istringstream record(files::read(kRecord));
  std::string number;
  std::string note;
  record >> number >> note;
  EXPECT_EQ("closed_policy.iptables.INPUT." + number, note);
  EXPECT_EQ(note, withoutNamespace(note)) << "another namespace than ours";
  EXPECT_EQ(note, files::listing("/run/tarn"));
}

// --- runs that are repeated ---

struct RepeatRow {
  const char* name;
  const char* tool;  // $n: which attempt this is
  int status;
  const char* attempts;
  std::string log;
};

void PrintTo(const RepeatRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<RepeatRow> kRepeatRows = {
    {"Success", "exit 0", 0, "1\n", ""},
    {"Status1", "echo 'No chain/target/match by that name.' >&2; exit 1", 1, "1\n", "err tarnPlatform /sbin/iptables -F INPUT_FIREWALL: exit status 1: No chain/target/match by that name."},
    {"Status4OfAnotherReason", "echo 'iptables: Permission denied (you must be root).' >&2; exit 4", 4, "1\n", "err tarnPlatform /sbin/iptables -F INPUT_FIREWALL: exit status 4: iptables: Permission denied (you must be root)."},
    {"Status4WithoutWords", "exit 4", 4, "1\n", "err tarnPlatform /sbin/iptables -F INPUT_FIREWALL: exit status 4"},
    {"HeldLockTwice", "[ $n -lt 3 ] || exit 0; echo 'Another app is currently holding the xtables lock. Perhaps you want to use the -w option?' >&2; exit 4", 0, "3\n", ""},
    {"HeldLockWithAPrefix", "[ $n -lt 2 ] || exit 0; echo \"Can't lock /run/xtables.lock: Resource temporarily unavailable\" >&2; exit 4", 0, "2\n", ""},
    {"KernelTableBusyOnce", "[ $n -lt 2 ] || exit 0; echo 'iptables: Resource temporarily unavailable.' >&2; exit 4", 0, "2\n", ""},
    {"HeldLockThenRefused", "[ $n -lt 2 ] || exit 2; echo 'Another app is currently holding the xtables lock' >&2; exit 4", 2, "2\n", "err tarnPlatform /sbin/iptables -F INPUT_FIREWALL: exit status 2"},
    {"LockWordsWithAnotherStatus", "echo 'Another app is currently holding the xtables lock' >&2; exit 1", 1, "1\n", "err tarnPlatform /sbin/iptables -F INPUT_FIREWALL: exit status 1: Another app is currently holding the xtables lock"},
    {"Killed", "kill -KILL $$", -1, "1\n", "err tarnPlatform /sbin/iptables -F INPUT_FIREWALL: killed by signal 9"},
    {"HeldLockForEver", "echo 'Another app is currently holding the xtables lock' >&2; exit 4", 4, "20\n", "err tarnPlatform /sbin/iptables -F INPUT_FIREWALL: exit status 4: Another app is currently holding the xtables lock"},
};
// clang-format on

constexpr char kCount[] =
    "n=$(($(cat /tmp/platform/record 2>/dev/null || echo 0) + 1))\n"
    "echo $n >/tmp/platform/record\n";

class Attempts : public PacketFilterTool, public testing::WithParamInterface<RepeatRow> {};

TEST_P(Attempts, AreRepeatedOnlyForAHeldLock) {
  const RepeatRow& row = GetParam();
  files::write(kTool, std::string(kCount) + row.tool + "\n");
  EXPECT_EQ(row.status, execute());
  EXPECT_EQ(row.attempts, files::read(kRecord));
  EXPECT_EQ(row.log, trace::take());
  EXPECT_EQ(row.log.empty() ? 0 : 1, TARNExecReportCount());
}

INSTANTIATE_TEST_SUITE_P(PacketFilterTool, Attempts, testing::ValuesIn(kRepeatRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- output to a descriptor ---

// Runs the tool with its output appended to a file that holds "before\n".
std::string outputOf(const std::string& tool, int* status) {
  files::write(kTool, std::string(kCount) + tool);
  const Arguments arguments({"/sbin/iptables", "-S"});
  const int file = open("/tmp/platform/output", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(7, write(file, "before\n", 7));
  tarnrun::Program program;
  program.path = arguments.path();
  program.argv = arguments.get();
  program.output = file;
  *status = tarnrun::runPacketFilterTool(program).status;
  (void)close(file);
  return files::read("/tmp/platform/output");
}

TEST_F(PacketFilterTool, OutputIsLeftInTheDescriptor) {
  int status = -1;
  EXPECT_EQ("before\n-P INPUT ACCEPT\nwarning\n",
            outputOf("echo '-P INPUT ACCEPT'; echo warning >&2\n", &status));
  EXPECT_EQ(0, status);
}

TEST_F(PacketFilterTool, OutputOfARepeatedAttemptIsDiscarded) {
  int status = -1;
  EXPECT_EQ("before\nsecond\n",
            outputOf("[ $n -eq 1 ] || { echo second; exit 0; }\n"
                     "echo 'Another app is currently holding the xtables lock'; exit 4\n",
                     &status));
  EXPECT_EQ(0, status);
}

TEST_F(PacketFilterTool, OutputToAPipeIsNotRepeated) {
  files::write(kTool, "echo 'Another app is currently holding the xtables lock'; exit 4\n");
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  const Arguments arguments({"/sbin/iptables", "-S"});
  tarnrun::Program program;
  program.path = arguments.path();
  program.argv = arguments.get();
  program.output = ends[1];
  EXPECT_EQ(4, tarnrun::runPacketFilterTool(program).status);
  char words[128] = "";
  EXPECT_EQ(50, read(ends[0], words, sizeof words));
  (void)close(ends[0]);
  (void)close(ends[1]);
}

// --- a lock that is never free ---

TEST(SlowPacketFilterTool, ToolIsLeftToItsOwnLockingAfterThirtySeconds) {
  run("rm -rf /run/xtables.lock /tmp/platform; mkdir /tmp/platform");
  files::write(kTool, kSayEnvironment);
  const OtherHolder holder;
  const auto start = Clock::now();
  EXPECT_EQ(0, execute());
  EXPECT_GE(secondsSince(start), 30.0);
  EXPECT_LT(secondsSince(start), 32.0);
  EXPECT_EQ(kNotLocked, files::read(kRecord));
}

}  // namespace
