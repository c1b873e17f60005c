// Programs that have done odd things to themselves before they call the library.

#ifndef TARNFW_TESTS_PROOF_ODDHOSTS_HOSTS_H
#define TARNFW_TESTS_PROOF_ODDHOSTS_HOSTS_H

#include <string>
#include <vector>

namespace oddHosts {

struct Host {
  const char* name;
  bool (*arrange)();           // in the process that calls the library; false: it cannot be done
  bool writesNothing = false;  // a file of more than 8 bytes cannot be written
  bool limited = false;        // the limit on files may be final
};

const std::vector<Host>& hosts();

// Makes /tmp/poison: libraries and programs that leave the file /tmp/poison/mark.
void makePoison();

// Sets every variable by which they would get into a program.
void poisonTheEnvironment();

// Everything that a host has of its own and the library must leave alone: mask, signals, handlers,
// descriptors, environment, directory, locale, limits, timers, children, group.
std::string stateOfHost();

}  // namespace oddHosts

#endif
