// An unprivileged user who does not leave it at putting something at root's name: he holds every
// kind of lock and lease on it, or puts it there again and again while root is at work.

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "attacker.h"
#include "counts.h"
#include "figures.h"
#include "lock.h"
#include "places.h"
#include "processes.h"

namespace {

using namespace squatting;  // NOLINT(google-build-using-namespace): the test's own support

constexpr char kContested[] = "with the attacker at the name meanwhile";

figures::Counts tally("squatting/races",
                      {"cases with a held lock", "leases refused by the kernel",
                       "cases with a race", kContested, "turns under attack", "wrong"});

void prepare(const Place& place) {
  makeVictims();
  reset();
  if (!place.fallback) return;
  EXPECT_EQ(0, asAttacker([] { return mkdir("/var/lock/firewall", 0777); }));
}

// Root gets its answer in a second, with what it must have at the place then.
void expectRight(const Place& place) {
  const std::string before = victims();
  const std::string answered = answer(place.operation);
  const std::string wrong = fault(place, "");
  const std::string after = victims();
  EXPECT_EQ("true", answered);
  EXPECT_EQ("", wrong);
  EXPECT_EQ(before, after);
  if (answered != "true" || !wrong.empty() || before != after) tally.count("wrong");
}

// --- what can be held on a file of one's own ---

int recordLock(int fd, int command) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  return fcntl(fd, command, &lock);
}

struct Hold {
  const char* name;
  int (*take)(int fd);  // 0, or -1 with errno
  int openFlags;
};

// clang-format off
constexpr std::array<Hold, 6> kHolds = {{
    {"Flock", [](int fd) { return flock(fd, LOCK_EX); }, O_RDWR},
    {"RecordLock", [](int fd) { return recordLock(fd, F_SETLK); }, O_RDWR},
    {"OpenFileLock", [](int fd) { return recordLock(fd, F_OFD_SETLK); }, O_RDWR},
    {"AllLocks", [](int fd) { return flock(fd, LOCK_EX) == 0 ? recordLock(fd, F_OFD_SETLK) : -1; }, O_RDWR},
    // Whoever opens the file waits until its holder lets go, three quarters of a minute at most.
    {"WriteLease", [](int fd) { return fcntl(fd, F_SETLEASE, F_WRLCK); }, O_RDWR},
    {"ReadLease", [](int fd) { return fcntl(fd, F_SETLEASE, F_RDLCK); }, O_RDONLY},
}};
// clang-format on

Attack holdAt(const char* path, const Hold& hold) {
  return Attack::holding([path, &hold] {
    const int made = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (made < 0 || close(made) != 0) return -1;
    const int fd = open(path, hold.openFlags | O_CLOEXEC);
    return fd < 0 ? -1 : hold.take(fd);
  });
}

TEST(Races, HeldFilesAreNotWaitedFor) {
  constexpr unsigned kLeast = 24;
  for (const Place& place : openPlaces()) {
    if (place.after == After::kUntouched) continue;
    for (const Hold& hold : kHolds) {
      SCOPED_TRACE(std::string(place.name) + " " + hold.name);
      prepare(place);
      const Attack attack = holdAt(place.path, hold);
      const bool lease = std::strstr(hold.name, "Lease") != nullptr;
      if (lease && attack.error() == EINVAL) {  // a file system without leases
        tally.count("leases refused by the kernel");
        continue;
      }
      ASSERT_EQ(0, attack.error()) << "the attacker's own part";
      tally.count("cases with a held lock");
      expectRight(place);
    }
  }
  EXPECT_GE(tally.counted("cases with a held lock"), kLeast);
}

// A FIFO that can be opened at once, because its maker has both ends open: who reads it waits.
TEST(Races, OpenFifosAreNotWaitedFor) {
  for (const Place& place : openPlaces()) {
    if (place.after == After::kUntouched) continue;
    SCOPED_TRACE(place.name);
    prepare(place);
    const Attack attack = Attack::holding([&place] {
      return mkfifo(place.path, 0666) == 0 && open(place.path, O_RDWR | O_CLOEXEC) >= 0 ? 0 : -1;
    });
    ASSERT_EQ(0, attack.error()) << "the attacker's own part";
    tally.count("cases with a held lock");
    expectRight(place);
  }
}

// Whoever opens a running program for writing is refused.
TEST(Races, RunningProgramsAreNoObstacle) {
  for (const Place& place : openPlaces()) {
    if (place.after == After::kUntouched) continue;
    SCOPED_TRACE(place.name);
    prepare(place);
    std::filesystem::copy_file("/bin/sleep", "/tmp/attacker/program");
    ASSERT_EQ(0, chmod("/tmp/attacker/program", 0755));
    ASSERT_EQ(0, chown("/tmp/attacker/program", kAttacker, kAttacker));
    const Attack attack = Attack::holding([&place] {
      if (rename("/tmp/attacker/program", place.path) != 0) return -1;
      const pid_t running = fork();
      if (running == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        (void)execl(place.path, "sleep", "60", nullptr);
        _exit(1);
      }
      const std::string program = "/proc/" + std::to_string(running) + "/exe";
      return processes::eventually([&] {
        std::error_code error;
        return std::filesystem::read_symlink(program, error) == place.path;
      })
                 ? 0
                 : -1;
    });
    ASSERT_EQ(0, attack.error()) << "the attacker's own part";
    tally.count("cases with a held lock");
    expectRight(place);
  }
}

// --- again and again ---

// Those outside of his own directory.
std::string rootsVictims() { return description("/etc/victims"); }

void takeAway(const char* path) {
  if (unlink(path) == 0 || errno != EISDIR) return;
  const std::string aside = std::string("/tmp/attacker/") + std::to_string(getpid());
  if (rename(path, aside.c_str()) == 0) (void)rmdir(aside.c_str());
}

// How often the attacker's processes have put something there.
class Made {
 public:
  Made()
      : count_(new (mmap(nullptr, sizeof *count_, PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<unsigned long>(0)) {}
  ~Made() { (void)munmap(count_, sizeof *count_); }
  Made(const Made&) = delete;
  Made& operator=(const Made&) = delete;

  void count(int result) const { *count_ += result == 0 ? 1 : 0; }
  unsigned long counted() const { return *count_; }

 private:
  std::atomic<unsigned long>* count_;
};

// Puts it there as soon as there is nothing.
struct Again {
  const Squat& squat;
  const char* path;
  const Made& made;
  void operator()() const { made.count(squat.make(path)); }
};

// And takes it away as often, so that root sees now this and now nothing.
struct OnAndOff {
  const Squat& squat;
  const char* path;
  const Made& made;
  void operator()() const {
    made.count(squat.make(path));
    takeAway(path);
  }
};

template <typename Work>
void raceAt(const Place& place, const char* squat) {
  SCOPED_TRACE(std::string(place.name) + " " + squat);
  prepare(place);
  const std::string victimsBefore = rootsVictims();
  const Made made;
  const Work work = {squatOf(squat), place.path, made};
  const Attack first = Attack::repeating(work);
  const Attack second = Attack::repeating(work);
  EXPECT_TRUE(processes::eventually([&made] { return made.counted() > 0; }));
  tally.count("cases with a race");
  const unsigned long before = made.counted();
  const std::string answered = answer(place.operation);
  if (made.counted() > before) tally.count(kContested);
  EXPECT_EQ("true", answered);
  // His own directory is not compared: he works in it himself.
  const std::string wrong = place.after == After::kGone ? "" : fault(place, "");
  const std::string victimsAfter = rootsVictims();
  EXPECT_EQ("", wrong);
  EXPECT_EQ(victimsBefore, victimsAfter);
  if (answered != "true" || !wrong.empty() || victimsBefore != victimsAfter) tally.count("wrong");
}

TEST(Races, WhatComesBackIsOvercome) {
  const int rounds = 4 * figures::longer();
  for (int round = 0; round < rounds; ++round) {
    for (const char* place :
         {"ExecutionLock", "ModuleRecord", "SettingsLock", "ProfileLock", "ModuleRecordLock"}) {
      for (const char* squat : {"File", "DanglingLink", "Fifo", "Socket", "Directory"}) {
        raceAt<Again>(placeOf(place), squat);
        raceAt<OnAndOff>(placeOf(place), squat);
      }
    }
  }
  EXPECT_GE(tally.counted(kContested), tally.counted("cases with a race") / 4);
}

// Processes of root's that want the lock at once still take turns: what one of them moves away is
// what the attacker put there, never the lock file that another has just made in its place.
TEST(Races, TurnsAreTakenUnderAttack) {
  constexpr int kTurns = 25;
  const Place& place = placeOf("ExecutionLock");
  const int rounds = 2 * figures::longer();
  for (int round = 0; round < rounds; ++round) {
    for (const char* squat : {"Directory", "DirectoryFullOfTraps", "File", "DanglingLink"}) {
      SCOPED_TRACE(squat);
      prepare(place);
      const std::string victimsBefore = rootsVictims();
      const Made made;
      const Attack attack = Attack::repeating(OnAndOff{squatOf(squat), place.path, made});
      EXPECT_TRUE(processes::eventually([&made] { return made.counted() > 0; }));
      const unsigned long before = made.counted();
      const auto work = [] {
        (void)alarm(60);
        int overlaps = 0;
        for (int turn = 0; turn < kTurns; ++turn) {
          int fd = -1;
          if (TLIBCFileLockTimeByFile("/tmp/firewall_iptables_exec.lock", 1, 30, &fd) != 1) {
            return std::string("no lock");
          }
          overlaps += mkdir("/run/inside", 0700) == 0 ? 0 : 1;
          sched_yield();
          (void)rmdir("/run/inside");
          // The attacker gets the name back each time.
          (void)unlink("/tmp/firewall_iptables_exec.lock");
          (void)TLIBCFileUnlockByFile(fd);
        }
        return std::to_string(overlaps) + " overlaps";
      };
      processes::Child one(work);
      processes::Child two(work);
      processes::Child three(work);
      for (processes::Child* const child : {&one, &two, &three}) {
        const std::string answered = child->answer();
        EXPECT_EQ("0 overlaps", answered);
        tally.count("turns under attack", kTurns);
        if (answered != "0 overlaps") tally.count("wrong");
      }
      EXPECT_GT(made.counted(), before) << "nobody attacked";
      const std::string victimsAfter = rootsVictims();
      EXPECT_EQ(victimsBefore, victimsAfter);
      if (victimsBefore != victimsAfter) tally.count("wrong");
    }
  }
}

}  // namespace
