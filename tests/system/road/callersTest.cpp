// The library inside programs that do things with signals, children, descriptors and their
// environment: the firewall is switched on all the same, and the program finds everything as it
// left it.

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <thread>

#include "machine.h"
#include "processes.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

void install(int signal, void (*handler)(int), int flags) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  (void)sigaction(signal, &action, nullptr);
}

void reap(int /*signal*/) {
  const int error = errno;
  while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
  errno = error;
}

void ignore(int /*signal*/) {}

// --- what programs do ---

void nothing() {}
void ignoreChildren() { install(SIGCHLD, SIG_IGN, 0); }
void leaveNoZombies() { install(SIGCHLD, SIG_DFL, SA_NOCLDWAIT); }
void reapInAHandler() { install(SIGCHLD, reap, SA_RESTART); }

void reapInAThread() {
  std::thread([] {
    for (;;) {
      if (waitpid(-1, nullptr, 0) < 0) std::this_thread::yield();
    }
  }).detach();
}

void blockEverySignal() {
  sigset_t all;
  (void)sigfillset(&all);
  (void)sigprocmask(SIG_SETMASK, &all, nullptr);
}

void ignorePipesAndInterrupts() {
  install(SIGPIPE, SIG_IGN, 0);
  install(SIGINT, SIG_IGN, 0);
}

// Calls are interrupted all the time and not restarted.
void ringAnAlarm() {
  install(SIGALRM, ignore, 0);
  const itimerval everyMillisecond = {{0, 1000}, {0, 1000}};
  (void)setitimer(ITIMER_REAL, &everyMillisecond, nullptr);
}

void closeStandardDescriptors() {
  for (const int fd : {0, 1, 2}) close(fd);
}

void allowFewDescriptors() {
  const rlimit few = {24, 24};
  (void)setrlimit(RLIMIT_NOFILE, &few);
}

void openManyDescriptors() {
  for (int count = 0; count < 900; ++count) (void)!dup(0);
}

void poisonTheEnvironment() {
  (void)setenv("PATH", "/nowhere", 1);
  (void)setenv("XTABLES_LIBDIR", "/nowhere", 1);
  (void)setenv("IPTABLES_LIB_DIR", "/nowhere", 1);
  (void)setenv("XTABLES_LOCKFILE", "/nowhere/lock", 1);
  (void)setenv("LD_PRELOAD", "/nowhere/library.so", 1);
  (void)setenv("LC_ALL", "de_DE.UTF-8", 1);
}

void maskEveryMode() { (void)umask(0777); }
void maskNoMode() { (void)umask(0); }

void removeWorkingDirectory() {
  std::filesystem::create_directory("/tmp/gone");
  (void)!chdir("/tmp/gone");
  std::filesystem::remove("/tmp/gone");
}

// --- what must be as it was ---

// The lines of /proc/self/status that begin with one of the names.
std::string statusLines() {
  constexpr std::array<const char*, 6> kNames = {
      "Umask:", "SigBlk:", "SigIgn:", "SigCgt:", "Uid:", "Threads:"};
  std::ifstream file("/proc/self/status");
  std::string lines;
  for (std::string line; std::getline(file, line);) {
    for (const std::string name : kNames) {
      if (line.compare(0, name.size(), name) == 0) lines += line + "\n";
    }
  }
  return lines;
}

std::string children() { return files::read("/proc/thread-self/children"); }

std::string hostState() {
  std::string text = statusLines() + files::descriptors() + "\n" + children() + "\n";
  std::error_code error;
  text += std::filesystem::read_symlink("/proc/self/cwd", error).string() + "\n";
  for (char** variable = environ; *variable != nullptr; ++variable) {
    text += std::string(*variable) + "\n";
  }
  return text;
}

struct Row {
  const char* name;
  void (*arrange)();

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

std::string rowName(const testing::TestParamInfo<Row>& info) { return info.param.name; }

class Callers : public road::RoadTest, public testing::WithParamInterface<Row> {};

TEST_P(Callers, SwitchOn) {
  constexpr char kDenied[] =
      "-A FORWARD_FIREWALL -s 10.0.0.1/32 -j DROP\n"
      "-A INPUT_FIREWALL -s 10.0.0.1/32 -j DROP\n";
  FW::FWRULE rule;
  rule.policy = FW::FW_POLICY_DENY;
  rule.ipList = {"10.0.0.1"};
  rule.portGroup = 3;
  FW::FWPROFILE profile;
  profile.rules["global"] = {rule};
  store(profile);

  processes::Child caller([]() -> std::string {
    GetParam().arrange();
    const std::string before = hostState();
    FW::TARNFW firewall;
    std::string answer;
    for (const bool result : {firewall.fwEnable(), firewall.fwDisable(), firewall.fwEnable()}) {
      answer += result ? "true " : "false ";
    }
    const std::string after = hostState();
    return answer + (before == after ? "unchanged" : "before\n" + before + "after\n" + after);
  });
  EXPECT_EQ("true true true unchanged", caller.answer());
  EXPECT_EQ(road::chainsWithPreambleV4(kDenied), road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6(""), road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ("on", road::status());
  EXPECT_EQ("", road::libraryLog(""));
}

INSTANTIATE_TEST_SUITE_P(
    Table, Callers,
    testing::Values(
        Row{"OrdinaryOne", nothing}, Row{"IgnoresItsChildren", ignoreChildren},
        Row{"LeavesNoZombies", leaveNoZombies}, Row{"ReapsInAHandler", reapInAHandler},
        Row{"ReapsInAThread", reapInAThread}, Row{"BlocksEverySignal", blockEverySignal},
        Row{"IgnoresPipesAndInterrupts", ignorePipesAndInterrupts},
        Row{"RingsAnAlarm", ringAnAlarm}, Row{"HasNoStandardDescriptors", closeStandardDescriptors},
        Row{"MayOpenFewDescriptors", allowFewDescriptors},
        Row{"HasManyDescriptorsOpen", openManyDescriptors},
        Row{"HasAPoisonedEnvironment", poisonTheEnvironment}, Row{"MasksEveryMode", maskEveryMode},
        Row{"MasksNoMode", maskNoMode}, Row{"IsInADirectoryThatIsGone", removeWorkingDirectory}),
    rowName);

// The documents' modes do not depend on the caller's mask.
TEST_F(Callers, DocumentsHaveTheirModes) {
  const auto modes = [] {
    std::string text;
    for (const std::string path : {files::kSettingsFile, "/tmp/firewall_iptables_exec.lock",
                                   "/var/lock/firewall/firewall_settings.json.lock"}) {
      struct stat info = {};
      (void)stat(path.c_str(), &info);
      text += std::to_string(info.st_mode & 07777) + " ";
    }
    return text;
  };
  std::filesystem::remove(files::kSettingsFile);
  processes::Child strict([] {
    (void)umask(0777);
    return FW::TARNFW().fwDisable() && FW::TARNFW().fwReload(true) ? "true" : "false";
  });
  EXPECT_EQ("true", strict.answer());
  EXPECT_EQ("416 384 384 ", modes());  // 0640 0600 0600
}

// Threads of one program that switch on, off and reload at once get in each other's way by the lock
// only.
TEST_F(Callers, ThreadsTakeTurns) {
  ASSERT_TRUE(FW::TARNFW().fwEnable());
  std::atomic<int> done(0);
  std::array<std::thread, 4> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([&done] {
      for (int round = 0; round < 2; ++round) done += FW::TARNFW().fwReload(true) ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(8, done);
  EXPECT_EQ(road::chainsWithPreambleV4(""), road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6(""), road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
}

TEST_F(Callers, ProcessesTakeTurns) {
  ASSERT_TRUE(FW::TARNFW().fwEnable());
  const auto work = [] {
    bool all = true;
    for (int round = 0; round < 2; ++round) all = FW::TARNFW().fwReload(true) && all;
    return std::string(all ? "true" : "false");
  };
  processes::Child first(work);
  processes::Child second(work);
  processes::Child third(work);
  EXPECT_EQ("true", first.answer());
  EXPECT_EQ("true", second.answer());
  EXPECT_EQ("true", third.answer());
  EXPECT_EQ(road::chainsWithPreambleV4(""), road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6(""), road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
}

}  // namespace
