#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "ops/jsonText.h"

namespace tarnfw {
namespace {

std::string coloured(const char* sequence, const std::string& text, bool colour) {
  return colour ? sequence + text + "\033[0m" : text;
}

// What --json prints: a reading verb's document as it is; else an object that says how it went.
Json::Value documentOf(const Answer& answer, const std::string& name, bool changes) {
  const bool succeeded = answer.error.empty();
  if (succeeded && !changes) return answer.document;
  Json::Value document =
      answer.document.isObject() ? answer.document : Json::Value(Json::objectValue);
  document["ok"] = succeeded;
  document["verb"] = name;
  document["exit"] = answer.exit;
  if (!succeeded) document["error"] = answer.error;
  document["messages"] = Json::Value(Json::arrayValue);
  for (const Note& note : answer.notes) document["messages"].append(note.text);
  return document;
}

void complain(const std::string& line) {
  (void)std::fprintf(stderr, "tarnfw: %s\n", printable(line).c_str());
}

}  // namespace

std::string table(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    if (widths.size() < row.size()) widths.resize(row.size());
    for (std::size_t column = 0; column < row.size(); ++column) {
      widths[column] = std::max(widths[column], row[column].size());
    }
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
      line += row[column] + std::string(widths[column] - row[column].size() + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

std::string green(const std::string& text, bool colour) {
  return coloured("\033[32m", text, colour);
}

std::string red(const std::string& text, bool colour) { return coloured("\033[31m", text, colour); }

bool colourWanted() {
  const char* refused = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || refused[0] == '\0') &&
         (terminal == nullptr || std::string(terminal) != "dumb");
}

int print(const Answer& answer, const std::string& name, bool changes, bool json, bool quiet) {
  for (const Note& note : answer.notes) {
    if (note.complaint || !quiet) complain(note.text);
  }
  if (!answer.error.empty()) complain((name.empty() ? "" : name + ": ") + answer.error);
  const std::string data = json ? ops::styledJson(documentOf(answer, name, changes)) : answer.text;
  (void)std::fwrite(data.data(), 1, data.size(), stdout);
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return answer.exit;
  complain("standard output cannot be written");
  return answer.exit == kDone ? kFailed : answer.exit;
}

}  // namespace tarnfw
