// Every file call of every operation that writes documents fails, with each error. Afterwards each
// document is the old one or the new one, an operation that says true has done all of it, and no
// descriptor and no lock stays behind in the process.
//
// A profile whose document cannot be read while the directory is scanned is passed over, and the
// log says so. The operation then does to the other profiles what it does, and is true: the
// documents are looked at as after a failure, and counted. The same counts deletions, which are
// stated to be always true.

#include <array>
#include <cerrno>
#include <iostream>
#include <sstream>
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

constexpr long kPromisedPoints = 4000;

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

struct Counts {
  long points = 0;
  long succeeded = 0;
  long exceptions = 0;
  long passedOver = 0;
  long damaged = 0;
  long untrue = 0;
  long leaks = 0;
  long crashes = 0;
};

Counts counts;

constexpr char kPassedOver[] = ", passed over";

std::string answerOf(const Operation& operation) {
  const std::string answer = operations::answer(operation);
  return systemLog::has("Failed to load json from") ? answer + kPassedOver : answer;
}

bool isException(const std::string& answer) {
  return answer == "JSON exception" || answer == "lock exception" || answer == "bad_alloc";
}

bool isAsPromised(const Operation& operation, const store::Documents& documents) {
  store::Documents expected = operations::after(operation);
  if (operations::difference(expected, documents).empty()) return true;
  if (operation.spare == nullptr) return false;
  expected[operation.spare] = operations::before(operation).at(operation.spare);
  return operations::difference(expected, documents).empty();
}

void judge(const Operation& operation, const supervisor::Outcome& outcome) {
  ++counts.points;
  const std::size_t end = outcome.answer.find(kPassedOver);
  const bool passedOver = end != std::string::npos;
  const std::string answer = outcome.answer.substr(0, end);

  if (outcome.signal != 0 || outcome.hung ||
      (answer != "true" && answer != "false" && !isException(answer))) {
    ++counts.crashes;
    ADD_FAILURE() << "ended by signal " << outcome.signal << (outcome.hung ? ", hung" : "")
                  << ", answer: " << answer;
  }
  counts.exceptions += isException(answer) ? 1 : 0;
  if (!outcome.leaks.empty()) {
    ++counts.leaks;
    ADD_FAILURE() << "kept:" << outcome.leaks;
  }

  const store::Found found = store::look();
  const std::string damage = (passedOver ? operations::damageBesideTwin(operation, found.documents)
                                         : operations::damage(operation, found.documents)) +
                             found.strays;
  if (!damage.empty()) {
    ++counts.damaged;
    ADD_FAILURE() << "damaged: " << damage;
  }
  if (answer != "true") return;
  ++counts.succeeded;
  if (isAsPromised(operation, found.documents)) return;
  if (passedOver || operation.alwaysTrue) {
    ++counts.passedOver;
    return;
  }
  ++counts.untrue;
  ADD_FAILURE() << "said true, but: "
                << operations::difference(operations::after(operation), found.documents);
}

// An operation on every profile reads and writes with the calls of profileGet and profileSet, which
// fail with every error. Its own fail with one of them by turns, unless the sweep is a long one.
std::vector<Error> errorsOf(const Operation& operation, long number) {
  if (!operation.everyProfile || sweep::factor() > 1) return {kErrors.begin(), kErrors.end()};
  return {kErrors[static_cast<std::size_t>(number) % kErrors.size()]};
}

class FailingCalls : public testing::TestWithParam<Operation> {
 protected:
  static void SetUpTestSuite() { sweep::prepare(); }
};

TEST_P(FailingCalls, WithEveryError) {
  const Operation& operation = GetParam();
  const auto work = [&operation] { return answerOf(operation); };
  const store::Documents before = operations::before(operation);
  const long pointsBefore = counts.points;
  store::reset(before);
  for (const int call : supervisor::callsOf(work, /*filesOnly=*/true)) {
    bool more = true;
    for (long number = 0; more; ++number) {
      for (const Error& error : errorsOf(operation, number)) {
        store::reset(before);
        const supervisor::Outcome outcome =
            supervisor::run({call, number, /*kill=*/false, error.number, /*inspect=*/true}, work);
        more = outcome.harmed;
        if (!more) break;  // there are not that many
        SCOPED_TRACE(std::string(operation.name) + ": " + error.name + " of " +
                     supervisor::nameOf(call) + " " + std::to_string(number));
        judge(operation, outcome);
      }
    }
  }
  std::cout << operation.name << ": " << counts.points - pointsBefore << " failing calls\n";
}

INSTANTIATE_TEST_SUITE_P(Operations, FailingCalls, testing::ValuesIn(operations::all()),
                         [](const auto& row) { return row.param.name; });

class Closing : public testing::Environment {
 public:
  void TearDown() override {
    EXPECT_LE(kPromisedPoints, counts.points);
    EXPECT_EQ(0, counts.damaged + counts.untrue + counts.leaks + counts.crashes);
    std::ostringstream text;
    text << sweep::grouped(counts.points) << " failing calls, " << counts.damaged << " damaged, "
         << counts.untrue << " false of " << sweep::grouped(counts.succeeded) << " true, "
         << counts.passedOver
         << " true with a profile passed over or a file not removed, as stated, " << counts.leaks
         << " descriptors or locks kept, " << counts.crashes << " crashes, "
         << sweep::grouped(counts.exceptions) << " exceptions of the libraries";
    figures_.close(text.str());
  }

 private:
  sweep::Figures figures_{"error-sweep/calls"};
};

const auto* const closing = testing::AddGlobalTestEnvironment(new Closing);

}  // namespace
