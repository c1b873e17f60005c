#include <cerrno>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "constants.h"
#include "fakePlatform.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using FW::TARN_IPTABLES_MODULES;

using Texts = std::vector<std::string>;
using Answers = std::map<std::string, fake::Answer>;
using KeyValues = std::map<std::string, std::string>;

constexpr char kListFile[] = "/usr/tarn/etc.defaults/iptables_modules_list";
constexpr char kStateFile[] = "/tmp/iptables_serv_mod_list";

// What the state file records, "" for nothing: "firewall=yes vpn=no".
std::string recorded() {
  std::string text;
  for (const auto& [service, state] : fake::machine().files[kStateFile]) {
    text.append(text.empty() ? "" : " ").append(service).append("=").append(state);
  }
  return text;
}

// --- is it loaded? ---

struct LoadedRow {
  const char* name;
  bool fileExists;
  bool result;
  KeyValues states;
  Answers answers;
  const char* service;
  const char* trace;
};

void PrintTo(const LoadedRow& row, std::ostream* out) { *out << row.service; }

// clang-format off
const LoadedRow kLoadedRows[] = {
    {"Yes", true, true, {{"firewall", "yes"}}, {}, "firewall", "get /tmp/iptables_serv_mod_list firewall"},
    {"No", true, false, {{"firewall", "no"}}, {}, "firewall", "get /tmp/iptables_serv_mod_list firewall"},
    {"Capitals", true, false, {{"firewall", "YES"}}, {}, "firewall", "get /tmp/iptables_serv_mod_list firewall"},
    {"TrailingBlank", true, false, {{"firewall", "yes "}}, {}, "firewall", "get /tmp/iptables_serv_mod_list firewall"},
    {"LeadingBlank", true, false, {{"firewall", " yes"}}, {}, "firewall", "get /tmp/iptables_serv_mod_list firewall"},
    {"Longer", true, false, {{"firewall", "yesterday"}}, {}, "firewall", "get /tmp/iptables_serv_mod_list firewall"},
    {"Empty", true, false, {{"firewall", ""}}, {}, "firewall", "get /tmp/iptables_serv_mod_list firewall"},
    {"ValueThatFillsTheBuffer", true, false, {{"firewall", std::string(4000, 'y')}}, {}, "firewall", "get /tmp/iptables_serv_mod_list firewall"},
    {"AnotherService", true, false, {{"vpn", "yes"}}, {}, "firewall", "get /tmp/iptables_serv_mod_list firewall"},
    {"EmptyServiceName", true, true, {{"", "yes"}}, {}, "", "get /tmp/iptables_serv_mod_list "},
    {"FileIsMissing", false, false, {{"firewall", "yes"}}, {}, "firewall", ""},
    {"FileCannotBeRead", true, false, {{"firewall", "yes"}}, {{"get /tmp/iptables_serv_mod_list firewall", -1}}, "firewall",
     "get /tmp/iptables_serv_mod_list firewall\nerr tarnIptablesModule failed to get key /tmp/iptables_serv_mod_list from file firewall[0x0400 platform.c:12]"},
};
// clang-format on

class Loaded : public fake::MachineTest, public testing::WithParamInterface<LoadedRow> {};

TEST_P(Loaded, IsReadFromTheStateFile) {
  if (GetParam().fileExists) files::write(kStateFile, "");
  fake::machine().files[kStateFile] = GetParam().states;
  fake::machine().answers = GetParam().answers;
  EXPECT_EQ(GetParam().result, TARN_IPTABLES_MODULES::isModuleLoad(GetParam().service));
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, Loaded, testing::ValuesIn(kLoadedRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- lists of modules ---

struct ListRow {
  const char* name;
  bool (*read)(Texts& modules);
  KeyValues keys;
  Answers answers;
  bool result;
  Texts modules;
  const char* trace;
};

void PrintTo(const ListRow& row, std::ostream* out) { *out << testing::PrintToString(row.keys); }

bool readOther(Texts& modules) {
  return TARN_IPTABLES_MODULES::iptablesModListGet("OTHER", modules);
}

constexpr char kGetCore[] = "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE";
constexpr char kGetCommon[] =
    "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON";
constexpr char kGetIpv6[] = "get /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES";
constexpr char kGetNat[] = "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT";
constexpr char kGetOther[] = "get /usr/tarn/etc.defaults/iptables_modules_list OTHER";

const std::string kLongName(4095, 'm');  // as long as a value can be

// After a failure the list still holds what it held before, which is "before".
//
// clang-format off
const ListRow kListRows[] = {
    {"OneModule", readOther, {{"OTHER", "a.ko"}}, {}, true, {"a.ko"}, "get /usr/tarn/etc.defaults/iptables_modules_list OTHER"},
    {"ModulesAreSplitAtBlanks", readOther, {{"OTHER", "a.ko b.ko c.ko"}}, {}, true, {"a.ko", "b.ko", "c.ko"}, "get /usr/tarn/etc.defaults/iptables_modules_list OTHER"},
    {"TwoBlanksGiveAnEmptyName", readOther, {{"OTHER", "a.ko  b.ko"}}, {}, true, {"a.ko", "", "b.ko"}, "get /usr/tarn/etc.defaults/iptables_modules_list OTHER"},
    {"OuterBlanksGiveEmptyNames", readOther, {{"OTHER", " a.ko "}}, {}, true, {"", "a.ko", ""}, "get /usr/tarn/etc.defaults/iptables_modules_list OTHER"},
    {"OneBlankGivesTwoEmptyNames", readOther, {{"OTHER", " "}}, {}, true, {"", ""}, "get /usr/tarn/etc.defaults/iptables_modules_list OTHER"},
    {"OnlyBlanksSplit", readOther, {{"OTHER", "a.ko\tb.ko,c.ko"}}, {}, true, {"a.ko\tb.ko,c.ko"}, "get /usr/tarn/etc.defaults/iptables_modules_list OTHER"},
    {"LongestValue", readOther, {{"OTHER", kLongName}}, {}, true, {kLongName}, "get /usr/tarn/etc.defaults/iptables_modules_list OTHER"},
    {"LongerValueIsCut", readOther, {{"OTHER", kLongName + "x y.ko"}}, {}, true, {kLongName}, "get /usr/tarn/etc.defaults/iptables_modules_list OTHER"},
    {"AbsentKey", readOther, {{"ANOTHER", "a.ko"}}, {}, false, {"before"},
     "get /usr/tarn/etc.defaults/iptables_modules_list OTHER\nerr tarnIptablesModule Failed to get key OTHER from /usr/tarn/etc.defaults/iptables_modules_list"},
    {"EmptyValue", readOther, {{"OTHER", ""}}, {}, false, {"before"},
     "get /usr/tarn/etc.defaults/iptables_modules_list OTHER\nerr tarnIptablesModule Failed to get key OTHER from /usr/tarn/etc.defaults/iptables_modules_list"},
    {"UnreadableFile", readOther, {{"OTHER", "a.ko"}}, {{kGetOther, -1}}, false, {"before"},
     "get /usr/tarn/etc.defaults/iptables_modules_list OTHER\nerr tarnIptablesModule Failed to get key OTHER from /usr/tarn/etc.defaults/iptables_modules_list"},

    {"NatSet", TARN_IPTABLES_MODULES::natModuleLoad, {{"KERNEL_MODULES_NAT", "n.ko  o.ko"}}, {}, true, {"n.ko", "", "o.ko"}, "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT"},
    {"NatSetIsMissing", TARN_IPTABLES_MODULES::natModuleLoad, {}, {}, false, {"before"},
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\nerr tarnIptablesModule Failed to get key KERNEL_MODULES_NAT from /usr/tarn/etc.defaults/iptables_modules_list"},

    {"CoreSetIsCoreCommonIpv6", TARN_IPTABLES_MODULES::coreCommonModuleLoad, {{"IPV6_MODULES", "d.ko"}, {"KERNEL_MODULES_COMMON", "c.ko"}, {"KERNEL_MODULES_CORE", "a.ko b.ko"}}, {}, true, {"a.ko", "b.ko", "c.ko", "d.ko"},
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES"},
    {"BlanksAtTheSeamsGiveEmptyNames", TARN_IPTABLES_MODULES::coreCommonModuleLoad, {{"KERNEL_MODULES_CORE", "a.ko "}, {"KERNEL_MODULES_COMMON", " c.ko"}, {"IPV6_MODULES", "d.ko  e.ko"}}, {}, true, {"a.ko", "", "", "c.ko", "d.ko", "", "e.ko"},
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES"},
    {"ThreeLongestValues", TARN_IPTABLES_MODULES::coreCommonModuleLoad, {{"KERNEL_MODULES_CORE", kLongName}, {"KERNEL_MODULES_COMMON", kLongName}, {"IPV6_MODULES", kLongName}}, {}, true, {kLongName, kLongName, kLongName},
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES"},
    {"CoreKeyIsMissing", TARN_IPTABLES_MODULES::coreCommonModuleLoad, {{"KERNEL_MODULES_COMMON", "c.ko"}, {"IPV6_MODULES", "d.ko"}}, {}, false, {"before"},
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nerr tarnIptablesModule Failed to get key KERNEL_MODULES_CORE from /usr/tarn/etc.defaults/iptables_modules_list"},
    {"CommonKeyIsMissing", TARN_IPTABLES_MODULES::coreCommonModuleLoad, {{"KERNEL_MODULES_CORE", "a.ko"}, {"IPV6_MODULES", "d.ko"}}, {}, false, {"before"},
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nerr tarnIptablesModule Failed to get key KERNEL_MODULES_COMMON from /usr/tarn/etc.defaults/iptables_modules_list"},
    {"Ipv6KeyIsMissing", TARN_IPTABLES_MODULES::coreCommonModuleLoad, {{"KERNEL_MODULES_CORE", "a.ko"}, {"KERNEL_MODULES_COMMON", "c.ko"}}, {}, false, {"before"},
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nerr tarnIptablesModule Failed to get key IPV6_MODULES from /usr/tarn/etc.defaults/iptables_modules_list"},
    {"Ipv6KeyCannotBeRead", TARN_IPTABLES_MODULES::coreCommonModuleLoad, {{"KERNEL_MODULES_CORE", "a.ko"}, {"KERNEL_MODULES_COMMON", "c.ko"}, {"IPV6_MODULES", "d.ko"}}, {{kGetIpv6, -1}}, false, {"before"},
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nerr tarnIptablesModule Failed to get key IPV6_MODULES from /usr/tarn/etc.defaults/iptables_modules_list"},
};
// clang-format on

class ModuleLists : public fake::MachineTest, public testing::WithParamInterface<ListRow> {};

TEST_P(ModuleLists, AreRead) {
  fake::machine().files[kListFile] = GetParam().keys;
  fake::machine().answers = GetParam().answers;
  Texts modules = {"before"};
  EXPECT_EQ(GetParam().result, GetParam().read(modules));
  EXPECT_EQ(GetParam().modules, modules);
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, ModuleLists, testing::ValuesIn(kListRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- one list of a service ---

bool insert() { return TARN_IPTABLES_MODULES::moduleInsert("firewall", {"a.ko", "", "b.ko"}); }
bool removeThem() { return TARN_IPTABLES_MODULES::moduleRemove("firewall", {"b.ko", "a.ko"}); }

struct ChangeRow {
  const char* name;
  bool (*change)();
  Answers answers;
  bool result;
  const char* states;  // what the state file records afterwards
  const char* trace;
};

void PrintTo(const ChangeRow& row, std::ostream* out) { *out << row.name; }

constexpr char kLock[] = "lock /var/lock/firewall/iptables_serv_mod_list.lock 1 30";
constexpr char kSetYes[] = "set /tmp/iptables_serv_mod_list firewall=yes";
constexpr char kSetNo[] = "set /tmp/iptables_serv_mod_list firewall=no";

// clang-format off
const ChangeRow kChangeRows[] = {
    {"Insert", insert, {}, true, "firewall=yes other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list firewall=yes\nlist free\nunlock 100"},
    {"InsertNothing", [] { return TARN_IPTABLES_MODULES::moduleInsert("firewall", {}); }, {}, true, "firewall=yes other=yes",
     "list alloc 1024\nmodinsert firewall\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list firewall=yes\nlist free\nunlock 100"},
    {"InsertForAnEmptyName", [] { return TARN_IPTABLES_MODULES::moduleInsert("", {"a.ko"}); }, {}, true, "=yes other=yes",
     "list alloc 1024\nmodinsert  a.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list =yes\nlist free\nunlock 100"},
    {"InsertAnswersMoreThanZero", insert, {{"modinsert firewall a.ko  b.ko", 2}, {kSetYes, 1}}, true, "firewall=yes other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list firewall=yes\nlist free\nunlock 100"},
    {"InsertHasNoList", insert, {{"list alloc 1024", -1}}, false, "other=yes",
     "list alloc 1024\nerr tarnIptablesModule Failed to allocate list[0x0400 platform.c:12]"},
    {"InsertCannotFillTheList", insert, {{"list push b.ko", -1}}, false, "other=yes",
     "list alloc 1024\nerr tarnIptablesModule Failed to TLIBCSzListPush()\nlist free"},
    {"InsertCannotFillTheListFromTheStart", insert, {{"list push a.ko", -1}, {"list push b.ko", -1}}, false, "other=yes",
     "list alloc 1024\nerr tarnIptablesModule Failed to TLIBCSzListPush()\nlist free"},
    {"InsertFails", insert, {{"modinsert firewall a.ko  b.ko", -1}}, false, "other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\nerr tarnIptablesModule Failed to TLIBIptablesModInsert()\nlist free"},
    {"InsertGoesOnWithoutTheLock", insert, {{kLock, {0, ETIMEDOUT}}}, true, "firewall=yes other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
     "err tarnIptablesModule Failed to get lock [/var/lock/firewall/iptables_serv_mod_list.lock] error[Connection timed out]\n"
     "err tarnIptablesModule Failed to get lock /var/lock/firewall/iptables_serv_mod_list.lock but still continue\n"
     "set /tmp/iptables_serv_mod_list firewall=yes\nlist free"},
    {"OnlyTheAnswerOneIsALock", insert, {{kLock, {2, EACCES}}}, true, "firewall=yes other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
     "err tarnIptablesModule Failed to get lock [/var/lock/firewall/iptables_serv_mod_list.lock] error[Permission denied]\n"
     "err tarnIptablesModule Failed to get lock /var/lock/firewall/iptables_serv_mod_list.lock but still continue\n"
     "set /tmp/iptables_serv_mod_list firewall=yes\nlist free"},
    {"NegativeAnswerIsNoLock", insert, {{kLock, {-1, ENOENT}}}, true, "firewall=yes other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
     "err tarnIptablesModule Failed to get lock [/var/lock/firewall/iptables_serv_mod_list.lock] error[No such file or directory]\n"
     "err tarnIptablesModule Failed to get lock /var/lock/firewall/iptables_serv_mod_list.lock but still continue\n"
     "set /tmp/iptables_serv_mod_list firewall=yes\nlist free"},
    {"InsertWithTheLockInTmp", insert, {{"mkdir /var/lock/firewall/", {-1, EACCES}}}, true, "firewall=yes other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\ndebug utils Failed to create path: Permission denied\nlock /tmp/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list firewall=yes\nlist free\nunlock 100"},
    {"InsertIsNotRecorded", insert, {{kSetYes, -1}}, false, "other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list firewall=yes\n"
     "err tarnIptablesModule failed to set key /tmp/iptables_serv_mod_list to file firewall[0x0400 platform.c:12]\nlist free\nunlock 100"},
    {"InsertIsNeitherLockedNorRecorded", insert, {{kLock, {0, ETIMEDOUT}}, {kSetYes, -1}}, false, "other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
     "err tarnIptablesModule Failed to get lock [/var/lock/firewall/iptables_serv_mod_list.lock] error[Connection timed out]\n"
     "err tarnIptablesModule Failed to get lock /var/lock/firewall/iptables_serv_mod_list.lock but still continue\n"
     "set /tmp/iptables_serv_mod_list firewall=yes\nerr tarnIptablesModule failed to set key /tmp/iptables_serv_mod_list to file firewall[0x0400 platform.c:12]\nlist free"},
    {"UnlockFails", insert, {{"unlock 100", 0}}, true, "firewall=yes other=yes",
     "list alloc 1024\nmodinsert firewall a.ko  b.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list firewall=yes\nlist free\nunlock 100\n"
     "err tarnIptablesModule Failed to unlock mail config lock. "},

    {"Remove", removeThem, {}, true, "firewall=no other=yes",
     "list alloc 1024\nmodremove firewall b.ko a.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list firewall=no\nlist free\nunlock 100"},
    {"RemoveHasNoList", removeThem, {{"list alloc 1024", -1}}, false, "other=yes",
     "list alloc 1024\nerr tarnIptablesModule Failed to allocate list[0x0400 platform.c:12]"},
    {"RemoveCannotFillTheList", removeThem, {{"list push a.ko", -1}}, false, "other=yes",
     "list alloc 1024\nerr tarnIptablesModule Failed to TLIBCSzListPush()\nlist free"},
    {"RemoveFails", removeThem, {{"modremove firewall b.ko a.ko", -1}}, false, "other=yes",
     "list alloc 1024\nmodremove firewall b.ko a.ko\nerr tarnIptablesModule Failed to TLIBIptablesModRemove()\nlist free"},
    {"RemoveGoesOnWithoutTheLock", removeThem, {{kLock, {0, ETIMEDOUT}}}, true, "firewall=no other=yes",
     "list alloc 1024\nmodremove firewall b.ko a.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
     "err tarnIptablesModule Failed to get lock [/var/lock/firewall/iptables_serv_mod_list.lock] error[Connection timed out]\n"
     "err tarnIptablesModule Failed to get lock /var/lock/firewall/iptables_serv_mod_list.lock but still continue\n"
     "set /tmp/iptables_serv_mod_list firewall=no\nlist free"},
    {"RemoveIsNotRecorded", removeThem, {{kSetNo, -1}}, false, "other=yes",
     "list alloc 1024\nmodremove firewall b.ko a.ko\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list firewall=no\n"
     "err tarnIptablesModule failed to set key /tmp/iptables_serv_mod_list to file firewall[0x0400 platform.c:12]\nlist free\nunlock 100"},
};
// clang-format on

class ModuleChanges : public fake::MachineTest, public testing::WithParamInterface<ChangeRow> {};

TEST_P(ModuleChanges, AreRecorded) {
  fake::machine().files[kStateFile] = {{"other", "yes"}};
  fake::machine().answers = GetParam().answers;
  EXPECT_EQ(GetParam().result, GetParam().change());
  EXPECT_EQ(GetParam().states, recorded());
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, ModuleChanges, testing::ValuesIn(kChangeRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- whole sets of a service ---

// The list file of the rows: core A B, common C, IPv6 D, NAT N O.
struct SetRow {
  const char* name;
  bool (*change)(const std::string& service);
  Answers answers;
  bool result;
  const char* states;
  const char* trace;
};

void PrintTo(const SetRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const SetRow kSetRows[] = {
    {"CoreLoad", TARN_IPTABLES_MODULES::iptablesCoreModLoad, {}, true, "vpn=yes",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "list alloc 1024\nmodinsert vpn A B C D\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=yes\nlist free\nunlock 100"},
    {"CoreLoadWithoutAList", TARN_IPTABLES_MODULES::iptablesCoreModLoad, {{kGetCommon, 0}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\n"
     "err tarnIptablesModule Failed to get key KERNEL_MODULES_COMMON from /usr/tarn/etc.defaults/iptables_modules_list\nerr tarnIptablesModule Failed to coreCommonModuleLoad()"},
    {"CoreLoadFails", TARN_IPTABLES_MODULES::iptablesCoreModLoad, {{"modinsert vpn A B C D", -1}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "list alloc 1024\nmodinsert vpn A B C D\nerr tarnIptablesModule Failed to TLIBIptablesModInsert()\nlist free\nerr tarnIptablesModule Failed to moduleInsert(vpn, A B C D)"},

    {"CoreUnload", TARN_IPTABLES_MODULES::iptablesCoreModUnload, {}, true, "vpn=no",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "list alloc 1024\nmodremove vpn D C B A\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=no\nlist free\nunlock 100"},
    {"CoreUnloadWithoutAList", TARN_IPTABLES_MODULES::iptablesCoreModUnload, {{kGetIpv6, 0}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "err tarnIptablesModule Failed to get key IPV6_MODULES from /usr/tarn/etc.defaults/iptables_modules_list\nerr tarnIptablesModule Failed to coreCommonModuleLoad()"},
    {"CoreUnloadFails", TARN_IPTABLES_MODULES::iptablesCoreModUnload, {{"modremove vpn D C B A", -1}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "list alloc 1024\nmodremove vpn D C B A\nerr tarnIptablesModule Failed to TLIBIptablesModRemove()\nlist free\nerr tarnIptablesModule Failed to moduleRemove(vpn, D C B A)"},

    {"NatLoad", TARN_IPTABLES_MODULES::iptablesNATModLoad, {}, true, "vpn=yes",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodinsert vpn A B C D\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=yes\nlist free\nunlock 100\n"
     "list alloc 1024\nmodinsert vpn N O\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=yes\nlist free\nunlock 101"},
    {"NatLoadWithoutACoreList", TARN_IPTABLES_MODULES::iptablesNATModLoad, {{kGetCore, -1}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\n"
     "err tarnIptablesModule Failed to get key KERNEL_MODULES_CORE from /usr/tarn/etc.defaults/iptables_modules_list\nerr tarnIptablesModule Failed to coreCommonModuleLoad()"},
    {"NatLoadWithoutAnIpv6List", TARN_IPTABLES_MODULES::iptablesNATModLoad, {{kGetIpv6, 0}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "err tarnIptablesModule Failed to get key IPV6_MODULES from /usr/tarn/etc.defaults/iptables_modules_list\nerr tarnIptablesModule Failed to coreCommonModuleLoad()"},
    {"NatLoadWithoutANatListLoadsNothing", TARN_IPTABLES_MODULES::iptablesNATModLoad, {{kGetNat, 0}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "err tarnIptablesModule Failed to get key KERNEL_MODULES_NAT from /usr/tarn/etc.defaults/iptables_modules_list\nerr tarnIptablesModule Failed to natModuleLoad()"},
    {"NatLoadFailsAtTheCoreSet", TARN_IPTABLES_MODULES::iptablesNATModLoad, {{"modinsert vpn A B C D", -1}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodinsert vpn A B C D\nerr tarnIptablesModule Failed to TLIBIptablesModInsert()\nlist free\nerr tarnIptablesModule Failed to moduleInsert(vpn, A B C D)"},
    {"NatLoadFailsAtTheNatSetAndKeepsTheCoreSet", TARN_IPTABLES_MODULES::iptablesNATModLoad, {{"modinsert vpn N O", -1}}, false, "vpn=yes",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodinsert vpn A B C D\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=yes\nlist free\nunlock 100\n"
     "list alloc 1024\nmodinsert vpn N O\nerr tarnIptablesModule Failed to TLIBIptablesModInsert()\nlist free\nerr tarnIptablesModule Failed to moduleInsert(vpn, N O)"},

    {"NatUnload", TARN_IPTABLES_MODULES::iptablesNATModUnload, {}, true, "vpn=no",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodremove vpn O N\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=no\nlist free\nunlock 100\n"
     "list alloc 1024\nmodremove vpn D C B A\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=no\nlist free\nunlock 101"},
    {"NatUnloadWithoutACoreList", TARN_IPTABLES_MODULES::iptablesNATModUnload, {{kGetCore, 0}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\n"
     "err tarnIptablesModule Failed to get key KERNEL_MODULES_CORE from /usr/tarn/etc.defaults/iptables_modules_list\nerr tarnIptablesModule Failed to coreCommonModuleLoad()"},
    {"NatUnloadWithoutANatListRemovesNothing", TARN_IPTABLES_MODULES::iptablesNATModUnload, {{kGetNat, -1}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "err tarnIptablesModule Failed to get key KERNEL_MODULES_NAT from /usr/tarn/etc.defaults/iptables_modules_list\nerr tarnIptablesModule Failed to natModuleLoad()"},
    {"NatUnloadFailsAtTheNatSetAndKeepsTheCoreSet", TARN_IPTABLES_MODULES::iptablesNATModUnload, {{"modremove vpn O N", -1}}, false, "",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodremove vpn O N\nerr tarnIptablesModule Failed to TLIBIptablesModRemove()\nlist free\nerr tarnIptablesModule Failed to moduleRemove(vpn, O N)"},
    {"NatUnloadFailsAtTheCoreSet", TARN_IPTABLES_MODULES::iptablesNATModUnload, {{"modremove vpn D C B A", -1}}, false, "vpn=no",
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodremove vpn O N\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=no\nlist free\nunlock 100\n"
     "list alloc 1024\nmodremove vpn D C B A\nerr tarnIptablesModule Failed to TLIBIptablesModRemove()\nlist free\nerr tarnIptablesModule Failed to moduleRemove(vpn, D C B A)"},
};
// clang-format on

class ModuleSets : public fake::MachineTest, public testing::WithParamInterface<SetRow> {};

TEST_P(ModuleSets, AreLoadedAndUnloaded) {
  fake::machine().files[kListFile] = {{"KERNEL_MODULES_CORE", "A B"},
                                      {"KERNEL_MODULES_COMMON", "C"},
                                      {"IPV6_MODULES", "D"},
                                      {"KERNEL_MODULES_NAT", "N O"}};
  fake::machine().answers = GetParam().answers;
  EXPECT_EQ(GetParam().result, GetParam().change("vpn"));
  EXPECT_EQ(GetParam().states, recorded());
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, ModuleSets, testing::ValuesIn(kSetRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- the rest ---

class Modules : public fake::MachineTest {};

TEST_F(Modules, StateGoesFromYesToNo) {
  files::write(kStateFile, "");
  EXPECT_FALSE(TARN_IPTABLES_MODULES::isModuleLoad("vpn"));
  EXPECT_TRUE(TARN_IPTABLES_MODULES::moduleInsert("vpn", {"a.ko"}));
  EXPECT_TRUE(TARN_IPTABLES_MODULES::isModuleLoad("vpn"));
  EXPECT_TRUE(TARN_IPTABLES_MODULES::moduleRemove("vpn", {"a.ko"}));
  EXPECT_FALSE(TARN_IPTABLES_MODULES::isModuleLoad("vpn"));
  EXPECT_EQ("vpn=no", recorded());
  EXPECT_EQ(
      "get /tmp/iptables_serv_mod_list vpn\n"
      "list alloc 1024\n"
      "modinsert vpn a.ko\n"
      "lock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
      "set /tmp/iptables_serv_mod_list vpn=yes\n"
      "list free\n"
      "unlock 100\n"
      "get /tmp/iptables_serv_mod_list vpn\n"
      "list alloc 1024\n"
      "modremove vpn a.ko\n"
      "lock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\n"
      "set /tmp/iptables_serv_mod_list vpn=no\n"
      "list free\n"
      "unlock 101\n"
      "get /tmp/iptables_serv_mod_list vpn",
      trace::take());
}

TEST_F(Modules, LongListsAreLoggedWhole) {
  const std::string names(4000, 'm');
  fake::machine().answers.insert({"modinsert vpn " + names + " b c d", -1});
  fake::machine().files[kListFile] = {
      {"KERNEL_MODULES_CORE", names + " b"}, {"KERNEL_MODULES_COMMON", "c"}, {"IPV6_MODULES", "d"}};
  EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesCoreModLoad("vpn"));
  const std::string lines = trace::take();
  EXPECT_EQ("err tarnIptablesModule Failed to moduleInsert(vpn, " + names + " b c d)",
            lines.substr(lines.rfind('\n') + 1));
}

TEST_F(Modules, OwnModulesOfTheFirewallAreInLoadOrder) {
  EXPECT_EQ((Texts{"compat_xtables.ko", "xt_geoip.ko", "xt_mac.ko"}), FW::kFirewallModules);
}

}  // namespace
