// Named counts that become the closing line.

#ifndef TARNFW_TESTS_PROOF_COUNTS_H
#define TARNFW_TESTS_PROOF_COUNTS_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace figures {

// A global of a test program. Its counts are the closing line's, whatever the tests said.
class Counts {
 public:
  // `names`: what is counted, in the order of the line.
  Counts(const std::string& suite, const std::vector<std::string>& names);
  ~Counts();
  Counts(const Counts&) = delete;
  Counts& operator=(const Counts&) = delete;

  void count(const std::string& name, std::uint64_t by = 1);
  std::uint64_t counted(const std::string& name) const;

 private:
  std::vector<std::pair<std::string, std::uint64_t>> counts_;
};

}  // namespace figures

#endif
