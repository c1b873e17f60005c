// The kernel's switches are the machine's, so programs that set them take turns, and at the end of
// them all the switches are as they were.

#include "switches.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "figures.h"
#include "processes.h"
#include "testFiles.h"

namespace {

namespace fs = std::filesystem;
using squatting::Setting;
using squatting::Switches;

// The shell's commands under keepSwitches.
class Turn {
 public:
  explicit Turn(const std::string& commands) : process_(fork()) {
    if (process_ != 0) return;
    (void)execl(KEEP_SWITCHES, "keepSwitches", "/bin/sh", "-c", commands.c_str(), nullptr);
    _exit(1);
  }
  ~Turn() { (void)waitpid(process_, nullptr, 0); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  pid_t process_;
};

std::string waitFor(const std::string& file) {
  return "n=0; until [ -e " + file + " ] || [ $n -gt 300 ]; do sleep 0.1; n=$((n + 1)); done; ";
}

Setting now() { return Switches().machines(); }

TEST(KeptSwitches, AreTheMachinesAfterTwoAtOnce) {
  figures::open("squatting/switches");
  const Setting before = now();
  const std::string first = squatting::kSwitches.front();
  const std::string other = before.front() == 1 ? "0" : "1";
  bool early = false;
  {
    const Turn one("echo " + other + " >" + first + "; touch /tmp/one; " + waitFor("/tmp/go"));
    EXPECT_TRUE(processes::eventually([] { return fs::exists("/tmp/one"); }));
    const Turn two("touch /tmp/two; " + waitFor("/tmp/goToo"));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    early = fs::exists("/tmp/two");
    files::write("/tmp/go", "");
    EXPECT_TRUE(processes::eventually([] { return fs::exists("/tmp/two"); }));
    if (!early) {
      EXPECT_EQ(before, now());
    }
    files::write("/tmp/goToo", "");
  }
  EXPECT_FALSE(early) << "no turns are taken";
  // The program that sets them back outlives the one that it waits for.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(before, now());
  figures::add(2, "turns");
  figures::add(early ? 1 : 0, "at once");
  figures::add(before == now() ? 0 : 1, "left changed");
}

}  // namespace
