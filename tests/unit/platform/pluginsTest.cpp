// Plug-in hooks.

#include "plugins.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "error.h"
#include "lock.h"
#include "platformTest.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kHook[] = "net/firewall_enable";
constexpr char kDirectory[] = "/usr/tarn/libexec/plugins/net/firewall_enable";
constexpr char kRecord[] = "/tmp/platform/record";
constexpr int kPre = 4;
constexpr int kPost = 5;

class Plugins : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    fs::remove_all("/usr/tarn/libexec/plugins");
    run(std::string("umask 022; mkdir -p ") + kDirectory);
  }
  void TearDown() override {
    fs::remove_all("/usr/tarn/libexec/plugins");
    PlatformTest::TearDown();
  }
};

// Runs the hook; its result.
int act(int action, const char* result = "0") {
  TLIBPLUGIN* plugin = nullptr;
  EXPECT_EQ(0, TLIBPluginSDKInit("net", kHook, &plugin));
  EXPECT_EQ(0, TLIBPluginSetArg(plugin, "RESULT", result));
  const int answer = TLIBPluginAction(action, plugin);
  TLIBPluginExit(plugin);
  return answer;
}

void writePlugin(const std::string& name, const std::string& text, mode_t mode = 0755) {
  writeScript(std::string(kDirectory) + "/" + name, "#!/bin/sh\n" + text + "\n", mode);
}

std::string linesOf(const std::string& text) { return "err tarnPlatform " + (kDirectory + text); }

// --- what a plug-in is given ---

struct ActionRow {
  int action;
  const char* result;
  std::string record;
};

TEST_F(Plugins, AreToldActionAndResult) {
  const ActionRow rows[] = {
      {kPre, "0", "pre\nLC_ALL=C\nPATH=/usr/sbin:/usr/bin:/sbin:/bin\nRESULT=0\n"},
      {kPost, "0", "post\nLC_ALL=C\nPATH=/usr/sbin:/usr/bin:/sbin:/bin\nRESULT=0\n"},
      {kPost, "-1", "post\nLC_ALL=C\nPATH=/usr/sbin:/usr/bin:/sbin:/bin\nRESULT=-1\n"},
  };
  writePlugin("10-a",
              "(echo $1; env | grep -vE '^(PWD|OLDPWD|SHLVL|_)=' | sort) >/tmp/platform/record");
  (void)setenv("CALLERS_OWN", "secret", 1);
  for (const ActionRow& row : rows) {
    EXPECT_EQ(0, act(row.action, row.result));
    EXPECT_EQ(row.record, files::read(kRecord));
  }
  (void)unsetenv("CALLERS_OWN");
}

TEST_F(Plugins, RunInTheirOwnProcessGroupWithoutInheritedDescriptors) {
  writePlugin("20-a", std::string("exec ") + PROBE + " $1 >/tmp/platform/record");
  int lock = -1;
  ASSERT_EQ(1, TLIBCFileLockTimeByFile("/tmp/platform/lock", 1, 1, &lock));
  EXPECT_EQ(0, act(kPre));
  EXPECT_EQ(1, TLIBCFileUnlockByFile(lock));
  run("sed -i /^environment/d /tmp/platform/record");
  EXPECT_EQ(
      "argument pre\n"
      "descriptor 0 /dev/null\n"
      "descriptor 1 /tmp/platform/record\n"
      "descriptor 2 (output)\n"
      "SigBlk:\t0000000000000000\n"
      "SigIgn:\t0000000000000000\n"
      "process group: its own\n",
      files::read(kRecord));
}

// --- which files are plug-ins, and what comes of them ---

struct RunRow {
  const char* name;
  const char* prepare;  // shell command in the hook's directory; `plugin NAME TEXT` makes one
  int result;
  std::string record;  // every plug-in may write to it
  std::string log;
};

void PrintTo(const RunRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<RunRow> kRunRows = {
    {"NoPlugins", "true", 0, "(absent)", ""},
    {"NoDirectory", "rmdir $PWD", 0, "(absent)", ""},
    {"One", "plugin a 'echo a'", 0, "a\n", ""},
    {"NameOrder", "plugin 20 'echo 20'; plugin 10 'echo 10'; plugin 3 'echo 3'; plugin B 'echo B'; plugin a 'echo a'", 0, "10\n20\n3\nB\na\n", ""},
    {"NotExecutable", "plugin a 'echo a'; chmod 644 a", 0, "(absent)", ""},
    {"HiddenAndBackupFiles", "plugin .a 'echo a'; plugin b~ 'echo b'; plugin c 'echo c'", 0, "c\n", ""},
    {"DirectoriesAreSkipped", "mkdir a; plugin b 'echo b'", 0, "b\n", ""},
    {"FifoIsSkipped", "mkfifo -m 755 a; plugin b 'echo b'", 0, "b\n", ""},
    {"LinkToAPlugin", "plugin ../real 'echo real'; ln -s ../real a", 0, "real\n", ""},
    {"Fails", "plugin a 'echo a; exit 1'; plugin b 'echo b'", -1, "a\nb\n", linesOf("/a ended with status 1")},
    {"FailsWithWords", "plugin a 'echo wrong >&2; echo more >&2; exit 3'; plugin b 'echo b'", -1, "b\n", linesOf("/a ended with status 3: wrong")},
    {"Crashes", "plugin a 'kill -SEGV $$'; plugin b 'echo b'", -1, "b\n", linesOf("/a was killed by signal 11")},
    {"NoProgram", "printf '#!/nowhere/sh\\n' >a; chmod 755 a; plugin b 'echo b'", -1, "b\n", linesOf("/a could not be run: No such file or directory")},
    {"NoFormat", "printf 'text' >a; chmod 755 a; plugin b 'echo b'", -1, "b\n", linesOf("/a could not be run: Exec format error")},
    {"BrokenLink", "ln -s nowhere a; plugin b 'echo b'", -1, "b\n", linesOf("/a cannot be used: No such file or directory")},
    {"PrintsTenMegabytes", "plugin a 'head -c 10000000 /dev/zero | tr \"\\\\0\" x >&2; echo a'", 0, "a\n", ""},
    {"PrintsTenMegabytesAndFails", "plugin a 'head -c 10000000 /dev/zero | tr \"\\\\0\" x >&2; exit 9'", -1, "(absent)", linesOf("/a ended with status 9: " + std::string(511, 'x'))},
    {"OfAnotherUser", "plugin a 'echo a'; chown 65534 a; plugin b 'echo b'", -1, "b\n", linesOf("/a is refused: it must be owned and writable by root alone")},
    {"GroupCanWrite", "plugin a 'echo a'; chmod 775 a; plugin b 'echo b'", -1, "b\n", linesOf("/a is refused: it must be owned and writable by root alone")},
    {"OthersCanWrite", "plugin a 'echo a'; chmod 757 a; plugin b 'echo b'", -1, "b\n", linesOf("/a is refused: it must be owned and writable by root alone")},
    {"LinkToAForeignFile", "plugin ../real 'echo real'; chown 65534 ../real; ln -s ../real a; plugin b 'echo b'", -1, "b\n", linesOf("/a is refused: it must be owned and writable by root alone")},
    {"DirectoryOfAnotherUser", "plugin a 'echo a'; chown 65534 .", -1, "(absent)", linesOf(" is refused: it must be owned and writable by root alone")},
    {"DirectoryOthersCanWrite", "plugin a 'echo a'; chmod 777 .", -1, "(absent)", linesOf(" is refused: it must be owned and writable by root alone")},
    {"DirectoryIsAFile", "rmdir $PWD; touch $PWD", -1, "(absent)", linesOf(" cannot be read: Not a directory")},
};
// clang-format on

class Run : public Plugins, public testing::WithParamInterface<RunRow> {};

TEST_P(Run, GoesThroughAllPlugins) {
  const RunRow& row = GetParam();
  run("umask 022; cd " + std::string(kDirectory) +
      "; plugin() { printf '#!/bin/sh\\n{ %s\\n} >>/tmp/platform/record\\n' \"$2\" >$1; chmod 755 $1; }; " +
      row.prepare);
  EXPECT_EQ(row.result, act(kPre));
  EXPECT_EQ(row.log, trace::take());
  const std::string record = files::read(kRecord);
  EXPECT_EQ(row.record, record.empty() ? "(absent)" : record);
}

INSTANTIATE_TEST_SUITE_P(Plugins, Run, testing::ValuesIn(kRunRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Plugins, DaemonThatAPluginLeavesBehindHoldsNothing) {
  writePlugin("a", "setsid sleep 1000 & echo $! >/tmp/platform/record");
  int lock = -1;
  ASSERT_EQ(1, TLIBCFileLockTimeByFile("/tmp/platform/lock", 1, 1, &lock));
  const auto start = Clock::now();
  EXPECT_EQ(0, act(kPre));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(1, TLIBCFileUnlockByFile(lock));
  ASSERT_EQ(1, TLIBCFileLockTimeByFile("/tmp/platform/lock", 1, 1, &lock));
  EXPECT_EQ(1, TLIBCFileUnlockByFile(lock));
  const pid_t daemon = std::atoi(files::read(kRecord).c_str());
  ASSERT_GT(daemon, 1);
  EXPECT_EQ(0, kill(daemon, SIGKILL)) << "a daemon may stay";
}

TEST(SlowPlugins, HangingPluginIsKilledWithItsGroupAndTheOthersRun) {
  run("rm -rf /tmp/platform; mkdir -p /tmp/platform; umask 022; mkdir -p " +
      std::string(kDirectory));
  writePlugin("a", "sleep 1000 & echo $! >/tmp/platform/record; trap '' TERM; wait; sleep 1000");
  writePlugin("b", "echo b >/tmp/platform/other");
  (void)trace::take();
  const auto start = Clock::now();
  EXPECT_EQ(-1, act(kPre));
  EXPECT_GE(Clock::now() - start, std::chrono::seconds(30));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(32));
  EXPECT_EQ(linesOf("/a was killed after 30 seconds"), trace::take());
  EXPECT_EQ("b\n", files::read("/tmp/platform/other"));
  const pid_t background = std::atoi(files::read(kRecord).c_str());
  ASSERT_GT(background, 1);
  EXPECT_TRUE(processes::eventually([&] { return kill(background, 0) != 0 && errno == ESRCH; }));
  run(std::string("rm -rf ") + kDirectory);
}

// --- arguments ---

struct HookRow {
  const char* category;
  const char* name;
  int result;
};

TEST_F(Plugins, HookIsNamedByItsCategory) {
  const HookRow rows[] = {
      {"net", "net/firewall_enable", 0},
      {"net", "net/firewall_disable", 0},
      {"net", "net/deeper/name", 0},
      {"net", "other/name", -1},
      {"net", "net/", -1},
      {"net", "net", -1},
      {"", "/name", -1},
      {"net", "net/../../../etc", -1},
      {"net", "net/a b", -1},
      {nullptr, "net/a", -1},
      {"net", nullptr, -1},
  };
  for (const HookRow& row : rows) {
    SCOPED_TRACE(row.name == nullptr ? "(null)" : row.name);
    auto* plugin = reinterpret_cast<TLIBPLUGIN*>(this);
    EXPECT_EQ(row.result, TLIBPluginSDKInit(row.category, row.name, &plugin));
    EXPECT_EQ(row.result == 0, plugin != nullptr);
    TLIBPluginExit(plugin);
  }
  EXPECT_EQ(-1, TLIBPluginSDKInit("net", kHook, nullptr));
  EXPECT_EQ(0x0D00, TLIBCErrGet());
}

TEST_F(Plugins, ArgumentsCannotReplaceTheFixedEnvironment) {
  TLIBPLUGIN* plugin = nullptr;
  ASSERT_EQ(0, TLIBPluginSDKInit("net", kHook, &plugin));
  for (const char* key : {"", "PATH", "LC_ALL", "LC_TIME", "LD_PRELOAD", "A=B", "a", "1A", "A B"}) {
    EXPECT_EQ(-1, TLIBPluginSetArg(plugin, key, "x")) << key;
  }
  EXPECT_EQ(-1, TLIBPluginSetArg(nullptr, "RESULT", "x"));
  EXPECT_EQ(-1, TLIBPluginSetArg(plugin, nullptr, "x"));
  EXPECT_EQ(-1, TLIBPluginSetArg(plugin, "RESULT", nullptr));
  EXPECT_EQ(0, TLIBPluginSetArg(plugin, "RESULT", "0"));
  EXPECT_EQ(0, TLIBPluginSetArg(plugin, "RESULT", "-1"));
  TLIBPluginExit(plugin);
}

TEST_F(Plugins, OtherActionsAreRefused) {
  writePlugin("a", "echo a >/tmp/platform/record");
  for (const int action : {0, 1, 2, 3, 6, -1}) EXPECT_EQ(-1, act(action)) << action;
  EXPECT_EQ(-1, TLIBPluginAction(kPre, nullptr));
  EXPECT_EQ("(absent)", files::read(kRecord));
  TLIBPluginExit(nullptr);
}

}  // namespace
