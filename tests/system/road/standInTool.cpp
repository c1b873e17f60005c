// Stands in for /sbin/iptables and /sbin/ip6tables. What it does with a command is in
// /tmp/tool/plan, a line for each kind of command; the first that fits counts, and without one it
// succeeds:
//
//   exit 4 ip6tables -F INPUT_FIREWALL     ends with that status
//   signal 9 iptables --policy *           kills itself; the star stands for any rest
//   hang iptables -F FORWARD_FIREWALL      the first time it never ends; afterwards the line is
//   void wait iptables -F INPUT_FIREWALL        makes /tmp/tool/waiting and goes on once that is
//   removed real *                                 becomes the real tool of the chosen variant
//
// Each command is added to /tmp/tool/calls with what became of it: "iptables -F INPUT_FIREWALL =
// 0".

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace {

constexpr char kPlan[] = "/tmp/tool/plan";
constexpr char kCalls[] = "/tmp/tool/calls";
constexpr char kHung[] = "/tmp/tool/hung";
constexpr char kWaiting[] = "/tmp/tool/waiting";

constexpr int kBroken = 99;  // the test program does not know this status

struct Step {
  std::string action;
  int number = 0;
};

bool create(const char* path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  return fd >= 0 && close(fd) == 0;
}

bool fits(const std::string& pattern, const std::string& command) {
  if (pattern.empty() || pattern.back() != '*') return pattern == command;
  return command.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
}

std::optional<Step> stepFor(const std::string& command) {
  std::ifstream plan(kPlan);
  for (std::string line; std::getline(plan, line);) {
    std::istringstream words(line);
    Step step;
    words >> step.action;
    if (step.action == "exit" || step.action == "signal") words >> step.number;
    std::string pattern;
    std::getline(words >> std::ws, pattern);
    if (!fits(pattern, command)) continue;
    if (step.action == "hang" && !create(kHung)) continue;
    return step;
  }
  return std::nullopt;
}

void keep(const std::string& command, const std::string& result) {
  const std::string line = command + " = " + result + "\n";
  const int fd = open(kCalls, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::exit(kBroken);
  close(fd);
}

void waitUntilGone(const char* path) {
  const timespec pause = {0, 1000000};
  while (access(path, F_OK) == 0) (void)nanosleep(&pause, nullptr);
}

[[noreturn]] void becomeReal(const std::string& name, char** argv) {
  execv(("/etc/alternatives/" + name).c_str(), argv);
  std::perror("stand-in tool");
  std::exit(kBroken);
}

}  // namespace

int main(int argc, char** argv) {
  const char* const slash = std::strrchr(argv[0], '/');
  const std::string name = slash == nullptr ? argv[0] : slash + 1;
  std::string command = name;
  for (int index = 1; index < argc; ++index) command += std::string(" ") + argv[index];

  const std::optional<Step> step = stepFor(command);
  if (!step) {
    keep(command, "0");
    return 0;
  }
  if (step->action == "exit") {
    keep(command, std::to_string(step->number));
    std::fprintf(stderr, "%s: refused\n", name.c_str());
    return step->number;
  }
  if (step->action == "signal") {
    keep(command, "signal " + std::to_string(step->number));
    (void)std::signal(step->number,
                      SIG_DFL);  // the sanitizers' own handlers would end it otherwise
    (void)std::raise(step->number);
    return kBroken;
  }
  if (step->action == "hang") {
    keep(command, "hang");
    for (;;) pause();
  }
  if (step->action == "wait") {
    if (!create(kWaiting)) return kBroken;
    waitUntilGone(kWaiting);
    becomeReal(name, argv);
  }
  if (step->action == "real") becomeReal(name, argv);
  std::fprintf(stderr, "stand-in tool: what is %s?\n", step->action.c_str());
  return kBroken;
}
