// SIGKILL at every system call of every operation that writes documents. Afterwards each document
// is the old one or the new one, an operation that has said true has happened, nothing lies about
// but what the next write uses again, and the next operations work at once.

#include <algorithm>
#include <csignal>
#include <iostream>
#include <string>

#include <gtest/gtest.h>

#include "figures.h"
#include "operations.h"
#include "store.h"
#include "supervisor.h"
#include "sweep.h"

namespace {

using operations::Operation;

constexpr long kPromisedPoints = 1500;
constexpr long kPatience = 1000;  // milliseconds

// Of all operations.
struct Counts {
  long points = 0;
  long acknowledged = 0;
  long temporaries = 0;
  long damaged = 0;
  long undone = 0;
  long strays = 0;
  long stuck = 0;
  long slowest = 0;  // milliseconds
};

Counts counts;

// The operation again and two others: "ANSWER ANSWER ANSWER MILLISECONDS", of the slowest.
std::string nextOperations(const Operation& operation) {
  const long start = sweep::ownMilliseconds();
  const std::string again = operations::answer(operation);
  const long middle = sweep::ownMilliseconds();
  const std::string others = operations::further();
  const long slowest = std::max(middle - start, sweep::ownMilliseconds() - middle);
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
  counts.slowest = std::max(counts.slowest, milliseconds);
  const std::string wrong = operations::difference(
      operations::afterFurther(refused ? documents : operations::after(operation)),
      store::look().documents);
  if (worked && milliseconds < kPatience && wrong.empty()) return;
  ++counts.stuck;
  ADD_FAILURE() << "the next operations: " << next.answer << (next.hung ? " (hung)" : "") << "\n"
                << wrong;
}

void judge(const Operation& operation, const supervisor::Outcome& outcome) {
  const store::Found found = store::look();
  ++counts.points;
  counts.temporaries += found.temporaries;
  const std::string damage = operations::damage(operation, found.documents);
  if (!damage.empty()) {
    ++counts.damaged;
    ADD_FAILURE() << "damaged: " << damage;
  }
  if (outcome.answer == "true") {
    ++counts.acknowledged;
    const std::string wrong = operations::difference(operations::after(operation), found.documents);
    if (!wrong.empty()) {
      ++counts.undone;
      ADD_FAILURE() << "said true, but: " << wrong;
    }
  }
  if (!found.strays.empty()) {
    ++counts.strays;
    ADD_FAILURE() << "left behind:" << found.strays;
  }
  EXPECT_TRUE(outcome.answer.empty() || outcome.answer == "true") << outcome.answer;
  EXPECT_EQ(SIGKILL, outcome.signal);
  EXPECT_FALSE(outcome.hung);
  expectNextOperationsWork(operation, found.documents);
}

class KillDocuments : public testing::TestWithParam<Operation> {
 protected:
  static void SetUpTestSuite() { sweep::prepare(); }
};

TEST_P(KillDocuments, AtEveryCall) {
  const Operation& operation = GetParam();
  const auto work = [&operation] { return operations::answer(operation); };
  const store::Documents before = operations::before(operation);
  const long pointsBefore = counts.points;
  store::reset(before);
  for (const int call : supervisor::callsOf(work, /*filesOnly=*/false)) {
    for (long number = 0;; ++number) {
      store::reset(before);
      const supervisor::Outcome outcome = supervisor::run({call, number, /*kill=*/true}, work);
      if (!outcome.harmed) break;  // there are not that many
      SCOPED_TRACE(std::string(operation.name) + " killed at " + supervisor::nameOf(call) + " " +
                   std::to_string(number));
      judge(operation, outcome);
    }
  }
  std::cout << operation.name << ": " << counts.points - pointsBefore << " calls\n";
}

INSTANTIATE_TEST_SUITE_P(Operations, KillDocuments, testing::ValuesIn(operations::all()),
                         [](const auto& row) { return row.param.name; });

// Counts what the others have found: the last in the program.
class Closing : public testing::Environment {
 public:
  void SetUp() override {
    figures::open("kill-documents");
    sweep::skipFor(supervisor::whyNot());
  }
  void TearDown() override {
    EXPECT_LE(kPromisedPoints, counts.points);
    EXPECT_EQ(0, counts.damaged + counts.undone + counts.strays + counts.stuck);
    sweep::add(counts.points, "points");
    sweep::add(counts.damaged, "damaged");
    sweep::add(counts.acknowledged, "acknowledged");
    sweep::add(counts.undone, "of them undone");
    sweep::add(counts.strays, "strays");
    sweep::add(counts.stuck, "next operations stuck");
    sweep::add(counts.slowest, "ms for the slowest");
    sweep::add(counts.temporaries, "temporary files left");
  }
};

const auto* const closing = testing::AddGlobalTestEnvironment(new Closing);

}  // namespace
