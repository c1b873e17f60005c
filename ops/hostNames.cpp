#include "hostNames.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>

#include "packetFilter.h"

namespace ops {
namespace {

// Addresses that are reserved and never a host's, and the form in which "-S" prints them.
struct StandIn {
  Family family;
  const char* address;
  const char* printed;
};
constexpr std::array<StandIn, 2> kStandIns = {
    StandIn{Family::kV4, "255.255.255.254", " 255.255.255.254/32"},
    StandIn{Family::kV6, "100::fffe", " 100::fffe/128"}};

bool isAddress(const std::string& text) {
  in6_addr address = {};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ||
         inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

// A word behind -s or -d: an address or a name, perhaps with a mask.
bool isHostName(const std::string& word) {
  const std::string host = word.substr(0, word.find('/'));
  return !host.empty() && host.find(',') == std::string::npos && !isAddress(host);
}

// The line with `address` in place of its host name; as it is when it has none.
std::string withStandIn(const std::string& line, const char* address) {
  std::istringstream stream(line);
  std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
  bool found = false;
  for (std::size_t index = 1; index < words.size(); ++index) {
    const std::string& option = words[index - 1];
    if ((option != "-s" && option != "-d") || !isHostName(words[index])) continue;
    words[index] = address;
    found = true;
  }
  if (!found) return line;
  std::string replaced;
  for (const std::string& word : words) replaced += (replaced.empty() ? "" : " ") + word;
  return replaced;
}

// Where the stand-in is in a rule; null when it has none.
const char* standInOf(const std::string& rule) {
  for (const StandIn& standIn : kStandIns) {
    if (rule.find(standIn.printed) != std::string::npos) return standIn.printed;
  }
  return nullptr;
}

// Is `rule` the one that `form`, which has a stand-in, would be with an address?
bool hasForm(const std::string& rule, const std::string& form) {
  const char* standIn = standInOf(form);
  const std::size_t begin = form.find(standIn) + 1;
  const std::string after = form.substr(form.find(standIn) + std::string(standIn).size());
  if (rule.compare(0, begin, form, 0, begin) != 0) return false;
  const std::size_t end = std::min(rule.find(' ', begin), rule.size());
  return end > begin && rule.compare(end, std::string::npos, after) == 0;
}

template <class Predicate>
void erase(std::vector<std::string>& lines, Predicate predicate) {
  lines.erase(std::remove_if(lines.begin(), lines.end(), predicate), lines.end());
}

}  // namespace

std::size_t replaceHostNames(Json::Value& commands) {
  std::size_t count = 0;
  for (const StandIn& standIn : kStandIns) {
    if (!commands.isObject() || !commands[keyOf(standIn.family)].isObject()) continue;
    for (Json::Value& lines : commands[keyOf(standIn.family)]) {
      for (Json::Value& line : lines) {
        const std::string replaced = withStandIn(line.asString(), standIn.address);
        if (replaced == line.asString()) continue;
        line = replaced;
        ++count;
      }
    }
  }
  return count;
}

void leaveOutHostNames(std::vector<std::string>& expected, std::vector<std::string>& live) {
  std::vector<std::string> forms;
  std::copy_if(expected.begin(), expected.end(), std::back_inserter(forms),
               [](const std::string& rule) { return standInOf(rule) != nullptr; });
  erase(expected, [](const std::string& rule) { return standInOf(rule) != nullptr; });
  erase(live, [&](const std::string& rule) {
    const bool ofForm = std::any_of(forms.begin(), forms.end(), [&rule](const std::string& form) {
      return hasForm(rule, form);
    });
    return ofForm && std::find(expected.begin(), expected.end(), rule) == expected.end();
  });
}

}  // namespace ops
