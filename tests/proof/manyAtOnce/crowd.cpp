#include "crowd.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <exception>
#include <memory>

#include "processes.h"

namespace crowd {
namespace {

void keepLongest(std::atomic<std::uint64_t>& longest, std::uint64_t spent) {
  std::uint64_t before = longest;
  while (before < spent && !longest.compare_exchange_weak(before, spent)) continue;
}

}  // namespace

bool call(Calls& calls, const std::function<bool()>& operation) {
  const auto start = std::chrono::steady_clock::now();
  bool result = false;
  try {
    result = operation();
    ++(result ? calls.succeeded : calls.failed);
  } catch (const std::exception&) {
    ++calls.threw;
  }
  const auto spent = std::chrono::steady_clock::now() - start;
  keepLongest(calls.longest,
              static_cast<std::uint64_t>(
                  std::chrono::duration_cast<std::chrono::milliseconds>(spent).count()));
  return result;
}

std::vector<std::string> run(int count, unsigned seconds,
                             const std::function<std::string(int number)>& work) {
  // The gate: each process reads until nobody can write any more.
  std::array<int, 2> gate = {-1, -1};
  if (pipe2(gate.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  std::vector<std::unique_ptr<processes::Child>> crowd;
  for (int number = 0; number < count; ++number) {
    crowd.push_back(std::make_unique<processes::Child>([&, number] {
      (void)alarm(seconds);
      close(gate[1]);
      char nothing = 0;
      (void)!read(gate[0], &nothing, 1);
      close(gate[0]);
      return work(number);
    }));
  }
  close(gate[0]);
  close(gate[1]);
  std::vector<std::string> answers;
  for (const auto& process : crowd) answers.push_back(process->answer());
  return answers;
}

std::string others(const std::vector<std::string>& answers, const std::string& expected) {
  std::string text;
  for (const std::string& answer : answers) {
    if (answer != expected) text += answer + "\n";
  }
  return text;
}

}  // namespace crowd
