#include "commandList.h"

#include <cstring>
#include <sstream>
#include <utility>

namespace bench {

CommandList::CommandList(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    std::vector<std::string>& words = words_.emplace_back();
    std::istringstream text(line);
    for (std::string word; text >> word;) words.push_back(word);
  }
  for (std::vector<std::string>& words : words_) {
    std::vector<char*>& pointers = pointers_.emplace_back();
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
  }
  for (const std::vector<char*>& pointers : pointers_) vectors_.push_back(pointers.data());
}

bool CommandList::matches(std::size_t index, char* const argv[]) const {
  if (index >= size()) return false;
  for (const std::string& word : words_[index]) {
    if (*argv == nullptr || word != *argv) return false;
    ++argv;
  }
  return *argv == nullptr;
}

std::vector<std::string> commandLines(const Json::Value& document) {
  constexpr std::pair<const char*, const char*> kTools[] = {{"v4", "/sbin/iptables "},
                                                            {"v6", "/sbin/ip6tables "}};
  std::vector<std::string> lines;
  for (const auto& [family, tool] : kTools) {
    const Json::Value& lists = document[family];
    for (const Json::Value& line : lists["global"]) lines.push_back(tool + line.asString());
    for (const std::string& adapter : lists.getMemberNames()) {
      if (adapter == "global") continue;
      for (const Json::Value& line : lists[adapter]) lines.push_back(tool + line.asString());
    }
  }
  return lines;
}

}  // namespace bench
