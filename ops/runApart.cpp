#include "runApart.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <thread>

#include "jsonText.h"
#include "memoryFile.h"
#include "processes.h"

namespace ops {
namespace {

constexpr std::array<int, 5> kIgnored = {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGPIPE};

// The platform ends what it runs after 30 seconds, as long as somebody is left to do it.
constexpr std::chrono::seconds kStragglerLimit{35};
constexpr std::chrono::milliseconds kLookAgain{5};

void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t length = write(fd, text.data() + done, text.size() - done);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return;  // a cut result does not parse: a child that did not finish
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

// The child's wait status; none when it was not to be had.
std::optional<int> waitForEnd(pid_t child) {
  int status = 0;
  pid_t ended = 0;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  return ended == child ? std::optional<int>(status) : std::nullopt;
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
  if (!result.valid() || !messages.valid()) return ended;

  std::optional<IgnoredSignals> ignored;
  if (signals == Signals::kKeptOff) ignored.emplace();
  (void)std::fflush(nullptr);  // or the child would print what waits here a second time
  ended.process = fork();
  if (ended.process == 0) runChild(signals, result, messages, work);
  if (ended.process < 0) return ended;

  const std::optional<int> status = waitForEnd(ended.process);
  ended.messages = linesOf(contents(messages));
  if (status && WIFSIGNALED(*status)) ended.signal = WTERMSIG(*status);
  Json::Value answer;
  if (!status || !WIFEXITED(*status) || !parseJson(contents(result), answer)) return ended;
  ended.finished = answer.isMember("result") || answer.isMember("exception");
  ended.result = answer["result"];
  ended.exception = answer["exception"].asString();
  return ended;
}

void waitForSession(pid_t session) {
  const auto deadline = std::chrono::steady_clock::now() + kStragglerLimit;
  while (anyoneIn(session) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kLookAgain);
  }
}

}  // namespace ops
