// The n-th allocation fails, for every n that an operation comes to. Afterwards each document is
// the old one or the new one, an operation that says true has done all of it, and no descriptor and
// no lock stays behind. std::bad_alloc may leave, and so may an exception of the JSON or lock
// library.
//
// In one process: a failed allocation leaves nothing in the kernel, and a crash ends the test.

#include <dlfcn.h>
#include <glob.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <iostream>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "figures.h"
#include "leftBehind.h"
#include "operations.h"
#include "store.h"
#include "sweep.h"

namespace memory {
namespace {

bool armed = false;
long countdown = 0;  // the allocation that meets 0 fails

bool fails() {
  if (!armed || countdown-- != 0) return false;
  errno = ENOMEM;
  return true;
}

// While it lives, allocations are counted and one fails.
class Failing {
 public:
  explicit Failing(long number) {
    countdown = number;
    armed = true;
  }
  ~Failing() { armed = false; }
  Failing(const Failing&) = delete;
  Failing& operator=(const Failing&) = delete;
};

}  // namespace
}  // namespace memory

// The C library's allocator under its other names. operator new, the JSON library and the C library
// itself allocate through these.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the names are given
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) { return memory::fails() ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) {
  return memory::fails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  return memory::fails() ? nullptr : __libc_realloc(block, size);
}

// The C library's frees its list twice when memory runs out in it, so it is spared.
int glob(const char* pattern, int flags, int (*onError)(const char* path, int error),
         glob_t* matches) noexcept(noexcept(::glob(pattern, flags, onError, matches))) {
  using Glob = int (*)(const char*, int, int (*)(const char*, int), glob_t*);
  static const auto kGlob = reinterpret_cast<Glob>(dlsym(RTLD_NEXT, "glob"));
  const bool armed = std::exchange(memory::armed, false);
  const int result = kGlob(pattern, flags, onError, matches);
  memory::armed = armed;
  return result;
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

using operations::Operation;

constexpr long kPromisedPoints = 2000;

struct Counts {
  long points = 0;
  long exceptions = 0;
  long succeeded = 0;
  long damaged = 0;
  long untrue = 0;
  long leaks = 0;
  long others = 0;  // answers that are not allowed
};

Counts counts;

class FailingMemory : public testing::TestWithParam<Operation> {
 protected:
  static void SetUpTestSuite() { sweep::prepare(); }
};

// With the allocation of that number failing. `met`: it came to that.
std::string answerWithout(const Operation& operation, long number, bool& met) {
  Operation starved = operation;
  starved.run = [&operation, number] {
    const memory::Failing failing(number);
    return operation.run();
  };
  std::string answer = operations::answer(starved);
  met = memory::countdown < 0;
  return answer;
}

void judge(const Operation& operation, const std::string& answer,
           const std::set<int>& descriptors) {
  ++counts.points;
  const bool exception =
      answer == "bad_alloc" || answer == "JSON exception" || answer == "lock exception";
  counts.exceptions += exception ? 1 : 0;
  if (answer != "true" && answer != "false" && !exception) {
    ++counts.others;
    ADD_FAILURE() << "answer: " << answer;
  }
  const std::string locks = heldLocks();
  if (!locks.empty() || openDescriptors(getpid()).size() != descriptors.size()) {
    ++counts.leaks;
    ADD_FAILURE() << "kept:" << locks << ", or descriptors";
  }
  const store::Found found = store::look();
  const std::string damage = operations::damage(operation, found.documents) + found.strays;
  if (!damage.empty()) {
    ++counts.damaged;
    ADD_FAILURE() << "damaged: " << damage;
  }
  if (answer != "true") return;
  ++counts.succeeded;
  const std::string wrong = operations::difference(operations::after(operation), found.documents);
  if (!wrong.empty()) {
    ++counts.untrue;
    ADD_FAILURE() << "said true, but: " << wrong;
  }
}

TEST_P(FailingMemory, AtEveryAllocation) {
  const Operation& operation = GetParam();
  const store::Documents before = operations::before(operation);
  const std::set<int> descriptors = openDescriptors(getpid());
  long number = 0;
  for (;; ++number) {
    store::reset(before);
    bool met = false;
    const std::string answer = answerWithout(operation, number, met);
    SCOPED_TRACE(std::string(operation.name) + " without allocation " + std::to_string(number));
    if (!met) {  // there are not that many: unharmed, no point
      EXPECT_EQ("true", answer);
      EXPECT_EQ("", operations::difference(operations::after(operation), store::look().documents));
      break;
    }
    judge(operation, answer, descriptors);
  }
  std::cout << operation.name << ": " << number << " allocations\n";
}

INSTANTIATE_TEST_SUITE_P(Operations, FailingMemory, testing::ValuesIn(operations::all()),
                         [](const auto& row) { return row.param.name; });

class Closing : public testing::Environment {
 public:
  void SetUp() override { figures::open("error-sweep/memory"); }
  void TearDown() override {
    EXPECT_LE(kPromisedPoints, counts.points);
    EXPECT_EQ(0, counts.damaged + counts.untrue + counts.leaks + counts.others);
    sweep::add(counts.points, "failing allocations");
    sweep::add(counts.damaged, "damaged");
    sweep::add(counts.succeeded, "true");
    sweep::add(counts.untrue, "of them false");
    sweep::add(counts.leaks, "descriptors or locks kept");
    sweep::add(counts.others, "other answers");
    sweep::add(counts.exceptions, "exceptions");
  }
};

const auto* const closing = testing::AddGlobalTestEnvironment(new Closing);

}  // namespace
