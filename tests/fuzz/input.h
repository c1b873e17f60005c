// An input read as a sequence of values, so that seeds can be written and read by hand:
//
//   a number  one character: '0' to '9' are 0 to 9, what follows them in ASCII is more
//   a text    the bytes up to the end of the line; byte 1 stands for a line feed in it
//
// Behind its end the input goes on with zeros and empty texts.

#ifndef TARNFW_TESTS_FUZZ_INPUT_H
#define TARNFW_TESTS_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return rest_.empty(); }

  // -48 to 207; what is not a character of a seed gives numbers that nothing expects.
  int number();
  // 0 to limit - 1.
  std::size_t below(std::size_t limit);
  bool flag() { return below(2) == 1; }
  std::string text();
  // A text without what documents do not keep: a byte that is not ASCII, NUL.
  std::string plainText();
  std::vector<std::string> texts(std::size_t most);
  std::vector<std::string> plainTexts(std::size_t most);
  // All that is left.
  std::string all();

 private:
  std::string_view rest_;
};

}  // namespace fuzz

#endif
