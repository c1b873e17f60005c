// Every file call of every operation that writes documents fails, with each error. Afterwards each
// document is the old one or the new one, an operation that says true has done all of it, and no
// descriptor and no lock stays behind in the process.
//
// A profile whose document cannot be read while the directory is scanned is passed over, and the
// log says so. The operation is true all the same: one on every profile has done to the others what
// it does, one on that profile has written it anew beside the old file. Deletions are stated to be
// always true; they may leave the file when it is not found or not removed. Both are counted.

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "operations.h"
#include "store.h"
#include "supervisor.h"
#include "sweep.h"
#include "systemLog.h"

namespace {

using operations::Operation;

constexpr long kPromisedPoints = 10'000;  // of each part

struct Error {
  int number;
  const char* name;
};
constexpr std::array<Error, 7> kErrors = {{{ENOSPC, "ENOSPC"},
                                           {EIO, "EIO"},
                                           {EDQUOT, "EDQUOT"},
                                           {EROFS, "EROFS"},
                                           {ENOLCK, "ENOLCK"},
                                           {EINTR, "EINTR"},
                                           {EMFILE, "EMFILE"}}};

// The calls that find the file of a deletion, and the one that removes it.
const std::set<std::string> kFindOrRemove = {"unlink", "unlinkat", "openat", "newfstatat",
                                             "getdents64"};
constexpr std::uint64_t kDeletions = 2;
constexpr std::uint64_t kMostNotRemoved = kDeletions * 4 * kErrors.size();
constexpr std::uint64_t kPassedOverShare = 50;  // at most one point in so many

constexpr char kPoints[] = "failing calls";
constexpr char kDamaged[] = "damaged";
constexpr char kSucceeded[] = "true";
constexpr char kUntrue[] = "of them false";
constexpr char kWithPassedOver[] = "with a profile passed over";
constexpr char kNotRemoved[] = "with a file not removed, as stated";
constexpr char kLeaks[] = "descriptors or locks kept";
constexpr char kCrashes[] = "crashes";
constexpr char kExceptions[] = "exceptions of the libraries";

// The name of this part of the sweep, which is run in three.
std::string variant() {
  const char* const name = std::getenv("TARN_VARIANT");
  return name == nullptr ? "all" : name;
}

sweep::Counts counts("error-sweep/calls/" + variant(), kPromisedPoints,
                     {kPoints, kDamaged, kSucceeded, kUntrue, kWithPassedOver, kNotRemoved, kLeaks,
                      kCrashes, kExceptions},
                     supervisor::whyNot);

const std::string kCannotRead = "Failed to load json from ";
const std::string kPassedOver = ", passed over: ";

// "true", or "true, passed over: PATH PATH".
std::string answerOf(const Operation& operation) {
  std::string answer = operations::answer(operation);
  if (!systemLog::has(kCannotRead.c_str())) return answer;
  answer += kPassedOver;
  for (const auto& [path, text] : operations::before(operation)) {
    if (systemLog::has((kCannotRead + path).c_str())) answer += path + " ";
  }
  return answer;
}

bool isAsPromised(const Operation& operation, const store::Documents& documents) {
  store::Documents expected = operations::after(operation);
  if (operations::difference(expected, documents).empty()) return true;
  if (operation.spare == nullptr) return false;
  expected[operation.spare] = operations::before(operation).at(operation.spare);
  return operations::difference(expected, documents).empty();
}

// Has the operation done all that it can without the documents that were passed over? The others it
// changes must be changed, and those too unless it is one on every profile or removes it.
bool isDoneBeside(const Operation& operation, const store::Documents& documents,
                  const std::string& passedOver) {
  for (const auto& [path, text] : operation.changes) {
    const bool mayStay = operation.everyProfile || text == operations::kAbsent;
    if (mayStay && passedOver.find(path + " ") != std::string::npos) continue;
    if (!operations::standsIn(documents, path, text)) return false;
  }
  return true;
}

// A call of `operation` has failed.
void judge(const Operation& operation, int call, const supervisor::Outcome& outcome) {
  counts.count(kPoints);
  const std::size_t end = outcome.answer.find(kPassedOver);
  const bool passedOver = end != std::string::npos;
  const std::string answer = outcome.answer.substr(0, end);

  if (operations::isException(answer)) counts.count(kExceptions);
  if (outcome.signal != 0 || outcome.hung ||
      (answer != "true" && answer != "false" && !operations::isException(answer))) {
    counts.fault(kCrashes, "signal " + std::to_string(outcome.signal) +
                               (outcome.hung ? ", hung" : "") + ", answer: " + answer);
  }
  counts.fault(kLeaks, outcome.leaks);

  const store::Found found = store::look();
  counts.fault(kDamaged, (passedOver ? operations::damageBesideTwin(operation, found.documents)
                                     : operations::damage(operation, found.documents)) +
                             found.strays);
  if (answer != "true") return;
  counts.count(kSucceeded);
  if (isAsPromised(operation, found.documents)) return;
  if (passedOver && isDoneBeside(operation, found.documents, outcome.answer.substr(end))) {
    counts.count(kWithPassedOver);
  } else if (operation.alwaysTrue && kFindOrRemove.count(supervisor::nameOf(call)) != 0) {
    counts.count(kNotRemoved);
  } else {
    counts.fault(kUntrue, operations::difference(operations::after(operation), found.documents));
  }
}

class FailingCalls : public testing::TestWithParam<Operation> {
 protected:
  static void TearDownTestSuite() {
    EXPECT_GE(kMostNotRemoved, counts.counted(kNotRemoved));
    EXPECT_GE(counts.counted(kPoints) / kPassedOverShare, counts.counted(kWithPassedOver));
  }
};

TEST_P(FailingCalls, WithEveryError) {
  const Operation& operation = GetParam();
  sweep::atEveryCall(operation, /*filesOnly=*/true, [&operation](int call, long point) {
    // The errors of one call are points after each other.
    const Error& error = kErrors[static_cast<std::size_t>(point) % kErrors.size()];
    const long number = point / static_cast<long>(kErrors.size());
    const supervisor::Outcome outcome =
        supervisor::run({call, number, /*kill=*/false, error.number, /*inspect=*/true},
                        [&operation] { return answerOf(operation); });
    if (!outcome.harmed) return false;
    SCOPED_TRACE(std::string(error.name) + " of " + supervisor::nameOf(call) + " " +
                 std::to_string(number));
    judge(operation, call, outcome);
    return true;
  });
}

INSTANTIATE_TEST_SUITE_P(Operations, FailingCalls, testing::ValuesIn(operations::all()),
                         sweep::nameOf);

}  // namespace
