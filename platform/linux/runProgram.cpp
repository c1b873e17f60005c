// How a program is run:
//
//   caller   blocks its signals, makes the helper, sleeps until it has ended, reads the result
//   helper   shares the caller's memory, has its own descriptors and signal table; makes the
//            tool process, waits for it with the time limit, stores the result
//   tool     arranges signals and descriptors 0 to 2 and becomes the program
//
// The helper exists because the kernel reports a program's end to its parent, by SIGCHLD, and the
// caller may ignore SIGCHLD (its status is then discarded) or collect every child in a handler or
// another thread (its status is then stolen). The helper is made without an exit signal, so neither
// reaches it, and the program is the helper's child, out of the caller's sight. Sharing memory
// instead of copying it keeps the start as fast in a caller of gigabytes.
//
// A caller with one thread that leaves SIGCHLD alone cannot notice the difference; it plays the
// helper's part itself, which saves a process.
//
// Between the first clone and the exec only direct system calls are used, and closefrom(), which is
// one, and this file is compiled without sanitizers: library calls may take locks that another
// thread of the caller holds, and the sanitizers' run time takes the helper for the calling thread.

#include "runProgram.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/single_threaded.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cancellation.h"
#include "clock.h"

// clone() under its other name: sanitizers put their own function in place of the first, which
// prepares their run time for a copy of the memory.
// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's name
extern "C" int __clone(int (*body)(void*), void* stack, int flags, void* argument, ...);

namespace tarnrun {

namespace {

constexpr int kStartRetrySeconds = 5;
constexpr int64_t kFirstPause = 10 * kNanosecondsPerMillisecond;
constexpr int64_t kLongestPause = 320 * kNanosecondsPerMillisecond;
constexpr int kReapSeconds = 5;  // for a killed program that hangs in the kernel
constexpr size_t kStackBytes = size_t{8} * 1024;
constexpr uint64_t kWordsFileBytes = uint64_t{16} * 1024 * 1024;
constexpr int kProgramMask = 022;  // octal

// The kernel's signal numbers are 1 to 64; its sets are 64 bits. glibc's own functions leave out
// the two signals that carry thread cancellation and setuid(), and those must not interrupt the
// helper either.
constexpr int kLastSignal = 64;
using SignalSet = uint64_t;
constexpr SignalSet kAllSignals = ~SignalSet{0};

constexpr SignalSet only(int signal) { return SignalSet{1} << (signal - 1); }

void setSignalMask(SignalSet mask, SignalSet* old) noexcept {
  (void)syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, old, sizeof mask);
}

class SignalHold {
 public:
  SignalHold() noexcept { setSignalMask(kAllSignals, &old_); }
  SignalHold(const SignalHold&) = delete;
  SignalHold& operator=(const SignalHold&) = delete;
  ~SignalHold() { setSignalMask(old_, nullptr); }

  bool wasBlocked(int signal) const noexcept { return (old_ & only(signal)) != 0; }

 private:
  SignalSet old_ = 0;
};

// What caller, helper and tool share. Each writes only while the other two wait.
struct Run {
  const Program& program;
  int output = -1;  // for the tool's standard output and error, in its parent; -1: /dev/null
  pid_t tool = -1;
  bool reported = false;  // the members below hold the result
  int status = -1;
  int signal = 0;
  bool timedOut = false;
  int error = 0;  // errno value of the step that failed
  alignas(16) unsigned char helperStack[kStackBytes];
  alignas(16) unsigned char toolStack[kStackBytes];

  explicit Run(const Program& what) noexcept : program(what) {}
};

// The kernel's structure for a signal's action; all zero it is the default action on every machine.
constexpr uint64_t kDefaultAction[8] = {};

void setDefaultAction(int signal) noexcept {
  (void)syscall(SYS_rt_sigaction, signal, kDefaultAction, nullptr, sizeof(SignalSet));
}

// The handler is its first word, and 1 is SIG_IGN.
constexpr unsigned long kIgnoringAction[16] = {1};

void ignoreSignal(int signal) noexcept {
  (void)syscall(SYS_rt_sigaction, signal, kIgnoringAction, nullptr, sizeof(SignalSet));
}

bool moveDescriptor(int from, int to) noexcept {
  if (from == to) {
    return syscall(SYS_fcntl, to, F_SETFD, 0) == 0;
  }
  return syscall(SYS_dup3, from, to, 0) == to;
}

// Descriptors 0 to 2. The output is moved first and the rest closed then, so that the null device
// finds a free number even in a caller that has used up its limit.
bool arrangeDescriptors(int output) noexcept {
  if (output >= 0 && (!moveDescriptor(output, 1) || !moveDescriptor(1, 2))) {
    return false;
  }
  closefrom(3);
  (void)syscall(SYS_close, 0);
  if (syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR) != 0) {
    return false;
  }
  return output >= 0 || (moveDescriptor(0, 1) && moveDescriptor(0, 2));
}

// A checker that runs the process in a machine of its own may make both clones plain forks; what is
// written to the shared memory is then lost. The ends of the processes themselves say as much as
// callers need: helper and tool die of a signal when there is no exit status.
[[noreturn]] void endAbnormally() noexcept {
  for (;;) {
    (void)syscall(SYS_kill, syscall(SYS_getpid), SIGKILL);
  }
}

struct FileSizeLimit {
  uint64_t soft = 0;
  uint64_t hard = 0;
};

FileSizeLimit fileSizeLimit() noexcept {
  FileSizeLimit limit;
  (void)syscall(SYS_prlimit64, 0, RLIMIT_FSIZE, nullptr, &limit);
  return limit;
}

// Room for what the program prints, which is a file: under a lower limit the first word would end
// it by SIGXFSZ. Where the limit cannot be raised, what is printed gets lost.
void allowOutput() noexcept {
  FileSizeLimit limit = fileSizeLimit();
  if (limit.soft >= kWordsFileBytes) {
    return;
  }
  limit.soft = kWordsFileBytes;
  limit.hard = limit.hard < kWordsFileBytes ? kWordsFileBytes : limit.hard;
  if (syscall(SYS_prlimit64, 0, RLIMIT_FSIZE, &limit, nullptr) != 0) {
    ignoreSignal(SIGXFSZ);
  }
}

// What of the caller's would reach the program although it is no signal and no descriptor.
void arrangeSurroundings() noexcept {
  (void)syscall(SYS_umask, kProgramMask);
  (void)syscall(SYS_chdir, "/");
  allowOutput();
}

int toolMain(void* argument) noexcept {
  Run& run = *static_cast<Run*>(argument);
  const Program& program = run.program;
  for (int signal = 1; signal <= kLastSignal; ++signal) {
    setDefaultAction(signal);  // exec keeps what is ignored
  }
  arrangeSurroundings();
  if (arrangeDescriptors(run.output) && (!program.ownGroup || syscall(SYS_setpgid, 0, 0) == 0)) {
    setSignalMask(0, nullptr);
    (void)syscall(SYS_execve, program.path, program.argv, program.environment);
  }
  run.error = errno;
  endAbnormally();
}

// A file in memory takes what the program prints: unlike a pipe it needs no reader, so the program
// never waits for one.
int makeWordsFile() noexcept {
  return static_cast<int>(syscall(SYS_memfd_create, "output", MFD_CLOEXEC | MFD_ALLOW_SEALING));
}

// Fixes the file's size: a program cannot fill the machine's memory with what it prints. Under a
// lower limit on files that would send the caller SIGXFSZ; the program's own limit does it then.
void sealWordsFile(int fd) noexcept {
  if (fileSizeLimit().soft < kWordsFileBytes) {
    return;
  }
  (void)syscall(SYS_ftruncate, fd, kWordsFileBytes);
  (void)syscall(SYS_fcntl, fd, F_ADD_SEALS, F_SEAL_GROW);
}

void readWords(const Run& run) noexcept {
  const Program& program = run.program;
  const long length = syscall(SYS_pread64, run.output, program.words, program.wordsSize - 1, 0L);
  program.words[length > 0 ? length : 0] = '\0';
}

bool keepsWords(const Program& program) noexcept {
  return program.wait && program.output < 0 && program.words != nullptr && program.wordsSize > 0;
}

bool startTool(Run& run) noexcept {
  run.tool = __clone(toolMain, run.toolStack + kStackBytes, CLONE_VM | CLONE_VFORK | SIGCHLD, &run);
  if (run.tool < 0) {
    run.error = errno;
    return false;
  }
  if (run.error != 0) {
    (void)syscall(SYS_wait4, run.tool, nullptr, 0, nullptr);
    return false;
  }
  return true;
}

// Sleeps until the tool has ended, at most until `left` nanoseconds have gone. Without a descriptor
// for the tool it looks again every few milliseconds.
void sleepUntilEnd(int toolDescriptor, int64_t left) noexcept {
  constexpr int64_t kLook = 5 * kNanosecondsPerMillisecond;
  const timespec limit = toTimespec(toolDescriptor < 0 && left > kLook ? kLook : left);
  pollfd ended = {toolDescriptor, POLLIN, 0};
  (void)syscall(SYS_ppoll, &ended, 1, &limit, nullptr, sizeof(SignalSet));
}

// Waits until `deadline` for the end of the program. True when there is nothing more to wait for.
bool waitForTool(Run& run, int toolDescriptor, int64_t deadline, int* waitStatus) noexcept {
  for (;;) {
    const long ended = syscall(SYS_wait4, run.tool, waitStatus, WNOHANG, nullptr);
    if (ended == run.tool) {
      return true;
    }
    if (ended < 0 && errno == ECHILD) {
      run.error = ECHILD;  // collected behind our back
      return true;
    }
    const int64_t left = deadline - monotonicNow();
    if (left <= 0) {
      return false;
    }
    sleepUntilEnd(toolDescriptor, left);
  }
}

void waitOrKill(Run& run, int toolDescriptor) noexcept {
  const Program& program = run.program;
  const int64_t limit = monotonicNow() + program.seconds * kNanosecondsPerSecond;
  int waitStatus = 0;
  if (!waitForTool(run, toolDescriptor, limit, &waitStatus)) {
    run.timedOut = true;
    (void)syscall(SYS_kill, program.ownGroup ? -run.tool : run.tool, SIGKILL);
    const int64_t giveUp = monotonicNow() + kReapSeconds * kNanosecondsPerSecond;
    (void)waitForTool(run, toolDescriptor, giveUp, &waitStatus);
    return;
  }
  if (run.error != 0) {
    return;
  }
  if (WIFSIGNALED(waitStatus)) {
    run.signal = WTERMSIG(waitStatus);
    return;
  }
  run.status = WEXITSTATUS(waitStatus);
}

// The helper's part: start, wait, result.
void startAndWait(Run& run) noexcept {
  const Program& program = run.program;
  if (!startTool(run)) {
    return;
  }
  if (!program.wait) {
    run.status = 0;
    return;
  }
  const bool hasWords = keepsWords(program) && run.output >= 0;
  if (hasWords) {
    sealWordsFile(run.output);  // while the program is being loaded: costs no time
  }
  const int toolDescriptor = static_cast<int>(syscall(SYS_pidfd_open, run.tool, 0));
  waitOrKill(run, toolDescriptor);
  if (toolDescriptor >= 0) {
    (void)syscall(SYS_close, toolDescriptor);
  }
  if (hasWords && run.status != 0) {
    readWords(run);
  }
}

int helperMain(void* argument) noexcept {
  Run& run = *static_cast<Run*>(argument);
  setDefaultAction(SIGCHLD);                                       // in the helper's own table
  closefrom(run.program.output < 3 ? 3 : run.program.output + 1);  // not to be copied for the tool
  run.output = keepsWords(run.program) ? makeWordsFile() : run.program.output;
  startAndWait(run);
  run.reported = true;
  if (run.status < 0) {
    endAbnormally();
  }
  return run.status;
}

void runInHelper(Run& run) noexcept {
  const int helper =
      __clone(helperMain, run.helperStack + kStackBytes, CLONE_VM | CLONE_VFORK, &run);
  if (helper < 0) {
    run.error = errno;
    return;
  }
  int waitStatus = SIGKILL;
  while (syscall(SYS_wait4, helper, &waitStatus, __WALL, nullptr) < 0 && errno == EINTR) {
  }
  if (!run.reported && WIFEXITED(waitStatus)) {
    run.status = WEXITSTATUS(waitStatus);
  }
}

// True when nobody but this thread can learn of a child or collect it while all signals are
// blocked.
bool childrenAreOurs(const SignalHold& signals) noexcept {
  struct sigaction action = {};
  return __libc_single_threaded != 0 && !signals.wasBlocked(SIGCHLD) &&
         sigaction(SIGCHLD, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
         action.sa_handler == SIG_DFL && (action.sa_flags & SA_NOCLDWAIT) == 0;
}

// False when the caller has no descriptor to spare; nothing has been run then.
bool runHere(Run& run) noexcept {
  const bool hasWords = keepsWords(run.program);
  run.output = hasWords ? makeWordsFile() : run.program.output;
  if (hasWords && run.output < 0) {
    return false;
  }
  startAndWait(run);
  if (hasWords) {
    (void)syscall(SYS_close, run.output);
  }
  return true;
}

Outcome runOnce(const Program& program, const SignalHold& signals) noexcept {
  Run run(program);
  if (!program.wait || !childrenAreOurs(signals) || !runHere(run)) {
    runInHelper(run);
  }
  return {run.status, run.error, run.signal, run.timedOut};
}

bool isShortage(int error) noexcept {
  return error == EAGAIN || error == ENOMEM || error == ENFILE;
}

}  // namespace

Outcome runProgram(const Program& program) {
  const tarn::CancellationHold noCancellation;
  const SignalHold noSignals;
  if (program.words != nullptr && program.wordsSize > 0) {
    program.words[0] = '\0';
  }
  const int64_t giveUp = monotonicNow() + kStartRetrySeconds * kNanosecondsPerSecond;
  int64_t pause = kFirstPause;
  for (;;) {
    const Outcome outcome = runOnce(program, noSignals);
    if (!isShortage(outcome.error) || monotonicNow() + pause > giveUp) {
      return outcome;
    }
    sleepFor(pause);
    pause = pause < kLongestPause ? pause * 2 : kLongestPause;
  }
}

}  // namespace tarnrun
