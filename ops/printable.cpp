#include "printable.h"

#include <cstddef>
#include <cstdio>

namespace ops {
namespace {

unsigned char byteAt(const std::string& text, std::size_t index) {
  return static_cast<unsigned char>(text[index]);
}

// How many bytes the control character at `index` has; 0 when there is none.
std::size_t controlAt(const std::string& text, std::size_t index) {
  const unsigned char byte = byteAt(text, index);
  if (byte < 0x20 || byte == 0x7f) return 1;
  if (byte != 0xc2 || index + 1 == text.size()) return 0;
  const unsigned char second = byteAt(text, index + 1);
  return second >= 0x80 && second <= 0x9f ? 2 : 0;
}

}  // namespace

std::string printable(const std::string& text) {
  std::string safe;
  for (std::size_t index = 0; index < text.size();) {
    const std::size_t length = controlAt(text, index);
    if (length == 0) safe += text[index++];
    for (const std::size_t end = index + length; length != 0 && index < end; ++index) {
      char escaped[8];
      (void)std::snprintf(escaped, sizeof escaped, "\\x%02x", byteAt(text, index));
      safe += escaped;
    }
  }
  return safe;
}

}  // namespace ops
