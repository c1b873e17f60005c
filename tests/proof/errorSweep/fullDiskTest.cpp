// The disk is full while a large profile is written: a file system with room for 0, 1, 2 ... blocks
// more, and a file that cannot grow beyond each 512 bytes of the document. As long as there is too
// little room the operation says false and the old document stands; then it says true and the new
// one is there in full; and after the disk has been cleared the next write works.

#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <functional>
#include <iostream>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "figures.h"
#include "operations.h"
#include "store.h"
#include "supervisor.h"
#include "sweep.h"
#include "tarnfirewall.h"
#include "texts.h"

namespace {

using operations::Operation;

constexpr long kPromisedSteps = 50;   // for each document, on each kind of full disk
constexpr int kRulesForBlocks = 400;  // some 220 KiB
constexpr int kRulesForBytes = 100;
constexpr rlim_t kStep = 512;  // bytes
constexpr char kWhole[] = "size=16m";

constexpr long kSweeps = 4;
constexpr long kPromisedDisks = kSweeps * (kPromisedSteps + 1);  // the last has room

constexpr char kDisks[] = "full disks";
constexpr char kDamaged[] = "damaged";
constexpr char kSucceeded[] = "true";
constexpr char kUntrue[] = "of them false";

sweep::Counts counts("error-sweep/disk", kPromisedDisks, {kDisks, kDamaged, kSucceeded, kUntrue});

FW::FWPROFILE large(const std::string& name, int count) {
  FW::FWRULE rule;
  rule.ipGroup = 5;
  rule.portGroup = 0;
  rule.portList = {"mail"};
  FW::FWPROFILE profile;
  profile.name = name;
  for (int number = 0; number < count; ++number) {
    rule.name = "Rule " + std::to_string(number);
    profile.rules["eth0"].push_back(rule);
  }
  return profile;
}

std::string largeText(const std::string& name, int count) {
  std::vector<texts::ServiceRule> rules;
  rules.reserve(static_cast<std::size_t>(count));
  for (int number = 0; number < count; ++number) {
    rules.push_back({"Rule " + std::to_string(number), {"mail"}});
  }
  return texts::profile(name, {{"eth0", 0}, {"global", 2}}, "eth0", rules);
}

// What is stored: over an old document, or as a new one.
struct Target {
  const char* name;
  std::string path;
  std::string profile;
};

void PrintTo(const Target& target, std::ostream* out) { *out << target.name; }

Operation storing(const Target& target, int rules) {
  return {target.name,
          [target, rules] {
            return FW::TARNFW_PROFILE().profileSet(target.profile, large(target.profile, rules));
          },
          {},
          {{target.path, largeText(target.profile, rules)}},
          {}};
}

// A file system of its own for the profiles.
class ProfileDisk {
 public:
  ProfileDisk() { EXPECT_EQ(0, mount("proof", store::kProfiles, "tmpfs", 0, kWhole)); }
  ~ProfileDisk() { EXPECT_EQ(0, umount(store::kProfiles)); }
  ProfileDisk(const ProfileDisk&) = delete;
  ProfileDisk& operator=(const ProfileDisk&) = delete;

  // Leaves room for so many blocks more than are in use.
  void leave(fsblkcnt_t blocks) {
    struct statvfs status = {};
    ASSERT_EQ(0, statvfs(store::kProfiles, &status));
    const fsblkcnt_t size = (status.f_blocks - status.f_bfree + blocks) * status.f_bsize;
    resize("size=" + std::to_string(size));
  }
  void clear() { resize(kWhole); }

 private:
  void resize(const std::string& size) {
    ASSERT_EQ(0, mount("proof", store::kProfiles, "tmpfs", MS_REMOUNT, size.c_str())) << size;
  }
};

// Old after "false", new after "true". Answers whether it was true.
bool judge(const Operation& operation, const supervisor::Outcome& outcome) {
  counts.count(kDisks);
  EXPECT_FALSE(outcome.hung);
  EXPECT_EQ(0, outcome.signal);
  const store::Found found = store::look();
  const auto differenceFrom = [&found](const store::Documents& expected) {
    return operations::difference(expected, found.documents).substr(0, 200);
  };
  if (outcome.answer == "true") {
    counts.count(kSucceeded);
    counts.fault(kUntrue, differenceFrom(operations::after(operation)));
    return true;
  }
  EXPECT_EQ("false", outcome.answer);
  counts.fault(kDamaged, differenceFrom(operations::before(operation)) + found.strays);
  return false;
}

// Takes steps until the operation succeeds: everything before must have failed.
void untilThereIsRoom(const Operation& operation,
                      const std::function<supervisor::Outcome(rlim_t step)>& tryWith,
                      const std::function<void()>& clearDisk) {
  store::reset(operations::before(operation));
  rlim_t step = 0;
  while (!judge(operation, tryWith(step)) && !testing::Test::HasFailure()) {
    clearDisk();
    const supervisor::Outcome next =
        supervisor::run([&operation] { return operations::answer(operation); });
    ASSERT_EQ("true", next.answer) << "after step " << step;
    EXPECT_EQ("", operations::difference(operations::after(operation), store::look().documents));
    store::reset(operations::before(operation));
    ++step;
  }
  EXPECT_LE(kPromisedSteps, static_cast<long>(step));
  std::cout << operation.name << ": " << step << " steps\n";
}

class FullDisk : public testing::TestWithParam<Target> {};

TEST_P(FullDisk, AtEveryBlock) {
  const Operation operation = storing(GetParam(), kRulesForBlocks);
  ProfileDisk disk;
  untilThereIsRoom(
      operation,
      [&](rlim_t blocks) {
        disk.leave(blocks);
        return supervisor::run([&operation] { return operations::answer(operation); });
      },
      [&disk] { disk.clear(); });
}

// Files of this process can be written up to `bytes`. A write beyond sends SIGXFSZ, which ends a
// program that does not hold it back.
void limitFiles(rlim_t bytes) {
  (void)signal(SIGXFSZ, SIG_DFL);  // whatever the tests were started with
  const rlimit limit = {bytes, bytes};
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
}

TEST_P(FullDisk, AtEvery512Bytes) {
  const Operation operation = storing(GetParam(), kRulesForBytes * figures::longer());
  untilThereIsRoom(
      operation,
      [&](rlim_t step) {
        return supervisor::run([&operation, step] {
          limitFiles(step * kStep);
          return operations::answer(operation);
        });
      },
      [] {});
}

const std::vector<Target> kTargets = {
    {"ReplacedDocument", std::string(store::kProfiles) + "2.json", "office"},
    {"NewDocument", store::kNewProfile, "branch"}};

INSTANTIATE_TEST_SUITE_P(Documents, FullDisk, testing::ValuesIn(kTargets),
                         [](const auto& row) { return row.param.name; });

}  // namespace
