#include "hosts.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "testFiles.h"

namespace oddHosts {
namespace {

namespace fs = std::filesystem;

bool install(int signal, void (*handler)(int), int flags) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  return sigaction(signal, &action, nullptr) == 0;
}

void reap(int /*signal*/) {
  const int error = errno;
  while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
  errno = error;
}

bool setLimit(__rlimit_resource resource, rlim_t limit) {
  const rlimit both = {limit, limit};
  return setrlimit(resource, &both) == 0;
}

// --- what hosts do ---

bool nothing() { return true; }
bool ignoreChildren() { return install(SIGCHLD, SIG_IGN, 0); }
bool leaveNoZombies() { return install(SIGCHLD, SIG_DFL, SA_NOCLDWAIT); }
bool reapInAHandler() { return install(SIGCHLD, reap, SA_RESTART); }

bool reapInAThread() {
  std::thread([] {
    for (;;) {
      if (waitpid(-1, nullptr, 0) < 0) std::this_thread::yield();
    }
  }).detach();
  return true;
}

bool blockEverySignal() {
  sigset_t all;
  (void)sigfillset(&all);
  return sigprocmask(SIG_SETMASK, &all, nullptr) == 0;
}

// Those that cannot be ignored and the C library's own are left as they are.
bool ignoreEverySignal() {
  int ignored = 0;
  for (int signal = 1; signal < NSIG; ++signal) ignored += install(signal, SIG_IGN, 0) ? 1 : 0;
  return ignored == NSIG - 5;
}

bool closeStandardDescriptors() {
  for (const int fd : {0, 1, 2}) close(fd);
  return true;
}

// Without close-on-exec, and numbers beyond the usual limit.
bool openManyDescriptors() {
  if (!setLimit(RLIMIT_NOFILE, 4096)) return false;
  const int file = open("/dev/zero", O_RDWR);  // NOLINT(android-cloexec-open): to be inherited
  for (int count = 0; count < 1000; ++count) {
    if (fcntl(file, F_DUPFD, 3) < 0) return false;
  }
  return true;
}

bool allowFewDescriptors() { return setLimit(RLIMIT_NOFILE, 16); }

bool maskModes(mode_t mask) {
  (void)umask(mask);
  return true;
}

bool maskNoMode() { return maskModes(0); }
bool maskEveryMode() { return maskModes(0777); }
bool limitFiles() { return setLimit(RLIMIT_FSIZE, rlim_t{1024} * 1024); }

// The observer still keeps its notes: the hard limit stays as it is.
bool forbidFiles() {
  rlimit files = {};
  (void)getrlimit(RLIMIT_FSIZE, &files);
  files.rlim_cur = 8;
  return setrlimit(RLIMIT_FSIZE, &files) == 0;
}

bool loseSystemLog() {
  closelog();
  std::error_code error;
  fs::rename("/dev/log", "/dev/log.away", error);
  return !error;
}

bool grow() {
  constexpr std::size_t kBytes = std::size_t{200} << 20;
  void* const memory =
      mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return false;
  std::memset(memory, 1, kBytes);
  return true;
}

bool moveAway() {
  fs::create_directory("/tmp/tool/gone");
  return chdir("/tmp/tool/gone") == 0 && fs::remove("/tmp/tool/gone");
}

bool havePoisonedEnvironment() {
  poisonTheEnvironment();
  return true;
}

bool doEverything() {
  return ignoreChildren() && openManyDescriptors() && closeStandardDescriptors() && maskNoMode() &&
         limitFiles() && havePoisonedEnvironment() && moveAway() && blockEverySignal();
}

std::string handlers() {
  std::string text;
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action = {};
    if (sigaction(signal, nullptr, &action) != 0) continue;
    std::array<char, 64> line;
    (void)std::snprintf(line.data(), line.size(), "%d %p %x", signal,
                        reinterpret_cast<void*>(action.sa_handler), action.sa_flags);
    text += line.data();
    for (int other = 1; other < NSIG; ++other) {
      text += sigismember(&action.sa_mask, other) == 1 ? "+" : "";
    }
    text += "\n";
  }
  return text;
}

std::string limits() {
  std::string text;
  for (int resource = 0; resource < RLIM_NLIMITS; ++resource) {
    rlimit limit = {};
    (void)getrlimit(static_cast<__rlimit_resource>(resource), &limit);
    text += std::to_string(limit.rlim_cur) + "/" + std::to_string(limit.rlim_max) + " ";
  }
  itimerval timer = {};
  (void)getitimer(ITIMER_REAL, &timer);
  const bool set = timer.it_value.tv_sec != 0 || timer.it_value.tv_usec != 0;
  return text + (set ? "timer runs\n" : "no timer\n");
}

// Descriptors with flags and places: a read that moves a shared offset is seen too.
std::string descriptors() {
  std::string text = files::descriptors() + "\n";
  for (int fd = 0; fd < 2048; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0) continue;
    text += std::to_string(fd) + ":" + std::to_string(flags) + ":" +
            std::to_string(fcntl(fd, F_GETFL)) + ":" + std::to_string(lseek(fd, 0, SEEK_CUR)) + " ";
  }
  return text + "\n";
}

std::string statusLines() {
  constexpr std::array<const char*, 8> kNames = {
      "Umask:", "SigPnd:", "ShdPnd:", "SigBlk:", "SigIgn:", "SigCgt:", "Uid:", "Threads:"};
  std::ifstream file("/proc/self/status");
  std::string lines;
  for (std::string line; std::getline(file, line);) {
    for (const std::string name : kNames) {
      if (line.compare(0, name.size(), name) == 0) lines += line + "\n";
    }
  }
  return lines;
}

}  // namespace

const std::vector<Host>& hosts() {
  static const std::vector<Host> kAll = {
      {"Ordinary", nothing},
      {"IgnoresItsChildren", ignoreChildren},
      {"LeavesNoZombies", leaveNoZombies},
      {"ReapsInAHandler", reapInAHandler},
      {"ReapsInAThread", reapInAThread},
      {"BlocksEverySignal", blockEverySignal},
      {"IgnoresEverySignal", ignoreEverySignal},
      {"HasNoStandardDescriptors", closeStandardDescriptors},
      {"HasAThousandDescriptors", openManyDescriptors},
      {"MayOpenFewDescriptors", allowFewDescriptors},
      {"MasksNoMode", maskNoMode},
      {"MasksEveryMode", maskEveryMode},
      {"MayWriteSmallFiles", limitFiles, false, true},
      {"MayWriteNoFiles", forbidFiles, true},
      {"HasNoSystemLog", loseSystemLog},
      {"HasAPoisonedEnvironment", havePoisonedEnvironment},
      {"IsLarge", grow},
      {"IsInADirectoryThatIsGone", moveAway},
      {"DoesEverythingAtOnce", doEverything, false, true},
  };
  return kAll;
}

void makePoison() {
  fs::remove_all("/tmp/poison");
  fs::create_directory("/tmp/poison");
  for (const char* name : {"poison.so", "libxt_state.so", "libxt_conntrack.so", "libxt_standard.so",
                           "libipt_icmp.so", "libip6t_icmp6.so", "libxtables.so.12", "libc.so.6"}) {
    fs::copy_file(POISON, std::string("/tmp/poison/") + name);
  }
  for (const char* name : {"iptables", "ip6tables", "sh", "modprobe", "rc"}) {
    const std::string path = std::string("/tmp/poison/") + name;
    files::write(path, "#!/bin/sh\n: > /tmp/poison/mark\n");
    fs::permissions(path, fs::perms::all);
  }
}

void poisonTheEnvironment() {
  for (const char* name : {"PATH", "XTABLES_LIBDIR", "IPTABLES_LIB_DIR", "IP6TABLES_LIB_DIR",
                           "LD_LIBRARY_PATH", "TMPDIR", "HOME"}) {
    (void)setenv(name, "/tmp/poison", 1);
  }
  (void)setenv("LD_PRELOAD", "/tmp/poison/poison.so", 1);
  (void)setenv("LD_AUDIT", "/tmp/poison/poison.so", 1);
  (void)setenv("BASH_ENV", "/tmp/poison/rc", 1);
  (void)setenv("ENV", "/tmp/poison/rc", 1);
  (void)setenv("XTABLES_LOCKFILE", "/tmp/poison/lock", 1);
  (void)setenv("IPTABLES_MODPROBE", "/tmp/poison/modprobe", 1);
  (void)setenv("IFS", "/", 1);
  (void)setenv("LC_ALL", "de_DE.UTF-8", 1);
  (void)setenv("RESULT", "7", 1);
}

std::string stateOfHost() {
  std::error_code error;
  std::string text = statusLines() + handlers() + limits() + descriptors();
  text += files::read("/proc/thread-self/children") + "\n";
  text += fs::read_symlink("/proc/self/cwd", error).string() + "\n";
  text += std::to_string(getpgrp()) + " " + std::to_string(getsid(0)) + "\n";
  text += std::string(std::setlocale(LC_ALL, nullptr)) + "\n";
  for (char** variable = environ; *variable != nullptr; ++variable) {
    text += std::string(*variable) + "\n";
  }
  return text;
}

}  // namespace oddHosts
