// What switching on and off, a reload and a trial do, command by command, whatever becomes of each
// command: the lifecycle as a small model, to be compared with what the library really does.
//
// The machine of the model: interfaces eth0 and eth1, a profile that denies both and whose test
// profile is the same.

#ifndef TARNFW_TESTS_PROOF_STATUS_MATRIX_MODEL_H
#define TARNFW_TESTS_PROOF_STATUS_MATRIX_MODEL_H

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace matrix {

// What becomes of one command of the packet filter's tools.
enum class Outcome {
  kDone,        // exit status 0
  kStatus1,     // refused
  kStatus2,     // not understood
  kStatus4,     // no resources
  kNotStarted,  // there is no process
  kKilled,      // by a signal, before it has changed anything
  kKilledLate,  // by a signal, when it has done its work
  kHangs,       // ended by the platform's time limit, before it has changed anything
};

const char* name(Outcome outcome);

// The tool's exit status, -1: it was not run to its end.
int answer(Outcome outcome);
bool takesEffect(Outcome outcome);

// What becomes of the command at a position of the sequence, counted from 0.
using Plan = std::function<Outcome(int position)>;

// What the commands make of the packet filter: built-in policies, and how many rules the three
// chains have.
class Filter {
 public:
  Filter();
  void apply(const std::string& commandLine);
  bool open() const;
  std::string policies() const;  // "iptables INPUT ACCEPT FORWARD DROP ip6tables INPUT ..."
  std::string rules() const;     // "iptables FIREWALL_RELOADING 0 INPUT_FIREWALL 7 ..."

 private:
  std::map<std::string, std::string> policies_;  // "iptables INPUT" -> "ACCEPT"
  std::map<std::string, int> rules_;             // "iptables INPUT_FIREWALL" -> 7
};

// The compiled lines of the profile, tool included. `state`: with the connection-state accepts;
// `exempt`: the address left out of them, or empty.
std::vector<std::string> profileLines(bool state, const std::string& exempt = "");

// How the machine is before the operation, and what its profile compiles to.
struct Scenario {
  std::string name;
  std::string operation;  // "enable", "disable", "reload", "trial"
  bool enabled = true;
  bool modulesLoaded = true;
  std::vector<std::string> lines;
  std::vector<std::string> compileErrors;  // instead of lines: the log of a failed compilation
  std::function<bool()> call;              // the library's operation
};

class Model {
 public:
  Model(const Scenario& scenario, Plan plan);

  // Goes through the operation; the rest tells what came of it.
  bool run();

  bool enabled() const { return enabled_; }
  const Filter& filter() const { return filter_; }
  int commands() const { return position_; }

  // Commands, execution lock, hooks, kernel modules and errors, joined by newlines.
  const std::string& trace() const { return trace_; }

 private:
  bool enable();
  bool disable();
  bool reload();
  bool trial();

  bool throughDropPeriod(bool flushMustSucceed);
  bool apply(bool flushMustSucceed);
  bool dropSet();
  bool acceptSet();
  bool flush();
  bool runLines(const std::vector<std::string>& lines);
  bool runLine(const std::string& line);
  void hook(const char* name, bool result, int action);
  void loadModules();
  void unloadModules();
  void add(const std::string& line);
  void error(const std::string& message) { add("err tarnFW " + message); }

  const Scenario& scenario_;
  Plan plan_;
  bool enabled_;
  bool modulesLoaded_;
  int position_ = 0;
  Filter filter_;
  std::string trace_;
};

}  // namespace matrix

#endif
