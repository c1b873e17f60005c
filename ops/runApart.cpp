#include "runApart.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>

#include "jsonText.h"
#include "memoryFile.h"

namespace ops {
namespace {

constexpr std::array<int, 5> kIgnored = {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGPIPE};

// How long a program that a dead child was running may go on: the platform ends every program after
// 30 seconds.
constexpr std::chrono::seconds kStragglerLimit{35};
constexpr int kPollMilliseconds = 200;

void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t length = write(fd, text.data() + done, text.size() - done);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0)
      return;  // a cut result does not parse, and shows as a child that did not finish
    done += static_cast<std::size_t>(length);
  }
}

// The child: {"result": value} or {"exception": text} goes to `result`, everything printed to
// `messages`.
[[noreturn]] void runChild(Signals signals, const Descriptor& result, const Descriptor& messages,
                           const std::function<Json::Value()>& work) {
  if (signals == Signals::kKeptOff) (void)setsid();
  const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  (void)dup2(nothing.get(), STDIN_FILENO);
  (void)dup2(messages.get(), STDOUT_FILENO);
  (void)dup2(messages.get(), STDERR_FILENO);

  Json::Value answer(Json::objectValue);
  try {
    answer["result"] = work();
  } catch (const std::exception& exception) {
    answer["exception"] = exception.what();
  }
  writeAll(result.get(), compactJson(answer));
  std::exit(EXIT_SUCCESS);
}

// Waits for the end of the child, and of everything that holds `life` open: a child that is killed
// while a tool runs leaves the tool behind, whose work is done only when it has ended too.
std::optional<int> waitForEnd(pid_t child, const Descriptor& life) {
  std::optional<int> status;
  auto deadline = std::chrono::steady_clock::time_point::max();
  for (bool alive = true; alive && std::chrono::steady_clock::now() < deadline;) {
    pollfd events = {life.get(), POLLIN, 0};
    const int ready = poll(&events, 1, kPollMilliseconds);
    alive = ready <= 0;  // nobody writes: only the end of the last holder is reported
    int raw = 0;
    if (!status && waitpid(child, &raw, WNOHANG) == child) {
      status = raw;
      deadline = std::chrono::steady_clock::now() + kStragglerLimit;
      if (WIFEXITED(raw)) alive = false;
    }
  }
  int raw = 0;
  while (!status) {
    const pid_t ended = waitpid(child, &raw, 0);
    if (ended == child) status = raw;
    if (ended < 0 && errno != EINTR) break;
  }
  return status;
}

}  // namespace

IgnoredSignals::IgnoredSignals() : earlier_() {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  for (std::size_t index = 0; index < kIgnored.size(); ++index) {
    (void)sigaction(kIgnored[index], &ignore, &earlier_[index]);
  }
}

IgnoredSignals::~IgnoredSignals() {
  for (std::size_t index = 0; index < kIgnored.size(); ++index) {
    (void)sigaction(kIgnored[index], &earlier_[index], nullptr);
  }
}

Ended runApart(Signals signals, const std::function<Json::Value()>& work) {
  Ended ended;
  const Descriptor result = memoryFile("result");
  const Descriptor messages = memoryFile("messages");
  int ends[2] = {-1, -1};
  if (!result.valid() || !messages.valid() || pipe2(ends, O_CLOEXEC) != 0) return ended;
  const Descriptor life(ends[0]);
  Descriptor held(ends[1]);

  std::optional<IgnoredSignals> ignored;
  if (signals == Signals::kKeptOff) ignored.emplace();
  (void)std::fflush(nullptr);  // or the child would print what waits here a second time
  const pid_t child = fork();
  if (child == 0) runChild(signals, result, messages, work);
  held.reset();
  if (child < 0) return ended;

  const std::optional<int> status = waitForEnd(child, life);
  ended.messages = linesOf(contents(messages));
  if (status && WIFSIGNALED(*status)) ended.signal = WTERMSIG(*status);
  Json::Value answer;
  if (!status || !WIFEXITED(*status) || !parseJson(contents(result), answer)) return ended;
  ended.finished = answer.isMember("result") || answer.isMember("exception");
  ended.result = answer["result"];
  ended.exception = answer["exception"].asString();
  return ended;
}

}  // namespace ops
