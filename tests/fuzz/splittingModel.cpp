#include "splittingModel.h"

namespace fuzz {

Split splitOf(const std::string& line) {
  std::vector<std::string> pieces;
  std::string piece;
  for (const char byte : line) {
    if (byte != ' ') {
      piece += byte;
      continue;
    }
    pieces.push_back(piece);
    piece.clear();
  }
  if (!line.empty() && line.back() != ' ') pieces.push_back(piece);

  Split split;
  std::size_t bytes = 0;
  for (const std::string& next : pieces) {
    if (bytes > 1022) return {{}, "#Arguments exceeds limit"};
    if (next.empty()) continue;
    if (split.words.size() == 255) return {{}, "#Arguments exceeds limit"};
    split.words.emplace_back(next.c_str());  // up to a NUL, as texts of C end
    bytes += split.words.back().size() + 1;
  }
  if (bytes == 0 || bytes > 1024) return {{}, "cmd is empty or arguments exceeding limit"};
  return split;
}

}  // namespace fuzz
