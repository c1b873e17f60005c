#include "ops/processes.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

// A child in a session of its own that waits for its end.
class Child {
 public:
  Child() : number_(fork()) {
    if (number_ != 0) return;
    (void)setsid();
    for (;;) (void)pause();
  }
  ~Child() { end(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t number() const { return number_; }
  void kill() const { (void)::kill(number_, SIGKILL); }
  void end() {
    kill();
    (void)waitpid(number_, nullptr, 0);
  }

 private:
  pid_t number_;
};

TEST(Processes, OwnProcessLives) {
  const ops::ProcessId own = ops::ownProcess();
  EXPECT_EQ(own.number, getpid());
  EXPECT_GT(own.start, 0U);
  EXPECT_TRUE(ops::lives(own));
}

TEST(Processes, AnotherStartIsAnotherProcess) {
  ops::ProcessId earlier = ops::ownProcess();
  --earlier.start;
  EXPECT_FALSE(ops::lives(earlier));
}

TEST(Processes, ZombieHasEnded) {
  const Child child;
  EXPECT_TRUE(machine::eventually([&] { return ops::anyoneIn(child.number()); }));
  child.kill();
  EXPECT_TRUE(machine::eventually([&] { return !ops::anyoneIn(child.number()); }));
}

TEST(Processes, NobodyIsLeftInASessionThatEnded) {
  Child child;
  EXPECT_TRUE(machine::eventually([&] { return ops::anyoneIn(child.number()); }));
  child.end();
  EXPECT_FALSE(ops::anyoneIn(child.number()));
}

// Reading of a process fails when it has ended since its file was opened.
TEST(Processes, EndWhileTheyAreLookedAt) {
  const pid_t breeder = fork();
  if (breeder == 0) {
    (void)signal(SIGCHLD, SIG_IGN);
    for (;;) {
      if (fork() == 0) _exit(0);
    }
  }
  constexpr pid_t kNobody = 0x7fffffff;
  constexpr int kLooks = 1000;
  for (int look = 0; look < kLooks; ++look) EXPECT_FALSE(ops::anyoneIn(kNobody));
  (void)kill(breeder, SIGKILL);
  (void)waitpid(breeder, nullptr, 0);
}

}  // namespace
