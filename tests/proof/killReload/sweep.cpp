#include "sweep.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include "constants.h"
#include "lock.h"
#include "machine.h"
#include "tally.h"
#include "tarnfirewall.h"

namespace sweep {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kAlternatives[] = "/etc/alternatives/";
constexpr char kInterruption[] = "/run/interruption";
constexpr char kProfile[] = "/usr/tarn/etc/firewall.d/default.json";
constexpr char kTestProfile[] = "/usr/tarn/etc/firewall.d/trial.json";
// Seconds. A reload that waits for something that the dead have left takes its whole time-out, 30;
// a machine that is busy with other things may well take some.
constexpr double kReloadLimit = 20;

std::string whole;                             // the filter tables when the profile is loaded
std::map<std::string, std::string> documents;  // as they were written

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

// A rule for two ports of IPv4; no tool takes a port above 65535.
std::string profileText(const std::string& name, bool refused) {
  std::string rules;
  for (const char* port : {"22", refused ? "99999" : "80"}) {
    rules +=
        std::string(rules.empty() ? "" : ", ") +
        R"({"enable": true, "adapterDirect": 1, "policy": 0, "table": "filter", "ipType": 0, )" +
        R"("ipDirect": 1, "ipGroup": 5, "portGroup": 1, "protocol": 1, "portList": [")" + port +
        "\"]}";
  }
  return R"({"name": ")" + name + R"(", "adapterPolicyMap": {"global": 2}, "rules": {"global": [)" +
         rules + "]}}\n";
}

void putInterruptingTool() {
  for (const std::string tool : {"iptables", "ip6tables"}) {
    const std::string link = kAlternatives + tool;
    const std::string before = link + "-before";
    if (std::filesystem::is_symlink(before)) continue;
    ASSERT_EQ(0, rename(link.c_str(), before.c_str()));
    ASSERT_EQ(0, symlink(TARN_INTERRUPTING_TOOL, link.c_str()));
  }
}

// What of a drop period the tables still hold.
struct Remains {
  int closed = 0;  // policies
  int stale = 0;   // connection-state accepts in FIREWALL_RELOADING
};

Remains remainsIn(const std::string& tables) {
  Remains remains;
  std::istringstream lines(tables);
  for (std::string line; std::getline(lines, line);) {
    if (line == "-P INPUT DROP" || line == "-P FORWARD DROP") ++remains.closed;
    if (line.rfind("-A FIREWALL_RELOADING ", 0) == 0 &&
        line.find("ESTABLISHED") != std::string::npos) {
      ++remains.stale;
    }
  }
  return remains;
}

bool lockIsFree() {
  int fd = -1;
  return TLIBCFileLockTimeByFile(FW::kExecutionLock, FW::kExclusive, /*seconds=*/0, &fd) == 1 &&
         TLIBCFileUnlockByFile(fd) == 1;
}

// "status" of the settings document, which holds the active profile too; nothing when it is
// damaged.
std::optional<bool> storedStatus() {
  Json::Value settings;
  std::istringstream text(machine::read(FW::kSettingsFile));
  Json::CharReaderBuilder reader;
  std::string errors;
  if (!Json::parseFromStream(reader, text, &settings, &errors) || !settings.isObject() ||
      settings["profile"] != "default" || !settings["status"].isBool()) {
    return std::nullopt;
  }
  return settings["status"].asBool();
}

bool profilesAreWhole() {
  for (const auto& [path, text] : documents) {
    if (machine::read(path) != text) return false;
  }
  return true;
}

// A reload that has been timed.
struct Reload {
  bool done = false;
  double seconds = 0;
};

Reload reload() {
  const auto begin = Clock::now();
  const bool done = FW::TARNFW().fwReload(/*withState=*/true);
  return {done, secondsSince(begin)};
}

// The reload that `tarnfw recover` ends with counts as the next one.
std::optional<Reload> recover() {
  const auto begin = Clock::now();
  const machine::Result result = machine::run("exec tarnfw recover --json");
  Json::Value answer;
  std::istringstream text(result.out);
  Json::CharReaderBuilder reader;
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(reader, text, &answer, &errors)) << result.out << result.err;
  if (!answer["reloaded"].asBool()) return std::nullopt;
  return Reload{true, secondsSince(begin)};
}

// Prints the tally when the program ends.
class TallyPrinter : public testing::Environment {
 public:
  void TearDown() override { (void)std::printf("%s\n", Tally::of().text().c_str()); }
};
const testing::Environment* const kPrinter =
    testing::AddGlobalTestEnvironment(new TallyPrinter);  // NOLINT: owned by the framework

}  // namespace

void setUp(bool refused) {
  machine::reset();
  putInterruptingTool();
  documents = {{kProfile, profileText("default", refused)},
               {kTestProfile, profileText(".test_default", refused)}};
  for (const auto& [path, text] : documents) machine::write(path, text);
  const machine::Result ready = machine::run("tarnfw setup -q");
  ASSERT_EQ(0, ready.status) << ready.err;
  ASSERT_TRUE(FW::TARNFW().fwEnable());
  whole = machine::filterTables();
  ASSERT_EQ(0, remainsIn(whole).closed + remainsIn(whole).stale);
  ASSERT_NE(std::string::npos, whole.find("--dport 22")) << whole;
}

void prepare(const Operation& operation) {
  const std::optional<bool> status = storedStatus();
  ASSERT_TRUE(status);
  if (operation.on) {
    ASSERT_TRUE(*status || FW::TARNFW().fwEnable());
  } else {
    ASSERT_TRUE(FW::TARNFW().fwDisable());
  }
}

std::vector<std::string> victim(const Operation& operation) {
  return {TARN_VICTIM, operation.name};
}

void planSignal(long call, const std::string& signal, const std::string& target, bool after) {
  std::filesystem::remove_all(kInterruption);
  ASSERT_EQ(0, mkdir(kInterruption, 0700));
  machine::write(std::string(kInterruption) + "/plan",
                 std::to_string(call) + " " + signal + " " + target + (after ? " after\n" : "\n"));
}

bool forgetPlan() {
  EXPECT_TRUE(machine::eventually(alone));
  EXPECT_EQ(0, unlink((std::string(kInterruption) + "/plan").c_str()));
  return std::filesystem::exists(std::string(kInterruption) + "/tool");
}

long countCalls(const std::vector<std::string>& command) {
  planSignal(0, "KILL", "worker", /*after=*/false);
  EXPECT_EQ(0, waitFor(start(command)).signal);
  (void)forgetPlan();
  return static_cast<long>(machine::read(std::string(kInterruption) + "/calls").size());
}

void judge(const std::string& point, const Claim& claim) {
  SCOPED_TRACE(point);
  EXPECT_TRUE(machine::eventually(alone)) << "somebody is left";
  Tally& tally = Tally::of();
  ++tally.points;
  ++tally.pointsOf(claim.signal);

  const bool free = lockIsFree();
  if (!free) ++tally.locked;
  EXPECT_TRUE(free) << "the execution lock is held";

  const std::optional<bool> status = storedStatus();
  if (!status || !profilesAreWhole()) ++tally.damaged;
  EXPECT_TRUE(status) << machine::read(FW::kSettingsFile);
  EXPECT_TRUE(profilesAreWhole());
  if (claim.status && status && *claim.status != *status) {
    ++tally.wrongStatus;
    ADD_FAILURE() << "status is " << *status;
  }

  std::string tables = machine::filterTables();
  const Remains left = remainsIn(tables);
  if (left.closed > 0) ++tally.closedBefore;
  std::optional<Reload> next;
  if (claim.recovers) {
    next = recover();
    tables = machine::filterTables();
  }
  const Remains remains = remainsIn(tables);
  if (remains.closed > 0) ++tally.closed;
  if (remains.stale > 0) ++tally.stale;
  EXPECT_EQ(0, remains.closed) << tables;
  EXPECT_EQ(0, remains.stale) << tables;

  if (!next) {
    next = reload();
    tables = machine::filterTables();
  }
  const bool loaded = status.value_or(true) ? tables == whole : remainsIn(tables).closed == 0;
  const bool quick = next->seconds < kReloadLimit;
  if (!next->done || !loaded || !quick) ++tally.failedReloads;
  EXPECT_TRUE(next->done);
  EXPECT_TRUE(loaded) << tables;
  EXPECT_TRUE(quick) << next->seconds << " seconds";
}

bool traces() {
  if (whyNoTrace().empty()) return true;
  ++Tally::of().untraced;
  return false;
}

bool ours(std::size_t point) {
  const char* const text = std::getenv("TARN_PART");
  if (text == nullptr) return true;
  std::size_t part = 0;
  std::size_t parts = 1;
  char slash = 0;
  std::istringstream(text) >> part >> slash >> parts;
  return point % parts == part;
}

bool alone() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos && name != "1" &&
        name != std::to_string(getpid())) {
      return false;
    }
  }
  return true;
}

}  // namespace sweep
