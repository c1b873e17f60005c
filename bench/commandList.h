// Command lines as the bare loops take them.

#ifndef TARN_BENCH_COMMANDLIST_H
#define TARN_BENCH_COMMANDLIST_H

#include <cstddef>
#include <string>
#include <vector>

#include <json/value.h>

namespace bench {

// Argument vectors, ready to run.
class CommandList {
 public:
  // `lines` are whole command lines, split at blanks.
  explicit CommandList(const std::vector<std::string>& lines);
  CommandList(const CommandList&) = delete;
  CommandList& operator=(const CommandList&) = delete;

  char* const* const* data() const { return vectors_.data(); }
  std::size_t size() const { return vectors_.size(); }
  // Is `argv` the command number `index`?
  bool matches(std::size_t index, char* const argv[]) const;

 private:
  std::vector<std::vector<std::string>> words_;
  std::vector<std::vector<char*>> pointers_;
  std::vector<char* const*> vectors_;
};

// The command lines of a command document, in the order in which they are run.
std::vector<std::string> commandLines(const Json::Value& document);

}  // namespace bench

#endif
