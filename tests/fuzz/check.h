// What a fuzz target says when its property does not hold.

#ifndef TARNFW_TESTS_FUZZ_CHECK_H
#define TARNFW_TESTS_FUZZ_CHECK_H

#include <string>

namespace fuzz {

// Prints `property` and `details` and ends the process, which makes the input a finding.
[[noreturn]] void broken(const std::string& property, const std::string& details);

inline void require(bool holds, const char* property, const std::string& details = "") {
  if (!holds) broken(property, details);
}

// Whole values, as text.
inline void requireEqual(const std::string& expected, const std::string& actual,
                         const char* property) {
  if (expected != actual) broken(property, "expected\n" + expected + "\nfound\n" + actual);
}

}  // namespace fuzz

#endif
