// A command line is split as a second implementation splits it: the words, their order, and which
// lines are refused.
//
// Input: a number, how long the line is made, then the line. Long lines cannot be had from small
// inputs otherwise: the line is repeated up to that many times, so that the limits of 1,024 bytes
// and 255 words are in reach.

#include <optional>
#include <string>
#include <vector>

#include "check.h"
#include "fakePlatform.h"
#include "input.h"
#include "tarnfirewall.h"
#include "trace.h"

namespace {

constexpr std::size_t kLongestLine = 1500;

// The words that are run, or why none are.
struct Outcome {
  std::vector<std::string> words;
  std::string message;
};

// Fills a buffer of 1,024 bytes as the interface describes it, by counting only.
Outcome expectedOf(const std::string& line) {
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

  Outcome outcome;
  std::size_t bytes = 0;
  for (const std::string& next : pieces) {
    if (bytes > 1022) return {{}, "#Arguments exceeds limit"};
    if (next.empty()) continue;
    if (outcome.words.size() == 255) return {{}, "#Arguments exceeds limit"};
    outcome.words.emplace_back(next.c_str());  // up to a NUL, as texts of C end
    bytes += outcome.words.back().size() + 1;
  }
  if (bytes == 0 || bytes > 1024) return {{}, "cmd is empty or arguments exceeding limit"};
  return outcome;
}

std::string traceOf(const Outcome& outcome) {
  if (!outcome.message.empty()) return "err tarnFW " + outcome.message;
  std::string text = "exec " + outcome.words.front();
  for (std::size_t index = 1; index < outcome.words.size(); ++index) {
    text += " " + outcome.words[index];
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto times = static_cast<std::size_t>(input.number() + 256) % 256;
  const std::string unit = input.all();
  std::string line = unit;
  while (line.size() < times * unit.size() && line.size() < kLongestLine) line += unit;

  const Outcome expected = expectedOf(line);
  (void)trace::take();
  const bool done = FW::TARNFW().cmdExec(line);
  fuzz::requireEqual(traceOf(expected), trace::take(), "the words of a command line");
  fuzz::require(done == expected.message.empty(), "the result of a command line");
  return 0;
}
