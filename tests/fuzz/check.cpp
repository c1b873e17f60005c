#include "check.h"

#include <cstdio>
#include <cstdlib>

namespace fuzz {

void broken(const std::string& property, const std::string& details) {
  std::string printable;
  for (const char byte : details) {
    const bool shown = byte == '\n' || (byte >= ' ' && byte <= '~');
    char code[5];
    (void)std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(byte));
    printable += shown ? std::string(1, byte) : code;
  }
  (void)std::fprintf(stderr, "does not hold: %s\n%s\n", property.c_str(), printable.c_str());
  std::abort();
}

}  // namespace fuzz
