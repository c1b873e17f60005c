// Lock files between processes and threads, in a directory where every user may make files.

#include "lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lease.h"
#include "platformTest.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kDirectory[] = "/tmp/platform/open";  // mode 1777, as /tmp
constexpr char kLock[] = "/tmp/platform/open/lock";
constexpr char kOwn[] = "100600 1 links, owner 0";

// Done once, before the next unlinkat() of the library under test.
std::function<void()> beforeUnlink;

class LockFile : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    fs::create_directory(kDirectory);
    EXPECT_EQ(0, chmod(kDirectory, 01777));
  }
};

int take(int seconds, int* fd) { return TLIBCFileLockTimeByFile(kLock, /*mode=*/1, seconds, fd); }

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double secondsBetween(const timespec& one, const timespec& other) {
  return static_cast<double>(other.tv_sec - one.tv_sec) +
         static_cast<double>(other.tv_nsec - one.tv_nsec) / 1e9;
}

// Names in the directory; what stands behind a name that was moved away is not fixed.
std::string names() {
  std::string all;
  for (const std::string& name : files::list(kDirectory)) {
    const size_t moved = name.find(".moved-");
    all +=
        (all.empty() ? "" : " ") + (moved == std::string::npos ? name : name.substr(0, moved + 7));
  }
  return all;
}

TEST_F(LockFile, IsMadeAndStays) {
  int fd = -1;
  ASSERT_EQ(1, take(0, &fd));
  EXPECT_EQ(kOwn, statusOf(kLock));
  EXPECT_EQ("", files::read(kLock));
  EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
  EXPECT_EQ(kOwn, statusOf(kLock));
}

TEST_F(LockFile, OpenMaskOfTheCallerDoesNotCount) {
  processes::Child child([] {
    (void)umask(0777);
    int fd = -1;
    const int result = take(0, &fd);
    return std::to_string(result) + " " + statusOf(kLock);
  });
  EXPECT_EQ(std::string("1 100600 1 links, owner 0"), child.answer());
}

// --- what may stand in its place ---

struct SquatterRow {
  const char* name;
  const char* prepare;  // shell command, in the directory
  std::string names;    // afterwards
  std::string log;
};

void PrintTo(const SquatterRow& row, std::ostream* out) { *out << row.name; }

constexpr char kRemovedRoots[] =
    "err tarnPlatform /tmp/platform/open/lock: something of user 0 stood in the way: removed";
constexpr char kRemovedNobodys[] =
    "err tarnPlatform /tmp/platform/open/lock: something of user 65534 stood in the way: removed";

constexpr char kRenamedRoots[] =
    "err tarnPlatform /tmp/platform/open/lock: something of user 0 stood in the way: renamed";

// clang-format off
const std::vector<SquatterRow> kSquatterRows = {
    {"Nothing", "true", "lock", ""},
    {"OwnFile", "touch lock; chmod 600 lock", "lock", ""},
    {"OwnFileThatOthersCanRead", "touch lock; chmod 644 lock", "lock", ""},
    {"OwnFileThatOthersCanWrite", "touch lock; chmod 666 lock", "lock", ""},
    {"OwnFileWithText", "echo text >lock; chmod 600 lock", "lock", ""},
    {"ForeignFile", "touch lock; chown 65534 lock", "lock", kRemovedNobodys},
    {"ForeignFileOthersCanWrite", "touch lock; chmod 666 lock; chown 65534 lock", "lock", kRemovedNobodys},
    {"LinkToAFile", "ln -s /tmp/platform/victim lock", "lock", kRemovedRoots},
    {"LinkToNothing", "ln -s /tmp/platform/absent lock", "lock", kRemovedRoots},
    {"ForeignLink", "ln -s /tmp/platform/victim lock; chown -h 65534 lock", "lock", kRemovedNobodys},
    {"HardLink", "ln /tmp/platform/victim lock", "lock", kRemovedRoots},
    {"Fifo", "mkfifo lock; chown 65534 lock", "lock", kRemovedNobodys},
    {"Socket", "python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"lock\")'", "lock", kRemovedRoots},
    {"NullDevice", "mknod lock c 1 3", "lock", kRemovedRoots},
    {"DeviceOfNoDriver", "mknod lock c 240 77", "lock", kRemovedRoots},
    {"EmptyDirectory", "mkdir lock; chown 65534 lock", "lock", kRemovedNobodys},
    {"FullDirectory", "mkdir lock; touch lock/a", "lock lock.moved-", kRenamedRoots},
};
// clang-format on

class Squatter : public LockFile, public testing::WithParamInterface<SquatterRow> {};

TEST_P(Squatter, IsMovedAndTheLockTaken) {
  files::write("/tmp/platform/victim", "text");
  EXPECT_EQ(0, chmod("/tmp/platform/victim", 0644));
  run(std::string("cd ") + kDirectory + "; " + GetParam().prepare);
  const auto start = Clock::now();
  int fd = -1;
  ASSERT_EQ(1, take(5, &fd)) << std::strerror(errno);
  EXPECT_LT(secondsSince(start), 1.0);
  EXPECT_EQ(kOwn, statusOf(kLock));
  EXPECT_EQ(GetParam().names, names());
  EXPECT_EQ("text", files::read("/tmp/platform/victim"));
  EXPECT_EQ("100644 1 links, owner 0", statusOf("/tmp/platform/victim"));
  EXPECT_EQ("(absent)", statusOf("/tmp/platform/absent"));
  EXPECT_EQ(GetParam().log, trace::take());
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
}

INSTANTIATE_TEST_SUITE_P(LockFile, Squatter, testing::ValuesIn(kSquatterRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- failures ---

struct FailureRow {
  const char* name;
  const char* path;
  int mode;
  int seconds;
  int error;
};

TEST_F(LockFile, FailuresSayWhy) {
  // clang-format off
  const FailureRow rows[] = {
      {"SharedMode", kLock, 0, 1, EINVAL},
      {"UnknownMode", kLock, 2, 1, EINVAL},
      {"NegativeTime", kLock, 1, -1, EINVAL},
      {"NoPath", nullptr, 1, 1, EINVAL},
      {"EmptyPath", "", 1, 1, EINVAL},
      {"PathOfADirectory", "/tmp/platform/", 1, 1, EINVAL},
      {"NoDirectory", "/tmp/platform/absent/lock", 1, 1, ENOENT},
      {"FileAsDirectory", "/etc/passwd/lock", 1, 1, ENOTDIR},
      {"NameTooLong", "/tmp/platform/open/" "0123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345", 1, 1, ENAMETOOLONG},
  };
  // clang-format on
  for (const FailureRow& row : rows) {
    SCOPED_TRACE(row.name);
    int fd = 77;
    errno = 0;
    EXPECT_EQ(0, TLIBCFileLockTimeByFile(row.path, row.mode, row.seconds, &fd));
    EXPECT_EQ(row.error, errno);
    EXPECT_EQ(77, fd);
  }
  EXPECT_EQ(0, TLIBCFileLockTimeByFile(kLock, 1, 1, nullptr));
  EXPECT_EQ("(absent)", statusOf(kLock));
}

TEST_F(LockFile, UnlockOfNoLockFails) {
  EXPECT_EQ(0, TLIBCFileUnlockByFile(-1));
  EXPECT_EQ(0, TLIBCFileUnlockByFile(77));
}

TEST_F(LockFile, UserWithoutRightsGetsNoLockOfRoot) {
  int fd = -1;
  ASSERT_EQ(1, take(0, &fd));
  ASSERT_EQ(1, TLIBCFileUnlockByFile(fd));
  processes::Child child([] {
    int other = -1;
    if (setresuid(65534, 65534, 65534) != 0) return std::string("no");
    const int result = take(1, &other);
    return std::to_string(result) + " " + std::to_string(errno);
  });
  EXPECT_EQ("0 " + std::to_string(EACCES), child.answer());
}

// --- exclusion ---

// "free" when the lock can be had at once.
std::string state() {
  int fd = -1;
  if (take(0, &fd) != 1) return errno == ETIMEDOUT ? "held" : std::strerror(errno);
  return TLIBCFileUnlockByFile(fd) == 1 ? "free" : "stuck";
}

std::string stateInAnotherProcess() {
  processes::Child child(state);
  return child.answer();
}

TEST_F(LockFile, ExcludesProcessesAndThreads) {
  int fd = -1;
  ASSERT_EQ(1, take(0, &fd));
  EXPECT_EQ("held", state());
  EXPECT_EQ("held", stateInAnotherProcess());
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
  EXPECT_EQ("free", state());
  EXPECT_EQ("free", stateInAnotherProcess());
}

TEST_F(LockFile, ClosingAnotherDescriptorOfTheFileKeepsTheLock) {
  int fd = -1;
  ASSERT_EQ(1, take(0, &fd));
  const int other = open(kLock, O_RDWR | O_CLOEXEC);
  ASSERT_GE(other, 0);
  EXPECT_EQ(0, close(other));
  EXPECT_EQ("held", stateInAnotherProcess());
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
}

TEST_F(LockFile, ProcessForkedMeanwhileDoesNotKeepTheLock) {
  int fd = -1;
  ASSERT_EQ(1, take(0, &fd));
  const pid_t forked = fork();
  if (forked == 0) {
    for (;;) pause();
  }
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
  EXPECT_EQ("free", state());
  EXPECT_EQ(0, kill(forked, SIGKILL));
  EXPECT_EQ(forked, waitpid(forked, nullptr, 0));
}

TEST_F(LockFile, HoldersOfTheOldKindsOfLockExclude) {
  run(std::string("touch ") + kLock);
  {
    const processes::LockHolder recordLock(kLock);
    EXPECT_EQ("held", state());
  }
  EXPECT_EQ("free", state());
  const int fd = open(kLock, O_RDWR | O_CLOEXEC);
  EXPECT_EQ(0, flock(fd, LOCK_EX));
  EXPECT_EQ("held", state());
  EXPECT_EQ(0, close(fd));
  EXPECT_EQ("free", state());
}

TEST_F(LockFile, WaitsAsLongAsItIsTold) {
  int fd = -1;
  int other = 77;
  ASSERT_EQ(1, take(0, &fd));
  const auto start = Clock::now();
  EXPECT_EQ(0, take(1, &other));
  EXPECT_EQ(ETIMEDOUT, errno);
  EXPECT_EQ(77, other);
  EXPECT_GE(secondsSince(start), 1.0);
  EXPECT_LT(secondsSince(start), 1.5);
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
}

TEST_F(LockFile, WaitingUsesNoProcessorTime) {
  int fd = -1;
  int other = -1;
  ASSERT_EQ(1, take(0, &fd));
  timespec before = {};
  timespec after = {};
  EXPECT_EQ(0, clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before));
  EXPECT_EQ(0, take(2, &other));
  EXPECT_EQ(0, clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after));
  EXPECT_LT(secondsBetween(before, after), 0.1);
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
}

// A file server may lease the file, and lets go of it some time after somebody opens it.
TEST_F(LockFile, IsHadWhenALeaseIsGivenBack) {
  run(std::string("touch ") + kLock);
  const processes::Lease lease(kLock, std::chrono::milliseconds(300));
  ASSERT_TRUE(lease.taken()) << "a file system without leases";
  timespec before = {};
  timespec after = {};
  int fd = -1;
  EXPECT_EQ(0, clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before));
  ASSERT_EQ(1, take(10, &fd));
  EXPECT_EQ(0, clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after));
  EXPECT_LT(secondsBetween(before, after), 0.01);
  EXPECT_EQ("", trace::take());
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
}

TEST_F(LockFile, IsHadWhenTheHolderLetsGo) {
  int fd = -1;
  ASSERT_EQ(1, take(0, &fd));
  int result = 0;
  std::thread waiter([&result] {
    int own = -1;
    result = take(10, &own);
    EXPECT_EQ(1, TLIBCFileUnlockByFile(own));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
  waiter.join();
  EXPECT_EQ(1, result);
}

TEST_F(LockFile, IsFreeWhenTheHoldersProcessEnds) {
  processes::Child child([] {
    int fd = -1;
    return std::to_string(take(0, &fd));
  });
  EXPECT_EQ("1", child.answer());
  EXPECT_EQ("free", state());
}

TEST_F(LockFile, FourThreadsTakeTurns) {
  std::atomic<int> inside = 0;
  std::atomic<int> turns = 0;
  std::atomic<int> overlaps = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int turn = 0; turn < 25; ++turn) {
        int fd = -1;
        if (take(30, &fd) != 1) continue;
        overlaps += inside++ == 0 ? 0 : 1;
        std::this_thread::yield();
        --inside;
        ++turns;
        (void)TLIBCFileUnlockByFile(fd);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(100, turns);
  EXPECT_EQ(0, overlaps);
}

// A user's file is exchanged for another process's lock file between our look at it and its
// removal.
TEST_F(LockFile, MadeByAnotherIsNotRemovedForWhatStoodThere) {
  run(std::string("touch ") + kLock + "; chown 65534 " + kLock);
  int others = -1;
  int result = 0;
  beforeUnlink = [&others, &result] {
    fs::remove(kLock);
    result = take(0, &others);
  };
  int fd = -1;
  ASSERT_EQ(1, take(1, &fd)) << std::strerror(errno);
  EXPECT_EQ(0, result) << "both have the lock";
  EXPECT_EQ(nullptr, beforeUnlink);
  EXPECT_EQ("lock_gate", files::listing("/run/tarn"));
  EXPECT_EQ(kOwn, statusOf("/run/tarn/lock_gate"));
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
  if (result == 1) (void)TLIBCFileUnlockByFile(others);
  (void)trace::take();
}

// Users may link files of others where fs.protected_hardlinks is 0.
TEST_F(LockFile, LinkedWhileItIsHeldExcludesAllTheSame) {
  const std::string other = std::string(kLock) + ".other";
  int fd = -1;
  ASSERT_EQ(1, take(0, &fd));
  ASSERT_EQ(0, link(kLock, other.c_str()));
  EXPECT_EQ("held", state());
  EXPECT_EQ("100600 2 links, owner 0", statusOf(kLock));
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
  EXPECT_EQ("free", state());
  EXPECT_EQ(kOwn, statusOf(kLock)) << "nobody holds it: a new one";
  EXPECT_EQ(kRemovedRoots, trace::take());
}

// Somebody takes the lock file that is about to be cleared away for its second link.
TEST_F(LockFile, LinkedAndTakenMeanwhileIsNoLockAnyMore) {
  const std::string other = std::string(kLock) + ".other";
  run(std::string("touch ") + kLock + "; chmod 600 " + kLock);
  const int early = open(kLock, O_RDWR | O_CLOEXEC);  // when it was the lock file
  ASSERT_EQ(0, link(kLock, other.c_str()));
  bool taken = true;
  beforeUnlink = [early, &taken] { taken = flock(early, LOCK_EX | LOCK_NB) == 0; };
  int fd = -1;
  ASSERT_EQ(1, take(0, &fd));
  EXPECT_FALSE(taken) << "both have the lock";
  EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
  (void)close(early);
  EXPECT_EQ(kRemovedRoots, trace::take());
}

// --- a lock file that is removed or replaced ---

TEST_F(LockFile, ReplacedFileIsTheLock) {
  int old = -1;
  int current = -1;
  ASSERT_EQ(1, take(0, &old));
  fs::remove(kLock);
  ASSERT_EQ(1, take(0, &current)) << "the old file is no lock any more";
  EXPECT_EQ("held", state());
  EXPECT_EQ(1, TLIBCFileUnlockByFile(old));
  EXPECT_EQ("held", state());
  EXPECT_EQ(1, TLIBCFileUnlockByFile(current));
  EXPECT_EQ("free", state());
}

TEST_F(LockFile, WaiterFollowsTheNameNotTheFile) {
  int old = -1;
  ASSERT_EQ(1, take(0, &old));
  std::atomic<int> result = 0;
  std::thread waiter([&result] {
    int own = -1;
    result = take(10, &own);
    EXPECT_EQ("held", state());
    EXPECT_EQ(1, TLIBCFileUnlockByFile(own));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  fs::remove(kLock);  // as a cleaner of old files does
  waiter.join();
  EXPECT_EQ(1, result);
  EXPECT_EQ(kOwn, statusOf(kLock));
  EXPECT_EQ(1, TLIBCFileUnlockByFile(old));
}

TEST_F(LockFile, RemovalsInTheMiddleOfTurnsLoseNoLock) {
  std::atomic<bool> stop = false;
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!stop) {
        int fd = -1;
        struct stat opened = {};
        struct stat named = {};
        if (take(30, &fd) != 1 || fstat(fd, &opened) != 0) {
          ++failures;
          continue;
        }
        // Only a holder removes the name here, so it is this file's as long as the lock is held.
        if (stat(kLock, &named) != 0 || named.st_ino != opened.st_ino) ++failures;
        (void)unlink(kLock);
        (void)TLIBCFileUnlockByFile(fd);
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, failures);
}

TEST_F(LockFile, SquatterWhoKeepsComingBackEndsAtTheDeadline) {
  std::atomic<bool> stop = false;
  std::thread squatter([&stop] {
    while (!stop) {
      (void)unlink(kLock);
      (void)symlink("/tmp/platform/absent", kLock);
    }
  });
  const auto start = Clock::now();
  int fd = -1;
  const int result = take(1, &fd);
  const int error = errno;
  EXPECT_LT(secondsSince(start), 2.0);
  stop = true;
  squatter.join();
  if (result == 1) {
    EXPECT_EQ(1, TLIBCFileUnlockByFile(fd));
  } else {
    EXPECT_EQ(ETIMEDOUT, error);
  }
  EXPECT_EQ("(absent)", statusOf("/tmp/platform/absent"));
  (void)trace::take();  // one line for each time it was moved
}

}  // namespace

// The C library's name: the library under test calls this one.
int unlinkat(int directory, const char* name, int flags) noexcept {
  if (const auto work = std::exchange(beforeUnlink, nullptr)) work();
  return static_cast<int>(syscall(SYS_unlinkat, directory, name, flags));
}
