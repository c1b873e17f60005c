// Runs the packet filter's tools, the way the platform runs them for the library: fixed
// environment, the xtables lock held, a bounded time.

#ifndef TARNFW_OPS_PACKETFILTER_H
#define TARNFW_OPS_PACKETFILTER_H

#include <array>
#include <string>
#include <vector>

namespace ops {

enum class Family { kV4, kV6 };

inline constexpr std::array<Family, 2> kFamilies = {Family::kV4, Family::kV6};

// "/sbin/iptables" or "/sbin/ip6tables".
const char* toolOf(Family family);

// "v4" or "v6", the member names of command documents.
const char* keyOf(Family family);

// "IPv4" or "IPv6".
const char* titleOf(Family family);

// One call of a tool.
//   arguments  what follows the tool's path
struct Command {
  Family family;
  std::vector<std::string> arguments;

  // The whole command line, words joined by blanks.
  std::string text() const;
};

// How a call ended.
//   status  the tool's exit status; -1 when it could not be run, was killed or ran out of time
//   output  what it wrote, standard output and standard error as they came
struct ToolRun {
  int status = -1;
  std::string output;

  // The first line of the output, or the status in words when there is none.
  std::string words() const;
};

ToolRun run(const Command& command);

// Runs `program` as a packet-filter tool with `arguments`.
ToolRun runProgram(const char* program, const std::vector<std::string>& arguments);

}  // namespace ops

#endif
