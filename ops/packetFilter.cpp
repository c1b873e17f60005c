#include "packetFilter.h"

#include <cstring>

#include "constants.h"
#include "linux/packetFilterTool.h"
#include "memoryFile.h"

namespace ops {
namespace {

std::string reasonOf(const tarnrun::Outcome& outcome) {
  if (outcome.timedOut) {
    return "killed after " + std::to_string(tarnrun::kProgramSeconds) + " seconds";
  }
  if (outcome.signal != 0) return std::string("killed: ") + strsignal(outcome.signal);
  return std::strerror(outcome.error);
}

}  // namespace

const char* toolOf(Family family) { return family == Family::kV4 ? FW::kIptables : FW::kIp6tables; }

const char* keyOf(Family family) { return family == Family::kV4 ? "v4" : "v6"; }

const char* titleOf(Family family) { return family == Family::kV4 ? "IPv4" : "IPv6"; }

std::string Command::text() const {
  std::string line = toolOf(family);
  for (const std::string& argument : arguments) line += " " + argument;
  return line;
}

std::string ToolRun::words() const {
  const std::vector<std::string> lines = linesOf(output);
  for (const std::string& line : lines) {
    if (!line.empty()) return line;
  }
  return "exit status " + std::to_string(status);
}

ToolRun runProgram(const char* program, const std::vector<std::string>& arguments) {
  std::vector<std::string> words = {program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> vector;
  vector.reserve(words.size() + 1);
  for (std::string& word : words) vector.push_back(word.data());
  vector.push_back(nullptr);

  const Descriptor output = memoryFile("output");
  tarnrun::Program tool;
  tool.path = program;
  tool.argv = vector.data();
  tool.output = output.get();
  const tarnrun::Outcome outcome = tarnrun::runPacketFilterTool(tool);
  if (outcome.status < 0) return {outcome.status, reasonOf(outcome)};
  return {outcome.status, contents(output)};
}

ToolRun run(const Command& command) {
  return runProgram(toolOf(command.family), command.arguments);
}

}  // namespace ops
