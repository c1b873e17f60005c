// A sample of the matrix on the real platform: the library as it ships, tools that really are
// refused, missing, killed or hang, and the policies and rules that the kernel has in the end.
//
// The suite that begins with Slow waits out the platform's time limit for a tool, all at once.

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "counts.h"
#include "figures.h"
#include "listing.h"
#include "machine.h"
#include "model.h"
#include "process.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

using matrix::Model;
using matrix::Outcome;
using matrix::Plan;
using matrix::Scenario;

constexpr char kToolPlan[] = "/tmp/tool/plan";  // of the tool that stands in
constexpr char kProfile[] = "office";

// The name of the tools' variant, given by whoever starts the program.
std::string variant() {
  const char* const name = std::getenv("TARN_VARIANT");
  return name == nullptr ? "real" : name;
}

figures::Counts tally("status-matrix/" + variant(), {"cases", "wrong"});

// --- between the library and the platform ---

// What becomes of the running case's commands, and the commands so far.
struct Sequence {
  Plan plan;
  std::vector<std::string> commands;
};

Sequence* running = nullptr;

// What the tool that stands in does for an outcome.
const char* toolPlan(Outcome outcome) {
  switch (outcome) {
    case Outcome::kStatus1:
      return "exit 1 *";
    case Outcome::kStatus2:
      return "exit 2 *";
    case Outcome::kStatus4:
      return "exit 4 *";
    case Outcome::kKilled:
      return "signal 9 *";
    case Outcome::kHangs:
      return "hang *";
    default:
      return "real *";
  }
}

// Takes a tool away while it lives.
class ToolIsGone {
 public:
  explicit ToolIsGone(const std::string& tool) : tool_(tool) {
    std::filesystem::rename(tool_, tool_ + ".gone");
  }
  ~ToolIsGone() { std::filesystem::rename(tool_ + ".gone", tool_); }
  ToolIsGone(const ToolIsGone&) = delete;
  ToolIsGone& operator=(const ToolIsGone&) = delete;

 private:
  std::string tool_;
};

using Execute = int (*)(const char*, char* const*, int);

int executeReally(const char* path, char* const argv[], int wait) {
  static const auto kReal = reinterpret_cast<Execute>(dlsym(RTLD_NEXT, "TLIBCExecv"));
  return kReal(path, argv, wait);
}

}  // namespace

// The library's calls arrive here first.
int TLIBCExecv(const char* path, char* const argv[], int wait) {
  if (running == nullptr) return executeReally(path, argv, wait);
  std::string command = argv[0];
  for (char* const* word = argv + 1; *word != nullptr; ++word) command += std::string(" ") + *word;
  const Outcome outcome = running->plan(static_cast<int>(running->commands.size()));
  running->commands.push_back(command);
  if (outcome == Outcome::kNotStarted) {
    const ToolIsGone gone(path);
    return executeReally(path, argv, wait);
  }
  files::write(kToolPlan, toolPlan(outcome));
  const int result = executeReally(path, argv, wait);
  files::write(kToolPlan, "real *");
  return result;
}

namespace {

bool enable() { return FW::TARNFW().fwEnable(); }
bool disable() { return FW::TARNFW().fwDisable(); }
bool reload() { return FW::TARNFW().fwReload(true); }
bool trial() { return FW::TARNFW().TestApplyingProfile(kProfile, "10.0.0.5"); }

// The modules' state does not matter here: the model's commands are compared, and nothing else.
const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> theScenarios = {
      {"Enable", "enable", false, true, matrix::profileLines(true), {}, enable},
      {"Disable", "disable", true, true, {}, {}, disable},
      {"Reload", "reload", true, true, matrix::profileLines(true), {}, reload},
      {"Trial", "trial", true, true, matrix::profileLines(true, "10.0.0.5"), {}, trial}};
  return theScenarios;
}

// --- the cases ---

std::string joined(const std::vector<std::string>& commands) {
  std::string text;
  for (const std::string& command : commands) text += "exec " + command + "\n";
  return text;
}

std::string commandsOf(const std::string& trace) {
  std::istringstream lines(trace);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("exec ", 0) == 0) text += line + "\n";
  }
  return text;
}

class Real : public road::RoadTest {
 protected:
  void SetUp() override {
    std::filesystem::create_directories("/tmp/tool");
    std::filesystem::remove("/tmp/tool/hung");
    files::write(kToolPlan, "real *");
    RoadTest::SetUp();
    files::writeProfile("2", kProfile, "null", R"({"eth0": 1, "eth1": 1})");
    files::writeProfile("3", std::string(".test_") + kProfile, "null", R"({"eth0": 1, "eth1": 1})");
  }

  static void attempt(const Scenario& scenario, const Plan& plan, const std::string& what) {
    SCOPED_TRACE(scenario.name + ", " + what);
    Model model(scenario, plan);
    const bool expected = model.run();

    road::makeBaseChains();
    files::writeSettings(std::string(R"({"profile": "office", "status": )") +
                         (scenario.enabled ? "true}" : "false}"));
    const std::string untouched = files::read(files::kSettingsFile);
    Sequence sequence = {plan, {}};
    running = &sequence;
    const bool result = scenario.call();
    running = nullptr;

    const bool failed = HasFailure();
    EXPECT_EQ(expected, result);
    EXPECT_EQ(commandsOf(model.trace()), joined(sequence.commands));
    const proof::Listing seen = proof::listing();
    EXPECT_EQ(model.filter().policies(), seen.policies);
    EXPECT_EQ(model.filter().rules(), seen.rules);
    const bool written = files::read(files::kSettingsFile) != untouched;
    EXPECT_EQ(model.enabled(), written ? road::status() == "on" : scenario.enabled);
    EXPECT_TRUE(road::executionLockIsFree());
    tally.count("cases");
    if (HasFailure() && !failed) tally.count("wrong");
  }

  static void attempt(const Scenario& scenario, int failing, Outcome outcome) {
    attempt(
        scenario, [=](int position) { return position == failing ? outcome : Outcome::kDone; },
        "command " + std::to_string(failing) + ": " + matrix::name(outcome));
  }

  static int commands(const Scenario& scenario) {
    Model model(scenario, [](int) { return Outcome::kDone; });
    (void)model.run();
    return model.commands();
  }
};

// Of all positions and outcomes every 17th, and others with the other variant of the tools.
TEST_F(Real, EverySoManyCases) {
  constexpr int kStep = 17;  // shares no factor with the number of outcomes
  constexpr std::uint64_t kPromisedCases = 30;
  const int step = std::max(1, kStep / figures::longer());
  int number = road::output("iptables -V").find("legacy") != std::string::npos ? step / 2 : 0;
  for (const Scenario& scenario : scenarios()) {
    attempt(scenario, -1, Outcome::kDone);
    for (int failing = 0; failing < commands(scenario) && !HasFailure(); ++failing) {
      for (const Outcome outcome : {Outcome::kStatus1, Outcome::kStatus2, Outcome::kStatus4,
                                    Outcome::kNotStarted, Outcome::kKilled}) {
        if (number++ % step == 0) attempt(scenario, failing, outcome);
      }
    }
  }
  EXPECT_LE(kPromisedCases, tally.counted("cases"));
  EXPECT_EQ(0U, tally.counted("wrong"));
}

// --- tools that hang ---

struct HangRow {
  const char* name;
  std::size_t scenario;
  int position;
};

class SlowHang : public Real, public testing::WithParamInterface<HangRow> {};

TEST_P(SlowHang, IsEnded) {
  attempt(scenarios()[GetParam().scenario], GetParam().position, Outcome::kHangs);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SlowHang,
    testing::Values(HangRow{"EnableInTheDropSet", 0, 3}, HangRow{"EnableInTheLines", 0, 30},
                    HangRow{"Disable", 1, 2}, HangRow{"ReloadInTheFirstCommand", 2, 0},
                    HangRow{"ReloadInTheFlush", 2, 8}, HangRow{"ReloadInTheLines", 2, 12},
                    HangRow{"ReloadInTheAcceptSet", 2, 37}, HangRow{"TrialInTheDropSet", 3, 4},
                    HangRow{"TrialInTheFlush", 3, 7}, HangRow{"TrialInTheLines", 3, 20},
                    HangRow{"TrialInTheLastCommand", 3, 41}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
