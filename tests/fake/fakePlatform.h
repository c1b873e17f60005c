// A platform that records what the library asks of it and answers what the test says.
//
// Every request is one line of the trace:
//
//   exec /sbin/iptables -F INPUT_FIREWALL
//   lock /tmp/firewall_iptables_exec.lock 1 30        mode and seconds
//   unlock 100                                        the first lock of a test is 100, the next 101
//   get FILE KEY     set FILE KEY=VALUE     check FILE KEY=VALUE
//   interfaces 32 8                                   capacity and kind
//   pppoe            support support_wireless
//   services enum    services free
//   modinsert firewall a.ko b.ko                      modremove likewise
//   plugin init net net/firewall_enable     plugin set RESULT=0     plugin action 4     plugin exit
//   list alloc 1024  list free
//   error 0x0D00                                      the library set the platform error
//
// Not recorded, because it would drown the trace: TLIBCFileExist, TARNFSMkdirP, TLIBCSzListPush,
// TLIBCSzListGet, TARNFWServiceFind, the address checks, reading the platform error, releasing
// null. What is not in Machine is absent. A request that breaks the contract of platform/*.h fails
// the test.

#ifndef TARNFW_TESTS_FAKE_PLATFORM_H
#define TARNFW_TESTS_FAKE_PLATFORM_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace fake {

// One side of a service record.
struct Ports {
  int protocol = 0;
  std::optional<std::vector<std::string>> ports;  // absent: the record has no list
};

struct Service {
  std::string name;
  bool available = true;
  Ports source;
  Ports destination;
};

// What a request answers instead of what it would, with the errno it leaves.
struct Answer {
  Answer(int resultIs, int errnoIs = 0) : result(resultIs), error(errnoIs) {}
  int result;
  int error;
};

struct PlatformError {
  int code = 0;
  std::string file;
  int line = 0;
};

// What the machine is.
struct Machine {
  std::vector<std::string> interfaces;
  std::string pppoe;                      // interface of the PPPoE link; empty: there is none
  std::vector<std::string> capabilities;  // "support_wireless"
  std::map<std::string, std::map<std::string, std::string>> files;  // file -> key -> value
  std::vector<Service> services;  // none: the database cannot be read

  // Requests that answer something else, by their line in the trace: {"plugin action 4", -1}. Also
  // taken for "mkdir PATH", "exist PATH", "list push TEXT", "ipv4 TEXT" and "ipv6 TEXT" (is it an
  // address?), which are not recorded. A failing
  // "list alloc" or "plugin init" makes no object; a negative answer sets the platform error to
  // `failure`.
  std::map<std::string, Answer> answers;
  PlatformError failure = {0x0400, "platform.c", 12};
  bool failedPluginInitLeavesHandle = false;

  // Exit status of a command line, -1: it could not be run. Empty: 0.
  std::function<int(const std::string& commandLine)> exec;

  // Called with each request after it was recorded; may throw.
  std::function<void(const std::string& request)> meanwhile;
};

// The machine of the running test.
Machine& machine();

// A machine that has nothing; what the last test left alive is forgotten.
void reset();

// What the library has not released, or "": "1 lock, 2 lists".
std::string alive();

// Sets up an empty machine, empty directories and an empty trace. Expects at the end that the
// library has released everything, descriptors and locks included, and that the test has looked at
// the whole trace.
class MachineTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  std::string descriptors_;
};

}  // namespace fake

#endif
