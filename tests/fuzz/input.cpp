#include "input.h"

#include <algorithm>

namespace fuzz {
namespace {

constexpr char kLineFeed = '\1';

}  // namespace

int Input::number() {
  if (rest_.empty()) return 0;
  const auto byte = static_cast<unsigned char>(rest_.front());
  rest_.remove_prefix(1);
  return byte - '0';
}

std::size_t Input::below(std::size_t limit) {
  const int chosen = number();
  const auto distance = static_cast<std::size_t>(chosen < 0 ? -chosen : chosen) % limit;
  return chosen < 0 && distance > 0 ? limit - distance : distance;
}

std::string Input::text() {
  const std::size_t end = std::min(rest_.find('\n'), rest_.size());
  std::string text(rest_.substr(0, end));
  rest_.remove_prefix(std::min(end + 1, rest_.size()));
  std::replace(text.begin(), text.end(), kLineFeed, '\n');
  return text;
}

std::string Input::plainText() {
  std::string plain = text();
  for (char& byte : plain) {
    byte = static_cast<char>(byte & 0x7f);
    if (byte == '\0') byte = '?';
  }
  return plain;
}

std::vector<std::string> Input::texts(std::size_t most) {
  std::vector<std::string> list(below(most + 1));
  for (std::string& one : list) one = text();
  return list;
}

std::vector<std::string> Input::plainTexts(std::size_t most) {
  std::vector<std::string> list(below(most + 1));
  for (std::string& one : list) one = plainText();
  return list;
}

std::string Input::all() {
  std::string all(rest_);
  rest_ = {};
  return all;
}

}  // namespace fuzz
