#include "processes.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace processes {
namespace {

constexpr std::chrono::seconds kPatience(60);
constexpr std::chrono::milliseconds kBetweenLooks(1);

std::string answerOf(const std::function<std::string()>& work) {
  try {
    return work();
  } catch (const std::exception& exception) {
    return std::string("(exception ") + exception.what() + ")";
  }
}

// Becomes the descriptor readable, or its other end closed, before `end`?
bool readableBefore(int fd, std::chrono::steady_clock::time_point end) {
  pollfd watched = {fd, POLLIN, 0};
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    const int ready = poll(&watched, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (ready >= 0 || errno != EINTR) return ready == 1;
  }
}

bool endsBefore(pid_t process, std::chrono::steady_clock::time_point end) {
  const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
  const bool inTime = descriptor >= 0 && readableBefore(descriptor, end);
  if (descriptor >= 0) close(descriptor);
  if (!inTime) (void)kill(process, SIGKILL);
  return inTime;
}

}  // namespace

bool endsInTime(pid_t process, std::chrono::seconds patience) {
  return endsBefore(process, std::chrono::steady_clock::now() + patience);
}

Child::Child(const std::function<std::string()>& work) {
  std::array<int, 2> ends = {-1, -1};
  EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
  process_ = fork();
  if (process_ == 0) {
    const std::string text = answerOf(work);
    const ssize_t written = write(ends[1], text.data(), text.size());
    _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  close(ends[1]);
  output_ = ends[0];
}

Child::~Child() {
  if (process_ > 0) (void)answer();
}

std::string Child::answer() {
  std::string text;
  std::array<char, 4096> buffer;
  ssize_t length = 0;
  while ((length = read(output_, buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(length));
  }
  return ended(text);
}

std::string Child::answerWithin(std::chrono::seconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  std::string text;
  std::array<char, 4096> buffer;
  while (readableBefore(output_, end)) {
    const ssize_t length = read(output_, buffer.data(), buffer.size());
    if (length <= 0) break;
    text.append(buffer.data(), static_cast<std::size_t>(length));
  }
  const bool inTime = endsBefore(process_, end);
  const std::string answer = ended(text);
  return inTime ? answer : "(took too long)";
}

std::string Child::ended(const std::string& text) {
  close(output_);
  int status = 0;
  (void)waitpid(process_, &status, 0);
  process_ = -1;
  return WIFSIGNALED(status) ? "(signal " + std::to_string(WTERMSIG(status)) + ")" : text;
}

LockHolder::LockHolder(const std::string& lockFile) {
  std::array<int, 2> ends = {-1, -1};
  EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
  process_ = fork();
  if (process_ == 0) {
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    const int fd = open(lockFile.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0 || fcntl(fd, F_SETLKW, &whole) != 0 || write(ends[1], "+", 1) != 1) _exit(1);
    for (;;) pause();
  }
  close(ends[1]);
  char held = 0;
  EXPECT_EQ(1, read(ends[0], &held, 1)) << "cannot lock " << lockFile;
  close(ends[0]);
}

void LockHolder::release() {
  if (process_ < 0) return;
  (void)kill(process_, SIGKILL);
  (void)waitpid(process_, nullptr, 0);
  process_ = -1;
}

bool eventually(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(kBetweenLooks);
  }
  return true;
}

std::string locks() {
  const std::string process = " " + std::to_string(getpid()) + " ";
  std::ifstream file("/proc/locks");
  std::string mine;
  for (std::string line; std::getline(file, line);) {
    if (line.find(process) != std::string::npos) mine += line + "\n";
  }
  return mine;
}

}  // namespace processes
