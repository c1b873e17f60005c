// Switching on and off, and the reload, as whole sequences: commands, locks, kernel modules, hooks
// and log lines in the order they happen, one for the way through and one for every way out.

#include <cerrno>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "fakePlatform.h"
#include "jsonText.h"
#include "reloadSequence.h"
#include "tarnFW/module.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using sequence::kAcceptSet;
using sequence::kCoreSetRead;
using sequence::kDropSet;
using sequence::kFlush;
using sequence::kInterfacesRead;
using sequence::kLocked;
using sequence::kModulesAsked;
using sequence::lines;

// clang-format off

// --- the usual machine ---

constexpr char kModuleUsers[] = "/tmp/iptables_serv_mod_list";
constexpr char kModuleList[] = "/usr/tarn/etc.defaults/iptables_modules_list";

constexpr char kSwitchedOn[] =
  "{\n"
  "   \"profile\" : \"office\",\n"
  "   \"status\" : true\n"
  "}\n";
constexpr char kSwitchedOff[] =
  "{\n"
  "   \"profile\" : \"office\",\n"
  "   \"status\" : false\n"
  "}\n";
constexpr char kDefaults[] =
  "{\n"
  "   \"profile\" : \"default\",\n"
  "   \"status\" : false\n"
  "}\n";
constexpr char kDefaultsOn[] =
  "{\n"
  "   \"profile\" : \"default\",\n"
  "   \"status\" : true\n"
  "}\n";

// --- pieces of sequences ---

const std::string kPreEnable =
  "plugin init net net/firewall_enable\n"
  "plugin set RESULT=0\n"
  "plugin action 4\n"
  "plugin exit";
const std::string kPostEnable =
  "plugin init net net/firewall_enable\n"
  "plugin set RESULT=0\n"
  "plugin action 5\n"
  "plugin exit";
const std::string kPostEnableFailed =
  "plugin init net net/firewall_enable\n"
  "plugin set RESULT=-1\n"
  "plugin action 5\n"
  "plugin exit";
const std::string kPreDisable =
  "plugin init net net/firewall_disable\n"
  "plugin set RESULT=0\n"
  "plugin action 4\n"
  "plugin exit";
const std::string kPostDisable =
  "plugin init net net/firewall_disable\n"
  "plugin set RESULT=0\n"
  "plugin action 5\n"
  "plugin exit";
const std::string kPostDisableFailed =
  "plugin init net net/firewall_disable\n"
  "plugin set RESULT=-1\n"
  "plugin action 5\n"
  "plugin exit";

// Recording the modules' user under the number that its lock gets.
std::string recorded(const std::string& state, int lock) {
  return
    "lock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
    "set /tmp/iptables_serv_mod_list firewall=" + state + "\n"
    "list free\n"
    "unlock " + std::to_string(lock);
}

std::string coreLoaded(int lock) {
  return kCoreSetRead + "\n"
    "list alloc 1024\n"
    "modinsert firewall core1.ko core2.ko common.ko ipv6.ko\n" + recorded("yes", lock);
}
std::string ownLoaded(int lock) {
  return
    "list alloc 1024\n"
    "modinsert firewall compat_xtables.ko xt_geoip.ko xt_mac.ko\n" + recorded("yes", lock);
}
std::string ownUnloaded(int lock) {
  return
    "list alloc 1024\n"
    "modremove firewall xt_mac.ko xt_geoip.ko compat_xtables.ko\n" + recorded("no", lock);
}
std::string coreUnloaded(int lock) {
  return kCoreSetRead + "\n"
    "list alloc 1024\n"
    "modremove firewall ipv6.ko common.ko core2.ko core1.ko\n" + recorded("no", lock);
}
// clang-format on

// What the profile "office" compiles to, without "exec ".
std::vector<std::string> officeCommands() {
  std::vector<std::string> commands;
  std::istringstream text(sequence::profile("", "", "eth0"));
  for (std::string line; std::getline(text, line);) {
    commands.push_back(line.substr(line.find(' ') + 1));
  }
  return commands;
}
const std::vector<std::string> kOfficeLines = officeCommands();

// The first `count` lines of the compiled profile, as they are run.
std::string officeLines(std::size_t count = kOfficeLines.size()) {
  std::string text;
  for (std::size_t index = 0; index < count; ++index) {
    text += (index == 0 ? "exec " : "\nexec ") + kOfficeLines[index];
  }
  return text;
}

// Switching off inside a reload, whose execution lock is the first lock.
const std::string kDisabledWithin =
    lines({kPreDisable, kFlush, kModulesAsked, ownUnloaded(101), coreUnloaded(102), kPostDisable});

// The log of a command that cannot be run.
std::string notRun(const std::string& tool, const std::string& arguments) {
  return "err tarnFW Failed to execute " + tool + "\nerr tarnFW Failed to execute \"" + tool + " " +
         arguments + "\"";
}

// Something stands where the settings would be written: nothing can be stored any more.
void blockSettings() {
  std::filesystem::create_directory(std::string(files::kSettingsFile) + ".tmp");
}

const std::string kSettingsNotStored =
    "err utils Failed to open json file /usr/tarn/etc/firewall.d/firewall_settings.json.tmp";
const std::string kSettingsNotParsed =
    "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json";

struct Row {
  const char* name;
  void (*deviate)();  // what is not as usual
  std::string trace;
  bool result;
  std::string settings;  // the document afterwards

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

std::string rowName(const testing::TestParamInfo<Row>& info) { return info.param.name; }

// The usual machine: switched on, kernel modules loaded, one profile that denies eth0.
class Lifecycle : public fake::MachineTest, public testing::WithParamInterface<Row> {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    fake::Machine& machine = fake::machine();
    machine.interfaces = {"eth0"};
    machine.files[kModuleList] = {{"KERNEL_MODULES_CORE", "core1.ko core2.ko"},
                                  {"KERNEL_MODULES_COMMON", "common.ko"},
                                  {"IPV6_MODULES", "ipv6.ko"}};
    machine.files[kModuleUsers] = {{"firewall", "yes"}};
    files::write(kModuleUsers, "");
    files::writeProfile("1", "office", "null", R"({"eth0": 1, "global": 2})");
    files::writeSettings(kSwitchedOn);
  }

  void expectRow(bool (*operation)()) {
    const Row& row = GetParam();
    row.deviate();
    EXPECT_EQ(row.result, operation());
    EXPECT_EQ(row.trace, trace::take());
    EXPECT_EQ(row.settings, files::read(files::kSettingsFile));
  }
};

void nothing() {}
void modulesNotLoaded() { fake::machine().files[kModuleUsers].clear(); }
void switchedOff() { files::writeSettings(kSwitchedOff); }

// --- reload ---

class Reload : public Lifecycle {};

TEST_P(Reload, Row) {
  expectRow([] { return FW::TARNFW().fwReload(true); });
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Through, Reload, testing::Values(
  Row{"Done", nothing,
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(), kAcceptSet, "unlock 100"}), true, kSwitchedOn},
  Row{"ModulesAreLoadedFirst", modulesNotLoaded,
    lines({kLocked, kModulesAsked, coreLoaded(101), ownLoaded(102), kDropSet, kFlush, kInterfacesRead, officeLines(), kAcceptSet, "unlock 100"}), true, kSwitchedOn},
  Row{"NoModulesFileYet", [] { std::filesystem::remove(kModuleUsers); },
    lines({kLocked, coreLoaded(101), ownLoaded(102), kDropSet, kFlush, kInterfacesRead, officeLines(), kAcceptSet, "unlock 100"}), true, kSwitchedOn},
  Row{"ModulesFileCannotBeRead", [] { fake::machine().answers = {{"get /tmp/iptables_serv_mod_list firewall", -1}}; },
    lines({kLocked, kModulesAsked, "err tarnIptablesModule failed to get key /tmp/iptables_serv_mod_list from file firewall[0x0400 platform.c:12]", coreLoaded(101), ownLoaded(102), kDropSet, kFlush, kInterfacesRead, officeLines(), kAcceptSet, "unlock 100"}), true, kSwitchedOn},
  Row{"SwitchedOff", switchedOff,
    lines({kLocked, "unlock 100"}), true, kSwitchedOff},
  Row{"NoStatusIsOff", [] { files::writeSettings("{\"profile\": \"office\"}"); },
    lines({kLocked, "unlock 100"}), true, "{\"profile\": \"office\"}"},
  Row{"SettingsThatAreNoObjectAreOff", [] { files::writeSettings("[true]"); },
    lines({kLocked, "unlock 100"}), true, "[true]"},
  Row{"NoSettingsYet", [] { std::filesystem::remove(files::kSettingsFile); },
    lines({kLocked, "unlock 100"}), true, kDefaults},
  Row{"RefusedLinesCountAsRun", [] { fake::machine().exec = [](const std::string&) { return 2; }; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(), kAcceptSet, "unlock 100"}), true, kSwitchedOn},
  Row{"OneChainIsNotFlushed", [] { fake::machine().answers = {{"exec /sbin/ip6tables -F INPUT_FIREWALL", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet,
      "exec /sbin/iptables -F INPUT_FIREWALL",
      "exec /sbin/ip6tables -F INPUT_FIREWALL", notRun("/sbin/ip6tables", "-F INPUT_FIREWALL"),
      "exec /sbin/iptables -F FORWARD_FIREWALL",
      "exec /sbin/ip6tables -F FORWARD_FIREWALL",
      kInterfacesRead, officeLines(), kAcceptSet, "unlock 100"}), true, kSwitchedOn},
  Row{"NoChainIsFlushed", [] { fake::machine().answers = {{"exec /sbin/iptables -F INPUT_FIREWALL", -1}, {"exec /sbin/ip6tables -F INPUT_FIREWALL", -1}, {"exec /sbin/iptables -F FORWARD_FIREWALL", -1}, {"exec /sbin/ip6tables -F FORWARD_FIREWALL", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet,
      "exec /sbin/iptables -F INPUT_FIREWALL", notRun("/sbin/iptables", "-F INPUT_FIREWALL"),
      "exec /sbin/ip6tables -F INPUT_FIREWALL", notRun("/sbin/ip6tables", "-F INPUT_FIREWALL"),
      "exec /sbin/iptables -F FORWARD_FIREWALL", notRun("/sbin/iptables", "-F FORWARD_FIREWALL"),
      "exec /sbin/ip6tables -F FORWARD_FIREWALL", notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL"),
      kInterfacesRead, officeLines(), kAcceptSet, "unlock 100"}), true, kSwitchedOn},
  Row{"LockIsNotReleased", [] { fake::machine().answers = {{"unlock 100", 0}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(), kAcceptSet, "unlock 100",
      "err tarnFW Failed to unlock"}), true, kSwitchedOn}),
  rowName);

INSTANTIATE_TEST_SUITE_P(BeforeTheDropSet, Reload, testing::Values(
  Row{"LockIsNotHad", [] { fake::machine().answers = {{"lock /tmp/firewall_iptables_exec.lock 1 30", {0, ETIMEDOUT}}}; },
    lines({kLocked, "err tarnFW TIMEOUT: getting lock"}), false, kSwitchedOn},
  Row{"SettingsDoNotParse", [] { files::writeSettings("{\"status\": tru"); },
    lines({kLocked, kSettingsNotParsed, "err tarnFW Falied to configGet()", "err tarnFW Failed to check status", "unlock 100"}), false, "{\"status\": tru"},
  Row{"NoModuleList", [] { modulesNotLoaded(); fake::machine().files.erase(kModuleList); },
    lines({kLocked, kModulesAsked,
      "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE",
      "err tarnIptablesModule Failed to get key KERNEL_MODULES_CORE from /usr/tarn/etc.defaults/iptables_modules_list",
      "err tarnIptablesModule Failed to coreCommonModuleLoad()",
      "err tarnFW Failed to iptablesCoreModLoad",
      "err tarnFW Failed to firewallModLoad()", "unlock 100"}), false, kSwitchedOn},
  Row{"CoreModulesAreRefused", [] { modulesNotLoaded(); fake::machine().answers = {{"modinsert firewall core1.ko core2.ko common.ko ipv6.ko", -1}}; },
    lines({kLocked, kModulesAsked, kCoreSetRead,
      "list alloc 1024",
      "modinsert firewall core1.ko core2.ko common.ko ipv6.ko",
      "err tarnIptablesModule Failed to TLIBIptablesModInsert()",
      "list free",
      "err tarnIptablesModule Failed to moduleInsert(firewall, core1.ko core2.ko common.ko ipv6.ko)",
      "err tarnFW Failed to iptablesCoreModLoad",
      "err tarnFW Failed to firewallModLoad()", "unlock 100"}), false, kSwitchedOn},
  Row{"OwnModulesAreRefused", [] { modulesNotLoaded(); fake::machine().answers = {{"modinsert firewall compat_xtables.ko xt_geoip.ko xt_mac.ko", -1}}; },
    lines({kLocked, kModulesAsked, coreLoaded(101),
      "list alloc 1024",
      "modinsert firewall compat_xtables.ko xt_geoip.ko xt_mac.ko",
      "err tarnIptablesModule Failed to TLIBIptablesModInsert()",
      "list free",
      "err tarnFW Failed to moduleInsert()",
      "err tarnFW Failed to firewallModLoad()", "unlock 100"}), false, kSwitchedOn},
  Row{"ModulesUserIsNotRecorded", [] { modulesNotLoaded(); fake::machine().answers = {{"set /tmp/iptables_serv_mod_list firewall=yes", -1}}; },
    lines({kLocked, kModulesAsked, kCoreSetRead,
      "list alloc 1024",
      "modinsert firewall core1.ko core2.ko common.ko ipv6.ko",
      "lock /var/lock/firewall/iptables_serv_mod_list.lock 1 30",
      "set /tmp/iptables_serv_mod_list firewall=yes",
      "err tarnIptablesModule failed to set key /tmp/iptables_serv_mod_list to file firewall[0x0400 platform.c:12]",
      "list free",
      "unlock 101",
      "err tarnIptablesModule Failed to moduleInsert(firewall, core1.ko core2.ko common.ko ipv6.ko)",
      "err tarnFW Failed to iptablesCoreModLoad",
      "err tarnFW Failed to firewallModLoad()", "unlock 100"}), false, kSwitchedOn}),
  rowName);

// Nothing is opened again: a tool that could not be run once will not run now either.
INSTANTIATE_TEST_SUITE_P(InTheDropSet, Reload, testing::Values(
  Row{"InputV4", [] { fake::machine().answers = {{"exec /sbin/iptables --policy INPUT DROP", -1}}; },
    lines({kLocked, kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP", notRun("/sbin/iptables", "--policy INPUT DROP"),
      "err tarnFW Failed to fwExec() to set default drop.", "unlock 100"}), false, kSwitchedOn},
  Row{"ForwardV4", [] { fake::machine().answers = {{"exec /sbin/iptables --policy FORWARD DROP", -1}}; },
    lines({kLocked, kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP",
      "exec /sbin/iptables --policy FORWARD DROP", notRun("/sbin/iptables", "--policy FORWARD DROP"),
      "err tarnFW Failed to fwExec() to set default drop.", "unlock 100"}), false, kSwitchedOn},
  Row{"EstablishedV4", [] { fake::machine().answers = {{"exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP",
      "exec /sbin/iptables --policy FORWARD DROP",
      "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT", notRun("/sbin/iptables", "-A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"),
      "err tarnFW Failed to fwExec() to set default drop.", "unlock 100"}), false, kSwitchedOn},
  Row{"InputV6", [] { fake::machine().answers = {{"exec /sbin/ip6tables --policy INPUT DROP", -1}}; },
    lines({kLocked, kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP",
      "exec /sbin/iptables --policy FORWARD DROP",
      "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
      "exec /sbin/ip6tables --policy INPUT DROP", notRun("/sbin/ip6tables", "--policy INPUT DROP"),
      "err tarnFW Failed to fwExec() to set default drop.", "unlock 100"}), false, kSwitchedOn},
  Row{"ForwardV6", [] { fake::machine().answers = {{"exec /sbin/ip6tables --policy FORWARD DROP", -1}}; },
    lines({kLocked, kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP",
      "exec /sbin/iptables --policy FORWARD DROP",
      "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
      "exec /sbin/ip6tables --policy INPUT DROP",
      "exec /sbin/ip6tables --policy FORWARD DROP", notRun("/sbin/ip6tables", "--policy FORWARD DROP"),
      "err tarnFW Failed to fwExec() to set default drop.", "unlock 100"}), false, kSwitchedOn},
  Row{"EstablishedV6", [] { fake::machine().answers = {{"exec /sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, notRun("/sbin/ip6tables", "-A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"),
      "err tarnFW Failed to fwExec() to set default drop.", "unlock 100"}), false, kSwitchedOn}),
  rowName);

INSTANTIATE_TEST_SUITE_P(InTheDropPeriod, Reload, testing::Values(
  Row{"NoActiveProfile", [] { files::writeSettings("{\"status\": true}"); },
    lines({kLocked, kModulesAsked, kDropSet, kFlush,
      "err tarnFW There are no key: profile in config",
      "err tarnFW Failed to fwProfileConfigGet()",
      kAcceptSet, "unlock 100"}), false, "{\"status\": true}"},
  Row{"SettingsBreak", [] { fake::machine().exec = [](const std::string&) { files::writeSettings("{"); return 0; }; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush,
      kSettingsNotParsed,
      "err tarnFW Falied to configGet()",
      "err tarnFW Failed to fwProfileConfigGet()",
      kAcceptSet, "unlock 100"}), false, "{"},
  Row{"ProfileIsNotThere", [] { std::filesystem::remove("/usr/tarn/etc/firewall.d/1.json"); },
    lines({kLocked, kModulesAsked, kDropSet, kFlush,
      "err fwDB Failed to profileGet office due to not exist",
      "err tarnFW Failed to profileGet(office)",
      "err tarnFW Failed to fwIptablesRulesEnum()",
      kAcceptSet, "unlock 100"}), false, kSwitchedOn},
  Row{"ProfileDoesNotParse", [] { files::write("/usr/tarn/etc/firewall.d/1.json", "{\"name\": "); },
    lines({kLocked, kModulesAsked, kDropSet, kFlush,
      "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/1.json",
      "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/1.json",
      "err fwDB Failed to profileGet office due to not exist",
      "err tarnFW Failed to profileGet(office)",
      "err tarnFW Failed to fwIptablesRulesEnum()",
      kAcceptSet, "unlock 100"}), false, kSwitchedOn},
  Row{"ProfileDoesNotCompile", [] { files::writeProfile("1", "office", "null", R"({"eth0": 7})"); },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      "err fwIptables:574 Unknown policy 7",
      "err fwIptables:733 Failed to policyToIptablesArg()",
      "err tarnFW Failed to fwRulesToIptablesRules()",
      "err tarnFW Failed to fwIptablesRulesEnum()",
      kAcceptSet, "unlock 100"}), false, kSwitchedOn},
  Row{"LineIsTooLong", [] { files::writeProfile("1", "office", R"({"global": [{"enable": true, "policy": 1, "table": ")" + std::string(1024, 'x') + R"(", "ipGroup": 5, "portGroup": 3}]})"); },
    lines({kLocked, kModulesAsked, kDropSet, kFlush,
      "exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT",
      "exec /sbin/iptables -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT",
      "exec /sbin/iptables -A FORWARD_FIREWALL -i lo -j ACCEPT",
      "exec /sbin/iptables -A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT",
      "err tarnFW #Arguments exceeds limit",
      "err tarnFW Failed to execute \"/sbin/iptables -t " + std::string(1024, 'x') + " -A FORWARD_FIREWALL -j DROP\"",
      kDisabledWithin,
      "err tarnFW Failed to fwExec() so disable firewall",
      kAcceptSet, "unlock 100"}), false, kSwitchedOff},
  Row{"CompiledLineFailsAndOffIsNotRecorded", [] { blockSettings(); fake::machine().answers = {{"exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      officeLines(1), notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT"),
      kPreDisable, kFlush, kModulesAsked, ownUnloaded(101), coreUnloaded(102), kSettingsNotStored, "err tarnFW Falied to configSet()", kPostDisableFailed,
      "err tarnFW Failed to fwExec() so disable firewall",
      kAcceptSet, "unlock 100"}), false, kSwitchedOn},
  Row{"CompiledLineFailsAndLockIsNotReleased", [] { fake::machine().answers = {{"exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT", -1}, {"unlock 100", 0}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      officeLines(1), notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT"),
      kDisabledWithin,
      "err tarnFW Failed to fwExec() so disable firewall",
      kAcceptSet, "unlock 100", "err tarnFW Failed to unlock"}), false, kSwitchedOff}),
  rowName);

INSTANTIATE_TEST_SUITE_P(InTheAcceptSet, Reload, testing::Values(
  Row{"InputV4", [] { fake::machine().answers = {{"exec /sbin/iptables --policy INPUT ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(),
      "exec /sbin/iptables --policy INPUT ACCEPT", notRun("/sbin/iptables", "--policy INPUT ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabledWithin, "unlock 100"}), false, kSwitchedOff},
  Row{"ForwardV4", [] { fake::machine().answers = {{"exec /sbin/iptables --policy FORWARD ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(),
      "exec /sbin/iptables --policy INPUT ACCEPT",
      "exec /sbin/iptables --policy FORWARD ACCEPT", notRun("/sbin/iptables", "--policy FORWARD ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabledWithin, "unlock 100"}), false, kSwitchedOff},
  Row{"EstablishedV4", [] { fake::machine().answers = {{"exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(),
      "exec /sbin/iptables --policy INPUT ACCEPT",
      "exec /sbin/iptables --policy FORWARD ACCEPT",
      "exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT", notRun("/sbin/iptables", "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabledWithin, "unlock 100"}), false, kSwitchedOff},
  Row{"InputV6", [] { fake::machine().answers = {{"exec /sbin/ip6tables --policy INPUT ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(),
      "exec /sbin/iptables --policy INPUT ACCEPT",
      "exec /sbin/iptables --policy FORWARD ACCEPT",
      "exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
      "exec /sbin/ip6tables --policy INPUT ACCEPT", notRun("/sbin/ip6tables", "--policy INPUT ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabledWithin, "unlock 100"}), false, kSwitchedOff},
  Row{"ForwardV6", [] { fake::machine().answers = {{"exec /sbin/ip6tables --policy FORWARD ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(),
      "exec /sbin/iptables --policy INPUT ACCEPT",
      "exec /sbin/iptables --policy FORWARD ACCEPT",
      "exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
      "exec /sbin/ip6tables --policy INPUT ACCEPT",
      "exec /sbin/ip6tables --policy FORWARD ACCEPT", notRun("/sbin/ip6tables", "--policy FORWARD ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabledWithin, "unlock 100"}), false, kSwitchedOff},
  Row{"EstablishedV6", [] { fake::machine().answers = {{"exec /sbin/ip6tables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(),
      kAcceptSet, notRun("/sbin/ip6tables", "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabledWithin, "unlock 100"}), false, kSwitchedOff},
  Row{"AfterAProfileThatIsNotThere", [] { std::filesystem::remove("/usr/tarn/etc/firewall.d/1.json"); fake::machine().answers = {{"exec /sbin/iptables --policy INPUT ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush,
      "err fwDB Failed to profileGet office due to not exist",
      "err tarnFW Failed to profileGet(office)",
      "err tarnFW Failed to fwIptablesRulesEnum()",
      "exec /sbin/iptables --policy INPUT ACCEPT", notRun("/sbin/iptables", "--policy INPUT ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabledWithin, "unlock 100"}), false, kSwitchedOff},
  // Switched off twice; the second time no modules are there any more.
  Row{"AfterACompiledLine", [] { fake::machine().answers = {{"exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT", -1}, {"exec /sbin/iptables --policy INPUT ACCEPT", -1}}; },
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      officeLines(1), notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT"),
      kDisabledWithin,
      "err tarnFW Failed to fwExec() so disable firewall",
      "exec /sbin/iptables --policy INPUT ACCEPT", notRun("/sbin/iptables", "--policy INPUT ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.",
      kPreDisable, kFlush, kModulesAsked, kPostDisable, "unlock 100"}), false, kSwitchedOff}),
  rowName);
// clang-format on

// Whichever compiled line it is: the lines after it are not run, in either family.
TEST_F(Lifecycle, AnyCompiledLineThatCannotBeRunSwitchesOff) {
  for (std::size_t index = 0; index < kOfficeLines.size(); ++index) {
    SCOPED_TRACE(kOfficeLines[index]);
    SetUp();
    fake::machine().answers = {{"exec " + kOfficeLines[index], -1}};
    const std::size_t blank = kOfficeLines[index].find(' ');

    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(
        lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(index + 1),
               notRun(kOfficeLines[index].substr(0, blank), kOfficeLines[index].substr(blank + 1)),
               kDisabledWithin, "err tarnFW Failed to fwExec() so disable firewall", kAcceptSet,
               "unlock 100"}),
        trace::take());
    EXPECT_EQ(kSwitchedOff, files::read(files::kSettingsFile));
  }
}

TEST_F(Lifecycle, ReloadWithoutStateHasNoStateLines) {
  EXPECT_TRUE(FW::TARNFW().fwReload(false));
  std::vector<std::string> compiled;
  for (const std::string& line : kOfficeLines) {
    if (line.find("--state") == std::string::npos) compiled.push_back("exec " + line);
  }
  EXPECT_EQ(18U, compiled.size());
  EXPECT_EQ(lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, lines(compiled),
                   kAcceptSet, "unlock 100"}),
            trace::take());
}

// --- enable ---

class Enable : public Lifecycle {
 protected:
  void SetUp() override {
    Lifecycle::SetUp();
    switchedOff();
  }
};

TEST_P(Enable, Row) {
  expectRow([] { return FW::TARNFW().fwEnable(); });
}

// clang-format off

// A reload without failure; `lock` is the number of its lock.
std::string reloaded(int lock) {
  return lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, officeLines(), kAcceptSet, "unlock " + std::to_string(lock)});
}

INSTANTIATE_TEST_SUITE_P(Table, Enable, testing::Values(
  Row{"Done", nothing,
    lines({kModulesAsked, kPreEnable, reloaded(100), kPostEnable}), true, kSwitchedOn},
  Row{"ModulesAreLoadedFirst", modulesNotLoaded,
    lines({kModulesAsked, coreLoaded(100), ownLoaded(101), kPreEnable, reloaded(102), kPostEnable}), true, kSwitchedOn},
  Row{"OnAlready", [] { files::writeSettings(kSwitchedOn); },
    lines({kModulesAsked, kPreEnable, reloaded(100), kPostEnable}), true, kSwitchedOn},
  Row{"OtherSettingsStay", [] { files::writeSettings(R"({"profile": "office", "language": "en"})"); },
    lines({kModulesAsked, kPreEnable, reloaded(100), kPostEnable}), true,
    "{\n   \"language\" : \"en\",\n   \"profile\" : \"office\",\n   \"status\" : true\n}\n"},
  Row{"ChainForReloadingIsNotThere", [] { fake::machine().exec = [](const std::string& line) { return line.find("FIREWALL_RELOADING") == std::string::npos ? 0 : 1; }; },
    lines({kModulesAsked, kPreEnable, reloaded(100), kPostEnable}), true, kSwitchedOn},
  Row{"NoModules", [] { modulesNotLoaded(); fake::machine().files[kModuleList].erase("IPV6_MODULES"); },
    lines({kModulesAsked, kCoreSetRead,
      "err tarnIptablesModule Failed to get key IPV6_MODULES from /usr/tarn/etc.defaults/iptables_modules_list",
      "err tarnIptablesModule Failed to coreCommonModuleLoad()",
      "err tarnFW Failed to iptablesCoreModLoad",
      "err tarnFW Failed to firewallModLoad()"}), false, kSwitchedOff},
  Row{"PreHookHasNoRunner", [] { fake::machine().answers = {{"plugin init net net/firewall_enable", -1}}; },
    lines({kModulesAsked,
      "plugin init net net/firewall_enable", "err fwHook Failed to init hook plugin",
      "err tarnFW Failed to run firewall enable pre-hook.",
      reloaded(100),
      "plugin init net net/firewall_enable", "err fwHook Failed to init hook plugin",
      "err tarnFW Failed to run firewall enable post-hook."}), true, kSwitchedOn},
  Row{"ResultIsNotPassedOn", [] { fake::machine().answers = {{"plugin set RESULT=0", -1}}; },
    lines({kModulesAsked,
      "plugin init net net/firewall_enable", "plugin set RESULT=0", "err fwHook Failed to set RESULT = 0", "plugin action 4", "plugin exit",
      reloaded(100),
      "plugin init net net/firewall_enable", "plugin set RESULT=0", "err fwHook Failed to set RESULT = 0", "plugin action 5", "plugin exit"}), true, kSwitchedOn},
  Row{"PreHookFails", [] { fake::machine().answers = {{"plugin action 4", -1}}; },
    lines({kModulesAsked,
      "plugin init net net/firewall_enable", "plugin set RESULT=0", "plugin action 4", "err fwHook Failed to run hook: net/firewall_enable", "plugin exit",
      "err tarnFW Failed to run firewall enable pre-hook.",
      reloaded(100), kPostEnable}), true, kSwitchedOn},
  Row{"PostHookFails", [] { fake::machine().answers = {{"plugin action 5", -1}}; },
    lines({kModulesAsked, kPreEnable, reloaded(100),
      "plugin init net net/firewall_enable", "plugin set RESULT=0", "plugin action 5", "err fwHook Failed to run hook: net/firewall_enable", "plugin exit",
      "err tarnFW Failed to run firewall enable post-hook."}), true, kSwitchedOn},
  Row{"StatusIsNotStored", blockSettings,
    lines({kModulesAsked, kPreEnable, kSettingsNotStored, "err tarnFW Falied to configSet()", kPostEnableFailed}), false, kSwitchedOff},
  Row{"StatusIsNotStoredAndPostHookFails", [] { blockSettings(); fake::machine().answers = {{"plugin action 5", -1}}; },
    lines({kModulesAsked, kPreEnable, kSettingsNotStored, "err tarnFW Falied to configSet()",
      "plugin init net net/firewall_enable", "plugin set RESULT=-1", "plugin action 5", "err fwHook Failed to run hook: net/firewall_enable", "plugin exit",
      "err tarnFW Failed to run firewall enable post-hook."}), false, kSwitchedOff},
  Row{"SettingsDoNotParse", [] { files::writeSettings("{"); },
    lines({kModulesAsked, kPreEnable, kSettingsNotParsed, "err tarnFW Falied to config.configGet()", "err tarnFW Falied to configSet()", kPostEnableFailed}), false, "{"},
  Row{"ReloadIsLockedOut", [] { fake::machine().answers = {{"lock /tmp/firewall_iptables_exec.lock 1 30", {0, ETIMEDOUT}}}; },
    lines({kModulesAsked, kPreEnable, kLocked, "err tarnFW TIMEOUT: getting lock", "err tarnFW Failed to apply firewall rules", kPostEnableFailed}), false, kSwitchedOn},
  Row{"NoSettingsYet", [] { std::filesystem::remove(files::kSettingsFile); },
    lines({kModulesAsked, kPreEnable, kLocked, kModulesAsked, kDropSet, kFlush,
      "err fwDB Failed to profileGet default due to not exist",
      "err tarnFW Failed to profileGet(default)",
      "err tarnFW Failed to fwIptablesRulesEnum()",
      kAcceptSet, "unlock 100", "err tarnFW Failed to apply firewall rules", kPostEnableFailed}), false, kDefaultsOn},
  Row{"CompiledLineFails", [] { fake::machine().answers = {{"exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT", -1}}; },
    lines({kModulesAsked, kPreEnable, kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      officeLines(1), notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT"),
      kDisabledWithin,
      "err tarnFW Failed to fwExec() so disable firewall",
      kAcceptSet, "unlock 100", "err tarnFW Failed to apply firewall rules", kPostEnableFailed}), false, kSwitchedOff}),
  rowName);
// clang-format on

// --- disable, and reset, which is the same ---

class Disable : public Lifecycle {};

TEST_P(Disable, Row) {
  expectRow([] { return FW::TARNFW().fwDisable(); });
}

TEST_P(Disable, SameRowOfReset) {
  expectRow([] { return FW::TARNFW().fwReset(); });
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Disable, testing::Values(
  Row{"Done", nothing,
    lines({kPreDisable, kFlush, kModulesAsked, ownUnloaded(100), coreUnloaded(101), kPostDisable}), true, kSwitchedOff},
  Row{"NoModulesLoaded", modulesNotLoaded,
    lines({kPreDisable, kFlush, kModulesAsked, kPostDisable}), true, kSwitchedOff},
  Row{"OffAlready", switchedOff,
    lines({kPreDisable, kFlush, kModulesAsked, ownUnloaded(100), coreUnloaded(101), kPostDisable}), true, kSwitchedOff},
  Row{"NoSettingsYet", [] { std::filesystem::remove(files::kSettingsFile); },
    lines({kPreDisable, kFlush, kModulesAsked, ownUnloaded(100), coreUnloaded(101), kPostDisable}), true, kDefaults},
  Row{"PreHookFails", [] { fake::machine().answers = {{"plugin action 4", -1}}; },
    lines({"plugin init net net/firewall_disable", "plugin set RESULT=0", "plugin action 4", "err fwHook Failed to run hook: net/firewall_disable", "plugin exit",
      "err tarnFW Failed to run firewall disable pre-hook.",
      kFlush, kModulesAsked, ownUnloaded(100), coreUnloaded(101), kPostDisable}), true, kSwitchedOff},
  Row{"HooksHaveNoRunner", [] { fake::machine().answers = {{"plugin init net net/firewall_disable", -1}}; },
    lines({"plugin init net net/firewall_disable", "err fwHook Failed to init hook plugin",
      "err tarnFW Failed to run firewall disable pre-hook.",
      kFlush, kModulesAsked, ownUnloaded(100), coreUnloaded(101),
      "plugin init net net/firewall_disable", "err fwHook Failed to init hook plugin",
      "err tarnFW Failed to run firewall disable post-hook."}), true, kSwitchedOff},
  Row{"ChainsAreNotFlushed", [] { fake::machine().answers = {{"exec /sbin/iptables -F INPUT_FIREWALL", -1}, {"exec /sbin/ip6tables -F FORWARD_FIREWALL", -1}}; },
    lines({kPreDisable,
      "exec /sbin/iptables -F INPUT_FIREWALL", notRun("/sbin/iptables", "-F INPUT_FIREWALL"),
      "exec /sbin/ip6tables -F INPUT_FIREWALL",
      "exec /sbin/iptables -F FORWARD_FIREWALL",
      "exec /sbin/ip6tables -F FORWARD_FIREWALL", notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL"),
      kModulesAsked, ownUnloaded(100), coreUnloaded(101), kPostDisable}), true, kSwitchedOff},
  Row{"OwnModulesStay", [] { fake::machine().answers = {{"modremove firewall xt_mac.ko xt_geoip.ko compat_xtables.ko", -1}}; },
    lines({kPreDisable, kFlush, kModulesAsked,
      "list alloc 1024",
      "modremove firewall xt_mac.ko xt_geoip.ko compat_xtables.ko",
      "err tarnIptablesModule Failed to TLIBIptablesModRemove()",
      "list free",
      "err tarnFW Failed to moduleInsert()",
      kPostDisable}), true, kSwitchedOff},
  Row{"CoreModulesStay", [] { fake::machine().answers = {{"modremove firewall ipv6.ko common.ko core2.ko core1.ko", -1}}; },
    lines({kPreDisable, kFlush, kModulesAsked, ownUnloaded(100), kCoreSetRead,
      "list alloc 1024",
      "modremove firewall ipv6.ko common.ko core2.ko core1.ko",
      "err tarnIptablesModule Failed to TLIBIptablesModRemove()",
      "list free",
      "err tarnIptablesModule Failed to moduleRemove(firewall, ipv6.ko common.ko core2.ko core1.ko)",
      "err tarnFW Failed to iptablesCoreModLoad",
      kPostDisable}), true, kSwitchedOff},
  Row{"NoModuleList", [] { fake::machine().files.erase(kModuleList); },
    lines({kPreDisable, kFlush, kModulesAsked, ownUnloaded(100),
      "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE",
      "err tarnIptablesModule Failed to get key KERNEL_MODULES_CORE from /usr/tarn/etc.defaults/iptables_modules_list",
      "err tarnIptablesModule Failed to coreCommonModuleLoad()",
      "err tarnFW Failed to iptablesCoreModLoad",
      kPostDisable}), true, kSwitchedOff},
  Row{"StatusIsNotStored", blockSettings,
    lines({kPreDisable, kFlush, kModulesAsked, ownUnloaded(100), coreUnloaded(101),
      kSettingsNotStored, "err tarnFW Falied to configSet()", kPostDisableFailed}), false, kSwitchedOn},
  Row{"SettingsDoNotParse", [] { files::writeSettings("{"); },
    lines({kPreDisable, kFlush, kModulesAsked, ownUnloaded(100), coreUnloaded(101),
      kSettingsNotParsed, "err tarnFW Falied to config.configGet()", "err tarnFW Falied to configSet()", kPostDisableFailed}), false, "{"},
  Row{"PostHookFails", [] { fake::machine().answers = {{"plugin action 5", -1}}; },
    lines({kPreDisable, kFlush, kModulesAsked, ownUnloaded(100), coreUnloaded(101),
      "plugin init net net/firewall_disable", "plugin set RESULT=0", "plugin action 5", "err fwHook Failed to run hook: net/firewall_disable", "plugin exit",
      "err tarnFW Failed to run firewall disable post-hook."}), true, kSwitchedOff}),
  rowName);
// clang-format on

// --- clear ---

class Clear : public Lifecycle {};

TEST_P(Clear, Row) {
  expectRow([] { return FW::TARNFW().fwClear(); });
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Clear, testing::Values(
  Row{"Done", nothing, kFlush, true, kSwitchedOn},
  Row{"InputV4", [] { fake::machine().answers = {{"exec /sbin/iptables -F INPUT_FIREWALL", -1}}; },
    lines({
      "exec /sbin/iptables -F INPUT_FIREWALL", notRun("/sbin/iptables", "-F INPUT_FIREWALL"),
      "exec /sbin/ip6tables -F INPUT_FIREWALL",
      "exec /sbin/iptables -F FORWARD_FIREWALL",
      "exec /sbin/ip6tables -F FORWARD_FIREWALL"}), false, kSwitchedOn},
  Row{"InputV6", [] { fake::machine().answers = {{"exec /sbin/ip6tables -F INPUT_FIREWALL", -1}}; },
    lines({
      "exec /sbin/iptables -F INPUT_FIREWALL",
      "exec /sbin/ip6tables -F INPUT_FIREWALL", notRun("/sbin/ip6tables", "-F INPUT_FIREWALL"),
      "exec /sbin/iptables -F FORWARD_FIREWALL",
      "exec /sbin/ip6tables -F FORWARD_FIREWALL"}), false, kSwitchedOn},
  Row{"ForwardV4", [] { fake::machine().answers = {{"exec /sbin/iptables -F FORWARD_FIREWALL", -1}}; },
    lines({
      "exec /sbin/iptables -F INPUT_FIREWALL",
      "exec /sbin/ip6tables -F INPUT_FIREWALL",
      "exec /sbin/iptables -F FORWARD_FIREWALL", notRun("/sbin/iptables", "-F FORWARD_FIREWALL"),
      "exec /sbin/ip6tables -F FORWARD_FIREWALL"}), false, kSwitchedOn},
  Row{"ForwardV6", [] { fake::machine().answers = {{"exec /sbin/ip6tables -F FORWARD_FIREWALL", -1}}; },
    lines({
      "exec /sbin/iptables -F INPUT_FIREWALL",
      "exec /sbin/ip6tables -F INPUT_FIREWALL",
      "exec /sbin/iptables -F FORWARD_FIREWALL",
      "exec /sbin/ip6tables -F FORWARD_FIREWALL", notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL")}), false, kSwitchedOn}),
  rowName);
// clang-format on

// --- kernel modules ---

class ModuleLoad : public Lifecycle {
 protected:
  void SetUp() override {
    Lifecycle::SetUp();
    modulesNotLoaded();
  }
};

TEST_P(ModuleLoad, Row) { expectRow(FW::firewallModLoad); }

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, ModuleLoad, testing::Values(
  Row{"Done", nothing, lines({kModulesAsked, coreLoaded(100), ownLoaded(101)}), true, kSwitchedOn},
  Row{"LoadedAlready", [] { fake::machine().files[kModuleUsers]["firewall"] = "yes"; }, kModulesAsked, true, kSwitchedOn},
  Row{"RemovedBefore", [] { fake::machine().files[kModuleUsers]["firewall"] = "no"; }, lines({kModulesAsked, coreLoaded(100), ownLoaded(101)}), true, kSwitchedOn},
  Row{"OnlyTheLowerCaseWordCounts", [] { fake::machine().files[kModuleUsers]["firewall"] = "YES"; }, lines({kModulesAsked, coreLoaded(100), ownLoaded(101)}), true, kSwitchedOn},
  Row{"OtherServicesDoNotCount", [] { fake::machine().files[kModuleUsers]["vpn"] = "yes"; }, lines({kModulesAsked, coreLoaded(100), ownLoaded(101)}), true, kSwitchedOn},
  Row{"CoreModulesAreRefused", [] { fake::machine().answers = {{"modinsert firewall core1.ko core2.ko common.ko ipv6.ko", -1}}; },
    lines({kModulesAsked, kCoreSetRead,
      "list alloc 1024",
      "modinsert firewall core1.ko core2.ko common.ko ipv6.ko",
      "err tarnIptablesModule Failed to TLIBIptablesModInsert()",
      "list free",
      "err tarnIptablesModule Failed to moduleInsert(firewall, core1.ko core2.ko common.ko ipv6.ko)",
      "err tarnFW Failed to iptablesCoreModLoad"}), false, kSwitchedOn},
  Row{"OwnModulesAreRefused", [] { fake::machine().answers = {{"modinsert firewall compat_xtables.ko xt_geoip.ko xt_mac.ko", -1}}; },
    lines({kModulesAsked, coreLoaded(100),
      "list alloc 1024",
      "modinsert firewall compat_xtables.ko xt_geoip.ko xt_mac.ko",
      "err tarnIptablesModule Failed to TLIBIptablesModInsert()",
      "list free",
      "err tarnFW Failed to moduleInsert()"}), false, kSwitchedOn},
  Row{"NoList", [] { fake::machine().answers = {{"list alloc 1024", -1}}; },
    lines({kModulesAsked, kCoreSetRead,
      "list alloc 1024",
      "err tarnIptablesModule Failed to allocate list[0x0400 platform.c:12]",
      "err tarnIptablesModule Failed to moduleInsert(firewall, core1.ko core2.ko common.ko ipv6.ko)",
      "err tarnFW Failed to iptablesCoreModLoad"}), false, kSwitchedOn},
  Row{"OwnModuleDoesNotGoIntoTheList", [] { fake::machine().answers = {{"list push xt_geoip.ko", -1}}; },
    lines({kModulesAsked, coreLoaded(100),
      "list alloc 1024",
      "err tarnIptablesModule Failed to TLIBCSzListPush()",
      "list free",
      "err tarnFW Failed to moduleInsert()"}), false, kSwitchedOn}),
  rowName);
// clang-format on

// --- choosing the active profile ---

class ProfileChoice : public Lifecycle {
 protected:
  void SetUp() override {
    Lifecycle::SetUp();
    files::writeProfile("2", "home");
  }
};

class ProfileChoiceWithReload : public ProfileChoice {};

TEST_P(ProfileChoice, Row) {
  expectRow([] { return FW::TARNFW().fwProfileConfigSet("home", false); });
}

TEST_P(ProfileChoiceWithReload, Row) {
  expectRow([] { return FW::TARNFW().fwProfileConfigSet("home", true); });
}

// clang-format off
constexpr char kHomeOn[] =
  "{\n"
  "   \"profile\" : \"home\",\n"
  "   \"status\" : true\n"
  "}\n";

INSTANTIATE_TEST_SUITE_P(Table, ProfileChoice, testing::Values(
  Row{"Done", nothing, "", true, kHomeOn},
  Row{"ActiveAlready", [] { files::writeSettings(kHomeOn); }, "", true, kHomeOn},
  Row{"OtherSettingsStay", [] { files::writeSettings(R"({"status": 1, "language": ["en"]})"); }, "", true,
    "{\n   \"language\" : [ \"en\" ],\n   \"profile\" : \"home\",\n   \"status\" : 1\n}\n"},
  Row{"NoSettingsYet", [] { std::filesystem::remove(files::kSettingsFile); }, "", true,
    "{\n   \"profile\" : \"home\",\n   \"status\" : false\n}\n"},
  Row{"NoProfileAtAll", [] { files::clear(); },
    "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
    "err fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\n"
    "err tarnFW Failed to profileEnum()", false, "(absent)"},
  Row{"UnknownProfile", [] { files::writeProfile("2", "Home"); },
    "err tarnFW Profile home is not in database", false, kSwitchedOn},
  Row{"UnknownProfileAndNoSettingsYet", [] { files::writeProfile("2", "homes"); std::filesystem::remove(files::kSettingsFile); },
    "err tarnFW Profile home is not in database", false, "(absent)"},
  Row{"SettingsDoNotParse", [] { files::writeSettings("{"); },
    "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json\n"
    "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/firewall_settings.json\n"
    "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json\n"
    "err tarnFW Falied to configGet()", false, "{"},
  Row{"SettingsAreNotStored", blockSettings,
    lines({kSettingsNotStored, "err tarnFW Falied to configSet()"}), false, kSwitchedOn}),
  rowName);

// The profile "home" has no rules and names no adapter: its preamble is all that is run.
const std::string kHomeLines = sequence::profile("", "");

INSTANTIATE_TEST_SUITE_P(Table, ProfileChoiceWithReload, testing::Values(
  Row{"Done", nothing,
    lines({kLocked, kModulesAsked, kDropSet, kFlush, kHomeLines, kAcceptSet, "unlock 100"}), true, kHomeOn},
  Row{"SwitchedOff", switchedOff,
    lines({kLocked, "unlock 100"}), true, "{\n   \"profile\" : \"home\",\n   \"status\" : false\n}\n"},
  Row{"ReloadIsLockedOut", [] { fake::machine().answers = {{"lock /tmp/firewall_iptables_exec.lock 1 30", {0, ETIMEDOUT}}}; },
    lines({kLocked, "err tarnFW TIMEOUT: getting lock", "err tarnFW Failed to reload firewall"}), false, kHomeOn},
  Row{"UnknownProfile", [] { std::filesystem::remove("/usr/tarn/etc/firewall.d/2.json"); },
    "err tarnFW Profile home is not in database", false, kSwitchedOn},
  Row{"SettingsAreNotStored", blockSettings,
    lines({kSettingsNotStored, "err tarnFW Falied to configSet()"}), false, kSwitchedOn}),
  rowName);
// clang-format on

// --- services that are gone ---

struct UpdateRow {
  const char* name;
  const char* rules;   // of the profile before
  const char* stored;  // the whole document afterwards

  friend void PrintTo(const UpdateRow& row, std::ostream* out) { *out << row.name; }
};

class Update : public fake::MachineTest, public testing::WithParamInterface<UpdateRow> {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    const fake::Ports tcp = {1, {{"22"}}};
    const fake::Ports udp = {2, {{"53"}}};
    const fake::Ports both = {3, {{"80"}}};
    const fake::Ports icmp = {4, {}};
    fake::machine().services = {{"t1", true, {}, tcp},  {"t2", true, {}, tcp},
                                {"u1", true, {}, udp},  {"b1", true, {}, both},
                                {"i1", true, {}, icmp}, {"off", false, {}, tcp},
                                {"s1", true, udp, {}},  {"s2", true, udp, tcp}};
  }
};

TEST_P(Update, Row) {
  const UpdateRow& row = GetParam();
  files::writeProfile("1", "office", row.rules);
  EXPECT_TRUE(FW::TARNFW().fwUpdate());
  EXPECT_EQ("services enum\nservices free", trace::take());
  EXPECT_EQ(row.stored, toText(toJson(files::read("/usr/tarn/etc/firewall.d/1.json"))));
}

std::string updateName(const testing::TestParamInfo<UpdateRow>& info) { return info.param.name; }

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Update, testing::Values(
  UpdateRow{"NoRules", "null",
    R"({"adapterPolicyMap":{"global":2},"name":"office","rules":null})"},
  UpdateRow{"AllServicesThere", R"({"eth0": [{"name": "r", "portGroup": 0, "protocol": 1, "portList": ["t1", "t2"]}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"r","policy":0,"portDirect":0,"portGroup":0,"portList":["t1","t2"],"protocol":1,"ruleIndex":0,"table":""}]}})"},
  UpdateRow{"UnknownServiceGoes", R"({"eth0": [{"name": "r", "portGroup": 0, "protocol": 1, "portList": ["gone", "t1", "gone", "gone too", "t2"]}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"r","policy":0,"portDirect":0,"portGroup":0,"portList":["t1","t2"],"protocol":1,"ruleIndex":0,"table":""}]}})"},
  UpdateRow{"UnavailableServiceGoes", R"({"eth0": [{"name": "r", "portGroup": 2, "protocol": 1, "portList": ["off", "t1"]}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"r","policy":0,"portDirect":0,"portGroup":2,"portList":["t1"],"protocol":1,"ruleIndex":0,"table":""}]}})"},
  UpdateRow{"RuleWithoutServicesGoes", R"({"eth0": [{"name": "r", "portGroup": 0, "portList": ["gone", "off"]}], "eth1": [{"name": "empty", "portGroup": 2}]})",
    R"({"adapterPolicyMap":{"eth0":0,"eth1":0,"global":2},"name":"office","rules":null})"},
  UpdateRow{"RuleAfterARemovedOneIsLookedAt", R"({"eth0": [{"name": "a", "portGroup": 0, "portList": ["gone"]}, {"name": "b", "portGroup": 0, "portList": ["gone"]}, {"name": "c", "portGroup": 0, "protocol": 1, "portList": ["gone", "u1"]}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"c","policy":0,"portDirect":0,"portGroup":0,"portList":["u1"],"protocol":2,"ruleIndex":0,"table":""}]}})"},
  UpdateRow{"PortsAndAllPortsStay", R"({"eth0": [{"name": "p", "portGroup": 1, "protocol": 3, "portList": ["gone"]}, {"name": "a", "portGroup": 3, "protocol": 2}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"p","policy":0,"portDirect":0,"portGroup":1,"portList":["gone"],"protocol":3,"ruleIndex":0,"table":""},{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"a","policy":0,"portDirect":0,"portGroup":3,"portList":[],"protocol":2,"ruleIndex":1,"table":""}]}})"},
  UpdateRow{"TcpAndUdpIsBoth", R"({"eth0": [{"name": "r", "portGroup": 0, "protocol": 1, "portList": ["u1", "t1"]}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"r","policy":0,"portDirect":0,"portGroup":0,"portList":["u1","t1"],"protocol":3,"ruleIndex":0,"table":""}]}})"},
  UpdateRow{"UdpOnly", R"({"eth0": [{"name": "r", "portGroup": 0, "protocol": 3, "portList": ["t1 ", "u1"]}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"r","policy":0,"portDirect":0,"portGroup":0,"portList":["u1"],"protocol":2,"ruleIndex":0,"table":""}]}})"},
  UpdateRow{"BothProtocolsInOneRecordMarkNeither", R"({"eth0": [{"name": "r", "portGroup": 0, "protocol": 1, "portList": ["b1", "i1"]}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"r","policy":0,"portDirect":0,"portGroup":0,"portList":["b1","i1"],"protocol":1,"ruleIndex":0,"table":""}]}})"},
  UpdateRow{"BothProtocolsInOneRecordAndUdp", R"({"eth0": [{"name": "r", "portGroup": 0, "protocol": 1, "portList": ["b1", "u1"]}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"r","policy":0,"portDirect":0,"portGroup":0,"portList":["b1","u1"],"protocol":2,"ruleIndex":0,"table":""}]}})"},
  UpdateRow{"RemovedServiceMarksNothing", R"({"eth0": [{"name": "r", "portGroup": 0, "protocol": 3, "portList": ["off", "u1"]}]})",
    R"({"adapterPolicyMap":{"eth0":0,"global":2},"name":"office","rules":{"eth0":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"r","policy":0,"portDirect":0,"portGroup":0,"portList":["u1"],"protocol":2,"ruleIndex":0,"table":""}]}})"},
  UpdateRow{"EveryAdapter", R"({"global": [{"name": "g", "portGroup": 0, "portList": ["gone"]}], "vpn": [{"name": "v", "portGroup": 2, "protocol": 1, "portList": ["gone", "s1"]}]})",
    R"({"adapterPolicyMap":{"global":2,"vpn":0},"name":"office","rules":{"vpn":[{"adapterDirect":0,"blLog":false,"chainList":["FORWARD_FIREWALL","INPUT_FIREWALL"],"enable":false,"ipDirect":0,"ipGroup":0,"ipList":[],"ipType":0,"labelList":[],"name":"v","policy":0,"portDirect":0,"portGroup":2,"portList":["s1"],"protocol":2,"ruleIndex":0,"table":""}]}})"}),
  updateName);
// clang-format on

class UpdateSequence : public fake::MachineTest {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    fake::machine().services = {{"t1", true, {}, {1, {{"22"}}}}};
    files::writeProfile("1", "home", R"({"eth0": [{"portGroup": 0, "portList": ["gone"]}]})");
    files::writeProfile("2", "office", R"({"eth0": [{"portGroup": 0, "portList": ["gone"]}]})");
    files::writeProfile("3", "work", R"({"eth0": [{"portGroup": 0, "portList": ["gone"]}]})");
  }

  // The stems of the profiles whose rules are pruned.
  static std::string pruned() {
    std::string stems;
    for (const std::string stem : {"1", "2", "3"}) {
      const std::string text = files::read(files::kProfileDirectory + stem + ".json");
      if (text.find("gone") == std::string::npos) stems += stem;
    }
    return stems;
  }
};

TEST_F(UpdateSequence, WritesEveryProfileAndNothingElse) {
  files::writeSettings(kSwitchedOn);
  EXPECT_TRUE(FW::TARNFW().fwUpdate());
  EXPECT_EQ("services enum\nservices free", trace::take());
  EXPECT_EQ("123", pruned());
  EXPECT_EQ(kSwitchedOn, files::read(files::kSettingsFile));
  EXPECT_EQ("1.json 2.json 3.json firewall_settings.json",
            files::listing(files::kProfileDirectory));
}

// A profile is written although nothing in it changes: the stored form is then the complete one.
TEST_F(UpdateSequence, WritesAProfileThatDoesNotChange) {
  files::writeProfile("1", "home", "null", "null");
  EXPECT_TRUE(FW::TARNFW().fwUpdate());
  EXPECT_EQ("services enum\nservices free", trace::take());
  EXPECT_EQ(
      "{\n"
      "   \"adapterPolicyMap\" : {\n"
      "      \"global\" : 2\n"
      "   },\n"
      "   \"name\" : \"home\",\n"
      "   \"rules\" : null\n"
      "}\n",
      files::read("/usr/tarn/etc/firewall.d/1.json"));
}

TEST_F(UpdateSequence, NoProfileAtAll) {
  files::clear();
  EXPECT_FALSE(FW::TARNFW().fwUpdate());
  EXPECT_EQ(
      "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
      "err fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\n"
      "err tarnFW Failed to enum profiles to profile list",
      trace::take());
}

TEST_F(UpdateSequence, NoServices) {
  fake::machine().services.clear();
  EXPECT_FALSE(FW::TARNFW().fwUpdate());
  EXPECT_EQ("services enum\nerr tarnFW Failed to enum FW services", trace::take());
  EXPECT_EQ("", pruned());
}

TEST_F(UpdateSequence, ServicesCannotBeRead) {
  fake::machine().answers = {{"services enum", -1}};
  EXPECT_FALSE(FW::TARNFW().fwUpdate());
  EXPECT_EQ("services enum\nerr tarnFW Failed to enum FW services", trace::take());
  EXPECT_EQ("", pruned());
}

TEST_F(UpdateSequence, SecondProfileIsNotStored) {
  std::filesystem::create_directory("/usr/tarn/etc/firewall.d/2.json.tmp");
  EXPECT_FALSE(FW::TARNFW().fwUpdate());
  EXPECT_EQ(
      "services enum\n"
      "err utils Failed to open json file /usr/tarn/etc/firewall.d/2.json.tmp\n"
      "err fwDB Failed to profileDbDump()\n"
      "err tarnFW Failed to set profile\n"
      "services free",
      trace::take());
  EXPECT_EQ("1", pruned());
}

}  // namespace
