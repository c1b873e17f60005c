// Running programs: tarnrun::runProgram, TLIBCExecv and the report on what failed.

#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "linux/execReport.h"
#include "linux/runProgram.h"
#include "platformTest.h"
#include "process.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kMark[] = "/tmp/platform/mark";

class Execution : public PlatformTest {};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

int execute(const Arguments& arguments) {
  return TLIBCExecv(arguments.path(), arguments.get(), /*wait=*/1);
}

std::string text(const tarnrun::Outcome& outcome) {
  return "status " + std::to_string(outcome.status) + ", error " + std::to_string(outcome.error) +
         ", signal " + std::to_string(outcome.signal) + (outcome.timedOut ? ", timed out" : "");
}

// --- time limit and output ---

TEST_F(Execution, TimeLimitKillsTheProgram) {
  const Arguments arguments = shell("exec sleep 1000");
  tarnrun::Program program;
  program.path = arguments.path();
  program.argv = arguments.get();
  program.seconds = 1;
  const auto start = Clock::now();
  EXPECT_EQ("status -1, error 0, signal 0, timed out", text(tarnrun::runProgram(program)));
  EXPECT_GE(secondsSince(start), 1.0);
  EXPECT_LT(secondsSince(start), 2.0);
}

TEST_F(Execution, TimeLimitKillsTheWholeGroup) {
  const Arguments arguments =
      shell("sleep 1000 & echo $! >/tmp/platform/mark; trap '' TERM INT HUP; wait");
  tarnrun::Program program;
  program.path = arguments.path();
  program.argv = arguments.get();
  program.seconds = 1;
  program.ownGroup = true;
  EXPECT_EQ("status -1, error 0, signal 0, timed out", text(tarnrun::runProgram(program)));
  const pid_t background = std::atoi(files::read(kMark).c_str());
  ASSERT_GT(background, 1);
  EXPECT_TRUE(processes::eventually([&] { return kill(background, 0) != 0 && errno == ESRCH; }));
}

TEST_F(Execution, WordsAreTheBeginningOfWhatWasPrinted) {
  const Arguments arguments = shell("printf abc; printf defgh >&2; exit 1");
  char words[8] = "unset";
  tarnrun::Program program;
  program.path = arguments.path();
  program.argv = arguments.get();
  program.words = words;
  program.wordsSize = sizeof words;
  EXPECT_EQ(1, tarnrun::runProgram(program).status);
  EXPECT_STREQ("abcdefg", words);
}

TEST_F(Execution, TwentyMegabytesOfWordsAreCutOffWithoutBlocking) {
  const Arguments arguments =
      shell("head -c 20000000 /dev/zero | tr '\\0' x; [ $? -ne 0 ] && exit 3; exit 1");
  char words[4] = "";
  tarnrun::Program program;
  program.path = arguments.path();
  program.argv = arguments.get();
  program.words = words;
  program.wordsSize = sizeof words;
  EXPECT_EQ(3, tarnrun::runProgram(program).status);
  EXPECT_STREQ("xxx", words);
}

TEST_F(Execution, OutputGoesToTheGivenDescriptor) {
  for (const int number : {0, 1, 2, 3, 700}) {
    SCOPED_TRACE(number);
    processes::Child child([number] {
      const int file = open(kMark, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      if (file != number) {
        (void)dup3(file, number, O_CLOEXEC);
        (void)close(file);
      }
      const Arguments arguments = shell("echo out; echo error >&2; readlink /proc/$$/fd/0");
      tarnrun::Program program;
      program.path = arguments.path();
      program.argv = arguments.get();
      program.output = number;
      const int status = tarnrun::runProgram(program).status;
      return std::to_string(status) + " " + files::read(kMark);
    });
    EXPECT_EQ("0 out\nerror\n/dev/null\n", child.answer());
  }
}

// --- what a program is given ---

constexpr char kFreshStart[] =
    "argument one\n"
    "argument two words\n"
    "environment PATH=/usr/sbin:/usr/bin:/sbin:/bin\n"
    "environment LC_ALL=C\n"
    "descriptor 0 /dev/null\n"
    "descriptor 1 /tmp/platform/mark\n"
    "descriptor 2 /tmp/platform/mark\n"
    "SigBlk:\t0000000000000000\n"
    "SigIgn:\t0000000000000000\n";

// The probe's report, when it is run in this process.
std::string probe(bool ownGroup) {
  const Arguments arguments({PROBE, "one", "two words"});
  const int file = open(kMark, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  tarnrun::Program program;
  program.path = arguments.path();
  program.argv = arguments.get();
  program.output = file;
  program.ownGroup = ownGroup;
  const int status = tarnrun::runProgram(program).status;
  (void)close(file);
  return status == 0 ? files::read(kMark) : "status " + std::to_string(status);
}

TEST_F(Execution, NothingOfTheCallerReachesTheProgram) {
  processes::Child child([] {
    (void)setenv("XTABLES_LIBDIR", "/tmp/platform", 1);
    (void)setenv("LD_PRELOAD", "/tmp/platform/library.so", 1);
    (void)setenv("LC_MESSAGES", "de_DE.UTF-8", 1);
    (void)setenv("PATH", "/tmp/platform", 1);
    for (int number = 1; number <= 64; ++number) (void)signal(number, SIG_IGN);
    sigset_t all;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, nullptr);
    (void)open("/etc/passwd", O_RDONLY);  // NOLINT: inherited on purpose
    return probe(/*ownGroup=*/false);
  });
  EXPECT_EQ(kFreshStart + std::string("process group: the caller's\n"), child.answer());
}

TEST_F(Execution, OwnGroupIsTheProgramsOwn) {
  EXPECT_EQ(kFreshStart + std::string("process group: its own\n"), probe(/*ownGroup=*/true));
}

TEST_F(Execution, CancelledThreadDoesNotLoseItsProgram) {
  const Arguments arguments = shell("sleep 0.3; echo ended >/tmp/platform/mark");
  for (const int type : {PTHREAD_CANCEL_DEFERRED, PTHREAD_CANCEL_ASYNCHRONOUS}) {
    (void)std::remove(kMark);
    std::atomic<bool> running = false;
    std::atomic<int> status = 100;
    std::thread thread([&] {
      (void)pthread_setcanceltype(type, nullptr);
      running = true;
      status = execute(arguments);
    });
    while (!running) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0, pthread_cancel(thread.native_handle()));
    thread.join();
    EXPECT_EQ("ended\n", files::read(kMark));
  }
}

// --- a start that fails for want of resources ---

// Runs `work` as a user who may have three processes: this one, a helper and a program. Another of
// his ends after `seconds`.
std::string asUserOfThreeProcesses(double seconds, const std::function<std::string()>& work) {
  constexpr uid_t kUser = 41000;
  (void)chmod(kScratch, 0777);
  processes::Child child([&] {
    if (setgroups(0, nullptr) != 0 || setresgid(kUser, kUser, kUser) != 0) return std::string("no");
    if (setresuid(kUser, kUser, kUser) != 0) return std::string("no");
    const pid_t other = fork();
    if (other == 0) {
      (void)usleep(static_cast<useconds_t>(seconds * 1e6));
      _exit(0);
    }
    (void)signal(SIGCHLD, SIG_IGN);
    const rlim_t own = files::list("/proc/self/task").size();  // the limit counts threads
    const rlimit limit = {own + 2, own + 2};
    (void)setrlimit(RLIMIT_NPROC, &limit);
    const std::string answer = work();
    (void)kill(other, SIGKILL);
    return answer;
  });
  return child.answer();
}

TEST_F(Execution, SlowStartIsRepeatedUntilItSucceeds) {
  const std::string answer = asUserOfThreeProcesses(0.3, [] {
    const auto start = Clock::now();
    const int status = execute(Arguments({"/bin/true"}));
    return std::to_string(status) + (secondsSince(start) > 0.25 ? " after a while" : " at once");
  });
  EXPECT_EQ("0 after a while", answer);
}

TEST(SlowExecution, StartIsGivenUpAfterFiveSeconds) {
  ASSERT_EQ(0, std::system("mkdir -p /tmp/platform"));  // NOLINT(cert-env33-c)
  const std::string answer = asUserOfThreeProcesses(20, [] {
    const auto start = Clock::now();
    const int status = execute(Arguments({"/bin/true"}));
    const double seconds = secondsSince(start);
    return std::to_string(status) + (seconds > 4 && seconds < 6 ? " in time" : " out of time");
  });
  (void)trace::take();
  EXPECT_EQ("-1 in time", answer);
}

TEST(SlowExecution, HangingProgramIsKilledAfterThirtySeconds) {
  (void)trace::take();
  const auto start = Clock::now();
  EXPECT_EQ(-1, execute(shell("echo waiting; exec sleep 1000")));
  EXPECT_EQ(ETIMEDOUT, errno);
  EXPECT_GE(secondsSince(start), 30.0);
  EXPECT_LT(secondsSince(start), 32.0);
  EXPECT_EQ(
      "err tarnPlatform /bin/sh -c echo waiting; exec sleep 1000: killed after 30 seconds: waiting",
      trace::take());
}

// --- not waited for ---

TEST_F(Execution, ProgramThatIsNotWaitedForRunsAndLeavesNoZombie) {
  const auto start = Clock::now();
  const Arguments arguments = shell("sleep 0.5; echo done >/tmp/platform/mark; exit 3");
  EXPECT_EQ(0, TLIBCExecv(arguments.path(), arguments.get(), /*wait=*/0));
  EXPECT_LT(secondsSince(start), 0.4);
  EXPECT_EQ("(absent)", files::read(kMark));
  EXPECT_TRUE(processes::eventually([] { return files::read(kMark) == "done\n"; }));
}

TEST_F(Execution, MissingProgramThatIsNotWaitedForFails) {
  const Arguments arguments({"/nowhere/program"});
  EXPECT_EQ(-1, TLIBCExecv(arguments.path(), arguments.get(), /*wait=*/0));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ("err tarnPlatform /nowhere/program: not run: No such file or directory", trace::take());
}

// --- what is said of a failed run ---

struct ReportRow {
  const char* name;
  Arguments arguments;
  int status;
  std::string log;
  std::string words;
};

void PrintTo(const ReportRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<ReportRow> kReportRows = {
    {"OneLine", Arguments({"/bin/sh", "/tmp/platform/fail", "1"}), 1, "err tarnPlatform /bin/sh /tmp/platform/fail 1: exit status 1: No chain", "No chain"},
    {"SeveralLines", Arguments({"/bin/sh", "/tmp/platform/fail", "2"}), 2, "err tarnPlatform /bin/sh /tmp/platform/fail 2: exit status 2: Bad argument / Try -h", "Bad argument / Try -h"},
    {"NoWords", Arguments({"/bin/sh", "/tmp/platform/fail", "3"}), 3, "err tarnPlatform /bin/sh /tmp/platform/fail 3: exit status 3", "exit status 3"},
    {"ControlCharacters", Arguments({"/bin/sh", "/tmp/platform/fail", "5"}), 5, "err tarnPlatform /bin/sh /tmp/platform/fail 5: exit status 5: a b  [31mc", "a b  [31mc"},
    {"Killed", Arguments({"/bin/sh", "/tmp/platform/fail", "9"}), -1, "err tarnPlatform /bin/sh /tmp/platform/fail 9: killed by signal 9: going", "going"},
    {"Missing", Arguments({"/nowhere/program", "a", "b"}), -1, "err tarnPlatform /nowhere/program a b: not run: No such file or directory", "not run: No such file or directory"},
    {"LongWordsAreCut", Arguments({"/bin/sh", "/tmp/platform/fail", "6"}), 6, "err tarnPlatform /bin/sh /tmp/platform/fail 6: exit status 6: " + std::string(508, 'w'), std::string(508, 'w')},
};
// clang-format on

constexpr char kFail[] =
    "case $1 in\n"
    "1) echo 'No chain' >&2;;\n"
    "2) echo 'Bad argument' >&2; echo 'Try -h';;\n"
    "3) ;;\n"
    "5) printf 'a\\tb\\r\\033[31mc\\n';;\n"
    "6) printf '%0600d' 0 | tr 0 w;;\n"
    "9) echo going; kill -KILL $$;;\n"
    "esac\n"
    "exit $1\n";

class Report : public Execution, public testing::WithParamInterface<ReportRow> {};

TEST_P(Report, SaysWhatFailed) {
  const ReportRow& row = GetParam();
  files::write("/tmp/platform/fail", kFail);
  EXPECT_EQ(row.status, execute(row.arguments));
  EXPECT_EQ(row.log, trace::take());
  ASSERT_EQ(1, TARNExecReportCount());
  int status = 100;
  char command[2048];
  char words[2048];
  ASSERT_EQ(0, TARNExecReportGet(0, &status, command, sizeof command, words, sizeof words));
  EXPECT_EQ(row.status, status);
  EXPECT_EQ(row.log.substr(17, row.log.find(": ", 17) - 17), command);
  EXPECT_EQ(row.words, words);
}

INSTANTIATE_TEST_SUITE_P(Execution, Report, testing::ValuesIn(kReportRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Execution, SuccessIsNotReported) {
  EXPECT_EQ(0, execute(shell("echo all is well; echo really >&2")));
  EXPECT_EQ(0, TARNExecReportCount());
}

// A path that is not absolute is reported without a process being started.
TEST_F(Execution, ReportKeepsTheFirst65536AndCountsAll) {
  constexpr int kKept = 65536;
  for (int i = 0; i < kKept + 100; ++i) {
    (void)TLIBCExecv(("nowhere/" + std::to_string(i)).c_str(), nullptr, /*wait=*/1);
  }
  (void)trace::take();
  EXPECT_EQ(kKept + 100, TARNExecReportCount());
  char command[64] = "";
  EXPECT_EQ(0, TARNExecReportGet(kKept - 1, nullptr, command, sizeof command, nullptr, 0));
  EXPECT_STREQ("nowhere/65535", command);
  EXPECT_EQ(-1, TARNExecReportGet(kKept, nullptr, command, sizeof command, nullptr, 0));
  EXPECT_EQ(-1, TARNExecReportGet(-1, nullptr, command, sizeof command, nullptr, 0));
  EXPECT_STREQ("nowhere/65535", command);
  TARNExecReportClear();
  EXPECT_EQ(0, TARNExecReportCount());
  EXPECT_EQ(-1, TARNExecReportGet(0, nullptr, command, sizeof command, nullptr, 0));
}

// The longest command line is cut to 1279 bytes, its words have 32: 6388 of them fill 8 MiB.
TEST_F(Execution, ReportKeepsEightMebibytes) {
  const std::string program = std::string(2000, 'x');
  for (int i = 0; i < 7000; ++i) (void)TLIBCExecv(program.c_str(), nullptr, /*wait=*/1);
  (void)TLIBCExecv("short", nullptr, /*wait=*/1);
  (void)trace::take();
  constexpr int kKept = 8 * 1024 * 1024 / (1279 + 1 + 32 + 1);
  char command[2048] = "";
  char words[64] = "";
  EXPECT_EQ(7001, TARNExecReportCount());
  EXPECT_EQ(0, TARNExecReportGet(kKept - 1, nullptr, command, sizeof command, words, sizeof words));
  EXPECT_EQ(std::string(1279, 'x'), command);
  EXPECT_STREQ("no absolute path or no arguments", words);
  EXPECT_EQ(-1, TARNExecReportGet(kKept, nullptr, nullptr, 0, nullptr, 0));
}

TEST_F(Execution, ReportCutsToTheGivenSizes) {
  (void)execute(Arguments({"/nowhere/program"}));
  (void)trace::take();
  char command[5] = "";
  char words[4] = "";
  EXPECT_EQ(0, TARNExecReportGet(0, nullptr, command, sizeof command, words, sizeof words));
  EXPECT_STREQ("/now", command);
  EXPECT_STREQ("not", words);
}

TEST_F(Execution, ReportTakesFailuresOfSeveralThreads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 25; ++j) (void)execute(Arguments({"/nowhere/program"}));
    });
  }
  for (std::thread& thread : threads) thread.join();
  (void)trace::take();
  EXPECT_EQ(100, TARNExecReportCount());
}

TEST_F(Execution, UnusableArgumentsAreRefused) {
  const Arguments some({"program"});
  char* const none[] = {nullptr};
  EXPECT_EQ(-1, TLIBCExecv("program", some.get(), 1));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, TLIBCExecv(nullptr, some.get(), 1));
  EXPECT_EQ(-1, TLIBCExecv("/bin/true", nullptr, 1));
  EXPECT_EQ(-1, TLIBCExecv("/bin/true", none, 1));
  EXPECT_EQ(
      "err tarnPlatform program: not run: no absolute path or no arguments\n"
      "err tarnPlatform (no program): not run: no absolute path or no arguments\n"
      "err tarnPlatform /bin/true: not run: no absolute path or no arguments\n"
      "err tarnPlatform /bin/true: not run: no absolute path or no arguments",
      trace::take());
  EXPECT_EQ(4, TARNExecReportCount());
}

}  // namespace
