// A second compiler: the argument lines of a profile, written down without looking at the first.

#ifndef TARNFW_TESTS_FUZZ_COMMAND_MODEL_H
#define TARNFW_TESTS_FUZZ_COMMAND_MODEL_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "fakePlatform.h"
#include "tarnfirewall_records.h"

namespace fuzz {

// What a compilation can see of the machine.
struct Machine {
  std::vector<std::string> interfaces;
  std::string pppoe;  // empty: no link
  bool wireless = false;
  bool listed = true;  // false: the interfaces cannot be listed
  std::vector<fake::Service> services;
  std::map<std::string, std::pair<bool, bool>> countries;  // code -> has IPv4, has IPv6 ranges
};

// "v4" or "v6" -> adapter -> lines
using Commands = std::map<std::string, std::map<std::string, std::vector<std::string>>>;

// Fills `commands`; false where the compilation fails, with the lines made so far.
bool compile(const Machine& machine, const FW::FWPROFILE& profile, bool withState,
             const std::string& exempt, Commands& commands);

// One line a line: "v4 eth0: -t filter ...".
std::string textOf(const Commands& commands);

}  // namespace fuzz

#endif
