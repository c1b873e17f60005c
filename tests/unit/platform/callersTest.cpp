// Running programs out of callers that have done everything to themselves. A caller with one thread
// and one with several start programs in different ways, so every row is run out of both; the test
// program itself makes no thread.

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "linux/runProgram.h"
#include "platformTest.h"
#include "process.h"

namespace {

enum class Threads { kOne, kSeveral };

// What `work` answers in a process of its own.
std::string answerOf(Threads threads, const std::function<std::string()>& work) {
  processes::Child child([&] {
    if (threads == Threads::kSeveral) {
      std::thread([] {
        for (;;) pause();
      }).detach();
    }
    const std::string answer = work();
    const bool childrenLeft = waitpid(-1, nullptr, WNOHANG | __WALL) >= 0;
    return answer + (childrenLeft ? ", children left" : "");
  });
  return child.answer();
}

int execute(const Arguments& arguments) {
  return TLIBCExecv(arguments.path(), arguments.get(), /*wait=*/1);
}

class Callers : public PlatformTest, public testing::WithParamInterface<Threads> {};

// --- outcomes ---

struct OutcomeRow {
  const char* name;
  Arguments arguments;
  std::string outcome;
};

// clang-format off
const std::vector<OutcomeRow> kOutcomeRows = {
    {"Success", shell("exit 0"), "status 0, error 0, signal 0"},
    {"Status1", shell("exit 1"), "status 1, error 0, signal 0"},
    {"Status2", shell("exit 2"), "status 2, error 0, signal 0"},
    {"Status3", shell("exit 3"), "status 3, error 0, signal 0"},
    {"Status4", shell("exit 4"), "status 4, error 0, signal 0"},
    {"Status255", shell("exit 255"), "status 255, error 0, signal 0"},
    {"Status127IsTheProgramsOwn", shell("exit 127"), "status 127, error 0, signal 0"},
    {"KilledBySigkill", shell("kill -KILL $$"), "status -1, error 0, signal 9"},
    {"KilledBySigpipe", shell("kill -PIPE $$"), "status -1, error 0, signal 13"},
    {"Missing", Arguments({"/nowhere/program"}), "status -1, error 2, signal 0"},
    {"NotExecutable", Arguments({"/etc/passwd"}), "status -1, error 13, signal 0"},
    {"Directory", Arguments({"/etc"}), "status -1, error 13, signal 0"},
    {"StoppedAndContinued", shell("(sleep 0.1; kill -CONT $$) & kill -STOP $$; exit 5"), "status 5, error 0, signal 0"},
};
// clang-format on

std::string text(const tarnrun::Outcome& outcome) {
  return "status " + std::to_string(outcome.status) + ", error " + std::to_string(outcome.error) +
         ", signal " + std::to_string(outcome.signal) + (outcome.timedOut ? ", timed out" : "");
}

TEST_P(Callers, AreToldTheOutcome) {
  for (const OutcomeRow& row : kOutcomeRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.outcome, answerOf(GetParam(), [&row] {
                tarnrun::Program program;
                program.path = row.arguments.path();
                program.argv = row.arguments.get();
                return text(tarnrun::runProgram(program));
              }));
  }
}

// --- what the caller may have done to itself ---

void collectChildren(int /*signal*/) {
  const int error = errno;
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  errno = error;
}

void ignoreSignal(int /*signal*/) {}

// A thread that collects every child of the process, as long as the object lives.
class CollectingThread {
 public:
  explicit CollectingThread(int flags)
      : thread_([this, flags] {
          while (!stop_) {
            if (waitpid(-1, nullptr, flags) <= 0) std::this_thread::yield();
          }
        }) {}
  ~CollectingThread() {
    stop_ = true;
    thread_.join();
  }
  CollectingThread(const CollectingThread&) = delete;
  CollectingThread& operator=(const CollectingThread&) = delete;

 private:
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

void setChildAction(void (*handler)(int), int flags) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  (void)sigaction(SIGCHLD, &action, nullptr);
}

// The numbers of the open descriptors.
std::vector<int> descriptors() {
  std::vector<int> open;
  for (int fd = 0; fd < 2048; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) open.push_back(fd);
  }
  return open;
}

// How many of 10 runs each gave the right status, and whether they left descriptors behind.
std::string statuses() {
  constexpr int kRuns = 10;
  const struct {
    Arguments arguments;
    int status;
  } rows[] = {{shell("exit 0"), 0},
              {shell("exit 3"), 3},
              {shell("kill -KILL $$"), -1},
              {Arguments({"/nowhere/program"}), -1}};
  const std::vector<int> before = descriptors();
  std::string all;
  for (const auto& row : rows) {
    int right = 0;
    for (int i = 0; i < kRuns; ++i) {
      right += execute(row.arguments) == row.status ? 1 : 0;
    }
    all += std::to_string(right) + " ";
  }
  all += "of " + std::to_string(kRuns);
  if (descriptors() != before) all += ", descriptors left";
  return all;
}

struct CallerRow {
  const char* name;
  std::function<std::string()> run;
};

const std::vector<CallerRow> kCallerRows = {
    {"Ordinary", statuses},
    {"SigchldIgnored",
     [] {
       (void)signal(SIGCHLD, SIG_IGN);
       return statuses();
     }},
    {"ChildrenNotKept",
     [] {
       setChildAction(SIG_DFL, SA_NOCLDWAIT);
       return statuses();
     }},
    {"HandlerCollectsEveryChild",
     [] {
       setChildAction(collectChildren, SA_RESTART);
       return statuses();
     }},
    {"ThreadCollectsEveryChild",
     [] {
       const CollectingThread thread(WNOHANG);
       return statuses();
     }},
    {"ThreadCollectsEveryProcess",
     [] {
       const CollectingThread thread(WNOHANG | __WALL);
       return statuses();
     }},
    {"SigchldBlocked",
     [] {
       sigset_t child;
       (void)sigemptyset(&child);
       (void)sigaddset(&child, SIGCHLD);
       (void)pthread_sigmask(SIG_BLOCK, &child, nullptr);
       return statuses();
     }},
    {"AllSignalsBlocked",
     [] {
       sigset_t all;
       (void)sigfillset(&all);
       (void)pthread_sigmask(SIG_SETMASK, &all, nullptr);
       return statuses();
     }},
    {"SignalStorm",
     [] {
       struct sigaction action = {};
       action.sa_handler = ignoreSignal;  // without SA_RESTART: calls are interrupted
       (void)sigaction(SIGALRM, &action, nullptr);
       const itimerval often = {{0, 500}, {0, 500}};
       (void)setitimer(ITIMER_REAL, &often, nullptr);
       const std::string all = statuses();
       const itimerval never = {};
       (void)setitimer(ITIMER_REAL, &never, nullptr);
       return all;
     }},
    {"Threads",
     [] {
       std::string other;
       std::thread thread([&other] { other = statuses(); });
       const std::string own = statuses();
       thread.join();
       return own == other ? own : own + " and " + other;
     }},
    {"DescriptorsZeroToTwoClosed",
     [] {
       for (const int fd : {0, 1, 2}) (void)close(fd);
       return statuses();
     }},
    {"DescriptorsZeroToTwoClosedAndSigchldIgnored",
     [] {
       for (const int fd : {0, 1, 2}) (void)close(fd);
       (void)signal(SIGCHLD, SIG_IGN);
       return statuses();
     }},
    {"ThousandDescriptors",
     [] {
       for (int i = 0; i < 1000; ++i) (void)fcntl(0, F_DUPFD, 3);
       return statuses();
     }},
    {"NoDescriptorLeft",
     [] {
       const rlimit limit = {64, 64};
       (void)setrlimit(RLIMIT_NOFILE, &limit);
       while (dup(0) >= 0) {
       }
       return statuses();
     }},
    {"NoDescriptorLeftAndSigchldIgnored",
     [] {
       (void)signal(SIGCHLD, SIG_IGN);
       const rlimit limit = {64, 64};
       (void)setrlimit(RLIMIT_NOFILE, &limit);
       while (dup(0) >= 0) {
       }
       return statuses();
     }},
    {"SmallStack",
     [] {
       std::string all;
       pthread_attr_t attributes;
       pthread_t thread = {};
       (void)pthread_attr_init(&attributes);
       (void)pthread_attr_setstacksize(&attributes, size_t{128} * 1024);
       const auto body = [](void* answer) -> void* {
         *static_cast<std::string*>(answer) = statuses();
         return nullptr;
       };
       (void)pthread_create(&thread, &attributes, body, &all);
       (void)pthread_join(thread, nullptr);
       (void)pthread_attr_destroy(&attributes);
       return all;
     }},
};

TEST_P(Callers, GetTheRightStatus) {
  for (const CallerRow& row : kCallerRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ("10 10 10 10 of 10", answerOf(GetParam(), row.run));
  }
}

TEST_P(Callers, SigchldHandlerIsNeverCalled) {
  static std::atomic<int> calls = 0;
  EXPECT_EQ("10 10 10 10 of 10, 0 calls", answerOf(GetParam(), [] {
              setChildAction([](int) { ++calls; }, 0);
              const std::string all = statuses();
              return all + ", " + std::to_string(calls) + " calls";
            }));
}

TEST_P(Callers, PendingSigchldOfAnotherChildIsNotLost) {
  EXPECT_EQ("0, then 1", answerOf(GetParam(), [] {
              static std::atomic<int> calls = 0;
              setChildAction([](int) { ++calls; }, 0);
              if (fork() == 0) {
                (void)usleep(50000);
                _exit(0);
              }
              const int before = execute(shell("sleep 0.2"));
              (void)wait(nullptr);
              return std::to_string(before) + ", then " + std::to_string(calls);
            }));
}

TEST_P(Callers, OfManyMegabytesAreNotSlower) {
  EXPECT_EQ("as fast", answerOf(GetParam(), [] {
              constexpr int kRuns = 60;
              const auto fastest = [] {
                using Clock = std::chrono::steady_clock;
                std::chrono::duration<double> best(1000);
                for (int i = 0; i < kRuns; ++i) {
                  const auto start = Clock::now();
                  (void)execute(Arguments({"/bin/true"}));
                  best = std::min<std::chrono::duration<double>>(best, Clock::now() - start);
                }
                return best.count();
              };
              const double small = fastest();
              constexpr size_t kBytes = size_t{256} << 20;
              void* memory =
                  mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
              (void)madvise(memory, kBytes, MADV_NOHUGEPAGE);
              for (size_t i = 0; i < kBytes; i += 4096) static_cast<char*>(memory)[i] = 1;
              const double large = fastest();
              // A fork would copy the page tables of 256 MiB: more than ten milliseconds.
              return large < small + 0.005 ? std::string("as fast")
                                           : std::to_string(small) + ", " + std::to_string(large);
            }));
}

INSTANTIATE_TEST_SUITE_P(Execution, Callers, testing::Values(Threads::kOne, Threads::kSeveral),
                         [](const auto& row) {
                           return row.param == Threads::kOne ? "OneThread" : "SeveralThreads";
                         });

}  // namespace
