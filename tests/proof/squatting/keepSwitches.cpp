// keepSwitches COMMAND [ARG...]: runs the command, and when it has ended sets the kernel's
// protected_* switches back to what they were, also when command and caller were killed. For that a
// process outside of theirs waits for the end of a pipe whose other end the command and its
// children have and nobody else.
//
// Commands take turns over the whole machine: who read the switches while another has changed them
// would set them to that. The turn is a lock whose descriptor ends up with the waiting process
// alone, so it lasts until the switches are back.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "switches.h"

namespace {

constexpr char kTurns[] = "/run/tarn-proof-switches.lock";
constexpr unsigned kLongestWait = 500;  // seconds; a turn is one test

[[noreturn]] void stop(const char* what) {
  std::perror(what);
  std::_Exit(125);
}

// The descriptor is close-on-exec: the command does not have it.
void waitForTurn() {
  const int fd = open(kTurns, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) stop(kTurns);
  (void)alarm(kLongestWait);
  if (flock(fd, LOCK_EX) != 0) stop("flock");
  (void)alarm(0);
}

// Nothing of the caller's is kept: its standard output would never end.
void leaveCaller() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : {0, 1, 2}) {
    if (dup2(null, fd) != fd) std::_Exit(1);
  }
  if (setsid() < 0 || chdir("/") != 0) std::_Exit(1);
}

[[noreturn]] void watch(int end, squatting::Switches& switches) {
  char nothing = 0;
  while (read(end, &nothing, 1) > 0) continue;
  std::_Exit(switches.set(switches.machines()) ? 0 : 1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs("Usage: keepSwitches COMMAND [ARG...]\n", stderr);
    return 2;
  }
  waitForTurn();
  squatting::Switches switches;
  std::array<int, 2> ends = {-1, -1};
  if (pipe(ends.data()) != 0) stop("pipe");
  const pid_t between = fork();
  if (between < 0) stop("fork");
  if (between == 0) {
    close(ends[1]);
    leaveCaller();
    if (fork() == 0) watch(ends[0], switches);
    std::_Exit(0);
  }
  if (waitpid(between, nullptr, 0) != between) stop("waitpid");
  close(ends[0]);
  execvp(argv[1], argv + 1);
  stop(argv[1]);
}
