#include "victims.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <thread>

#include <gtest/gtest.h>

namespace sweep {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kTrace[] = "/tmp/trace";

std::vector<std::string> traced(const std::vector<std::string>& options,
                                const std::vector<std::string>& command) {
  std::vector<std::string> words = {"/usr/bin/strace", "-qq"};
  words.insert(words.end(), options.begin(), options.end());
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

// Has the trace a line that begins with `text`?
bool traceHas(const std::string& text) {
  std::ifstream trace(kTrace);
  for (std::string line; std::getline(trace, line);) {
    if (line.rfind(text, 0) == 0) return true;
  }
  return false;
}

}  // namespace

int numberOf(const std::string& signal) {
  static const std::map<std::string, int> kNumbers = {
      {"KILL", SIGKILL}, {"INT", SIGINT}, {"HUP", SIGHUP}, {"TERM", SIGTERM}, {"PIPE", SIGPIPE}};
  return kNumbers.at(signal);
}

pid_t start(const std::vector<std::string>& command, Group group) {
  const pid_t process = fork();
  if (process != 0) return process;
  if (group == Group::kOwn) (void)setpgid(0, 0);
  std::vector<char*> words;
  for (const std::string& word : command)
    words.push_back(const_cast<char*>(word.c_str()));  // NOLINT
  words.push_back(nullptr);
  (void)freopen("/dev/null", "w", stdout);
  (void)freopen("/dev/null", "w", stderr);
  (void)execv(words[0], words.data());
  _exit(127);
}

End waitFor(pid_t process, double limit) {
  const auto begin = Clock::now();
  End end;
  int status = 0;
  pid_t ended = 0;
  while ((ended = waitpid(process, &status, WNOHANG)) == 0) {
    end.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    if (end.seconds > limit) {
      ADD_FAILURE() << "not ended after " << end.seconds << " seconds";
      (void)kill(process, SIGKILL);
      ended = waitpid(process, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(process, ended);
  end.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  if (WIFSIGNALED(status)) end.signal = WTERMSIG(status);
  if (WIFEXITED(status)) end.status = WEXITSTATUS(status);
  return end;
}

std::vector<SystemCall> systemCallsOf(const std::vector<std::string>& command) {
  (void)unlink(kTrace);  // of another program
  EXPECT_EQ(0, waitFor(start(traced({"-o", kTrace}, command))).signal);
  std::vector<SystemCall> calls;
  std::map<std::string, int> counts;
  std::ifstream trace(kTrace);
  for (std::string line; std::getline(trace, line);) {
    const std::size_t bracket = line.find('(');
    if (bracket == std::string::npos || line.find_first_of("+-<") < bracket) continue;
    const std::string name = line.substr(0, bracket);
    calls.push_back({name, ++counts[name], line});
  }
  return calls;
}

End interruptedAt(const SystemCall& call, const std::string& signal,
                  const std::vector<std::string>& command) {
  const std::string inject =
      call.name + ":signal=" + signal + ":when=" + std::to_string(call.occurrence);
  (void)unlink(kTrace);
  End end = waitFor(
      start(traced({"-o", kTrace, "-e", "trace=" + call.name, "-e", "inject=" + inject}, command)));
  end.reached = signal == "KILL" ? end.signal == SIGKILL : traceHas("--- SIG" + signal + " {");
  return end;
}

std::string whyNoTrace() {
  static constexpr char kStrace[] = "/usr/bin/strace";
  if (access(kStrace, X_OK) != 0) return std::string(kStrace) + ": " + std::strerror(errno);
  const std::vector<SystemCall> calls = systemCallsOf({"/bin/true"});
  const bool traces = !calls.empty() && interruptedAt(calls.back(), "KILL", {"/bin/true"}).reached;
  return traces ? "" : "strace may not trace";
}

}  // namespace sweep
