// The machine that the tests of the command work on: the sandbox, with the real tools in it.

#ifndef TARNFW_TESTS_SYSTEM_MACHINE_H
#define TARNFW_TESTS_SYSTEM_MACHINE_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace machine {

// Makes the machine a new one: filter tables as after the boot, no profiles, settings, locks or
// modules, but a module list and a service table.
void reset();

void write(const std::string& path, const std::string& text);
// The whole file; empty when there is none.
std::string read(const std::string& path);

// A profile document whose adapter "global" has `count` rules, each giving lines in both families.
std::string profileOfRules(const std::string& name, int count);

// How a shell command ended: its exit status, or 128 + n for signal n.
struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs a shell command that finds `tarnfw` in its path, in a process group of its own.
Result run(const std::string& command);

// The filter tables of both families as "-S" prints them.
std::string filterTables();

// Everything that the command may change: filter tables, profile directory, the records of modules
// and of open policies.
std::string state();

// Asks until `holds` answers true; false when it has not within ten seconds.
bool eventually(const std::function<bool()>& holds);

}  // namespace machine

#endif
