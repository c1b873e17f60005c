// Every position of every operation's commands x every answer that the platform can give, on the
// recording platform: the exact sequence, the result, "status", the policies that the sequence
// leaves, and the execution lock.
//
// Besides one command that fails alone: every command from a position on, and two commands.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "counts.h"
#include "fakePlatform.h"
#include "figures.h"
#include "model.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using matrix::Model;
using matrix::Outcome;
using matrix::Plan;
using matrix::Scenario;

constexpr std::uint64_t kPromisedCases = 700;

figures::Counts tally("status-matrix/recorded", {"cases", "wrong"});

// What the platform can answer; a command that is killed and one that hangs are the same answer.
constexpr Outcome kAnswers[] = {Outcome::kDone,    Outcome::kStatus1,    Outcome::kStatus2,
                                Outcome::kStatus4, Outcome::kNotStarted, Outcome::kKilledLate};

// clang-format off
constexpr char kOn[] =
  "{\n"
  "   \"profile\" : \"office\",\n"
  "   \"status\" : true\n"
  "}\n";
constexpr char kOff[] =
  "{\n"
  "   \"profile\" : \"office\",\n"
  "   \"status\" : false\n"
  "}\n";

constexpr char kDenyBoth[] = R"({"eth0": 1, "eth1": 1, "global": 2})";

const std::vector<std::string> kUnknownPolicy = {
  "err fwIptables:574 Unknown policy 7",
  "err fwIptables:733 Failed to policyToIptablesArg()",
  "err tarnFW Failed to fwRulesToIptablesRules()"};
const std::vector<std::string> kNoTestProfile = {
  "err fwDB Failed to profileGet .test_home due to not exist",
  "err tarnFW Failed to profileGet(.test_home)"};
const std::vector<std::string> kBadAddress = {
  "err fwIptables:661 Invalid input argument 'nobody' which is not an IP address.",
  "err tarnFW Failed to fwRulesToIptablesRules()"};

bool enable() { return FW::TARNFW().fwEnable(); }
bool disable() { return FW::TARNFW().fwDisable(); }
bool reset() { return FW::TARNFW().fwReset(); }
bool reload() { return FW::TARNFW().fwReload(true); }
bool reloadWithoutState() { return FW::TARNFW().fwReload(false); }
bool reloadOfBroken() {
  files::writeProfile("1", "office", "null", R"({"eth0": 7})");
  return reload();
}
bool trial() { return FW::TARNFW().TestApplyingProfile("office"); }
bool trialFromV4() { return FW::TARNFW().TestApplyingProfile("office", "10.0.0.5"); }
bool trialFromV6() { return FW::TARNFW().TestApplyingProfile("office", "fe80::1"); }
bool trialFromNobody() { return FW::TARNFW().TestApplyingProfile("office", "nobody"); }
bool trialOfNothing() { return FW::TARNFW().TestApplyingProfile("home"); }

// The columns of flags: switched on before, kernel modules loaded before.
const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> theScenarios = {
    {"EnableOfAFreshMachine", "enable", false, false, matrix::profileLines(true), {}, enable},
    {"EnableOnceMore", "enable", true, true, matrix::profileLines(true), {}, enable},
    {"Disable", "disable", true, true, {}, {}, disable},
    {"DisableOnceMore", "disable", false, false, {}, {}, disable},
    {"Reset", "disable", true, true, {}, {}, reset},
    {"Reload", "reload", true, true, matrix::profileLines(true), {}, reload},
    {"ReloadWithoutModules", "reload", true, false, matrix::profileLines(true), {}, reload},
    {"ReloadWithoutState", "reload", true, true, matrix::profileLines(false), {}, reloadWithoutState},
    {"ReloadOfABrokenProfile", "reload", true, true, {}, kUnknownPolicy, reloadOfBroken},
    {"ReloadWhenSwitchedOff", "reload", false, true, {}, {}, reload},
    {"TrialWithoutAddress", "trial", true, true, matrix::profileLines(false), {}, trial},
    {"TrialFromV4", "trial", true, true, matrix::profileLines(true, "10.0.0.5"), {}, trialFromV4},
    {"TrialFromV6", "trial", true, true, matrix::profileLines(true, "fe80::1"), {}, trialFromV6},
    {"TrialFromNobody", "trial", true, true, {}, kBadAddress, trialFromNobody},
    {"TrialOfNothing", "trial", true, true, {}, kNoTestProfile, trialOfNothing},
    {"TrialWhenSwitchedOff", "trial", false, false, matrix::profileLines(false), {}, trial}};
  return theScenarios;
}
// clang-format on

void arrange(const Scenario& scenario) {
  fake::reset();
  fake::Machine& machine = fake::machine();
  machine.interfaces = {"eth0", "eth1"};
  machine.files["/usr/tarn/etc.defaults/iptables_modules_list"] = {
      {"KERNEL_MODULES_CORE", "core1.ko core2.ko"},
      {"KERNEL_MODULES_COMMON", "common.ko"},
      {"IPV6_MODULES", "ipv6.ko"}};
  machine.files["/tmp/iptables_serv_mod_list"] = {
      {"firewall", scenario.modulesLoaded ? "yes" : "no"}};
  files::write("/tmp/iptables_serv_mod_list", "");
  files::writeProfile("1", "office", "null", kDenyBoth);
  files::writeProfile("2", ".test_office", "null", kDenyBoth);
  files::writeSettings(scenario.enabled ? kOn : kOff);
}

// The trace without what only reads, and without the locks of the module users' file; the execution
// lock is "lock" and "unlock".
std::string actions(const std::string& trace) {
  constexpr char kLock[] = "lock /tmp/firewall_iptables_exec.lock 1 30";
  std::string text;
  std::string unlock = "none";
  int locks = 100;  // the number of the first one
  for (std::size_t start = 0; start < trace.size();) {
    const std::size_t end = std::min(trace.find('\n', start), trace.size());
    std::string line = trace.substr(start, end - start);
    start = end + 1;
    if (line == kLock) unlock = "unlock " + std::to_string(locks);
    if (line.rfind("lock ", 0) == 0) ++locks;
    if (line == kLock) line = "lock";
    if (line == unlock) line = "unlock";
    const bool counts = line == "lock" || line == "unlock" || line.rfind("exec ", 0) == 0 ||
                        line.rfind("plugin ", 0) == 0 || line.rfind("mod", 0) == 0 ||
                        line.rfind("err ", 0) == 0;
    if (counts) text += (text.empty() ? "" : "\n") + line;
  }
  return text;
}

class Recorded : public fake::MachineTest {
 protected:
  // One case: the operation with that plan does what the model says.
  static void attempt(const Scenario& scenario, const Plan& plan, const std::string& what) {
    Model model(scenario, plan);
    const bool expected = model.run();

    arrange(scenario);
    matrix::Filter filter;
    int position = 0;
    fake::machine().exec = [&](const std::string& commandLine) {
      const Outcome outcome = plan(position++);
      if (matrix::takesEffect(outcome)) filter.apply(commandLine);
      return matrix::answer(outcome);
    };
    const bool result = scenario.call();
    const std::string trace = actions(trace::take());
    const std::string settings = files::read(files::kSettingsFile);
    const char* const expectedSettings = model.enabled() ? kOn : kOff;
    tally.count("cases");
    if (result == expected && trace == model.trace() && settings == expectedSettings &&
        filter.policies() == model.filter().policies() &&
        filter.rules() == model.filter().rules() && fake::alive().empty()) {
      return;
    }
    tally.count("wrong");
    SCOPED_TRACE(scenario.name + ", " + what);
    EXPECT_EQ(expected, result);
    EXPECT_EQ(model.trace(), trace);
    EXPECT_EQ(expectedSettings, settings);
    EXPECT_EQ(model.filter().policies(), filter.policies());
    EXPECT_EQ(model.filter().rules(), filter.rules());
    EXPECT_EQ("", fake::alive());
  }

  // How many commands the operation runs when each succeeds.
  static int commands(const Scenario& scenario) {
    Model model(scenario, [](int) { return Outcome::kDone; });
    (void)model.run();
    return model.commands();
  }
};

std::string at(const char* how, int position, Outcome outcome) {
  return std::string(how) + " " + std::to_string(position) + ": " + matrix::name(outcome);
}

// --- the cases of one operation ---

class Cases : public Recorded {
 protected:
  static void oneCommand(const Scenario& scenario) {
    for (int failing = 0; failing < commands(scenario) && !HasFailure(); ++failing) {
      for (const Outcome outcome : kAnswers) {
        attempt(
            scenario, [=](int position) { return position == failing ? outcome : Outcome::kDone; },
            at("command", failing, outcome));
      }
    }
    if (commands(scenario) == 0) {
      attempt(
          scenario, [](int) { return Outcome::kNotStarted; }, "no command");
    }
  }

  static void everyCommandFromOneOn(const Scenario& scenario) {
    for (int first = 0; first < commands(scenario) && !HasFailure(); ++first) {
      for (const Outcome outcome :
           {Outcome::kStatus1, Outcome::kNotStarted, Outcome::kKilledLate}) {
        attempt(
            scenario, [=](int position) { return position >= first ? outcome : Outcome::kDone; },
            at("commands from", first, outcome));
      }
    }
  }

  // The second one is counted in the sequence that the first one leads to. There are thousands of
  // pairs: usually every seventh is taken.
  static void twoCommands(const Scenario& scenario) {
    constexpr int kMore = 10;  // the first may lead to a longer sequence
    const int step = std::max(1, 7 / figures::longer());
    const int count = commands(scenario);
    int pair = 0;
    for (int first = 0; first < count && !HasFailure(); ++first) {
      for (int second = first + 1; second < count + kMore; ++second) {
        if (++pair % step != 0) continue;
        const Outcome outcome = pair / step % 2 == 0 ? Outcome::kNotStarted : Outcome::kStatus4;
        attempt(
            scenario,
            [=](int position) {
              if (position == first) return Outcome::kNotStarted;
              return position == second ? outcome : Outcome::kDone;
            },
            "command " + std::to_string(first) + " and " + at("command", second, outcome));
      }
    }
  }
};

TEST_F(Cases, DoWhatTheModelDoes) {
  for (const Scenario& scenario : scenarios()) {
    oneCommand(scenario);
    everyCommandFromOneOn(scenario);
    twoCommands(scenario);
  }
  EXPECT_LE(kPromisedCases, tally.counted("cases"));
  EXPECT_EQ(0U, tally.counted("wrong"));
}

// Without the model: whatever happens to a command that neither shuts nor opens the policies, they
// are open afterwards.
TEST_F(Recorded, PoliciesAreOpenUnlessTheyCannotBeChanged) {
  for (const Scenario& scenario : scenarios()) {
    for (int failing = 0; failing < commands(scenario) && !HasFailure(); ++failing) {
      for (const Outcome outcome : kAnswers) {
        arrange(scenario);
        matrix::Filter filter;
        int position = 0;
        bool excused = false;
        fake::machine().exec = [&](const std::string& commandLine) {
          const Outcome becomes = position++ == failing ? outcome : Outcome::kDone;
          if (matrix::takesEffect(becomes)) filter.apply(commandLine);
          const bool policy = commandLine.find("--policy") != std::string::npos ||
                              commandLine.find("FIREWALL_RELOADING") != std::string::npos;
          excused = excused || (policy && becomes != Outcome::kDone);
          return matrix::answer(becomes);
        };
        (void)scenario.call();
        (void)trace::take();
        EXPECT_TRUE(excused || filter.open())
            << scenario.name << ", " << at("command", failing, outcome);
      }
    }
  }
}

}  // namespace
