// A command line is split as a second implementation splits it: the words, their order, and which
// lines are refused.
//
// Input: a number, how long the line is made, then the line. Long lines cannot be had from small
// inputs otherwise: the line is repeated up to that many times, so that the limits of 1,024 bytes
// and 255 words are in reach.

#include <string>

#include "check.h"
#include "fakePlatform.h"
#include "input.h"
#include "splittingModel.h"
#include "tarnfirewall.h"
#include "trace.h"

namespace {

constexpr std::size_t kLongestLine = 1500;

std::string traceOf(const fuzz::Split& split) {
  if (!split.message.empty()) return "err tarnFW " + split.message;
  std::string text = "exec " + split.words.front();
  for (std::size_t index = 1; index < split.words.size(); ++index) {
    text += " " + split.words[index];
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

  const fuzz::Split expected = fuzz::splitOf(line);
  (void)trace::take();
  const bool done = FW::TARNFW().cmdExec(line);
  fuzz::requireEqual(traceOf(expected), trace::take(), "the words of a command line");
  fuzz::require(done == expected.message.empty(), "the result of a command line");
  return 0;
}
