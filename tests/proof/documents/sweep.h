// What the sweeps have in common: how long they are, and their closing line.

#ifndef TARNFW_TESTS_PROOF_SWEEP_H
#define TARNFW_TESTS_PROOF_SWEEP_H

#include <chrono>
#include <string>

namespace sweep {

// TARN_LONG of the environment: how many times as long as usual; at least 1.
long factor();

// "1,532".
std::string grouped(long number);

// The clock less the time that this process has stood ready without a processor: other programs on
// the machine do not make an operation slow.
long ownMilliseconds();

// Prints "figures: SUITE: TEXT; SECONDS s" as the last line, when the program ends.
class Figures {
 public:
  explicit Figures(std::string suite) : suite_(std::move(suite)) {}
  void close(const std::string& text) const;

 private:
  std::string suite_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// The world of the sweeps: kernel modules, service table.
void prepare();

}  // namespace sweep

#endif
