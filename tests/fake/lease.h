// Another process that has leased a file of root's, as a file server does.

#ifndef TARNFW_TESTS_FAKE_LEASE_H
#define TARNFW_TESTS_FAKE_LEASE_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace processes {

// Has the lease from the constructor on, and gives it back some time after somebody wanted to open
// the file.
class Lease {
 public:
  Lease(const std::string& path, std::chrono::milliseconds after) {
    std::array<int, 2> ends = {-1, -1};
    EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
    process_ = fork();
    if (process_ == 0) hold(path, after, ends[1]);
    (void)::close(ends[1]);
    char answer = 0;
    EXPECT_EQ(1, read(ends[0], &answer, 1));
    (void)::close(ends[0]);
    taken_ = answer == '+';
  }
  ~Lease() {
    (void)kill(process_, SIGKILL);
    (void)waitpid(process_, nullptr, 0);
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  bool taken() const { return taken_; }  // false: the file system has no leases

 private:
  [[noreturn]] static void hold(const std::string& path, std::chrono::milliseconds after,
                                int report) {
    sigset_t wanted;  // by somebody else: the kernel says so with this signal
    (void)sigemptyset(&wanted);
    (void)sigaddset(&wanted, SIGIO);
    (void)sigprocmask(SIG_BLOCK, &wanted, nullptr);
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    const bool taken = fd >= 0 && fcntl(fd, F_SETLEASE, F_WRLCK) == 0;
    int signal = 0;
    if (write(report, taken ? "+" : "-", 1) != 1 || sigwait(&wanted, &signal) != 0) _exit(1);
    std::this_thread::sleep_for(after);
    _exit(0);
  }

  pid_t process_ = -1;
  bool taken_ = false;
};

}  // namespace processes

#endif
