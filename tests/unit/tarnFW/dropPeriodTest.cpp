// Exceptions while the policies are DROP: they are opened again, the execution lock is released,
// and the exception reaches the caller - also when there is no memory left, and when no caller
// catches it.

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <new>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>

#include "allocations.h"
#include "error.h"
#include "fakePlatform.h"
#include "files.h"
#include "kernelModules.h"
#include "lock.h"
#include "model.h"
#include "network.h"
#include "plugins.h"
#include "process.h"
#include "processes.h"
#include "reloadSequence.h"
#include "services.h"
#include "strlist.h"
#include "tarnFW/module.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "throwingDocuments.h"
#include "trace.h"

// --- memory that runs out ---

namespace memory {
namespace {

// Which of the library's allocations fail, counted from 0 at the last arming.
struct Failures {
  bool armed = false;
  bool lasting = false;  // all from the first on, or that one only
  long first = 0;
  long asked = 0;
};

Failures failures;
int outside = 0;  // calls of the platform and the log under way: theirs do not count

class Outside {
 public:
  Outside() { ++outside; }
  ~Outside() { --outside; }
  Outside(const Outside&) = delete;
  Outside& operator=(const Outside&) = delete;
};

// Runs `work` with the allocation of that number failing, and those after it when `lasting`.
// Answers whether it came to that.
bool failing(long number, bool lasting, const std::function<void()>& work) {
  failures = {true, lasting, number, 0};
  work();
  failures.armed = false;
  return failures.asked > number;
}

}  // namespace
}  // namespace memory

bool allocations::fails() {
  memory::Failures& failures = memory::failures;
  if (!failures.armed || memory::outside > 0) return false;
  const long number = failures.asked++;
  return failures.lasting ? number >= failures.first : number == failures.first;
}

// What the library calls goes through here (the linker's --wrap), so that the recording platform's
// own allocations neither count nor fail.
#define OUTSIDE(Result, name, parameters, arguments) \
  Result __real_##name parameters;                   \
  Result __wrap_##name parameters {                  \
    const memory::Outside guard;                     \
    return __real_##name arguments;                  \
  }

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp): the
// linker's names
extern "C" {
OUTSIDE(int, TLIBCErrGet, (), ())
OUTSIDE(const char*, TLIBCErrorGetFile, (), ())
OUTSIDE(int, TLIBCErrorGetLine, (), ())
OUTSIDE(int, TLIBCFileGetKeyValue, (const char* a, const char* b, char* c, int d, int e),
        (a, b, c, d, e))
OUTSIDE(int, TLIBCFileSetKeyValue, (const char* a, const char* b, const char* c, int d),
        (a, b, c, d))
OUTSIDE(int, TLIBCFileCheckKeyValue, (const char* a, const char* b, const char* c, int d),
        (a, b, c, d))
OUTSIDE(int, TLIBCFileExist, (const char* a), (a))
OUTSIDE(int, TARNFSMkdirP, (const char* a, int b, int c, int d, int e, unsigned int f),
        (a, b, c, d, e, f))
OUTSIDE(int, TLIBIptablesModInsert, (const char* a, const TLIBCSZLIST* b), (a, b))
OUTSIDE(int, TLIBIptablesModRemove, (const char* a, const TLIBCSZLIST* b), (a, b))
OUTSIDE(int, TLIBCFileLockTimeByFile, (const char* a, int b, int c, int* d), (a, b, c, d))
OUTSIDE(int, TLIBCFileUnlockByFile, (int a), (a))
OUTSIDE(int, TLIBCSupportGet, (const char* a), (a))
OUTSIDE(int, TLIBNetGetInterfaceInfo, (TLIBNETIF * a, int b, int c), (a, b, c))
OUTSIDE(int, TARNPPPoeIntfGet, (char* a, int b), (a, b))
OUTSIDE(int, TLIBPluginSDKInit, (const char* a, const char* b, TLIBPLUGIN** c), (a, b, c))
OUTSIDE(int, TLIBPluginSetArg, (TLIBPLUGIN * a, const char* b, const char* c), (a, b, c))
OUTSIDE(int, TLIBPluginAction, (int a, TLIBPLUGIN* b), (a, b))
OUTSIDE(void, TLIBPluginExit, (TLIBPLUGIN * a), (a))
OUTSIDE(int, TLIBCExecv, (const char* a, char* const b[], int c), (a, b, c))
OUTSIDE(int, TARNFwServiceEnum, (TARNFW_SERVICE_LIST * *a), (a))
OUTSIDE(void, TARNFwServiceFree, (TARNFW_SERVICE_LIST * a), (a))
OUTSIDE(TLIBCSZLIST*, TLIBCSzListAlloc, (int a), (a))
OUTSIDE(int, TLIBCSzListPush, (TLIBCSZLIST * *a, const char* b), (a, b))
OUTSIDE(void, TLIBCSzListFree, (TLIBCSZLIST * a), (a))

void __real_vsyslog(int priority, const char* format, va_list arguments);
void __wrap_vsyslog(int priority, const char* format, va_list arguments) {
  const memory::Outside guard;
  __real_vsyslog(priority, format, arguments);
}
[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char* format, ...);
void __wrap_syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  __wrap_vsyslog(priority, format, arguments);
  va_end(arguments);
}
[[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int flag, const char* format,
                                                       ...);
void __wrap___syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  __wrap_vsyslog(priority, format, arguments);
  va_end(arguments);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)

namespace {

template <class Row>
std::string rowName(const testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

// clang-format off
constexpr char kSwitchedOn[] =
  "{\n"
  "   \"profile\" : \"office\",\n"
  "   \"status\" : true\n"
  "}\n";

const std::string kLocked = sequence::lines({sequence::kLocked, sequence::kModulesAsked});
const std::string kDropAndFlush = sequence::lines({sequence::kDropSet, sequence::kFlush});
const std::string& kOpened = sequence::kAcceptSet;
// clang-format on

// Switched on, kernel modules loaded, one profile that denies eth0, and its test profile.
class DropPeriod : public fake::MachineTest {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    setUpMachine();
  }

  static void setUpMachine() {
    fake::Machine& machine = fake::machine();
    machine.interfaces = {"eth0"};
    machine.files["/tmp/iptables_serv_mod_list"] = {{"firewall", "yes"}};
    machine.files["/usr/tarn/etc.defaults/iptables_modules_list"] = {
        {"KERNEL_MODULES_CORE", "core.ko"},
        {"KERNEL_MODULES_COMMON", "common.ko"},
        {"IPV6_MODULES", "ipv6.ko"}};
    files::write("/tmp/iptables_serv_mod_list", "");
    files::writeProfile("1", "office", "null", R"({"eth0": 1, "global": 2})");
    files::writeProfile("2", ".test_office", "null", R"({"eth0": 1, "global": 2})");
    files::writeSettings(kSwitchedOn);
  }
};

// --- documents whose types make the JSON library throw ---

class BrokenProfile : public DropPeriod,
                      public testing::WithParamInterface<files::ThrowingDocument> {};

TEST_P(BrokenProfile, ThrowsAndOpensThePolicies) {
  files::writeProfile("1", "office", GetParam().rules, GetParam().policies);
  EXPECT_THROW(FW::TARNFW().fwReload(true), Json::LogicError);
  EXPECT_EQ(kLocked + "\n" + kDropAndFlush + "\n" + kOpened + "\nunlock 100", trace::take());
  EXPECT_EQ(kSwitchedOn, files::read(files::kSettingsFile));
}

// clang-format off
constexpr files::ThrowingDocument kOtherFields[] = {
  {"RuleIsAnArray", R"({"eth0": [[]]})", "null"},
  {"ProtocolIsAnObject", R"({"eth0": [{"protocol": {}}]})", "null"},
  {"TableIsAnObject", R"({"eth0": [{"table": {"filter": 1}}]})", "null"},
  {"LabelIsAnObject", R"({"eth0": [{"labelList": [{}]}]})", "null"},
  {"ChainIsAnArray", R"({"eth0": [{"chainList": [["INPUT_FIREWALL"]]}]})", "null"},
  {"AddressKindIsText", R"({"eth0": [{"ipGroup": "5"}]})", "null"},
  {"PortIsAnArray", R"({"eth0": [{"portList": [[22]]}]})", "null"},
  {"PortKindIsAnArray", R"({"eth0": [{"portGroup": [1]}]})", "null"},
  {"PoliciesAreAnArray", "null", "[1]"},
  {"PolicyOfAnAdapterIsNoInteger", "null", R"({"eth0": 1e10})"}};
// clang-format on

std::vector<files::ThrowingDocument> brokenProfiles() {
  std::vector<files::ThrowingDocument> all(std::begin(files::kThrowingDocuments),
                                           std::end(files::kThrowingDocuments));
  all.insert(all.end(), std::begin(kOtherFields), std::end(kOtherFields));
  return all;
}

INSTANTIATE_TEST_SUITE_P(Table, BrokenProfile, testing::ValuesIn(brokenProfiles()),
                         rowName<files::ThrowingDocument>);

TEST_F(DropPeriod, DocumentNestedTooDeepThrowsAndOpensThePolicies) {
  files::write("/usr/tarn/etc/firewall.d/3.json", std::string(2000, '[') + std::string(2000, ']'));
  EXPECT_THROW(FW::TARNFW().fwReload(true), Json::RuntimeError);
  EXPECT_EQ(kLocked + "\n" + kDropAndFlush + "\n" + kOpened + "\nunlock 100", trace::take());
}

TEST_F(DropPeriod, NameOfTheActiveProfileThrowsAndOpensThePolicies) {
  files::writeSettings(R"({"status": true, "profile": ["office"]})");
  EXPECT_THROW(FW::TARNFW().fwReload(true), Json::LogicError);
  EXPECT_EQ(kLocked + "\n" + kDropAndFlush + "\n" + kOpened + "\nunlock 100", trace::take());
}

// Nothing was shut yet, so nothing is opened.
TEST_F(DropPeriod, StatusThrowsBeforeIt) {
  files::writeSettings(R"({"status": "on", "profile": "office"})");
  EXPECT_THROW(FW::TARNFW().fwReload(true), Json::LogicError);
  EXPECT_EQ("lock /tmp/firewall_iptables_exec.lock 1 30\nunlock 100", trace::take());
}

// --- no memory ---

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

bool contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Takes `ending` from the end of `lines`; false when they do not end with it.
bool takeEnding(std::vector<std::string>& lines, const std::vector<std::string>& ending) {
  if (lines.size() < ending.size() || !std::equal(ending.rbegin(), ending.rend(), lines.rbegin())) {
    return false;
  }
  lines.resize(lines.size() - ending.size());
  return true;
}

// What unwinding does before the handler is reached.
bool isRelease(const std::string& line) {
  return line == "list free" || line == "plugin exit" || line == "unlock 101" ||
         line == "unlock 102";
}

// What is wrong with the trace of an attempt that an exception ended, or "": it is the beginning of
// the undisturbed one, then the policies are opened if they may be DROP, then the lock is released.
std::string complaint(const std::string& undisturbed, const std::string& disturbed) {
  const std::vector<std::string> whole = split(undisturbed);
  std::vector<std::string> lines = split(disturbed);
  const bool locked = contains(lines, "lock /tmp/firewall_iptables_exec.lock 1 30");
  if (locked && !takeEnding(lines, {"unlock 100"})) return "the lock is held";
  const bool shut = contains(lines, "exec /sbin/iptables --policy INPUT DROP");
  // The handler is in force a little before the first policy is shut; opening them then is
  // harmless.
  if (!takeEnding(lines, split(kOpened)) && shut) return "the policies are not opened";
  const auto differ = std::mismatch(lines.begin(), lines.end(), whole.begin(), whole.end()).first;
  if (!std::all_of(differ, lines.end(), isRelease)) return "not the usual way: " + *differ;
  return "";
}

struct MemoryRow {
  const char* name;
  bool lasting;
  bool (*operation)();
  const char* failing;  // a request that is refused, which leads through switching off

  friend void PrintTo(const MemoryRow& row, std::ostream* out) { *out << row.name; }
};

class NoMemory : public DropPeriod, public testing::WithParamInterface<MemoryRow> {
 protected:
  static void attempt(bool& threw) {
    threw = false;
    try {
      (void)GetParam().operation();
    } catch (const std::bad_alloc&) {
      threw = true;
    }
  }

  // Every attempt begins on the same machine.
  static void restart() {
    EXPECT_EQ("", fake::alive());
    fake::reset();
    setUpMachine();
    fake::machine().answers = {{GetParam().failing, -1}};
  }
};

TEST_P(NoMemory, OpensThePoliciesWhicheverAllocationFails) {
  bool threw = false;
  restart();
  attempt(threw);
  ASSERT_FALSE(threw);
  const std::string undisturbed = trace::take();
  const std::string settings = files::read(files::kSettingsFile);

  long number = 0;
  for (;; ++number) {
    SCOPED_TRACE("allocation " + std::to_string(number));
    restart();
    if (!memory::failing(number, GetParam().lasting, [&threw] { attempt(threw); })) break;
    EXPECT_TRUE(threw);
    const std::string disturbed = trace::take();
    EXPECT_EQ("", complaint(undisturbed, disturbed)) << disturbed;
    const std::string now = files::read(files::kSettingsFile);
    EXPECT_TRUE(now == kSwitchedOn || now == settings) << now;
    if (HasFailure()) return;
  }
  EXPECT_FALSE(threw);
  EXPECT_EQ(undisturbed, trace::take());
  EXPECT_LT(300, number) << "allocations are not counted";
}

bool reload() { return FW::TARNFW().fwReload(true); }
bool trial() { return FW::TARNFW().TestApplyingProfile("office", "10.0.0.5"); }

constexpr char kLastLine[] = "exec /sbin/ip6tables -t filter -A INPUT_FIREWALL -i eth0 -j DROP";

INSTANTIATE_TEST_SUITE_P(
    Table, NoMemory,
    testing::Values(MemoryRow{"OnceInAReload", false, reload, ""},
                    MemoryRow{"FromThenOnInAReload", true, reload, ""},
                    MemoryRow{"OnceInAReloadThatSwitchesOff", false, reload, kLastLine},
                    MemoryRow{"FromThenOnInAReloadThatSwitchesOff", true, reload, kLastLine},
                    MemoryRow{"OnceInATrial", false, trial, ""},
                    MemoryRow{"FromThenOnInATrial", true, trial, ""}),
    rowName<MemoryRow>);

TEST_F(DropPeriod, OpeningAllocatesNothing) {
  EXPECT_FALSE(memory::failing(0, /*lasting=*/true, FW::openPolicies)) << "it has allocated";
  EXPECT_EQ(kOpened, trace::take());
}

// --- callers without a handler, and threads that are cancelled ---

constexpr char kCommandFile[] = "/tmp/commands";

// Also writes each command to a file: what a process has run is to be seen after its end.
int runAndKeep(const std::string& commandLine) {
  const int fd = open(kCommandFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  const std::string line = "exec " + commandLine + "\n";
  const bool kept = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  close(fd);
  return kept ? 0 : -1;
}

// std::terminate is the expected end: no core file, no message.
void expectTermination() {
  const rlimit none = {0, 0};
  (void)setrlimit(RLIMIT_CORE, &none);
  std::set_terminate([] { std::abort(); });
}

struct CallerRow {
  const char* name;
  std::string (*caller)();
  const char* answer;

  friend void PrintTo(const CallerRow& row, std::ostream* out) { *out << row.name; }
};

class Caller : public DropPeriod, public testing::WithParamInterface<CallerRow> {
 protected:
  void SetUp() override {
    DropPeriod::SetUp();
    files::writeProfile("1", "office", R"({"eth0": [{"ipGroup": "any"}]})");
    fake::machine().exec = runAndKeep;
  }
};

TEST_P(Caller, FindsThePoliciesOpen) {
  processes::Child child([] {
    (void)trace::take();
    expectTermination();
    return GetParam().caller();
  });
  EXPECT_EQ(GetParam().answer, child.answer());
  EXPECT_EQ(kDropAndFlush + "\n" + kOpened + "\n", files::read(kCommandFile));
}

std::string catching() {
  try {
    return FW::TARNFW().fwReload(true) ? "true" : "false";
  } catch (const Json::LogicError&) {
    return "Json::LogicError";
  }
}

// The stack of a thread of our own has no handler at its end, that of a test has the framework's.
std::string notCatching() {
  std::thread([] { (void)FW::TARNFW().fwReload(true); }).join();
  return "returned";
}

std::string notThrowing() noexcept { return FW::TARNFW().fwReload(true) ? "true" : "false"; }

INSTANTIATE_TEST_SUITE_P(Table, Caller,
                         testing::Values(CallerRow{"Catching", catching, "Json::LogicError"},
                                         CallerRow{"WithoutHandler", notCatching, "(signal 6)"},
                                         CallerRow{"NotToThrow", notThrowing, "(signal 6)"}),
                         rowName<CallerRow>);

// The cancellation of a thread waits for the end of the drop period. The address sanitizer does not
// know that a cancelled thread leaves its frames.
#ifndef __SANITIZE_ADDRESS__
TEST_F(DropPeriod, CancelledThreadOpensThePoliciesFirst) {
  (void)FW::TARNFW().fwReload(true);
  const std::string undisturbed = trace::take();
  fake::reset();
  setUpMachine();
  fake::machine().exec = [](const std::string& commandLine) {
    if (commandLine == "/sbin/ip6tables -F FORWARD_FIREWALL") {
      (void)pthread_cancel(pthread_self());
      pthread_testcancel();
    }
    return 0;
  };
  pthread_t thread = {};
  const auto run = [](void*) -> void* {
    (void)FW::TARNFW().fwReload(true);
    pthread_testcancel();
    return nullptr;
  };
  ASSERT_EQ(0, pthread_create(&thread, nullptr, run, nullptr));
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(thread, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
  EXPECT_EQ(undisturbed, trace::take());
}
#endif

}  // namespace
