// Loading and releasing kernel modules, with a scripted libkmod.

#include "kernelModules.h"

#include <libkmod.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "error.h"
#include "fakeKmod.h"
#include "lock.h"
#include "platformTest.h"

namespace {

using fakeKmod::FakeModule;
using fakeKmod::kernel;
using fakeKmod::kNotThere;

constexpr char kStateFile[] = "/run/tarn/iptables_modules";
constexpr char kTitle[] = "# module, how it came in, the services that use it\n";

class KernelModules : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    kernel() = fakeKmod::Kernel();
  }
};

// Runs `action` with the modules, whose names are separated by commas.
int with(int (*action)(const char*, const TLIBCSZLIST*), const char* service,
         const std::string& modules) {
  TLIBCSZLIST* list = TLIBCSzListAlloc(4);
  std::stringstream stream(modules);
  for (std::string name; std::getline(stream, name, ',');) {
    EXPECT_EQ(0, TLIBCSzListPush(&list, name.c_str()));
  }
  const int result = action(service, list);
  TLIBCSzListFree(list);
  return result;
}

int insert(const char* service, const std::string& modules) {
  return with(TLIBIptablesModInsert, service, modules);
}

int remove(const char* service, const std::string& modules) {
  return with(TLIBIptablesModRemove, service, modules);
}

// The lines of the state file below its title.
std::string state() {
  const std::string text = files::read(kStateFile);
  return text.compare(0, sizeof kTitle - 1, kTitle) == 0 ? text.substr(sizeof kTitle - 1) : text;
}

// --- one module, every outcome ---

struct InsertionRow {
  const char* name;
  FakeModule module;
  int result;
  std::string state;
  std::string trace;
};

void PrintTo(const InsertionRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<InsertionRow> kInsertionRows = {
    {"Inserted", {kNotThere, 0, 0, false}, 0, "xt_mac\tinserted\tfirewall\n", "look up xt_mac\ninsert xt_mac"},
    {"Loaded", {KMOD_MODULE_LIVE, 0, 0, false}, 0, "xt_mac\tfound\tfirewall\n", "look up xt_mac"},
    {"BuiltIn", {KMOD_MODULE_BUILTIN, 0, 0, false}, 0, "xt_mac\tfound\tfirewall\n", "look up xt_mac"},
    {"BuiltInWithoutAnIndex", {KMOD_MODULE_COMING, 0, 0, false}, 0, "xt_mac\tfound\tfirewall\n", "look up xt_mac"},
    {"OnItsWayOut", {KMOD_MODULE_GOING, 0, 0, false}, 0, "xt_mac\tinserted\tfirewall\n", "look up xt_mac\ninsert xt_mac"},
    {"LoadedMeanwhile", {kNotThere, -EEXIST, 0, false}, 0, "xt_mac\tfound\tfirewall\n", "look up xt_mac\ninsert xt_mac"},
    {"KernelWithoutModules", {kNotThere, -ENOSYS, 0, false}, 0, "", "look up xt_mac\ninsert xt_mac\nABSENT xt_mac"},
    {"FileIsGone", {kNotThere, -ENOENT, 0, false}, 0, "", "look up xt_mac\ninsert xt_mac\nABSENT xt_mac"},
    {"KeptOutByTheAdministrator", {kNotThere, KMOD_PROBE_APPLY_BLACKLIST_ALIAS_ONLY, 0, false}, 0, "", "look up xt_mac\ninsert xt_mac\nABSENT xt_mac"},
    {"HasAnInstallCommand", {kNotThere, 0, 0, true}, 0, "", "look up xt_mac\ninsert xt_mac\nABSENT xt_mac"},
    {"NoRights", {kNotThere, -EPERM, 0, false}, -1, "", "look up xt_mac\ninsert xt_mac\nerr tarnPlatform Module xt_mac cannot be loaded: Operation not permitted"},
    {"NotSigned", {kNotThere, -EKEYREJECTED, 0, false}, -1, "", "look up xt_mac\ninsert xt_mac\nerr tarnPlatform Module xt_mac cannot be loaded: Key was rejected by service"},
    {"OfAnotherKernel", {kNotThere, -ENOEXEC, 0, false}, -1, "", "look up xt_mac\ninsert xt_mac\nerr tarnPlatform Module xt_mac cannot be loaded: Exec format error"},
    {"NoMemory", {kNotThere, -ENOMEM, 0, false}, -1, "", "look up xt_mac\ninsert xt_mac\nerr tarnPlatform Module xt_mac cannot be loaded: Cannot allocate memory"},
    {"UnknownSymbol", {kNotThere, -EINVAL, 0, false}, -1, "", "look up xt_mac\ninsert xt_mac\nerr tarnPlatform Module xt_mac cannot be loaded: Invalid argument"},
};
// clang-format on

// Modules that are not there are said differently where the kernel could have had them.
std::string absent(const std::string& names) {
  return access("/proc/modules", F_OK) == 0
             ? "4 tarnPlatform Not on this kernel, rules that need them will be refused: " + names
             : "debug tarnPlatform This kernel loads no modules, left as they are: " + names;
}

std::string expectedTrace(std::string trace) {
  const size_t mark = trace.find("ABSENT ");
  if (mark != std::string::npos) trace = trace.substr(0, mark) + absent(trace.substr(mark + 7));
  return trace;
}

class Insertion : public KernelModules, public testing::WithParamInterface<InsertionRow> {};

TEST_P(Insertion, EndsAsTheKernelSays) {
  kernel().modules["xt_mac"] = GetParam().module;
  TLIBCErrSetEx(0, "", 0);
  EXPECT_EQ(GetParam().result, insert("firewall", "xt_mac.ko"));
  EXPECT_EQ(expectedTrace(GetParam().trace), trace::take());
  EXPECT_EQ(GetParam().state, state());
  EXPECT_EQ(GetParam().result == 0 ? 0 : 0x0500, TLIBCErrGet());
}

INSTANTIATE_TEST_SUITE_P(KernelModules, Insertion, testing::ValuesIn(kInsertionRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(KernelModules, ModuleThatIsNotFoundIsSkipped) {
  kernel().modules["xt_mac"] = {};
  EXPECT_EQ(0, insert("firewall", "compat_xtables.ko,xt_geoip.ko,xt_mac.ko"));
  EXPECT_EQ("look up compat_xtables\nlook up xt_geoip\nlook up xt_mac\ninsert xt_mac\n" +
                absent("compat_xtables xt_geoip"),
            trace::take());
  EXPECT_EQ("xt_mac\tinserted\tfirewall\n", state());
}

TEST_F(KernelModules, FailureDoesNotKeepTheOthersOut) {
  kernel().modules["a"] = {};
  kernel().modules["b"] = {kNotThere, -EPERM, 0, false};
  kernel().modules["c"] = {};
  EXPECT_EQ(-1, insert("firewall", "a.ko,b.ko,c.ko"));
  EXPECT_EQ(
      "look up a\ninsert a\nlook up b\ninsert b\n"
      "err tarnPlatform Module b cannot be loaded: Operation not permitted\nlook up c\ninsert c",
      trace::take());
  EXPECT_EQ("a\tinserted\tfirewall\nc\tinserted\tfirewall\n", state());
}

TEST_F(KernelModules, NameOfSeveralModules) {
  kernel().aliases["ipt_state"] = {"xt_state", "xt_conntrack"};
  kernel().modules["xt_state"] = {};
  kernel().modules["xt_conntrack"] = {KMOD_MODULE_LIVE, 0, 0, false};
  EXPECT_EQ(0, insert("firewall", "ipt_state.ko"));
  EXPECT_EQ("look up ipt_state\ninsert xt_state", trace::take());
  EXPECT_EQ("ipt_state\tinserted\tfirewall\n", state());
}

TEST_F(KernelModules, LibraryThatCannotBeUsedIsAnError) {
  kernel().works = false;
  EXPECT_EQ(-1, insert("firewall", "xt_mac.ko"));
  EXPECT_EQ("err tarnPlatform libkmod cannot be used", trace::take());
}

// --- names ---

struct NameRow {
  std::string modules;
  int result;
  std::string trace;
};

TEST_F(KernelModules, NamesAreFileNamesOfModules) {
  const auto refused = [](const std::string& name) {
    return "err tarnPlatform \"" + name + "\" is not the file name of a kernel module";
  };
  const NameRow rows[] = {
      {"", 0, ""},
      {",,", 0, ""},
      {",xt_mac.ko,", 0, "look up xt_mac\ninsert xt_mac"},
      {"xt-mac.ko", 0, "look up xt-mac\n" + absent("xt-mac")},
      {"xt_mac", -1, refused("xt_mac")},
      {".ko", -1, refused(".ko")},
      {"xt_mac.ko.xz", -1, refused("xt_mac.ko.xz")},
      {"../xt_mac.ko", -1, refused("../xt_mac.ko")},
      {"/tmp/evil.ko", -1, refused("/tmp/evil.ko")},
      {"xt mac.ko", -1, refused("xt mac.ko")},
      {"bad!.ko,xt_mac.ko", -1, refused("bad!.ko") + "\nlook up xt_mac\ninsert xt_mac"},
  };
  for (const NameRow& row : rows) {
    SCOPED_TRACE(row.modules);
    kernel() = fakeKmod::Kernel();
    kernel().modules["xt_mac"] = {};
    EXPECT_EQ(row.result, insert("firewall", row.modules));
    EXPECT_EQ(row.trace, trace::take());
  }
}

TEST_F(KernelModules, ServiceWithoutANameIsAService) {
  kernel().modules["xt_mac"] = {};
  EXPECT_EQ(0, insert("", "xt_mac.ko"));
  EXPECT_EQ("xt_mac\tinserted\t\n", state());
  EXPECT_EQ(0, remove("", "xt_mac.ko"));
  EXPECT_EQ("", state());
  EXPECT_EQ("look up xt_mac\ninsert xt_mac\nremove xt_mac", trace::take());
}

TEST_F(KernelModules, UnusableArgumentsAreRefused) {
  TLIBCSZLIST* list = TLIBCSzListAlloc(1);
  for (const char* service :
       {"a\tb", "a\nb", "a=b", "#a", " a", "a ", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(-1, TLIBIptablesModInsert(service, list));
    EXPECT_EQ(-1, TLIBIptablesModRemove(service, list));
  }
  EXPECT_EQ(-1, TLIBIptablesModInsert("firewall", nullptr));
  EXPECT_EQ(-1, TLIBIptablesModRemove("firewall", nullptr));
  EXPECT_EQ(0x0D00, TLIBCErrGet());
  TLIBCSzListFree(list);
}

// --- removal ---

struct RemovalRow {
  const char* name;
  std::string before;  // state file
  FakeModule module;
  int result;
  std::string after;
  std::string trace;
};

void PrintTo(const RemovalRow& row, std::ostream* out) { *out << row.name; }

const FakeModule kLive = {KMOD_MODULE_LIVE, 0, 0, false};

FakeModule liveWithRemoval(int removal) { return {KMOD_MODULE_LIVE, 0, removal, false}; }

// clang-format off
const std::vector<RemovalRow> kRemovalRows = {
    {"InsertedByUs", "xt_mac\tinserted\tfirewall\n", kLive, 0, "", "remove xt_mac"},
    {"FoundThere", "xt_mac\tfound\tfirewall\n", kLive, 0, "", ""},
    {"UsedByAnotherService", "xt_mac\tinserted\tfirewall\tvpn\n", kLive, 0, "xt_mac\tinserted\tvpn\n", ""},
    {"LastService", "xt_mac\tinserted\tfirewall\n", kLive, 0, "", "remove xt_mac"},
    {"NotClaimedByThisService", "xt_mac\tinserted\tvpn\n", kLive, 0, "xt_mac\tinserted\tvpn\n", ""},
    {"NeverHeardOf", "xt_state\tinserted\tfirewall\n", kLive, 0, "xt_state\tinserted\tfirewall\n", ""},
    {"NoStateFile", "", kLive, 0, "", ""},
    {"ServiceTwice", "xt_mac\tinserted\tfirewall\tfirewall\n", kLive, 0, "", "remove xt_mac"},
    {"NoServiceLeftOver", "xt_mac\tinserted\n", kLive, 0, "", "remove xt_mac"},
    {"InUse", "xt_mac\tinserted\tfirewall\n", liveWithRemoval(-EAGAIN), 0, "xt_mac\tinserted\n", "remove xt_mac\ndebug tarnPlatform Module xt_mac stays, it is in use"},
    {"Busy", "xt_mac\tinserted\tfirewall\n", liveWithRemoval(-EBUSY), 0, "xt_mac\tinserted\n", "remove xt_mac\ndebug tarnPlatform Module xt_mac stays, it is in use"},
    {"RemovedByAnother", "xt_mac\tinserted\tfirewall\n", liveWithRemoval(-ENOENT), 0, "", "remove xt_mac"},
    {"NoRights", "xt_mac\tinserted\tfirewall\n", liveWithRemoval(-EPERM), -1, "xt_mac\tinserted\n", "remove xt_mac\nerr tarnPlatform Module xt_mac cannot be removed: Operation not permitted"},
    {"OtherLinesStay", "# text\nxt_mac\tinserted\tfirewall\nxt_state\tfound\ta b\tc\n", kLive, 0, "xt_state\tfound\ta b\tc\n", "remove xt_mac"},
    {"DamagedLinesGo", "xt_mac\tinserted\tfirewall\nrubbish\n\n", kLive, 0, "", "remove xt_mac"},
};
// clang-format on

class Removal : public KernelModules, public testing::WithParamInterface<RemovalRow> {};

TEST_P(Removal, TakesOutOnlyWhatNobodyElseUses) {
  const RemovalRow& row = GetParam();
  std::filesystem::create_directory("/run/tarn");
  if (!row.before.empty()) files::write(kStateFile, row.before);
  kernel().modules["xt_mac"] = row.module;
  EXPECT_EQ(row.result, remove("firewall", "xt_mac.ko"));
  EXPECT_EQ(row.trace, trace::take());
  EXPECT_EQ(row.after, state());
}

INSTANTIATE_TEST_SUITE_P(KernelModules, Removal, testing::ValuesIn(kRemovalRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(KernelModules, ModulesThatHoldOthersStateStay) {
  for (const char* name : {"x_tables", "ip_tables", "ip6_tables", "iptable_filter",
                           "ip6table_filter", "iptable-nat", "nf_tables", "nft_compat",
                           "nf_conntrack", "nf_conntrack_ftp", "nf_defrag_ipv4", "nf_nat"}) {
    SCOPED_TRACE(name);
    kernel() = fakeKmod::Kernel();
    kernel().modules[name] = {};
    EXPECT_EQ(0, insert("firewall", std::string(name) + ".ko"));
    (void)trace::take();
    EXPECT_EQ(0, remove("firewall", std::string(name) + ".ko"));
    EXPECT_EQ("", trace::take());
    EXPECT_EQ(std::string(name) + "\tinserted\n", state());
    std::filesystem::remove(kStateFile);
  }
}

TEST_F(KernelModules, OrderOfTheListIsKept) {
  for (const char* name : {"a", "b", "c"}) kernel().modules[name] = {};
  EXPECT_EQ(0, insert("firewall", "c.ko,a.ko,b.ko"));
  EXPECT_EQ("look up c\ninsert c\nlook up a\ninsert a\nlook up b\ninsert b", trace::take());
  EXPECT_EQ(0, remove("firewall", "b.ko,a.ko,c.ko"));
  EXPECT_EQ("remove b\nremove a\nremove c", trace::take());
}

// --- services ---

TEST_F(KernelModules, ModuleStaysUntilItsLastServiceLetsGo) {
  kernel().modules["a"] = {};
  EXPECT_EQ(0, insert("firewall", "a.ko"));
  EXPECT_EQ(0, insert("vpn", "a.ko"));
  EXPECT_EQ(0, insert("vpn", "a.ko"));
  EXPECT_EQ("a\tinserted\tfirewall\tvpn\n", state());
  EXPECT_EQ("look up a\ninsert a\nlook up a\nlook up a", trace::take());
  EXPECT_EQ(0, remove("firewall", "a.ko"));
  EXPECT_EQ("", trace::take());
  EXPECT_EQ(0, remove("vpn", "a.ko"));
  EXPECT_EQ("remove a", trace::take());
  EXPECT_EQ("", state());
}

TEST_F(KernelModules, ServiceMayHaveAnEmptyName) {
  kernel().modules["a"] = {};
  EXPECT_EQ(0, insert("", "a.ko"));
  EXPECT_EQ("a\tinserted\t\n", state());
  EXPECT_EQ(0, remove("", "a.ko"));
  EXPECT_EQ("look up a\ninsert a\nremove a", trace::take());
  EXPECT_EQ("", state());
}

TEST_F(KernelModules, ModuleThatWasInUseIsTakenOutTheNextTime) {
  kernel().modules["a"] = {kNotThere, 0, -EAGAIN, false};
  EXPECT_EQ(0, insert("firewall", "a.ko"));
  EXPECT_EQ(0, remove("firewall", "a.ko"));
  kernel().modules["a"].removal = 0;
  (void)trace::take();
  EXPECT_EQ(0, insert("firewall", "a.ko"));
  EXPECT_EQ("a\tinserted\tfirewall\n", state());
  EXPECT_EQ(0, remove("firewall", "a.ko"));
  EXPECT_EQ("look up a\nremove a", trace::take());
}

TEST_F(KernelModules, StateThatCannotBeKeptIsSaidAndNothingIsRemoved) {
  files::write("/run/tarn", "in the way");
  kernel().modules["a"] = {};
  EXPECT_EQ(0, insert("firewall", "a.ko"));
  EXPECT_EQ("err tarnPlatform /run/tarn cannot be made: Not a directory\nlook up a\ninsert a",
            trace::take());
  EXPECT_EQ(0, remove("firewall", "a.ko"));
  EXPECT_EQ("err tarnPlatform /run/tarn cannot be made: Not a directory", trace::take());
}

TEST_F(KernelModules, StateFileOfTheRightModeUnderItsLock) {
  kernel().modules["a"] = {};
  EXPECT_EQ(0, insert("firewall", "a.ko"));
  (void)trace::take();
  EXPECT_EQ("100644 1 links, owner 0", statusOf(kStateFile));
  EXPECT_EQ("100600 1 links, owner 0", statusOf("/run/tarn/iptables_modules.lock"));
  EXPECT_EQ("040755 2 links, owner 0", statusOf("/run/tarn"));
  EXPECT_EQ("iptables_modules iptables_modules.lock", files::listing("/run/tarn"));
}

TEST_F(KernelModules, ProcessesDoNotLoseEachOthersClaims) {
  constexpr int kProcesses = 4;
  for (const char* name : {"a", "b"}) kernel().modules[name] = {KMOD_MODULE_LIVE, 0, 0, false};
  std::vector<std::unique_ptr<processes::Child>> children;
  for (int i = 0; i < kProcesses; ++i) {
    children.push_back(std::make_unique<processes::Child>([i] {
      const std::string service = "service" + std::to_string(i);
      int failures = 0;
      for (int turn = 0; turn < 20; ++turn) {
        failures -= insert(service.c_str(), "a.ko,b.ko");
        failures -= remove(service.c_str(), "a.ko");
      }
      return std::to_string(failures);
    }));
  }
  for (const auto& child : children) EXPECT_EQ("0", child->answer());
  std::string services = state();
  EXPECT_EQ(std::string::npos, services.find("a\t"));
  for (int i = 0; i < kProcesses; ++i) {
    EXPECT_NE(std::string::npos, services.find("service" + std::to_string(i))) << services;
  }
}

}  // namespace
