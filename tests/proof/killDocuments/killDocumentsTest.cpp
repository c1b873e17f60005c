// SIGKILL at every system call of every operation that writes documents. Afterwards each document
// is the old one or the new one, an operation that has said true has happened, nothing lies about
// but what the next write uses again, and the next operations work at once.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "operations.h"
#include "ownTime.h"
#include "store.h"
#include "supervisor.h"
#include "sweep.h"

namespace {

using operations::Operation;

constexpr long kPromisedPoints = 1500;
constexpr long kPatience = 1000;  // milliseconds

constexpr char kPoints[] = "points";
constexpr char kDamaged[] = "damaged";
constexpr char kAcknowledged[] = "acknowledged";
constexpr char kUndone[] = "of them undone";
constexpr char kStrays[] = "strays";
constexpr char kStuck[] = "next operations stuck";
constexpr char kSlowest[] = "ms for the slowest";
constexpr char kTemporaries[] = "temporary files left";

sweep::Counts counts("kill-documents", kPromisedPoints,
                     {kPoints, kDamaged, kAcknowledged, kUndone, kStrays, kStuck, kSlowest,
                      kTemporaries},
                     supervisor::whyNot);

// The operation again and two others: "ANSWER ANSWER ANSWER MILLISECONDS", of the slowest.
std::string nextOperations(const Operation& operation) {
  const long start = figures::ownMilliseconds();
  const std::string again = operations::answer(operation);
  const long middle = figures::ownMilliseconds();
  const std::string others = operations::further();
  const long slowest = std::max(middle - start, figures::ownMilliseconds() - middle);
  return again + " " + others + " " + std::to_string(slowest);
}

// Is the operation one that is refused now because it has happened?
bool isRefused(const Operation& operation, const store::Documents& documents) {
  if (operation.once == nullptr) return false;
  const auto found = documents.find(operation.once);
  return found != documents.end() && found->second == operation.changes.at(operation.once);
}

void expectNextOperationsWork(const Operation& operation, const store::Documents& documents) {
  const bool refused = isRefused(operation, documents);
  const supervisor::Outcome next =
      supervisor::run([&operation] { return nextOperations(operation); });
  const std::string expected = refused ? "false true true " : "true true true ";
  const bool worked = next.answer.compare(0, expected.size(), expected) == 0;
  const long milliseconds = worked ? std::stol(next.answer.substr(expected.size())) : kPatience;
  const long slowest = static_cast<long>(counts.counted(kSlowest));
  counts.count(kSlowest, static_cast<std::uint64_t>(std::max(milliseconds - slowest, 0L)));
  const std::string wrong = operations::difference(
      operations::afterFurther(refused ? documents : operations::after(operation)),
      store::look().documents);
  if (worked && milliseconds < kPatience && wrong.empty()) return;
  counts.fault(kStuck, next.answer + (next.hung ? " (hung)" : "") + "\n" + wrong);
}

void judge(const Operation& operation, const supervisor::Outcome& outcome) {
  const store::Found found = store::look();
  counts.count(kPoints);
  counts.count(kTemporaries, static_cast<std::uint64_t>(found.temporaries));
  counts.fault(kDamaged, operations::damage(operation, found.documents));
  if (outcome.answer == "true") {
    counts.count(kAcknowledged);
    counts.fault(kUndone, operations::difference(operations::after(operation), found.documents));
  }
  counts.fault(kStrays, found.strays);
  EXPECT_TRUE(outcome.answer.empty() || outcome.answer == "true") << outcome.answer;
  EXPECT_EQ(SIGKILL, outcome.signal);
  EXPECT_FALSE(outcome.hung);
  expectNextOperationsWork(operation, found.documents);
}

class KillDocuments : public testing::TestWithParam<Operation> {};

TEST_P(KillDocuments, AtEveryCall) {
  const Operation& operation = GetParam();
  const std::uint64_t acknowledged = counts.counted(kAcknowledged);
  sweep::atEveryCall(operation, /*filesOnly=*/false, [&operation](int call, long point) {
    const supervisor::Outcome outcome = supervisor::run(
        {call, point, /*kill=*/true}, [&operation] { return operations::answer(operation); });
    if (!outcome.harmed) return false;
    SCOPED_TRACE("killed at " + supervisor::nameOf(call) + " " + std::to_string(point));
    judge(operation, outcome);
    return true;
  });
  // The call that ends the process comes after the answer.
  EXPECT_LT(acknowledged, counts.counted(kAcknowledged));
}

INSTANTIATE_TEST_SUITE_P(Operations, KillDocuments, testing::ValuesIn(operations::all()),
                         sweep::nameOf);

}  // namespace
