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
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

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

constexpr char kPoints[] = "failing allocations";
constexpr char kDamaged[] = "damaged";
constexpr char kSucceeded[] = "true";
constexpr char kUntrue[] = "of them false";
constexpr char kLeaks[] = "descriptors or locks kept";
constexpr char kOthers[] = "other answers";
constexpr char kExceptions[] = "exceptions";

sweep::Counts counts("error-sweep/memory", kPromisedPoints,
                     {kPoints, kDamaged, kSucceeded, kUntrue, kLeaks, kOthers, kExceptions});

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
  counts.count(kPoints);
  if (operations::isException(answer)) {
    counts.count(kExceptions);
  } else if (answer != "true" && answer != "false") {
    counts.fault(kOthers, answer);
  }
  const bool closed = openDescriptors(getpid()).size() == descriptors.size();
  counts.fault(kLeaks, heldLocks() + (closed ? "" : " descriptors"));
  const store::Found found = store::look();
  counts.fault(kDamaged, operations::damage(operation, found.documents) + found.strays);
  if (answer != "true") return;
  counts.count(kSucceeded);
  counts.fault(kUntrue, operations::difference(operations::after(operation), found.documents));
}

class FailingMemory : public testing::TestWithParam<Operation> {};

TEST_P(FailingMemory, AtEveryAllocation) {
  const Operation& operation = GetParam();
  const std::set<int> descriptors = openDescriptors(getpid());
  sweep::atEveryPoint(operation, [&operation, &descriptors](long number) {
    bool met = false;
    const std::string answer = answerWithout(operation, number, met);
    SCOPED_TRACE("without allocation " + std::to_string(number));
    if (met) {
      judge(operation, answer, descriptors);
    } else {  // unharmed
      EXPECT_EQ("true", answer);
      EXPECT_EQ("", operations::difference(operations::after(operation), store::look().documents));
    }
    return met;
  });
}

INSTANTIATE_TEST_SUITE_P(Operations, FailingMemory, testing::ValuesIn(operations::all()),
                         sweep::nameOf);

}  // namespace
