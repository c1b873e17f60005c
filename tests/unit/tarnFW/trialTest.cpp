// Trial application: the whole sequence, one row for the way through and one for every way out.
// There is no lock, no look at "status" and no hook in any of them, save those of switching off.

#include <filesystem>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <json/value.h>

#include "fakePlatform.h"
#include "jsonText.h"
#include "reloadSequence.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using sequence::kAcceptSet;
using sequence::kCoreSetRead;
using sequence::kDropSet;
using sequence::kFlush;
using sequence::kInterfacesRead;
using sequence::kModulesAsked;
using sequence::lines;

// clang-format off

// --- the usual machine ---

constexpr char kModuleUsers[] = "/tmp/iptables_serv_mod_list";
constexpr char kModuleList[] = "/usr/tarn/etc.defaults/iptables_modules_list";
constexpr char kTestProfileFile[] = "/usr/tarn/etc/firewall.d/2.json";

constexpr char kSwitchedOn[] = R"({"profile":"office","status":true})";
constexpr char kSwitchedOff[] = R"({"profile":"office","status":false})";

// --- pieces of the sequence ---

// The test profile without an address: no line asks for the state of a connection. With one there are such lines in
// both families, with the address in its own.
const std::string kStateless = sequence::profile(std::nullopt, std::nullopt, "eth0");
std::string withState(const std::string& v4, const std::string& v6) { return sequence::profile(v4, v6, "eth0"); }

const std::string kModulesLoaded =
  kCoreSetRead + "\n"
  "list alloc 1024\n"
  "modinsert firewall core.ko common.ko ipv6.ko\n"
  "lock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
  "set /tmp/iptables_serv_mod_list firewall=yes\n"
  "list free\n"
  "unlock 100\n"
  "list alloc 1024\n"
  "modinsert firewall compat_xtables.ko xt_geoip.ko xt_mac.ko\n"
  "lock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
  "set /tmp/iptables_serv_mod_list firewall=yes\n"
  "list free\n"
  "unlock 101";

// Switching off, with its hooks, up to recording it; the last lines are those of the second hook.
const std::string kSwitchingOff =
  "plugin init net net/firewall_disable\n"
  "plugin set RESULT=0\n"
  "plugin action 4\n"
  "plugin exit\n" +
  kFlush + "\n"
  "get /tmp/iptables_serv_mod_list firewall\n"
  "list alloc 1024\n"
  "modremove firewall xt_mac.ko xt_geoip.ko compat_xtables.ko\n"
  "lock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
  "set /tmp/iptables_serv_mod_list firewall=no\n"
  "list free\n"
  "unlock 100\n" +
  kCoreSetRead + "\n"
  "list alloc 1024\n"
  "modremove firewall ipv6.ko common.ko core.ko\n"
  "lock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
  "set /tmp/iptables_serv_mod_list firewall=no\n"
  "list free\n"
  "unlock 101";
const std::string kSwitchedOffHook =
  "plugin init net net/firewall_disable\n"
  "plugin set RESULT=0\n"
  "plugin action 5\n"
  "plugin exit";
const std::string kNotSwitchedOffHook =
  "plugin init net net/firewall_disable\n"
  "plugin set RESULT=-1\n"
  "plugin action 5\n"
  "plugin exit";
// clang-format on

const std::string kDisabled = lines({kSwitchingOff, kSwitchedOffHook});

// The log of a command that cannot be run.
std::string notRun(const std::string& tool, const std::string& arguments) {
  return "err tarnFW Failed to execute " + tool + "\nerr tarnFW Failed to execute \"" + tool + " " +
         arguments + "\"";
}

// Makes commands impossible to run.
void breakCommand(const std::string& commandLine) {
  fake::machine().answers.emplace("exec " + commandLine, -1);
}

struct Row {
  const char* name;
  void (*deviate)();                   // what is not as usual
  std::optional<std::string> address;  // absent: the overload without one
  std::string trace;
  bool result;
  std::string settings;  // the document afterwards, compact
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

std::string rowName(const testing::TestParamInfo<Row>& info) { return info.param.name; }

// The settings in one line; what is no document is shown as it is.
std::string settings() {
  const std::string text = files::read(files::kSettingsFile);
  return text.front() == '{' && text.back() == '\n' ? toText(toJson(text)) : text;
}

// The usual machine: switched on, kernel modules loaded, "office" active, and its test profile,
// which denies eth0.
class Trial : public fake::MachineTest, public testing::WithParamInterface<Row> {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    fake::Machine& machine = fake::machine();
    machine.interfaces = {"eth0"};
    machine.files[kModuleList] = {{"KERNEL_MODULES_CORE", "core.ko"},
                                  {"KERNEL_MODULES_COMMON", "common.ko"},
                                  {"IPV6_MODULES", "ipv6.ko"}};
    machine.files[kModuleUsers] = {{"firewall", "yes"}};
    files::write(kModuleUsers, "");
    files::writeProfile("1", "office");
    files::writeProfile("2", ".test_office", "null", R"({"eth0": 1, "global": 2})");
    files::writeSettings(std::string(kSwitchedOn) + "\n");
  }

  static bool apply(const std::optional<std::string>& address) {
    return address ? FW::TARNFW().TestApplyingProfile("office", *address)
                   : FW::TARNFW().TestApplyingProfile("office");
  }
};

TEST_P(Trial, Row) {
  const Row& row = GetParam();
  row.deviate();
  EXPECT_EQ(row.result, apply(row.address));
  EXPECT_EQ(row.trace, trace::take());
  EXPECT_EQ(row.settings, settings());
}

void nothing() {}
void removeTestProfile() { std::filesystem::remove(kTestProfileFile); }

// Something stands where the settings would be written.
void makeSettingsReadOnly() {
  std::filesystem::create_directory(std::string(files::kSettingsFile) + ".tmp");
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Through, Trial, testing::Values(
  Row{"EmptyAddressGivesNoStateLines", nothing, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, kStateless, kAcceptSet}), true, kSwitchedOn},
  Row{"WithoutAnAddressNoStateLines", nothing, std::nullopt,
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, kStateless, kAcceptSet}), true, kSwitchedOn},
  Row{"IPv4AddressIsLeftOutOfTheIPv4State", nothing, "10.77.0.2",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, withState(" ! -s 10.77.0.2", ""), kAcceptSet}), true, kSwitchedOn},
  Row{"IPv6AddressIsLeftOutOfTheIPv6State", nothing, "fd77::2",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, withState("", " ! -s fd77::2"), kAcceptSet}), true, kSwitchedOn},
  Row{"LoopbackAddress", nothing, "127.0.0.1",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, withState(" ! -s 127.0.0.1", ""), kAcceptSet}), true, kSwitchedOn},
  Row{"SwitchedOffIsLoadedAllTheSame", [] { files::writeSettings(std::string(kSwitchedOff) + "\n"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, kStateless, kAcceptSet}), true, kSwitchedOff},
  Row{"SettingsAreNotReadNorMade", [] { std::filesystem::remove(files::kSettingsFile); }, "10.77.0.2",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, withState(" ! -s 10.77.0.2", ""), kAcceptSet}), true, "(absent)"},
  Row{"BrokenSettingsDoNotMatter", [] { files::writeSettings("{\"status\": tru"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json", "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/firewall_settings.json",
      "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json", "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/firewall_settings.json",
      kInterfacesRead, kStateless, kAcceptSet}), true, "{\"status\": tru"},
  Row{"TheExecutionLockIsNotAsked", [] { fake::machine().answers = {{"lock /tmp/firewall_iptables_exec.lock 1 30", 0}}; }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, kStateless, kAcceptSet}), true, kSwitchedOn},
  Row{"ModulesAreLoadedFirst", [] { fake::machine().files[kModuleUsers].clear(); }, "",
    lines({kModulesAsked, kModulesLoaded, kDropSet, kFlush, kInterfacesRead, kStateless, kAcceptSet}), true, kSwitchedOn},
  Row{"RefusedLinesCountAsRun", [] { fake::machine().exec = [](const std::string&) { return 2; }; }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, kStateless, kAcceptSet}), true, kSwitchedOn}),
  rowName);

INSTANTIATE_TEST_SUITE_P(BeforeTheDropPeriod, Trial, testing::Values(
  Row{"ModulesAreNotLoaded", [] { fake::machine().files[kModuleUsers].clear(); fake::machine().files.erase(kModuleList); }, "",
    lines({kModulesAsked,
      "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE",
      "err tarnIptablesModule Failed to get key KERNEL_MODULES_CORE from /usr/tarn/etc.defaults/iptables_modules_list",
      "err tarnIptablesModule Failed to coreCommonModuleLoad()",
      "err tarnFW Failed to iptablesCoreModLoad",
      "err tarnFW Failed to firewallModLoad()"}), false, kSwitchedOn}),
  rowName);

// The policies stay as the failed set left them.
INSTANTIATE_TEST_SUITE_P(InTheDropSet, Trial, testing::Values(
  Row{"InputV4", [] { breakCommand("/sbin/iptables --policy INPUT DROP"); }, "",
    lines({kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP", notRun("/sbin/iptables", "--policy INPUT DROP"),
      "err tarnFW Failed to fwExec() to set default drop."}), false, kSwitchedOn},
  Row{"ForwardV4", [] { breakCommand("/sbin/iptables --policy FORWARD DROP"); }, "",
    lines({kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP",
      "exec /sbin/iptables --policy FORWARD DROP", notRun("/sbin/iptables", "--policy FORWARD DROP"),
      "err tarnFW Failed to fwExec() to set default drop."}), false, kSwitchedOn},
  Row{"EstablishedV4", [] { breakCommand("/sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"); }, "",
    lines({kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP",
      "exec /sbin/iptables --policy FORWARD DROP",
      "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT", notRun("/sbin/iptables", "-A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"),
      "err tarnFW Failed to fwExec() to set default drop."}), false, kSwitchedOn},
  Row{"InputV6", [] { breakCommand("/sbin/ip6tables --policy INPUT DROP"); }, "",
    lines({kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP",
      "exec /sbin/iptables --policy FORWARD DROP",
      "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
      "exec /sbin/ip6tables --policy INPUT DROP", notRun("/sbin/ip6tables", "--policy INPUT DROP"),
      "err tarnFW Failed to fwExec() to set default drop."}), false, kSwitchedOn},
  Row{"ForwardV6", [] { breakCommand("/sbin/ip6tables --policy FORWARD DROP"); }, "",
    lines({kModulesAsked,
      "exec /sbin/iptables --policy INPUT DROP",
      "exec /sbin/iptables --policy FORWARD DROP",
      "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
      "exec /sbin/ip6tables --policy INPUT DROP",
      "exec /sbin/ip6tables --policy FORWARD DROP", notRun("/sbin/ip6tables", "--policy FORWARD DROP"),
      "err tarnFW Failed to fwExec() to set default drop."}), false, kSwitchedOn},
  Row{"EstablishedV6", [] { breakCommand("/sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"); }, "",
    lines({kModulesAsked, kDropSet, notRun("/sbin/ip6tables", "-A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"),
      "err tarnFW Failed to fwExec() to set default drop."}), false, kSwitchedOn}),
  rowName);

// A reload goes on over a chain that does not flush; a trial ends.
INSTANTIATE_TEST_SUITE_P(Flushing, Trial, testing::Values(
  Row{"InputV4", [] { breakCommand("/sbin/iptables -F INPUT_FIREWALL"); }, "",
    lines({kModulesAsked, kDropSet,
      "exec /sbin/iptables -F INPUT_FIREWALL", notRun("/sbin/iptables", "-F INPUT_FIREWALL"),
      "exec /sbin/ip6tables -F INPUT_FIREWALL",
      "exec /sbin/iptables -F FORWARD_FIREWALL",
      "exec /sbin/ip6tables -F FORWARD_FIREWALL",
      "err tarnFW Failed to fwClear()", kAcceptSet}), false, kSwitchedOn},
  Row{"InputV6", [] { breakCommand("/sbin/ip6tables -F INPUT_FIREWALL"); }, "",
    lines({kModulesAsked, kDropSet,
      "exec /sbin/iptables -F INPUT_FIREWALL",
      "exec /sbin/ip6tables -F INPUT_FIREWALL", notRun("/sbin/ip6tables", "-F INPUT_FIREWALL"),
      "exec /sbin/iptables -F FORWARD_FIREWALL",
      "exec /sbin/ip6tables -F FORWARD_FIREWALL",
      "err tarnFW Failed to fwClear()", kAcceptSet}), false, kSwitchedOn},
  Row{"ForwardV4", [] { breakCommand("/sbin/iptables -F FORWARD_FIREWALL"); }, "10.77.0.2",
    lines({kModulesAsked, kDropSet,
      "exec /sbin/iptables -F INPUT_FIREWALL",
      "exec /sbin/ip6tables -F INPUT_FIREWALL",
      "exec /sbin/iptables -F FORWARD_FIREWALL", notRun("/sbin/iptables", "-F FORWARD_FIREWALL"),
      "exec /sbin/ip6tables -F FORWARD_FIREWALL",
      "err tarnFW Failed to fwClear()", kAcceptSet}), false, kSwitchedOn},
  Row{"ForwardV6", [] { breakCommand("/sbin/ip6tables -F FORWARD_FIREWALL"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL"),
      "err tarnFW Failed to fwClear()", kAcceptSet}), false, kSwitchedOn},
  Row{"AndTheAcceptSet", [] { breakCommand("/sbin/iptables -F INPUT_FIREWALL"); breakCommand("/sbin/iptables --policy INPUT ACCEPT"); }, "",
    lines({kModulesAsked, kDropSet,
      "exec /sbin/iptables -F INPUT_FIREWALL", notRun("/sbin/iptables", "-F INPUT_FIREWALL"),
      "exec /sbin/ip6tables -F INPUT_FIREWALL",
      "exec /sbin/iptables -F FORWARD_FIREWALL",
      "exec /sbin/ip6tables -F FORWARD_FIREWALL",
      "err tarnFW Failed to fwClear()",
      "exec /sbin/iptables --policy INPUT ACCEPT", notRun("/sbin/iptables", "--policy INPUT ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.",
      "plugin init net net/firewall_disable", "plugin set RESULT=0", "plugin action 4", "plugin exit",
      "exec /sbin/iptables -F INPUT_FIREWALL", notRun("/sbin/iptables", "-F INPUT_FIREWALL"),
      kSwitchingOff.substr(kSwitchingOff.find("exec /sbin/ip6tables -F INPUT_FIREWALL")), kSwitchedOffHook}), false, kSwitchedOff}),
  rowName);

INSTANTIATE_TEST_SUITE_P(Compiling, Trial, testing::Values(
  Row{"NoTestProfile", removeTestProfile, "",
    lines({kModulesAsked, kDropSet, kFlush,
      "err fwDB Failed to profileGet .test_office due to not exist",
      "err tarnFW Failed to profileGet(.test_office)",
      "err tarnFW Failed to fwIptablesRulesEnum()", kAcceptSet}), false, kSwitchedOn},
  Row{"NoTestProfileForAnAddress", removeTestProfile, "10.77.0.2",
    lines({kModulesAsked, kDropSet, kFlush,
      "err fwDB Failed to profileGet .test_office due to not exist",
      "err tarnFW Failed to profileGet(.test_office)",
      "err tarnFW Failed to fwIptablesRulesEnum()", kAcceptSet}), false, kSwitchedOn},
  Row{"NotAnAddress", nothing, "not-an-ip",
    lines({kModulesAsked, kDropSet, kFlush,
      "err fwIptables:661 Invalid input argument 'not-an-ip' which is not an IP address.",
      "err tarnFW Failed to fwRulesToIptablesRules()",
      "err tarnFW Failed to fwIptablesRulesEnum()", kAcceptSet}), false, kSwitchedOn},
  Row{"UnknownPolicy", [] { files::writeProfile("2", ".test_office", "null", R"({"eth0": 7})"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      "err fwIptables:574 Unknown policy 7",
      "err fwIptables:733 Failed to policyToIptablesArg()",
      "err tarnFW Failed to fwRulesToIptablesRules()",
      "err tarnFW Failed to fwIptablesRulesEnum()", kAcceptSet}), false, kSwitchedOn},
  Row{"AndTheAcceptSet", [] { removeTestProfile(); breakCommand("/sbin/ip6tables --policy FORWARD ACCEPT"); }, "",
    lines({kModulesAsked, kDropSet, kFlush,
      "err fwDB Failed to profileGet .test_office due to not exist",
      "err tarnFW Failed to profileGet(.test_office)",
      "err tarnFW Failed to fwIptablesRulesEnum()",
      "exec /sbin/iptables --policy INPUT ACCEPT",
      "exec /sbin/iptables --policy FORWARD ACCEPT",
      "exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
      "exec /sbin/ip6tables --policy INPUT ACCEPT",
      "exec /sbin/ip6tables --policy FORWARD ACCEPT", notRun("/sbin/ip6tables", "--policy FORWARD ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabled}), false, kSwitchedOff}),
  rowName);

INSTANTIATE_TEST_SUITE_P(Running, Trial, testing::Values(
  Row{"FirstLine", [] { breakCommand("/sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      "exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT", notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT"),
      kDisabled, "err tarnFW Failed to fwExec() so disable firewall", kAcceptSet}), false, kSwitchedOff},
  Row{"LastLine", [] { breakCommand("/sbin/ip6tables -t filter -A INPUT_FIREWALL -i eth0 -j DROP"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, kStateless,
      notRun("/sbin/ip6tables", "-t filter -A INPUT_FIREWALL -i eth0 -j DROP"),
      kDisabled, "err tarnFW Failed to fwExec() so disable firewall", kAcceptSet}), false, kSwitchedOff},
  Row{"SwitchedOffBeforeStaysOff", [] { files::writeSettings(std::string(kSwitchedOff) + "\n"); breakCommand("/sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      "exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT", notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT"),
      kDisabled, "err tarnFW Failed to fwExec() so disable firewall", kAcceptSet}), false, kSwitchedOff},
  Row{"OffIsNotRecorded", [] { makeSettingsReadOnly(); breakCommand("/sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      "exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT", notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT"),
      kSwitchingOff,
      "err utils Failed to open json file /usr/tarn/etc/firewall.d/firewall_settings.json.tmp",
      "err tarnFW Falied to configSet()",
      kNotSwitchedOffHook, "err tarnFW Failed to fwExec() so disable firewall", kAcceptSet}), false, kSwitchedOn},
  Row{"NoToolCanBeRunFromHereOn", [] { fake::machine().exec = [ran = 0](const std::string&) mutable { return ++ran > 10 ? -1 : 0; }; }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead,
      "exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT", notRun("/sbin/iptables", "-A INPUT_FIREWALL -i lo -j ACCEPT"),
      "plugin init net net/firewall_disable", "plugin set RESULT=0", "plugin action 4", "plugin exit",
      "exec /sbin/iptables -F INPUT_FIREWALL", notRun("/sbin/iptables", "-F INPUT_FIREWALL"),
      "exec /sbin/ip6tables -F INPUT_FIREWALL", notRun("/sbin/ip6tables", "-F INPUT_FIREWALL"),
      "exec /sbin/iptables -F FORWARD_FIREWALL", notRun("/sbin/iptables", "-F FORWARD_FIREWALL"),
      "exec /sbin/ip6tables -F FORWARD_FIREWALL", notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL"),
      kSwitchingOff.substr(kSwitchingOff.find("get /tmp/iptables_serv_mod_list firewall")), kSwitchedOffHook,
      "err tarnFW Failed to fwExec() so disable firewall",
      "exec /sbin/iptables --policy INPUT ACCEPT", notRun("/sbin/iptables", "--policy INPUT ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.",
      "plugin init net net/firewall_disable", "plugin set RESULT=0", "plugin action 4", "plugin exit",
      "exec /sbin/iptables -F INPUT_FIREWALL", notRun("/sbin/iptables", "-F INPUT_FIREWALL"),
      "exec /sbin/ip6tables -F INPUT_FIREWALL", notRun("/sbin/ip6tables", "-F INPUT_FIREWALL"),
      "exec /sbin/iptables -F FORWARD_FIREWALL", notRun("/sbin/iptables", "-F FORWARD_FIREWALL"),
      "exec /sbin/ip6tables -F FORWARD_FIREWALL", notRun("/sbin/ip6tables", "-F FORWARD_FIREWALL"),
      "get /tmp/iptables_serv_mod_list firewall", kSwitchedOffHook}), false, kSwitchedOff}),
  rowName);

INSTANTIATE_TEST_SUITE_P(InTheAcceptSet, Trial, testing::Values(
  Row{"InputV4", [] { breakCommand("/sbin/iptables --policy INPUT ACCEPT"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, kStateless,
      "exec /sbin/iptables --policy INPUT ACCEPT", notRun("/sbin/iptables", "--policy INPUT ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabled}), false, kSwitchedOff},
  Row{"EstablishedV6", [] { breakCommand("/sbin/ip6tables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"); }, "",
    lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, kStateless, kAcceptSet,
      notRun("/sbin/ip6tables", "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"),
      "err tarnFW Failed to fwExec() to set default accept.", kDisabled}), false, kSwitchedOff}),
  rowName);
// clang-format on

// --- exceptions in the drop period ---

// What leaves the trial as an exception; the policies are open before it does.
template <class Exception>
std::string thrown(const std::string& address) {
  try {
    (void)FW::TARNFW().TestApplyingProfile("office", address);
  } catch (const Exception& exception) {
    return std::string("exception ") + exception.what();
  }
  return "no exception";
}

TEST_F(Trial, DocumentOfTheWrongShapeOpensThePoliciesAndThrows) {
  files::writeProfile("2", ".test_office", R"({"eth0": [{"ipGroup": "five"}]})");
  EXPECT_EQ("exception Value is not convertible to Int.", thrown<Json::LogicError>(""));
  EXPECT_EQ(lines({kModulesAsked, kDropSet, kFlush, kAcceptSet}), trace::take());
  EXPECT_EQ(kSwitchedOn, settings());
}

TEST_F(Trial, DocumentOfTheWrongShapeOpensThePoliciesForAnAddressToo) {
  files::writeProfile("2", ".test_office", R"({"eth0": [{"ipGroup": "five"}]})");
  EXPECT_EQ("exception Value is not convertible to Int.", thrown<Json::LogicError>("10.77.0.2"));
  EXPECT_EQ(lines({kModulesAsked, kDropSet, kFlush, kAcceptSet}), trace::take());
}

TEST_F(Trial, NoMemoryOpensThePoliciesAndThrows) {
  fake::machine().exec = [](const std::string& commandLine) {
    if (commandLine == "/sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT") throw std::bad_alloc();
    return 0;
  };
  EXPECT_EQ("exception std::bad_alloc", thrown<std::bad_alloc>(""));
  EXPECT_EQ(lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead,
                   "exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT", kAcceptSet}),
            trace::take());
}

// A profile may itself be called ".test_office"; its test profile has the prefix twice.
TEST_F(Trial, TestProfileOfATestProfile) {
  removeTestProfile();
  files::writeProfile("3", ".test_.test_office", "null", R"({"eth0": 1, "global": 2})");
  EXPECT_TRUE(FW::TARNFW().TestApplyingProfile(".test_office"));
  EXPECT_EQ(lines({kModulesAsked, kDropSet, kFlush, kInterfacesRead, kStateless, kAcceptSet}),
            trace::take());
}

}  // namespace
