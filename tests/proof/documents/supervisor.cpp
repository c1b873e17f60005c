#include "supervisor.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <set>
#include <stdexcept>
#include <vector>

#include "fileCalls.h"
#include "leftBehind.h"

// Since Linux 6.6; the C library's headers may be older.
#ifndef SECCOMP_IOCTL_NOTIF_SET_FLAGS
#define SECCOMP_IOCTL_NOTIF_SET_FLAGS SECCOMP_IOW(4, __u64)
#endif

namespace supervisor {
namespace {

constexpr int kPatience = 10'000;     // milliseconds for one step of the work
constexpr __u64 kSameProcessor = 1U;  // the notified process runs where the notifier ran

[[noreturn]] void stop(const char* what) {
  throw std::runtime_error(std::string("supervisor: ") + what + ": " + std::strerror(errno));
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return number_; }
  void close() {
    if (number_ >= 0) ::close(number_);
    number_ = -1;
  }

 private:
  int number_;
};

// --- in the process of the work ---

// A call that no work makes: the process waits at it for its supervisor.
constexpr int kRendezvous = SYS_getsid;

// Which calls are handed over; writing the answer never is.
std::vector<sock_filter> filter(const Harm& harm, int answers) {
  constexpr auto kNumber = static_cast<__u32>(offsetof(seccomp_data, nr));
  constexpr auto kFirstArgument = static_cast<__u32>(offsetof(seccomp_data, args));
  const sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  const sock_filter handOver = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
  std::vector<sock_filter> program = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNumber),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_write, 0, 4),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFirstArgument),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(answers), 0, 1),
      allow,
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNumber)};
  if (harm.call == kEveryCall) {
    program.push_back(handOver);
    return program;
  }
  for (const int call : {kRendezvous, harm.inspect ? SYS_exit_group : harm.call, harm.call}) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(call), 0, 1));
    program.push_back(handOver);
  }
  program.push_back(allow);
  return program;
}

void answer(int answers, const void* bytes, std::size_t size) {
  if (write(answers, bytes, size) != static_cast<ssize_t>(size)) _exit(1);
}

// From here on calls are handed over to whoever has the descriptor named in the first answer.
void submit(const Harm& harm, int answers) {
  std::vector<sock_filter> instructions = filter(harm, answers);
  const sock_fprog program = {static_cast<unsigned short>(instructions.size()),
                              instructions.data()};
  const long listener = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0
                            ? -1
                            : syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
                                      SECCOMP_FILTER_FLAG_NEW_LISTENER, &program);
  const int number = listener < 0 ? -errno : static_cast<int>(listener);
  answer(answers, &number, sizeof number);
  if (number < 0) _exit(1);       // never at work without a supervisor
  (void)syscall(kRendezvous, 0);  // the supervisor has it
  (void)close(number);
  (void)syscall(kRendezvous, 0);  // what comes now is the work
}

// --- in the process of the test ---

pid_t start(std::array<int, 2>& answers) {
  if (pipe2(answers.data(), O_CLOEXEC) != 0) stop("pipe");
  const pid_t process = fork();
  if (process < 0) stop("fork");
  if (process == 0) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)close(answers[0]);
  } else {
    (void)close(answers[1]);
  }
  return process;
}

// What the process has answered when it ends; kills it when that takes too long.
void finish(pid_t process, const Descriptor& answers, Outcome& outcome) {
  std::array<char, 4096> buffer;
  for (;;) {
    pollfd event = {answers.get(), POLLIN, 0};
    if (poll(&event, 1, kPatience) == 0) {
      outcome.hung = true;
      (void)kill(process, SIGKILL);
    }
    const ssize_t length = read(answers.get(), buffer.data(), buffer.size());
    if (length <= 0) break;
    outcome.answer.append(buffer.data(), static_cast<std::size_t>(length));
  }
  int status = 0;
  if (waitpid(process, &status, 0) != process) stop("waitpid");
  outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

class Supervision {
 public:
  Supervision(pid_t process, const Harm& harm, int listener, Outcome& outcome)
      : process_(process), harm_(harm), listener_(listener), outcome_(outcome) {}

  // Lets the calls through, up to the harm that is fatal or to the end.
  void watch() {
    (void)ioctl(listener_, SECCOMP_IOCTL_NOTIF_SET_FLAGS, kSameProcessor);
    seccomp_notif call;
    for (int met = 0; met < 2; met += call.data.nr == kRendezvous ? 1 : 0) {
      if (!next(call)) return;
      if (call.data.nr == kRendezvous && met == 1 && harm_.inspect)
        before_ = openDescriptors(process_);
      if (!grant(call)) return;
    }
    while (next(call)) {
      outcome_.calls.insert(call.data.nr);
      if (harm_.inspect && call.data.nr == SYS_exit_group) inspect();
      const bool counts = harm_.call == kEveryCall || harm_.call == call.data.nr;
      if (!counts || count_++ != harm_.at) {
        if (!grant(call)) return;
        continue;
      }
      outcome_.harmed = true;
      if (harm_.kill) {
        (void)kill(process_, SIGKILL);
        return;
      }
      // The kernel would have closed it in spite of the error.
      if (call.data.nr == SYS_close) before_.insert(static_cast<int>(call.data.args[0]));
      if (!refuse(call)) return;
    }
  }

 private:
  // The next call that waits; false when the process has ended.
  bool next(seccomp_notif& call) {
    pollfd event = {listener_, POLLIN, 0};
    const int ready = poll(&event, 1, kPatience);
    if (ready == 0) {
      outcome_.hung = true;
      (void)kill(process_, SIGKILL);
    }
    if (ready <= 0 || (event.revents & POLLIN) == 0) return false;
    std::memset(&call, 0, sizeof call);
    return ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &call) == 0;
  }

  bool grant(const seccomp_notif& call) const {
    seccomp_notif_resp reply = {call.id, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE};
    return ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &reply) == 0;
  }

  bool refuse(const seccomp_notif& call) const {
    seccomp_notif_resp reply = {call.id, 0, -harm_.error, 0};
    return ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &reply) == 0;
  }

  void inspect() {
    for (const int number : openDescriptors(process_)) {
      if (before_.count(number) == 0) outcome_.leaks += " descriptor " + std::to_string(number);
    }
    outcome_.leaks += heldLocks();
  }

  pid_t process_;
  const Harm& harm_;
  int listener_;
  Outcome& outcome_;
  std::set<int> before_;
  long count_ = 0;
};

// The supervisor's descriptor for the calls of `process`. Without one the process still waits for
// leave to begin.
int listenerOf(pid_t process, int answers) {
  int number = -1;
  if (read(answers, &number, sizeof number) != sizeof number) number = -EPIPE;
  if (number < 0) {
    errno = -number;
    stop("seccomp");
  }
  const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  const auto listener = static_cast<int>(syscall(SYS_pidfd_getfd, handle.get(), number, 0));
  if (listener < 0) stop("pidfd_getfd");
  return listener;
}

const FileCall* fileCallOf(int call) {
  for (const FileCall& fileCall : kFileCalls) {
    if (fileCall.number == call) return &fileCall;
  }
  return nullptr;
}

}  // namespace

Outcome run(const Harm& harm, const std::function<std::string()>& work) {
  Outcome outcome;
  std::array<int, 2> ends = {-1, -1};
  const pid_t process = start(ends);
  if (process == 0) {
    submit(harm, ends[1]);
    const std::string text = work();
    answer(ends[1], text.data(), text.size());
    _exit(0);
  }
  const Descriptor answers(ends[0]);
  try {
    const Descriptor listener(listenerOf(process, answers.get()));
    Supervision(process, harm, listener.get(), outcome).watch();
    finish(process, answers, outcome);
  } catch (...) {
    (void)kill(process, SIGKILL);
    (void)waitpid(process, nullptr, 0);
    throw;
  }
  return outcome;
}

Outcome run(const std::function<std::string()>& work) {
  Outcome outcome;
  std::array<int, 2> ends = {-1, -1};
  const pid_t process = start(ends);
  if (process == 0) {
    const std::string text = work();
    answer(ends[1], text.data(), text.size());
    _exit(0);
  }
  const Descriptor answers(ends[0]);
  finish(process, answers, outcome);
  return outcome;
}

std::string whyNot() {
  const auto touch = [] { return std::string(access("/", F_OK) == 0 ? "done" : "not done"); };
  try {
    if (run(Harm{}, touch).answer != "done") return "supervisor: no call is let through";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return {};
}

std::set<int> callsOf(const std::function<std::string()>& work, bool filesOnly) {
  std::set<int> calls = run(Harm{}, work).calls;
  for (auto call = calls.begin(); filesOnly && call != calls.end();) {
    call = fileCallOf(*call) == nullptr ? calls.erase(call) : std::next(call);
  }
  return calls;
}

std::string nameOf(int call) {
  const FileCall* const fileCall = fileCallOf(call);
  return fileCall == nullptr ? "call " + std::to_string(call) : fileCall->name;
}

}  // namespace supervisor
