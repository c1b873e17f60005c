// What hosts ask of the library, and what there is to see afterwards.

#ifndef TARNFW_TESTS_PROOF_ODDHOSTS_OPERATIONS_H
#define TARNFW_TESTS_PROOF_ODDHOSTS_OPERATIONS_H

#include <string>
#include <vector>

namespace oddHosts {

struct Outcome {
  const char* answer;   // of run
  const char* result;   // of seen
  const char* plugIns;  // how they were called, and with which result
};

struct Operation {
  const char* name;
  void (*arrange)();      // in the test program, before the host is started
  std::string (*run)();   // in the host
  std::string (*seen)();  // in the test program, after the host has ended
  Outcome outcome;
  Outcome withoutFiles;  // in a host that may write no files
};

const std::vector<Operation>& operations();

// Base chains, seed files, the active profile "road", the firewall off, the observer as a plug-in;
// an empty system log.
void prepare();

}  // namespace oddHosts

#endif
