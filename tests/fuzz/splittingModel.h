// A command line split a second time.

#ifndef TARNFW_TESTS_FUZZ_SPLITTING_MODEL_H
#define TARNFW_TESTS_FUZZ_SPLITTING_MODEL_H

#include <string>
#include <vector>

namespace fuzz {

// The words that are run, or why none are.
struct Split {
  std::vector<std::string> words;
  std::string message;  // empty: they are run
};

// Fills a buffer of 1,024 bytes as the interface describes it, by counting only.
Split splitOf(const std::string& line);

}  // namespace fuzz

#endif
