// The C entry points of the firewall: what each calls, in order, what it answers for every outcome,
// and that no exception gets past one.

#include <pthread.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include "error.h"
#include "failingScans.h"
#include "fakePlatform.h"
#include "jsonText.h"
#include "reloadSequence.h"
#include "tarnfirewall_c.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using sequence::kAcceptSet;
using sequence::kDropSet;
using sequence::kFlush;
using sequence::kLocked;
using sequence::kModulesAsked;
using sequence::lines;

constexpr char kOn[] = R"({"profile": "office", "status": true})";
constexpr char kOff[] = R"({"profile": "office", "status": false})";
constexpr char kModuleUsers[] = "/tmp/iptables_serv_mod_list";
constexpr char kProfileFile[] = "/usr/tarn/etc/firewall.d/1.json";

// clang-format off
const std::string kReloadedWhileOff = lines({kLocked, "unlock 100"});
const std::string kReloadTimedOut = lines({kLocked, "err tarnFW TIMEOUT: getting lock"});

// A reload of a profile without adapters on a firewall that is on: what comes before compiling it, and what after.
const std::string kDropPeriodBegun = lines({kLocked, kModulesAsked, kDropSet, kFlush});
const std::string kLoadedAndOpened = lines({sequence::profile("", ""), kAcceptSet, "unlock 100"});

// Switching off a firewall whose kernel modules are not loaded.
constexpr char kSwitchedOff[] =
  "plugin init net net/firewall_disable\n"
  "plugin set RESULT=0\n"
  "plugin action 4\n"
  "plugin exit\n"
  "exec /sbin/iptables -F INPUT_FIREWALL\n"
  "exec /sbin/ip6tables -F INPUT_FIREWALL\n"
  "exec /sbin/iptables -F FORWARD_FIREWALL\n"
  "exec /sbin/ip6tables -F FORWARD_FIREWALL\n"
  "plugin init net net/firewall_disable\n"
  "plugin set RESULT=0\n"
  "plugin action 5\n"
  "plugin exit";

constexpr char kNothingToScan[] =
  "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
  "err fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/";
// clang-format on

// The services that each rule of the document names, with its policy: "global[0:ssh,http 1:dns]
// eth0[]".
std::string services() {
  const Json::Value document = toJson(files::read(kProfileFile));
  std::string text;
  for (const std::string& adapter : document["rules"].getMemberNames()) {
    text += (text.empty() ? "" : " ") + adapter + "[";
    std::string separator;
    for (const Json::Value& rule : document["rules"][adapter]) {
      text += separator + std::to_string(rule["policy"].asInt()) + ":";
      separator = " ";
      for (Json::ArrayIndex index = 0; index < rule["portList"].size(); ++index) {
        text += (index == 0 ? "" : ",") + rule["portList"][index].asString();
      }
    }
    text += "]";
  }
  return text;
}

struct Row {
  const char* name;
  void (*deviate)();  // what is not as usual
  int (*call)();
  int result;
  std::string trace;
  std::string services;  // of the profile afterwards
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

std::string rowName(const testing::TestParamInfo<Row>& info) { return info.param.name; }

// The usual machine: switched off, services ssh and http, and the active profile with a rule for
// each of ssh and one service that is gone.
class EntryPoints : public fake::MachineTest, public testing::WithParamInterface<Row> {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    fake::machine().services = {{"ssh", true, {}, {1, {{"22"}}}},
                                {"http", true, {}, {1, {{"80", "8080"}}}},
                                {"bare", true, {}, {}}};
    files::writeProfile(
        "1", "office",
        R"({"eth0": [{"portGroup": 0, "portList": ["ssh"]}, {"portGroup": 0, "portList": ["gone"]}]})",
        R"({"eth0": 1})");
    files::writeSettings(kOff);
  }
  void TearDown() override {
    scans::left = scans::kAll;
    if (std::filesystem::exists("/tmp.away")) std::filesystem::rename("/tmp.away", "/tmp");
    fake::MachineTest::TearDown();
  }
};

TEST_P(EntryPoints, Row) {
  const Row& row = GetParam();
  row.deviate();
  EXPECT_EQ(row.result, row.call());
  EXPECT_EQ(row.trace, trace::take());
  EXPECT_EQ(row.services, services());
}

constexpr char kUsualServices[] = "eth0[0:ssh 0:gone]";

void nothing() {}

void switchOn() {
  files::writeSettings(kOn);
  files::writeProfile("1", "office");
  files::write(kModuleUsers, "");
  fake::machine().files[kModuleUsers] = {{"firewall", "yes"}};
}
void holdLock() {
  fake::machine().answers.emplace("lock /tmp/firewall_iptables_exec.lock 1 30",
                                  fake::Answer(0, ETIMEDOUT));
}
void makeProfileReadOnly() {
  std::filesystem::create_directory(std::string(kProfileFile) + ".tmp");
}
void hideProfiles() { scans::left = 0; }
void giveProfileTheWrongShape() {
  files::writeProfile("1", "office",
                      R"({"eth0": [{"portGroup": 0, "portList": ["ssh"], "protocol": "tcp"}]})");
}
// No document's lock file can be opened: its directory cannot be made, and the other one is gone.
void hideLocks() {
  fake::machine().answers.emplace("mkdir /var/lock/firewall/", fake::Answer(-1, EROFS));
  std::filesystem::rename("/tmp", "/tmp.away");
}
void giveSettingsTheWrongShape() { files::writeSettings(R"({"status": "on"})"); }

// What is said when the lock library throws in `entryPoint`.
std::string lockFailure(const std::string& entryPoint) {
  return "debug utils Failed to create path: Read-only file system\n"
         "err tarnfirewall_c Failed to " +
         entryPoint + ": No such file or directory";
}

// clang-format off

// --- TARNFwRuleHup ---

INSTANTIATE_TEST_SUITE_P(RuleHup, EntryPoints, testing::Values(
  Row{"ExceptionOfTheLockLibrary", hideLocks, TARNFwRuleHup, -1, lockFailure("TARNFwRuleHup"), kUsualServices},
  Row{"UpdatesThenReloads", nothing, TARNFwRuleHup, 0,
    lines({"services enum", "services free", kReloadedWhileOff}), "eth0[0:ssh]"},
  Row{"ReloadsWithState", switchOn, TARNFwRuleHup, 0,
    lines({"services enum", "services free", kDropPeriodBegun, kLoadedAndOpened}), ""},
  Row{"NoReloadAfterAFailedUpdate", [] { fake::machine().services.clear(); }, TARNFwRuleHup, -1,
    lines({"services enum", "err tarnFW Failed to enum FW services"}), kUsualServices},
  Row{"NoReloadAfterAFailedWrite", makeProfileReadOnly, TARNFwRuleHup, -1,
    lines({"services enum",
      "err utils Failed to open json file /usr/tarn/etc/firewall.d/1.json.tmp",
      "err fwDB Failed to profileDbDump()",
      "err tarnFW Failed to set profile",
      "services free"}), kUsualServices},
  Row{"NoReloadWithoutProfiles", hideProfiles, TARNFwRuleHup, -1,
    lines({kNothingToScan, "err tarnFW Failed to enum profiles to profile list"}), kUsualServices},
  Row{"ReloadFails", holdLock, TARNFwRuleHup, -1,
    lines({"services enum", "services free", kReloadTimedOut}), "eth0[0:ssh]"},
  Row{"ExceptionOfTheUpdate", giveProfileTheWrongShape, TARNFwRuleHup, -1,
    "err tarnfirewall_c Failed to TARNFwRuleHup: Value is not convertible to Int.", "eth0[0:ssh]"},
  Row{"ExceptionOfTheReloadReleasesTheLock", giveSettingsTheWrongShape, TARNFwRuleHup, -1,
    lines({"services enum", "services free", kReloadedWhileOff,
      "err tarnfirewall_c Failed to TARNFwRuleHup: Value is not convertible to bool."}), "eth0[0:ssh]"}),
  rowName);

// --- TARNFwReset ---

int reset() {
  TARNFwReset();
  return 0;
}

INSTANTIATE_TEST_SUITE_P(Reset, EntryPoints, testing::Values(
  Row{"ExceptionOfTheLockLibrary", hideLocks, reset, 0, lines({std::string(kSwitchedOff).substr(0, std::string(kSwitchedOff).rfind("plugin init") - 1), lockFailure("TARNFwReset")}), kUsualServices},
  Row{"SwitchesOff", [] { files::writeSettings(kOn); }, reset, 0, kSwitchedOff, kUsualServices},
  Row{"SwitchedOffAlready", nothing, reset, 0, kSwitchedOff, kUsualServices},
  Row{"OffIsNotRecorded", [] { files::writeSettings("{"); }, reset, 0,
    lines({
      std::string(kSwitchedOff).substr(0, std::string(kSwitchedOff).rfind("plugin init") - 1),
      "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json",
      "err tarnFW Falied to config.configGet()",
      "err tarnFW Falied to configSet()",
      "plugin init net net/firewall_disable", "plugin set RESULT=-1", "plugin action 5", "plugin exit"}), kUsualServices},
  Row{"Exception", [] { fake::machine().exec = [](const std::string&) -> int { throw std::bad_alloc(); }; }, reset, 0,
    lines({
      "plugin init net net/firewall_disable", "plugin set RESULT=0", "plugin action 4", "plugin exit",
      "exec /sbin/iptables -F INPUT_FIREWALL",
      "err tarnfirewall_c Failed to TARNFwReset: std::bad_alloc"}), kUsualServices},
  Row{"ExceptionOfAnotherKind", [] { fake::machine().exec = [](const std::string&) -> int { throw 7; }; }, reset, 0,
    lines({
      "plugin init net net/firewall_disable", "plugin set RESULT=0", "plugin action 4", "plugin exit",
      "exec /sbin/iptables -F INPUT_FIREWALL",
      "err tarnfirewall_c Failed to TARNFwReset: unknown exception"}), kUsualServices}),
  rowName);

// --- TLIBFwServRemoveRec ---

INSTANTIATE_TEST_SUITE_P(RemoveService, EntryPoints, testing::Values(
  Row{"ExceptionOfTheLockLibrary", hideLocks, [] { return TLIBFwServRemoveRec("ssh"); }, -1, lockFailure("TLIBFwServRemoveRec"), kUsualServices},
  Row{"Done", nothing, [] { return TLIBFwServRemoveRec("ssh"); }, 0, "", "eth0[0:gone]"},
  Row{"UnknownService", nothing, [] { return TLIBFwServRemoveRec("nosuch"); }, 0, "", kUsualServices},
  Row{"DoesNotReload", [] { files::writeSettings(kOn); }, [] { return TLIBFwServRemoveRec("ssh"); }, 0, "", "eth0[0:gone]"},
  Row{"OneNameOnly", nothing, [] { return TLIBFwServRemoveRec("ssh,gone"); }, 0, "", kUsualServices},
  Row{"NoProfiles", hideProfiles, [] { return TLIBFwServRemoveRec("ssh"); }, -1,
    lines({kNothingToScan, "err tarnFW Failed to profileEnum()"}), kUsualServices},
  Row{"NotWritten", makeProfileReadOnly, [] { return TLIBFwServRemoveRec("ssh"); }, -1,
    "err utils Failed to open json file /usr/tarn/etc/firewall.d/1.json.tmp\n"
    "err fwDB Failed to profileDbDump()\n"
    "err tarnFW Failed to profile set [office]", kUsualServices},
  Row{"Exception", giveProfileTheWrongShape, [] { return TLIBFwServRemoveRec("ssh"); }, -1,
    "err tarnfirewall_c Failed to TLIBFwServRemoveRec: Value is not convertible to Int.", "eth0[0:ssh]"}),
  rowName);

// --- TLIBFwChangeAdatper ---

INSTANTIATE_TEST_SUITE_P(ChangeAdapter, EntryPoints, testing::Values(
  Row{"ExceptionOfTheLockLibrary", hideLocks, [] { return TLIBFwChangeAdatper("eth0", "eth1", 1); }, -1, lockFailure("TLIBFwChangeAdatper"), kUsualServices},
  Row{"WithReload", nothing, [] { return TLIBFwChangeAdatper("eth0", "eth1", 1); }, 0, kReloadedWhileOff, "eth1[0:ssh 0:gone]"},
  Row{"WithoutReload", nothing, [] { return TLIBFwChangeAdatper("eth0", "eth1", 0); }, 0, "", "eth1[0:ssh 0:gone]"},
  Row{"ReloadFlagTwoIsNone", nothing, [] { return TLIBFwChangeAdatper("eth0", "eth1", 2); }, 0, "", "eth1[0:ssh 0:gone]"},
  Row{"ReloadFlagMinusOneIsNone", nothing, [] { return TLIBFwChangeAdatper("eth0", "eth1", -1); }, 0, "", "eth1[0:ssh 0:gone]"},
  Row{"UnknownAdapterDoesNotReload", nothing, [] { return TLIBFwChangeAdatper("eth9", "eth1", 1); }, 0, "", kUsualServices},
  Row{"NoProfiles", hideProfiles, [] { return TLIBFwChangeAdatper("eth0", "eth1", 1); }, -1,
    lines({kNothingToScan, "err tarnFW Failed to profileEnum()"}), kUsualServices},
  Row{"NoActiveProfile", [] { files::writeSettings("{}"); }, [] { return TLIBFwChangeAdatper("eth0", "eth1", 1); }, -1,
    "err tarnFW There are no key: profile in config\n"
    "err tarnFW Failed to fwProfileConfigGet()", kUsualServices},
  Row{"NotWritten", makeProfileReadOnly, [] { return TLIBFwChangeAdatper("eth0", "eth1", 1); }, -1,
    "err utils Failed to open json file /usr/tarn/etc/firewall.d/1.json.tmp\n"
    "err fwDB Failed to profileDbDump()\n"
    "err tarnFW Failed to profile set [office]", kUsualServices},
  Row{"ReloadFails", holdLock, [] { return TLIBFwChangeAdatper("eth0", "eth1", 1); }, -1,
    lines({kReloadTimedOut, "err tarnFW Failed to reload firewall"}), "eth1[0:ssh 0:gone]"},
  Row{"Exception", giveProfileTheWrongShape, [] { return TLIBFwChangeAdatper("eth0", "eth1", 1); }, -1,
    "err tarnfirewall_c Failed to TLIBFwChangeAdatper: Value is not convertible to Int.", "eth0[0:ssh]"}),
  rowName);

// --- TLIBFwRuleReserveServInsert ---

INSTANTIATE_TEST_SUITE_P(Reserve, EntryPoints, testing::Values(
  Row{"ExceptionOfTheLockLibrary", hideLocks, [] { return TLIBFwRuleReserveServInsert("ssh", 1, 0); }, -1, lockFailure("TLIBFwRuleReserveServInsert"), kUsualServices},
  Row{"OneService", nothing, [] { return TLIBFwRuleReserveServInsert("ssh", 1, 0); }, 0, "", "eth0[0:ssh 0:gone] global[0:ssh]"},
  Row{"SeveralServices", nothing, [] { return TLIBFwRuleReserveServInsert("ssh,http,dns", 1, 0); }, 0, "", "eth0[0:ssh 0:gone] global[0:ssh,http,dns]"},
  Row{"AdjacentCommasGiveAnEmptyName", nothing, [] { return TLIBFwRuleReserveServInsert("ssh,,http", 1, 0); }, 0, "", "eth0[0:ssh 0:gone] global[0:ssh,,http]"},
  Row{"CommasAtTheEndsGiveOneEmptyName", nothing, [] { return TLIBFwRuleReserveServInsert(",ssh,", 1, 0); }, 0, "", "eth0[0:ssh 0:gone] global[0:,ssh]"},
  Row{"BlanksBelongToTheNames", nothing, [] { return TLIBFwRuleReserveServInsert("ssh, http", 1, 0); }, 0, "", "eth0[0:ssh 0:gone] global[0:ssh, http]"},
  Row{"ACommaIsTwoEmptyNames", nothing, [] { return TLIBFwRuleReserveServInsert(",", 1, 0); }, 0, "", "eth0[0:ssh 0:gone] global[0:]"},
  Row{"AllowZeroDenies", nothing, [] { return TLIBFwRuleReserveServInsert("ssh", 0, 0); }, 0, "", "eth0[0:ssh 0:gone] global[1:ssh]"},
  Row{"AllowMinusOneAllows", nothing, [] { return TLIBFwRuleReserveServInsert("ssh", -1, 0); }, 0, "", "eth0[0:ssh 0:gone] global[0:ssh]"},
  Row{"AllowTwoAllows", nothing, [] { return TLIBFwRuleReserveServInsert("ssh", 2, 0); }, 0, "", "eth0[0:ssh 0:gone] global[0:ssh]"},
  Row{"ReloadsOnceAtTheEnd", nothing, [] { return TLIBFwRuleReserveServInsert("ssh,http", 1, 1); }, 0, kReloadedWhileOff, "eth0[0:ssh 0:gone] global[0:ssh,http]"},
  Row{"ReloadsWithState", switchOn, [] { return TLIBFwRuleReserveServInsert("nosuch", 1, 1); }, 0,
    lines({kDropPeriodBegun, "services enum", "services free", kLoadedAndOpened}), "global[0:nosuch]"},
  Row{"ReloadFlagTwoIsNone", nothing, [] { return TLIBFwRuleReserveServInsert("ssh", 1, 2); }, 0, "", "eth0[0:ssh 0:gone] global[0:ssh]"},
  Row{"ReloadFlagMinusOneIsNone", nothing, [] { return TLIBFwRuleReserveServInsert("ssh", 1, -1); }, 0, "", "eth0[0:ssh 0:gone] global[0:ssh]"},
  Row{"NullSetsThePlatformErrorAndLogsNothing", nothing, [] { return TLIBFwRuleReserveServInsert(nullptr, 1, 1); }, -1, "error 0x0D00", kUsualServices},
  Row{"EmptySetsThePlatformErrorAndLogsNothing", nothing, [] { return TLIBFwRuleReserveServInsert("", 1, 1); }, -1, "error 0x0D00", kUsualServices},
  Row{"FirstNameFails", hideProfiles, [] { return TLIBFwRuleReserveServInsert("ssh,http", 1, 1); }, -1,
    lines({kNothingToScan, "err tarnFW Failed to profileEnum()", "err tarnfirewall_c Failed to assign serv [ssh]"}), kUsualServices},
  // One profile is five scans a name: all profiles, that it is there, its document, and two to write it.
  Row{"SecondNameFailsAndTheFirstStays", [] { scans::left = 5; }, [] { return TLIBFwRuleReserveServInsert("ssh,http,dns", 1, 1); }, -1,
    lines({kNothingToScan, "err tarnFW Failed to profileEnum()", "err tarnfirewall_c Failed to assign serv [http]"}), "eth0[0:ssh 0:gone] global[0:ssh]"},
  Row{"NotWritten", makeProfileReadOnly, [] { return TLIBFwRuleReserveServInsert("ssh", 1, 1); }, -1,
    "err utils Failed to open json file /usr/tarn/etc/firewall.d/1.json.tmp\n"
    "err fwDB Failed to profileDbDump()\n"
    "err tarnFW Failed to set profile\n"
    "err tarnfirewall_c Failed to assign serv [ssh]", kUsualServices},
  Row{"ReloadFails", holdLock, [] { return TLIBFwRuleReserveServInsert("ssh", 1, 1); }, -1,
    lines({kReloadTimedOut, "err tarnfirewall_c Failed to reload firewall"}), "eth0[0:ssh 0:gone] global[0:ssh]"},
  Row{"Exception", giveProfileTheWrongShape, [] { return TLIBFwRuleReserveServInsert("ssh", 1, 1); }, -1,
    "err tarnfirewall_c Failed to TLIBFwRuleReserveServInsert: Value is not convertible to Int.", "eth0[0:ssh]"}),
  rowName);

// --- TARNFwPortsCheckAllowByAdapter ---

constexpr char kTableRead[] = "services enum\nservices free";

template <int entry> void ssh() {  // switched on, and eth0's verdict for every port is `entry`
  files::writeSettings(kOn);
  files::writeProfile("1", "office", "null", R"({"eth0": )" + std::to_string(entry) + R"(, "eth1": 0})");
}

INSTANTIATE_TEST_SUITE_P(Check, EntryPoints, testing::Values(
  Row{"ExceptionOfTheLockLibrary", hideLocks, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }, -1, lines({kTableRead, lockFailure("TARNFwPortsCheckAllowByAdapter")}), kUsualServices},
  Row{"Open", ssh<0>, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }, 1, kTableRead, ""},
  Row{"Blocked", ssh<1>, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }, 0, kTableRead, ""},
  Row{"UndecidedIsOpen", ssh<2>, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }, 1, kTableRead, ""},
  Row{"PartlyIsBlocked", ssh<3>, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }, 0, kTableRead, ""},
  Row{"OtherVerdictsAreBlocked", ssh<6>, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }, 0, kTableRead, ""},
  Row{"AnotherAdapterDoesNotMatter", ssh<1>, [] { return TARNFwPortsCheckAllowByAdapter("eth1", "ssh"); }, 1, kTableRead, ""},
  Row{"NullMeansEveryAdapter", ssh<1>, [] { return TARNFwPortsCheckAllowByAdapter(nullptr, "ssh"); }, 0, kTableRead, ""},
  Row{"NullAndEveryAdapterOpen", ssh<0>, [] { return TARNFwPortsCheckAllowByAdapter(nullptr, "ssh"); }, 1, kTableRead, ""},
  Row{"EmptyMeansEveryAdapter", ssh<1>, [] { return TARNFwPortsCheckAllowByAdapter("", "ssh"); }, 0, kTableRead, ""},
  Row{"SomeAddressesOnlyIsBlocked", [] { files::writeSettings(kOn); files::writeProfile("1", "office", R"({"eth0": [{"enable": true, "ipGroup": 0, "ipList": ["10.0.0.1"], "portGroup": 1, "protocol": 1, "portList": ["22"]}]})", R"({"eth0": 1})"); }, [] { return TARNFwPortsCheckAllowByAdapter(nullptr, "ssh"); }, 0, kTableRead, "eth0[0:22]"},
  Row{"OneBlockedPortOfTheService", [] { files::writeSettings(kOn); files::writeProfile("1", "office", R"({"eth0": [{"enable": true, "policy": 1, "ipGroup": 5, "portGroup": 1, "protocol": 1, "portList": ["8080"]}]})", R"({"eth0": 0})"); }, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "http"); }, 0, kTableRead, "eth0[1:8080]"},
  Row{"SwitchedOffIsOpen", nothing, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }, 1, kTableRead, kUsualServices},
  Row{"SwitchedOffIsOpenOnEveryAdapter", nothing, [] { return TARNFwPortsCheckAllowByAdapter(nullptr, "ssh"); }, 1, kTableRead, kUsualServices},
  Row{"ServiceWithoutPortsIsOpen", ssh<1>, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "bare"); }, 1, kTableRead, ""},
  Row{"UnknownServiceIsOpen", ssh<1>, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "nosuch"); }, 1, kTableRead, ""},
  Row{"NoServiceTable", [] { fake::machine().services.clear(); }, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }, -1,
    "services enum\n"
    "err fwIptables:427 Failed to enum services\n"
    "err tarnFW Failed to servToPorts()\n"
    "err tarnfirewall_c Failed to check ssh is block or not", kUsualServices},
  Row{"NoActiveProfile", [] { files::writeSettings(R"({"status": true, "profile": "gone"})"); }, [] { return TARNFwPortsCheckAllowByAdapter(nullptr, "ssh"); }, -1,
    "services enum\n"
    "services free\n"
    "err fwDB Failed to profileGet gone due to not exist\n"
    "err tarnFW Failed to profileGet(gone)\n"
    "err tarnFW Failed to fwPortIsBlocked()\n"
    "err tarnfirewall_c Failed to check ssh is block or not", kUsualServices},
  Row{"Exception", giveSettingsTheWrongShape, [] { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }, -1,
    lines({kTableRead, "err tarnfirewall_c Failed to TARNFwPortsCheckAllowByAdapter: Value is not convertible to bool."}), kUsualServices}),
  rowName);
// clang-format on

// --- arguments that are not there ---

// The platform error names this library's source, and the log line repeats it.
TEST_F(EntryPoints, CheckOfNoServiceSetsThePlatformErrorAndLogsIt) {
  EXPECT_EQ(-1, TARNFwPortsCheckAllowByAdapter("eth0", nullptr));
  const std::string file = TLIBCErrorGetFile();
  EXPECT_EQ("tarnfirewall_c.cpp", std::filesystem::path(file).filename());
  EXPECT_LT(0, TLIBCErrorGetLine());
  EXPECT_EQ(0x0D00, TLIBCErrGet());
  EXPECT_EQ("error 0x0D00\nerr tarnfirewall_c Bad parameters[0x0D00 " + file + ":" +
                std::to_string(TLIBCErrorGetLine()) + "]",
            trace::take());
}

TEST_F(EntryPoints, ReserveOfNoServiceNamesItsSource) {
  EXPECT_EQ(-1, TLIBFwRuleReserveServInsert("", 1, 0));
  EXPECT_EQ("tarnfirewall_c.cpp", std::filesystem::path(TLIBCErrorGetFile()).filename());
  EXPECT_LT(0, TLIBCErrorGetLine());
  EXPECT_EQ("error 0x0D00", trace::take());
}

// --- threads ---

// A thread that ends inside an entry point unwinds through it: stopping that would end the process.
TEST_F(EntryPoints, EndOfTheThreadGoesThrough) {
  fake::machine().exec = [](const std::string&) -> int { pthread_exit(&fake::machine()); };
  pthread_t thread = {};
  ASSERT_EQ(0, pthread_create(
                   &thread, nullptr,
                   [](void*) -> void* {
                     TARNFwReset();
                     return nullptr;
                   },
                   nullptr));
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(thread, &result));
  EXPECT_EQ(&fake::machine(), result);
  EXPECT_EQ(
      "plugin init net net/firewall_disable\n"
      "plugin set RESULT=0\n"
      "plugin action 4\n"
      "plugin exit\n"
      "exec /sbin/iptables -F INPUT_FIREWALL",
      trace::take());
}

}  // namespace
