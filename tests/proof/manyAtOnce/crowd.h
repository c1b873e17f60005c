// Many processes at once, and what they count together.

#ifndef TARNFW_TESTS_PROOF_CROWD_H
#define TARNFW_TESTS_PROOF_CROWD_H

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace crowd {

// A value that this process and those it forks have in common.
template <class Value>
class Shared {
 public:
  Shared() {
    void* const memory =
        mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    value_ = new (memory) Value();
  }
  ~Shared() { (void)munmap(value_, sizeof(Value)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  Value* operator->() const { return value_; }
  Value& operator*() const { return *value_; }

 private:
  Value* value_;
};

// The calls of one kind: how many, how they ended, how long the longest took.
struct Calls {
  std::atomic<std::uint64_t> succeeded = 0;
  std::atomic<std::uint64_t> failed = 0;
  std::atomic<std::uint64_t> threw = 0;
  std::atomic<std::uint64_t> longest = 0;  // milliseconds

  std::uint64_t all() const { return succeeded + failed + threw; }
};

// Makes a call and counts it. An exception counts and goes no further; the result is false then.
bool call(Calls& calls, const std::function<bool()>& operation);

// Forks `count` processes that all begin `work` at the same moment, and waits for their ends. Gives
// what they answered, in the order of their numbers. A process that takes longer than `seconds` is
// ended and answers "(signal 14)".
std::vector<std::string> run(int count, unsigned seconds,
                             const std::function<std::string(int number)>& work);

// The answers that are not `expected`, one a line.
std::string others(const std::vector<std::string>& answers, const std::string& expected);

}  // namespace crowd

#endif
