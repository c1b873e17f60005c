// The power goes while documents are stored, or right after: what an operation has acknowledged is
// there when the power comes back, in full, and a document that was being replaced is the old one
// or the new one.
//
// The file system is asked to be as careless as it can be: it may write a rename before what the
// renamed file holds. By default ext4 guesses that a program which renames wants its text written
// too (auto_da_alloc).

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../killReload/victims.h"
#include "disk.h"
#include "figures.h"
#include "operations.h"

namespace {

using operations::Operation;

constexpr char kDirectory[] = "/usr/tarn/etc/firewall.d";
constexpr char kImage[] = "/tmp/disk";
constexpr char kCopy[] = "/tmp/disk-after-the-cut";
constexpr char kAfter[] = "/tmp/after/";
constexpr int kCuts = 20;         // of each kind of document on each kind of file system
constexpr int kCarelessCuts = 3;  // of each that shows that a cut takes what is not flushed
const std::vector<std::string> kOptions = {"commit=300", "commit=300,noauto_da_alloc"};

struct Tally {
  int acknowledged = 0;  // cuts after an operation had returned true
  int lost = 0;          // its document was not there afterwards
  int within = 0;        // cuts during an operation
  int torn = 0;          // a document was neither old nor new
  int careless = 0;      // cuts after a store without a flush
  int shown = 0;         // that took the document
} tally;

class PowerCut : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(disk::make(kImage));
    live_.emplace(kImage, kDirectory, GetParam());
    ASSERT_TRUE(live_->done());
    // The library makes a new profile only beside another one.
    std::ofstream(std::string(kDirectory) + "/1.json") << R"({"name": "seed"})";
    // Number 0 of every document that will be replaced.
    for (const auto* all : {&operations::kAll, &operations::kCareless}) {
      for (const Operation& operation : *all) {
        ASSERT_TRUE(operation.isNew || operation.run(0)) << operation.name;
      }
    }
    sync();
  }

  // The power goes now: what number of the operation is there afterwards.
  static int cut(const Operation& operation, int number) {
    EXPECT_TRUE(disk::copy(kImage, kCopy));
    const disk::Mounted after(kCopy, kAfter, "ro");
    EXPECT_TRUE(after.done());
    return operation.found(kAfter, number);
  }

  std::optional<disk::Mounted> live_;
};

TEST_P(PowerCut, TakesNothingThatWasAcknowledged) {
  for (const bool isNew : {false, true}) {
    const auto fits = [isNew](const Operation& operation) { return operation.isNew == isNew; };
    const auto kinds =
        static_cast<int>(std::count_if(operations::kAll.begin(), operations::kAll.end(), fits));
    const int cuts = (kCuts + kinds - 1) / kinds * figures::longer();
    for (const Operation& operation : operations::kAll) {
      if (!fits(operation)) continue;
      for (int number = 1; number <= cuts; ++number) {
        ASSERT_TRUE(operation.run(number)) << operation.name;
        ASSERT_TRUE(disk::writeJournal(kDirectory));
        const int found = cut(operation, number);
        ++tally.acknowledged;
        if (found != number) ++tally.lost;
        EXPECT_EQ(number, found) << operation.name;
      }
    }
  }
}

// A process that is killed has done to the disk what one that loses its power has; the journal is
// written afterwards, or not.
TEST_P(PowerCut, DuringAnOperationLeavesOldOrNew) {
  int number = 100;
  for (const Operation& operation : operations::kAll) {
    const auto victim = [&operation](int which) {
      return std::vector<std::string>{TARN_VICTIM, operation.name, std::to_string(which)};
    };
    int before = operation.isNew ? operations::kNone : ++number;
    const std::vector<sweep::SystemCall> calls = sweep::systemCallsOf(victim(number));
    const auto begin = std::find_if(calls.begin(), calls.end(), [](const sweep::SystemCall& call) {
      return call.text.find(".json.tmp\"") != std::string::npos;
    });
    ASSERT_NE(calls.end(), begin) << operation.name;
    for (auto call = begin; call != calls.end(); ++call) {
      // Of what follows only the system calls on files matter.
      if (call->name == "exit_group") break;
      if (call->name == "munmap") continue;
      ++number;
      const sweep::End end = sweep::interruptedAt(*call, "KILL", victim(number));
      if (end.signal == 0) continue;
      for (const bool journalled : {false, true}) {
        ASSERT_TRUE(!journalled || disk::writeJournal(kDirectory));
        const int found = cut(operation, number);
        ++tally.within;
        const bool whole = found == before || found == number;
        if (!whole) ++tally.torn;
        EXPECT_TRUE(whole) << operation.name << " at " << call->text << ": " << found
                           << ", neither " << before << " nor " << number;
        if (found == number && !operation.isNew) before = number;
      }
    }
  }
}

// The measurement can see a loss: a program that renames without flushing loses new documents
// always, and replaced ones on a file system that does not guess.
TEST_P(PowerCut, TakesWhatWasNotFlushed) {
  const bool guesses = GetParam().find("noauto_da_alloc") == std::string::npos;
  for (const Operation& operation : operations::kCareless) {
    if (guesses && !operation.isNew) continue;
    for (int number = 1; number <= kCarelessCuts; ++number) {
      ASSERT_TRUE(operation.run(number));
      ASSERT_TRUE(disk::writeJournal(kDirectory));
      const int found = cut(operation, number);
      ++tally.careless;
      if (found != number) ++tally.shown;
      EXPECT_EQ(operations::kDamaged, found) << operation.name;
    }
  }
}

std::string nameOf(const testing::TestParamInfo<std::string>& options) {
  return options.index == 0 ? "Defaults" : "NoAutoDaAlloc";
}
INSTANTIATE_TEST_SUITE_P(Ext4, PowerCut, testing::ValuesIn(kOptions), nameOf);

class Figures : public testing::Environment {
 public:
  void SetUp() override {
    figures::open("power-cut");
    (void)mkdir(kAfter, 0700);
    std::string reason = disk::whyNone(kImage, kAfter, kOptions.back());
    if (reason.empty()) reason = sweep::whyNoTrace();
    figures::skipFor(reason);
  }
  void TearDown() override {
    const auto add = [](int count, const char* what) {
      figures::add(static_cast<std::uint64_t>(count), what);
    };
    add(tally.acknowledged, "cuts after true");
    add(tally.lost, "documents lost");
    add(tally.within, "cuts during an operation");
    add(tally.torn, "neither old nor new");
    add(tally.shown, "losses of careless programs seen");
    EXPECT_GE(tally.acknowledged, 80);
    EXPECT_GE(tally.within, 80);
    EXPECT_EQ(0, tally.lost + tally.torn);
    EXPECT_EQ(tally.careless, tally.shown);
  }
};
const testing::Environment* const kFigures =
    testing::AddGlobalTestEnvironment(new Figures);  // NOLINT: owned by the framework

}  // namespace
