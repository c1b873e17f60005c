#include "attempt.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <thread>
#include <typeinfo>

#include "callers.h"
#include "counts.h"
#include "listing.h"
#include "processes.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace exceptions {
namespace {

// The name of this part of the sweep, of which several are run.
std::string variant() {
  const char* const name = std::getenv("TARN_VARIANT");
  return name == nullptr ? "" : std::string("/") + name;
}

figures::Counts tally("exceptions" + variant(),
                      {"callers", "cancelled in the drop period", "left the policies shut",
                       "kept a lock", "saw another exception", "ended otherwise"});

// --- the callers ---

// Tells "TYPE: TEXT". Allocates nothing: there may be no memory.
void tellException(const std::exception& exception) {
  char text[512];
  (void)std::snprintf(text, sizeof text, "%s: %s", typeid(exception).name(), exception.what());
  surroundings::tell(text);
}

// Tells when it is left by unwinding.
class Guard {
 public:
  Guard() = default;
  ~Guard() {
    if (!done_) surroundings::tell("unwound");
  }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

  void done() { done_ = true; }

 private:
  bool done_ = false;
};

template <class Call>
void underAHandler(Call call) {
  try {
    (void)call();
  } catch (const std::exception& exception) {
    tellException(exception);
  }
}

void catching(Operation operation) { underAHandler(operation); }

// Nobody catches: the runtime ends the process without unwinding, and the guard does not run.
void notCatching(Operation operation) {
  Guard guard;
  (void)operation();
  guard.done();
}

void notToThrow(Operation operation) noexcept { (void)operation(); }

void inAThread(Operation operation) {
  std::thread([operation] { (void)operation(); }).join();
}

void fromC(Operation operation) { (void)callFromC(operation); }
void fromCWithoutTables(Operation operation) { (void)callFromCWithoutTables(operation); }

void fromCUnderAHandler(Operation operation) {
  underAHandler([operation] { return callFromC(operation); });
}

// The search for a handler ends at a function that has no table.
void fromCWithoutTablesUnderAHandler(Operation operation) {
  underAHandler([operation] { return callFromCWithoutTables(operation); });
}

void answered(int answer) { surroundings::tell(answer == -1 ? "-1" : answer == 0 ? "0" : "other"); }
void ofTheCInterface(Operation /*hup*/) { answered(hupFromC()); }
void ofTheCInterfaceWithoutTables(Operation /*hup*/) { answered(hupFromCWithoutTables()); }

void* runOperation(void* operation) {
  (void)(*static_cast<Operation*>(operation))();
  pthread_testcancel();
  return nullptr;
}

void cancelled(Operation operation) {
  pthread_t thread = {};
  void* result = nullptr;
  if (pthread_create(&thread, nullptr, runOperation, &operation) != 0 ||
      pthread_join(thread, &result) != 0) {
    surroundings::tell("no thread");
    return;
  }
  surroundings::tell(result == PTHREAD_CANCELED ? "cancelled" : "");
}

// clang-format off
constexpr Caller kCxxCallers[] = {
  {"catching", catching, End::kSees},
  {"not catching", notCatching, End::kDies},
  {"not to throw", notToThrow, End::kDies},
  {"in a thread", inAThread, End::kDies},
  {"from C", fromC, End::kDies},
  {"from C without tables", fromCWithoutTables, End::kDies},
  {"from C under a handler", fromCUnderAHandler, End::kSees},
  {"from C without tables under a handler", fromCWithoutTablesUnderAHandler, End::kDies}};
constexpr Caller kCCallers[] = {
  {"of the C interface", ofTheCInterface, End::kAnswers},
  {"of the C interface without tables", ofTheCInterfaceWithoutTables, End::kAnswers}};
// clang-format on

// --- a caller's process ---

constexpr int kReturned = 0;
constexpr int kKeptALock = 3;
constexpr std::chrono::seconds kPatience(60);  // the slowest takes some seconds

[[noreturn]] void beCaller(const Attempt& attempt) {
  const rlimit none = {0, 0};
  (void)setrlimit(RLIMIT_CORE, &none);
  (void)std::set_terminate([] { std::abort(); });
  attempt.caller.call(attempt.operation);
  surroundings::disarm();
  const bool free = road::executionLockIsFree() && processes::locks().empty();
  _exit(free ? kReturned : kKeptALock);
}

// What became of the process: "returned", "aborted", "took too long", ...
std::string run(const Attempt& attempt) {
  const pid_t process = fork();
  if (process == 0) beCaller(attempt);
  const bool inTime = processes::endsInTime(process, kPatience);
  int status = 0;
  const pid_t ended = waitpid(process, &status, 0);
  surroundings::disarm();  // its harm is not ours
  EXPECT_EQ(process, ended);
  if (!inTime) return "took too long";
  if (WIFSIGNALED(status)) {
    return WTERMSIG(status) == SIGABRT ? "aborted" : "signal " + std::to_string(WTERMSIG(status));
  }
  if (WEXITSTATUS(status) == kReturned) return "returned";
  return WEXITSTATUS(status) == kKeptALock ? "kept a lock"
                                           : "exit " + std::to_string(WEXITSTATUS(status));
}

std::string endOf(const Caller& caller) {
  return caller.end == End::kDies ? "aborted" : "returned";
}

std::string toldBy(const Caller& caller, const std::string& exception) {
  switch (caller.end) {
    case End::kSees:
      return exception;
    case End::kAnswers:
      return "-1";
    case End::kIsCancelled:
      return "cancelled";
    case End::kDies:
      return "";
  }
  return "";
}

bool isOpen(bool real) {
  if (surroundings::recordedFilter() != surroundings::kOpenFilter) return false;
  if (!real) return true;
  const proof::Listing seen = proof::listing();
  return seen.policies == road::kOpenPolicies &&
         seen.rules.find("iptables FIREWALL_RELOADING 0 ") == 0 &&
         seen.rules.find("ip6tables FIREWALL_RELOADING 0 ") != std::string::npos;
}

void expect(bool right, const char* wrong, const std::string& what) {
  if (right) return;
  tally.count(wrong);
  ADD_FAILURE() << wrong << ": " << what;
}

}  // namespace

int reload() { return FW::TARNFW().fwReload(true) ? 0 : 1; }
int trial() { return FW::TARNFW().TestApplyingProfile("office", "10.0.0.5") ? 0 : 1; }

std::vector<Attempt> attempts() {
  std::vector<Attempt> all;
  for (const Caller& caller : kCxxCallers) {
    all.push_back({caller, reload, std::string("reload, ") + caller.name});
    all.push_back({caller, trial, std::string("trial, ") + caller.name});
  }
  for (const Caller& caller : kCCallers) {
    all.push_back({caller, nullptr, std::string("reload, ") + caller.name});
  }
  return all;
}

std::vector<Attempt> cancelledThreads() {
  const Caller caller = {"cancelled", cancelled, End::kIsCancelled};
  return {{caller, reload, "reload, cancelled"},
          {caller, trial, "trial, cancelled"},
          {caller, hupFromC, "update and reload, cancelled"}};
}

std::string thrownBy(Operation operation) {
  surroundings::tell("nothing thrown");
  underAHandler(operation);
  return surroundings::told();
}

void ExceptionTest::SetUp() {
  surroundings::arrange(surroundings::Harm::kNone, 0, /*real=*/false);
  RoadTest::SetUp();
  writeDocuments();
}

void ExceptionTest::writeDocuments() {
  constexpr char kRules[] =
      R"({"lo": [{"policy": 0, "ipGroup": 0, "ipList": ["10.0.0.7"], "portGroup": 1, "portList": ["22"]}]})";
  files::writeProfile("1", "office", kRules, R"({"lo": 1})");
  files::writeProfile("2", ".test_office", kRules, R"({"lo": 1})");
  files::writeSettings(R"({"status": true, "profile": "office"})");
  std::filesystem::remove("/usr/tarn/etc/firewall.d/3.json");
}

bool ExceptionTest::attempt(const Attempt& what, const std::string& exception, bool mayReturn,
                            bool real, const std::string& how) {
  const std::string end = run(what);
  if (!surroundings::happened()) return false;
  tally.count("callers");
  const std::string name = what.name + ", " + how;
  EXPECT_TRUE(surroundings::shut()) << name;
  if (what.caller.end == End::kIsCancelled && surroundings::happenedInside()) {
    tally.count("cancelled in the drop period");
  }
  expect(isOpen(real), "left the policies shut", name + ": " + surroundings::recordedFilter());
  expect(end != "kept a lock" && road::executionLockIsFree(), "kept a lock", name);
  const std::string told = surroundings::told();
  const bool borne = mayReturn && end == "returned" &&
                     (told.empty() || (what.caller.end == End::kAnswers && told == "0"));
  if (borne) return true;
  expect(end == endOf(what.caller), "ended otherwise", name + ": " + end);
  expect(told == toldBy(what.caller, exception), "saw another exception", name + ": " + told);
  return true;
}

}  // namespace exceptions
