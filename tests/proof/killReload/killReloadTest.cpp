// Runs the sweeps of killReload_sweeps side by side, each part in a sandbox of its own, and adds up
// what they have counted. A tool's run is mostly waiting, so there are more of them than
// processors.
//
//   killReload_test nft|legacy

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "figures.h"
#include "tally.h"
#include "victims.h"

namespace {

// For each variant of the tools.
constexpr std::uint64_t kPromised = 600;          // points
constexpr std::uint64_t kPromisedOfASignal = 30;  // points of each of the five
constexpr double kLongest = 800;                  // seconds for all parts

std::string variant;

struct Part {
  const char* tests;
  int part;
  int parts;
};

// About equally long.
constexpr Part kParts[] = {
    {"Library.Enable*:Library.Disable*", 0, 1},
    {"Library.Reload*", 0, 1},
    {"Library.Trial*", 0, 2},
    {"Library.Trial*", 1, 2},
    {"Library.SystemCalls:Library.Moments", 0, 2},
    {"Library.SystemCalls:Library.Moments", 1, 2},
    {"Command.Worker*:Command.Both*", 0, 2},
    {"Command.Worker*:Command.Both*", 1, 2},
    {"Command.Caller*:Command.Group*", 0, 2},
    {"Command.Caller*:Command.Group*", 1, 2},
};

struct Running {
  const Part& part;
  pid_t process;
  int output;
};

Running start(const Part& part) {
  const std::string filter = std::string("--gtest_filter=") + part.tests;
  const std::string share = std::to_string(part.part) + "/" + std::to_string(part.parts);
  const int output = memfd_create("output", MFD_CLOEXEC);
  const pid_t process = fork();
  if (process != 0) return {part, process, output};
  (void)dup2(output, STDOUT_FILENO);
  (void)dup2(output, STDERR_FILENO);
  (void)setenv("TARN_PART", share.c_str(), /*overwrite=*/1);
  (void)execl(TARN_SANDBOX, "tarn-sandbox", "--backend", variant.c_str(), "--keep", TARN_SOURCES,
              "--keep", TARN_BUILD, "--", TARN_SWEEPS, filter.c_str(), nullptr);
  _exit(127);
}

std::string textOf(int output) {
  std::string text;
  char buffer[4096];
  ssize_t length = 0;
  while ((length = pread(output, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0) {
    text.append(buffer, static_cast<std::size_t>(length));
  }
  (void)close(output);
  return text;
}

// Adds what the part has counted; shows what it printed when one of its tests failed.
void finish(const Running& running, double seconds, Tally& all) {
  const std::string name = std::string(running.part.tests) + " part " +
                           std::to_string(running.part.part + 1) + " of " +
                           std::to_string(running.part.parts);
  SCOPED_TRACE(name);
  const sweep::End end = sweep::waitFor(running.process, seconds);
  const std::string text = textOf(running.output);
  EXPECT_TRUE(end.signal == 0 && end.status == 0) << text;
  const std::size_t tally = text.rfind(kTallyMark);
  ASSERT_NE(std::string::npos, tally) << text;
  Tally own;
  own.add(text.substr(tally));
  std::cout << variant << ": " << name << ": " << own.points << " points, " << own.late << " late, "
            << own.untraced << " sweeps at moments instead of system calls\n";
  all.add(text.substr(tally));
}

TEST(KillReload, NobodyIsLockedOutAndNothingIsStale) {
  std::vector<Running> parts;
  for (const Part& part : kParts) parts.push_back(start(part));
  Tally all;
  const auto begin = std::chrono::steady_clock::now();
  for (const Running& part : parts) {
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
    finish(part, std::max(0.0, kLongest * figures::longer() - spent.count()), all);
  }

  figures::add(all.points, "points");
  for (const char* signal : {"KILL", "INT", "HUP", "TERM", "PIPE"}) {
    figures::add(all.pointsOf(signal), std::string("of SIG") + signal);
    EXPECT_GE(all.pointsOf(signal), kPromisedOfASignal) << signal;
  }
  figures::add(all.closedBefore, "shut until recovery");
  figures::add(all.closed, "shut after it");
  figures::add(all.stale, "stale rules");
  figures::add(all.wrongStatus, "wrong statuses");
  figures::add(all.damaged, "damaged documents");
  figures::add(all.locked, "locks kept");
  figures::add(all.failedReloads, "failed reloads");
  figures::add(all.late, "ended before their signal");
  if (all.untraced > 0) {
    figures::add(all.untraced, "sweeps at moments, as strace does not trace here");
  }
  EXPECT_GE(all.points, kPromised);
  EXPECT_GT(all.closedBefore, all.points / 10);  // or the sweep does not meet the drop period
  EXPECT_EQ(
      0U, all.closed + all.stale + all.wrongStatus + all.damaged + all.locked + all.failedReloads);
}

}  // namespace

int main(int argc, char* argv[]) {
  testing::InitGoogleTest(&argc, argv);
  variant = argc == 2 ? argv[1] : "nft";
  figures::open("kill-reload/" + variant);
  return RUN_ALL_TESTS();
}
