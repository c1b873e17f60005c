// Bad surroundings: tools that are missing, refuse, crash or hang, kernel modules and plug-ins that
// do not do what they should, a lock that somebody keeps. Each row says what is wrong, and then the
// result, the policies, the recorded status and the errors logged. The tools are a stand-in that
// does what it is told.

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>

#include "lock.h"
#include "machine.h"
#include "processes.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

namespace fs = std::filesystem;

constexpr char kCalls[] = "/tmp/tool/calls";
constexpr char kPlan[] = "/tmp/tool/plan";
constexpr char kEnableHooks[] = "/usr/tarn/libexec/plugins/net/firewall_enable";

void plan(const std::string& text) { files::write(kPlan, text); }

// The built-in policies by the commands that succeeded: "ACCEPT ACCEPT ACCEPT ACCEPT" for INPUT and
// FORWARD of both tools.
std::string policiesByCalls() {
  std::map<std::string, std::string> policies = {{"iptables INPUT", "ACCEPT"},
                                                 {"iptables FORWARD", "ACCEPT"},
                                                 {"ip6tables INPUT", "ACCEPT"},
                                                 {"ip6tables FORWARD", "ACCEPT"}};
  std::istringstream calls(files::read(kCalls));
  for (std::string line; std::getline(calls, line);) {
    std::istringstream words(line);
    std::string tool;
    std::string option;
    std::string chain;
    std::string policy;
    std::string equals;
    std::string result;
    words >> tool >> option >> chain >> policy >> equals >> result;
    if (option == "--policy" && result == "0") policies[tool + " " + chain] = policy;
  }
  return policies["iptables INPUT"] + " " + policies["iptables FORWARD"] + " " +
         policies["ip6tables INPUT"] + " " + policies["ip6tables FORWARD"];
}

bool enable() { return FW::TARNFW().fwEnable(); }
bool disable() { return FW::TARNFW().fwDisable(); }
bool reload() { return FW::TARNFW().fwReload(true); }

void switchOn() {
  files::writeSettings("{\n   \"profile\" : \"road\",\n   \"status\" : true\n}\n");
}

struct Row {
  const char* name;
  void (*arrange)();  // what is wrong
  bool (*operation)();
  bool result;
  const char* policies;
  const char* status;
  std::string log;

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

std::string rowName(const testing::TestParamInfo<Row>& info) { return info.param.name; }

class Surroundings : public road::RoadTest, public testing::WithParamInterface<Row> {
 protected:
  // The stand-in has no chains to make: only files are set up.
  void SetUp() override {
    fs::remove_all("/tmp/tool");
    fs::create_directories("/tmp/tool");
    road::installSeedFiles();
    files::write("/run/syslog", "");
    FW::FWPROFILE profile;
    profile.adapterPolicyMap = {{"global", FW::FW_POLICY_NONE}};
    store(profile);
  }

  void expectRow() {
    const Row& row = GetParam();
    row.arrange();
    const std::string profiles = profileDocuments();
    EXPECT_EQ(row.result, row.operation());
    EXPECT_EQ(row.policies, policiesByCalls());
    EXPECT_EQ(row.status, road::status());
    EXPECT_EQ(row.log, road::libraryLog(row.log));
    EXPECT_EQ(profiles, profileDocuments()) << "documents changed";
  }

 private:
  static std::string profileDocuments() {
    std::string text;
    for (const std::string& name : files::list(files::kProfileDirectory)) {
      text += name + "\n";
      if (name != "firewall_settings.json") text += files::read(files::kProfileDirectory + name);
    }
    return text;
  }
};

// --- the tools ---

class Tools : public Surroundings {
 protected:
  void SetUp() override {
    Surroundings::SetUp();
    standIn_ = fs::read_symlink("/sbin/iptables");
  }
  void TearDown() override {
    for (const char* link : {"/sbin/iptables", "/sbin/ip6tables"}) {
      fs::remove(link);
      fs::create_symlink(standIn_, link);
    }
    Surroundings::TearDown();
  }

 private:
  fs::path standIn_;
};

TEST_P(Tools, Row) { expectRow(); }

// clang-format off

const std::string kRulesNotApplied = "tarnFW Failed to apply firewall rules\n";
const std::string kDropNotSet = "tarnFW Failed to fwExec() to set default drop.\n" + kRulesNotApplied;
const std::string kSwitchedOff = "tarnFW Failed to fwExec() so disable firewall\n" + kRulesNotApplied;
const std::string kAcceptNotSet = "tarnFW Failed to fwExec() to set default accept.\n" + kRulesNotApplied;

std::string notRun(const std::string& tool, const std::string& arguments) {
  return "tarnFW Failed to execute " + tool + "\ntarnFW Failed to execute \"" + tool + " " + arguments + "\"\n";
}

constexpr char kOpen[] = "ACCEPT ACCEPT ACCEPT ACCEPT";

void nothing() {}

INSTANTIATE_TEST_SUITE_P(Status, Tools, testing::Values(
  Row{"Zero", nothing, enable, true, kOpen, "on", ""},
  Row{"One", [] { plan("exit 1 *"); }, enable, true, kOpen, "on", ""},
  Row{"Two", [] { plan("exit 2 *"); }, enable, true, kOpen, "on", ""},
  Row{"Three", [] { plan("exit 3 *"); }, enable, true, kOpen, "on", ""},
  Row{"Four", [] { plan("exit 4 *"); }, enable, true, kOpen, "on", ""},
  Row{"OneHundredTwentySeven", [] { plan("exit 127 *"); }, enable, true, kOpen, "on", ""},
  Row{"TwoHundredFiftyFive", [] { plan("exit 255 *"); }, enable, true, kOpen, "on", ""},
  Row{"DisableOne", [] { switchOn(); plan("exit 1 *"); }, disable, true, kOpen, "off", ""},
  Row{"NoChainForReloading", [] { plan("exit 1 iptables -A FIREWALL_RELOADING*\nexit 1 iptables -D FIREWALL_RELOADING*\nexit 1 ip6tables -A FIREWALL_RELOADING*\nexit 1 ip6tables -D FIREWALL_RELOADING*\n"); }, enable, true, kOpen, "on", ""},
  Row{"EveryCompiledLineIsRefused", [] { plan("exit 2 iptables -A INPUT_FIREWALL*\nexit 2 iptables -A FORWARD_FIREWALL*\nexit 2 ip6tables -A *\n"); }, enable, true, kOpen, "on", ""}),
  rowName);

// A drop set that breaks off leaves the policies as they are by then.
INSTANTIATE_TEST_SUITE_P(Missing, Tools, testing::Values(
  Row{"Both", [] { fs::remove("/sbin/iptables"); fs::remove("/sbin/ip6tables"); }, enable, false, kOpen, "on",
    notRun("/sbin/iptables", "--policy INPUT DROP") + kDropNotSet},
  Row{"Iptables", [] { fs::remove("/sbin/iptables"); }, enable, false, kOpen, "on",
    notRun("/sbin/iptables", "--policy INPUT DROP") + kDropNotSet},
  Row{"Ip6tables", [] { fs::remove("/sbin/ip6tables"); }, enable, false, "DROP DROP ACCEPT ACCEPT", "on",
    notRun("/sbin/ip6tables", "--policy INPUT DROP") + kDropNotSet},
  Row{"NotAProgram", [] { fs::remove("/sbin/iptables"); fs::create_symlink("/etc/passwd", "/sbin/iptables"); }, enable, false, kOpen, "on",
    notRun("/sbin/iptables", "--policy INPUT DROP") + kDropNotSet},
  Row{"ADirectory", [] { fs::remove("/sbin/iptables"); fs::create_symlink("/etc", "/sbin/iptables"); }, enable, false, kOpen, "on",
    notRun("/sbin/iptables", "--policy INPUT DROP") + kDropNotSet},
  Row{"BothInAReload", [] { switchOn(); fs::remove("/sbin/iptables"); fs::remove("/sbin/ip6tables"); }, reload, false, kOpen, "on",
    notRun("/sbin/iptables", "--policy INPUT DROP") + "tarnFW Failed to fwExec() to set default drop.\n"},
  Row{"BothInADisable", [] { switchOn(); fs::remove("/sbin/iptables"); fs::remove("/sbin/ip6tables"); }, disable, true, kOpen, "off",
    notRun("/sbin/iptables", "-F INPUT_FIREWALL") + notRun("/sbin/ip6tables", "-F INPUT_FIREWALL") + notRun("/sbin/iptables", "-F FORWARD_FIREWALL") + notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL")}),
  rowName);

INSTANTIATE_TEST_SUITE_P(Killed, Tools, testing::Values(
  Row{"InTheDropSet", [] { plan("signal 9 iptables --policy INPUT DROP"); }, enable, false, kOpen, "on",
    notRun("/sbin/iptables", "--policy INPUT DROP") + kDropNotSet},
  Row{"LateInTheDropSet", [] { plan("signal 11 ip6tables --policy FORWARD DROP"); }, enable, false, "DROP DROP DROP ACCEPT", "on",
    notRun("/sbin/ip6tables", "--policy FORWARD DROP") + kDropNotSet},
  Row{"InAFlush", [] { plan("signal 9 iptables -F INPUT_FIREWALL"); }, enable, true, kOpen, "on",
    notRun("/sbin/iptables", "-F INPUT_FIREWALL")},
  Row{"InTheFirstCompiledLine", [] { plan("signal 6 iptables -A INPUT_FIREWALL -i lo -j ACCEPT"); }, enable, false, kOpen, "off",
    notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT") + kSwitchedOff},
  Row{"InTheLastCompiledLine", [] { plan("signal 15 ip6tables -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT"); }, enable, false, kOpen, "off",
    notRun("/sbin/ip6tables", "-A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT") + kSwitchedOff},
  Row{"InEveryFlushAndACompiledLine", [] { plan("signal 9 iptables -F *\nsignal 9 ip6tables -F *\nsignal 9 iptables -A INPUT_FIREWALL -i lo -j ACCEPT"); }, enable, false, kOpen, "off",
    notRun("/sbin/iptables", "-F INPUT_FIREWALL") + notRun("/sbin/ip6tables", "-F INPUT_FIREWALL") + notRun("/sbin/iptables", "-F FORWARD_FIREWALL") + notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL") +
    notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT") +
    notRun("/sbin/iptables", "-F INPUT_FIREWALL") + notRun("/sbin/ip6tables", "-F INPUT_FIREWALL") + notRun("/sbin/iptables", "-F FORWARD_FIREWALL") + notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL") +
    kSwitchedOff},
  // What is to open the policies fails: they stay as they are.
  Row{"InTheAcceptSet", [] { plan("signal 9 iptables --policy INPUT ACCEPT"); }, enable, false, "DROP DROP DROP DROP", "off",
    notRun("/sbin/iptables", "--policy INPUT ACCEPT") + kAcceptNotSet},
  Row{"LateInTheAcceptSet", [] { plan("signal 9 ip6tables --policy INPUT ACCEPT"); }, enable, false, "ACCEPT ACCEPT DROP DROP", "off",
    notRun("/sbin/ip6tables", "--policy INPUT ACCEPT") + kAcceptNotSet},
  Row{"AtTheEndOfTheAcceptSet", [] { plan("signal 9 ip6tables -D FIREWALL_RELOADING*"); }, enable, false, kOpen, "off",
    notRun("/sbin/ip6tables", "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT") + kAcceptNotSet},
  Row{"InADisable", [] { switchOn(); plan("signal 9 *"); }, disable, true, kOpen, "off",
    notRun("/sbin/iptables", "-F INPUT_FIREWALL") + notRun("/sbin/ip6tables", "-F INPUT_FIREWALL") + notRun("/sbin/iptables", "-F FORWARD_FIREWALL") + notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL")}),
  rowName);

// --- kernel modules ---

class Modules : public Surroundings {};

TEST_P(Modules, Row) { expectRow(); }

constexpr char kModuleList[] = "/usr/tarn/etc.defaults/iptables_modules_list";

INSTANTIATE_TEST_SUITE_P(Table, Modules, testing::Values(
  Row{"ShippedList", nothing, enable, true, kOpen, "on", ""},
  Row{"NoList", [] { fs::remove(kModuleList); }, enable, false, kOpen, "off",
    "tarnIptablesModule Failed to get key KERNEL_MODULES_CORE from /usr/tarn/etc.defaults/iptables_modules_list\n"
    "tarnIptablesModule Failed to coreCommonModuleLoad()\n"
    "tarnFW Failed to iptablesCoreModLoad\n"
    "tarnFW Failed to firewallModLoad()\n"},
  Row{"NoListInAReload", [] { switchOn(); fs::remove(kModuleList); }, reload, false, kOpen, "on",
    "tarnIptablesModule Failed to get key KERNEL_MODULES_CORE from /usr/tarn/etc.defaults/iptables_modules_list\n"
    "tarnIptablesModule Failed to coreCommonModuleLoad()\n"
    "tarnFW Failed to iptablesCoreModLoad\n"
    "tarnFW Failed to firewallModLoad()\n"},
  Row{"ListWithoutAKey", [] { files::write(kModuleList, "KERNEL_MODULES_CORE=\"a.ko\"\nKERNEL_MODULES_COMMON=\"b.ko\"\n"); }, enable, false, kOpen, "off",
    "tarnIptablesModule Failed to get key IPV6_MODULES from /usr/tarn/etc.defaults/iptables_modules_list\n"
    "tarnIptablesModule Failed to coreCommonModuleLoad()\n"
    "tarnFW Failed to iptablesCoreModLoad\n"
    "tarnFW Failed to firewallModLoad()\n"},
  Row{"ModuleThatDoesNotExist", [] { files::write(kModuleList, "KERNEL_MODULES_CORE=\"no_such_module.ko\"\nKERNEL_MODULES_COMMON=\"nor_this.ko\"\nIPV6_MODULES=\"nor_that.ko\"\n"); }, enable, true, kOpen, "on", ""},
  Row{"EmptyNames", [] { files::write(kModuleList, "KERNEL_MODULES_CORE=\"a.ko  b.ko\"\nKERNEL_MODULES_COMMON=\" c.ko \"\nIPV6_MODULES=\"d.ko\"\n"); }, enable, true, kOpen, "on", ""}),
  rowName);

// --- plug-ins ---

class PlugIns : public Surroundings {};

TEST_P(PlugIns, Row) { expectRow(); }

// Puts a shell script into the hook directory. Each that runs adds its name, argument and RESULT to a file.
void install(const std::string& name, const std::string& script) {
  const std::string path = std::string(kEnableHooks) + "/" + name;
  fs::create_directories(kEnableHooks);
  files::write(path, "#!/bin/sh\necho " + name + " $1 $RESULT >> /tmp/tool/hooks\n" + script + "\n");
  ASSERT_EQ(0, chmod(path.c_str(), 0755));
}

const std::string kHooksFailed =
  "fwHook Failed to run hook: net/firewall_enable\n"
  "tarnFW Failed to run firewall enable pre-hook.\n"
  "fwHook Failed to run hook: net/firewall_enable\n"
  "tarnFW Failed to run firewall enable post-hook.\n";

INSTANTIATE_TEST_SUITE_P(Table, PlugIns, testing::Values(
  Row{"Good", [] { install("10-good", "exit 0"); }, enable, true, kOpen, "on", ""},
  Row{"Crash", [] { install("10-crash", "kill -SEGV $$"); }, enable, true, kOpen, "on", kHooksFailed},
  Row{"Refuse", [] { install("10-refuse", "exit 1"); }, enable, true, kOpen, "on", kHooksFailed},
  Row{"Talk", [] { install("10-talk", "head -c 10000000 /dev/zero"); }, enable, true, kOpen, "on", ""},
  Row{"LeaveADaemon", [] { install("10-daemon", "sleep 60 & exit 0"); }, enable, true, kOpen, "on", ""},
  Row{"NotExecutable", [] { install("10-text", "exit 1"); fs::permissions(std::string(kEnableHooks) + "/10-text", fs::perms::owner_read); }, enable, true, kOpen, "on", ""}),
  rowName);
// clang-format on

class PlugInCalls : public Surroundings {};

TEST_F(PlugInCalls, EveryOneGetsTheResult) {
  install("20-second", "exit 1");
  install("10-first", "kill -SEGV $$");
  install("30-third", "exit 0");
  plan("signal 9 iptables -A INPUT_FIREWALL -i lo -j ACCEPT");
  EXPECT_FALSE(enable());
  EXPECT_EQ(
      "10-first pre 0\n20-second pre 0\n30-third pre 0\n"
      "10-first post -1\n20-second post -1\n30-third post -1\n",
      files::read("/tmp/tool/hooks"));
  const std::string log =
      "fwHook Failed to run hook: net/firewall_enable\n"
      "tarnFW Failed to run firewall enable pre-hook.\n" +
      notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT") + kSwitchedOff +
      "fwHook Failed to run hook: net/firewall_enable\n"
      "tarnFW Failed to run firewall enable post-hook.\n";
  EXPECT_EQ(log, road::libraryLog(log));
}

// --- what takes its time: each of these waits out a limit of half a minute ---

class SlowTools : public Surroundings {};

TEST_P(SlowTools, Row) { expectRow(); }

class SlowPlugIns : public Surroundings {};

TEST_P(SlowPlugIns, Row) { expectRow(); }

// clang-format off
INSTANTIATE_TEST_SUITE_P(Hang, SlowTools, testing::Values(
  Row{"InTheDropSet", [] { plan("hang iptables --policy INPUT DROP"); }, enable, false, kOpen, "on",
    notRun("/sbin/iptables", "--policy INPUT DROP") + kDropNotSet},
  Row{"InAFlush", [] { plan("hang ip6tables -F FORWARD_FIREWALL"); }, enable, true, kOpen, "on",
    notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL")},
  Row{"InACompiledLine", [] { plan("hang iptables -A FORWARD_FIREWALL -i lo -j ACCEPT"); }, enable, false, kOpen, "off",
    notRun("/sbin/iptables", "-A FORWARD_FIREWALL -i lo -j ACCEPT") + kSwitchedOff},
  Row{"InTheAcceptSet", [] { plan("hang iptables -D FIREWALL_RELOADING*"); }, enable, false, "ACCEPT ACCEPT DROP DROP", "off",
    notRun("/sbin/iptables", "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT") + kAcceptNotSet},
  Row{"InADisable", [] { switchOn(); plan("hang iptables -F INPUT_FIREWALL"); }, disable, true, kOpen, "off",
    notRun("/sbin/iptables", "-F INPUT_FIREWALL")}),
  rowName);

INSTANTIATE_TEST_SUITE_P(Hang, SlowPlugIns, testing::Values(
  Row{"Before", [] { install("10-hang", "[ $1 = post ] || sleep 1000"); }, enable, true, kOpen, "on",
    "fwHook Failed to run hook: net/firewall_enable\n"
    "tarnFW Failed to run firewall enable pre-hook.\n"},
  Row{"After", [] { install("10-hang", "[ $1 = pre ] || sleep 1000"); }, enable, true, kOpen, "on",
    "fwHook Failed to run hook: net/firewall_enable\n"
    "tarnFW Failed to run firewall enable post-hook.\n"}),
  rowName);
// clang-format on

class SlowLocks : public Surroundings {};

// Another process has the execution lock until its pipe is closed.
class LockOwner {
 public:
  LockOwner()
      : child_([] {
          int fd = -1;
          const bool held =
              TLIBCFileLockTimeByFile("/tmp/firewall_iptables_exec.lock", 1, 0, &fd) == 1;
          files::write("/tmp/tool/held", held ? "yes" : "no");
          while (fs::exists("/tmp/tool/held"))
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
          return std::string();
        }) {
    EXPECT_TRUE(processes::eventually([] { return files::read("/tmp/tool/held") == "yes"; }));
  }
  ~LockOwner() { fs::remove("/tmp/tool/held"); }
  LockOwner(const LockOwner&) = delete;
  LockOwner& operator=(const LockOwner&) = delete;

 private:
  processes::Child child_;
};

TEST_F(SlowLocks, ExecutionLockIsHeld) {
  switchOn();
  {
    const LockOwner owner;
    EXPECT_FALSE(reload());
  }
  EXPECT_EQ("(absent)", files::read(kCalls));
  EXPECT_EQ("on", road::status());
  EXPECT_EQ("(absent)", files::read("/tmp/iptables_serv_mod_list"));
  const std::string log = "tarnFW TIMEOUT: getting lock\n";
  EXPECT_EQ(log, road::libraryLog(log));
}

TEST_F(SlowLocks, ExecutionLockIsHeldInAnEnable) {
  {
    const LockOwner owner;
    EXPECT_FALSE(enable());
  }
  EXPECT_EQ("(absent)", files::read(kCalls));
  EXPECT_EQ("on", road::status());
  const std::string log =
      "tarnFW TIMEOUT: getting lock\n"
      "tarnFW Failed to apply firewall rules\n";
  EXPECT_EQ(log, road::libraryLog(log));
}

TEST_F(SlowLocks, SettingsLockIsHeld) {
  switchOn();
  processes::LockHolder owner("/var/lock/firewall/firewall_settings.json.lock");
  EXPECT_FALSE(reload());
  owner.release();
  EXPECT_EQ("(absent)", files::read(kCalls));
  EXPECT_EQ("on", road::status());
  const std::string log =
      "utils Failed to get lock timeout\n"
      "tarnFW Falied to configGet()\n"
      "tarnFW Failed to check status\n";
  EXPECT_EQ(log, road::libraryLog(log));
}

}  // namespace
