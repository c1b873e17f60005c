// Stands at /etc/alternatives/iptables and ip6tables. Hands every call on to what stood there
// before, now iptables-before and ip6tables-before; at the call of a worker that
// /run/interruption/plan asks for, it sends a signal:
//
//   7 KILL worker          before call 7; the target is worker, caller, both, or group, the process
//                          group of the caller
//   7 KILL worker after    when call 7 has done its work
//
// A worker is what leads a session and is called tarnfw. Its calls are counted in
// /run/interruption/calls, one byte each; its process number stands in /run/interruption/worker,
// that of the interrupted call in /run/interruption/tool.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

namespace {

constexpr char kPlan[] = "/run/interruption/plan";
constexpr char kCalls[] = "/run/interruption/calls";
constexpr char kWorker[] = "/run/interruption/worker";
constexpr char kTool[] = "/run/interruption/tool";

struct Plan {
  long call = 0;
  std::string signal;
  std::string target;
  bool after = false;
};

// A process's name, parent and process group, from /proc.
struct Process {
  std::string name;
  pid_t parent = 0;
  pid_t group = 0;
};

Process processOf(pid_t process) {
  Process found;
  std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
  std::string number;
  std::string state;
  stat >> number >> found.name >> state >> found.parent >> found.group;
  return found;
}

long countCall() {
  const int fd = open(kCalls, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  struct stat info = {};
  if (fd < 0 || write(fd, ".", 1) != 1 || fstat(fd, &info) != 0) return -1;
  (void)close(fd);
  return static_cast<long>(info.st_size);
}

void send(const Plan& plan, pid_t worker, const Process& caller) {
  static const std::map<std::string, int> kSignals = {{"KILL", SIGKILL}, {"INT", SIGINT},
                                                      {"HUP", SIGHUP},   {"TERM", SIGTERM},
                                                      {"QUIT", SIGQUIT}, {"PIPE", SIGPIPE}};
  const int signal = kSignals.at(plan.signal);
  const pid_t callerProcess = processOf(worker).parent;
  if (plan.target == "caller" || plan.target == "both") (void)kill(callerProcess, signal);
  if (plan.target == "worker" || plan.target == "both") (void)kill(worker, signal);
  if (plan.target == "group") (void)kill(-caller.group, signal);
}

// Does the real tool's work in a process of its own; what is left for this one is to end likewise.
[[noreturn]] void finishFirst(const std::string& real, char* argv[], const Plan& plan, pid_t worker,
                              const Process& caller) {
  const pid_t tool = fork();
  if (tool == 0) {
    (void)execv(real.c_str(), argv);
    _exit(127);
  }
  int status = 0;
  (void)waitpid(tool, &status, 0);
  send(plan, worker, caller);
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

void interrupt(const Plan& plan, const std::string& real, char* argv[]) {
  const pid_t worker = getsid(0);
  const Process leader = processOf(worker);
  if (leader.name != "(tarnfw)") return;
  const long call = countCall();
  std::ofstream(kWorker) << worker;
  if (call != plan.call) return;
  std::ofstream(kTool) << getpid();
  const Process caller = processOf(leader.parent);
  if (plan.after) finishFirst(real, argv, plan, worker, caller);
  send(plan, worker, caller);
}

}  // namespace

int main(int, char* argv[]) {
  Plan plan;
  std::string when;
  std::ifstream(kPlan) >> plan.call >> plan.signal >> plan.target >> when;
  plan.after = when == "after";
  const char* slash = std::strrchr(argv[0], '/');
  const std::string name = slash == nullptr ? argv[0] : slash + 1;
  const std::string real = "/etc/alternatives/" + name + "-before";
  if (!plan.target.empty()) interrupt(plan, real, argv);
  (void)execv(real.c_str(), argv);
  std::perror(real.c_str());
  return 127;
}
