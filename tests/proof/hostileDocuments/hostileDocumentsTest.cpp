// Every public operation on a machine where one of the files that the library reads is hostile.
// Each operation runs in a process of its own and ends in time with true, with false or with an
// exception of the JSON library; the C entry points throw nothing. No lock is kept and no policy is
// left at DROP.

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "counts.h"
#include "documents.h"
#include "machine.h"
#include "operations.h"
#include "testFiles.h"

namespace {

namespace fs = std::filesystem;
using hostile::Document;
using hostile::Location;
using hostile::Operation;

constexpr int kLongestCall = 60000;  // milliseconds; the slowest takes less than a second
constexpr char kCommands[] = "/tmp/commands";
constexpr char kModuleUsersFile[] = "/tmp/iptables_serv_mod_list";
constexpr char kGoodProfile[] = "/usr/tarn/etc/firewall.d/1.json";

// --- the machine ---

// clang-format off
constexpr char kOffice[] = R"({"name": "office", "adapterPolicyMap": {"global": 2},
  "rules": {"global": [{"enable": true, "policy": 1, "table": "filter", "ipType": 2, "ipGroup": 3, "ipList": ["XX"],
                        "portGroup": 0, "portList": ["ssh"], "protocol": 1}]}})";
constexpr char kHome[] = R"({"name": "home", "adapterPolicyMap": {"eth0": 1}, "rules": null})";
constexpr char kTestOfHome[] = R"({"name": ".test_home", "adapterPolicyMap": {"eth0": 1}, "rules": null})";
constexpr char kSwitchedOn[] = R"({"status": true, "profile": "office"})";
constexpr char kModuleUsers[] = "firewall=\"yes\"\n";
// clang-format on

// A machine whose files are all in order: switched on, with the profiles office, home and a test
// profile of home. Its modules are recorded as loaded, so that none is looked for.
void arrange() {
  files::clear();
  fs::remove_all(kModuleUsersFile);  // it may be a directory
  files::write(kGoodProfile, kHome);
  files::write("/usr/tarn/etc/firewall.d/2.json", kOffice);
  files::write("/usr/tarn/etc/firewall.d/4.json", kTestOfHome);
  files::writeSettings(kSwitchedOn);
  files::write(kModuleUsersFile, kModuleUsers);
}

// --- one case ---

enum Ending : int { kTrue, kFalse, kJsonException, kOtherException, kKeptLock };

// Is the file locked by anybody, by us too? Asked with locks that belong to an open file.
bool isLocked(const fs::path& file) {
  const int fd = open(file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  const bool locked = flock(fd, LOCK_EX | LOCK_NB) != 0 || fcntl(fd, F_OFD_SETLK, &whole) != 0;
  (void)close(fd);
  return locked;
}

bool keepsALock() {
  for (const char* directory : {"/var/lock/firewall", "/tmp", "/run/tarn", "/run"}) {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
      if (entry.path().extension() == ".lock" && isLocked(entry.path())) return true;
    }
  }
  return false;
}

int endingOf(const Operation& operation, const std::string& path) {
  int ending = kOtherException;
  try {
    ending = operation.run({path}) ? kTrue : kFalse;
  } catch (const Json::Exception&) {
    ending = operation.mayThrow ? kJsonException : kOtherException;
  } catch (const std::exception& other) {
    (void)std::fprintf(stderr, "%s\n", other.what());
  }
  return keepsALock() ? kKeptLock : ending;
}

// Runs the operation in a process of its own: "true", "signal 11", "took too long", ...
std::string run(const Operation& operation, const std::string& path) {
  const pid_t process = fork();
  if (process == 0) _exit(endingOf(operation, path));
  pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, process, 0)), POLLIN, 0};
  const bool inTime = ended.fd >= 0 && poll(&ended, 1, kLongestCall) == 1;
  (void)close(ended.fd);
  if (!inTime) (void)kill(process, SIGKILL);
  int status = 0;
  (void)waitpid(process, &status, 0);
  if (!inTime) return "took too long";
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  constexpr std::array<const char*, 5> kWords = {"true", "false", "JSON exception",
                                                 "other exception", "kept lock"};
  const auto ending = static_cast<std::size_t>(WEXITSTATUS(status));
  return ending < kWords.size() ? kWords[ending] : "exit " + std::to_string(ending);
}

// Are the policies that the commands have left all ACCEPT?
bool policiesAreOpen() {
  std::istringstream commands(files::read(kCommands));
  std::map<std::string, std::string> policies;
  std::string tool;
  std::string option;
  std::string chain;
  std::string policy;
  for (std::string line; std::getline(commands, line);) {
    std::istringstream words(line);
    if (words >> tool >> option >> chain >> policy && option == "--policy") {
      policies[tool + " " + chain] = policy;
    }
  }
  for (const auto& [name, last] : policies) {
    if (last != "ACCEPT") return false;
  }
  return true;
}

// --- the sweep ---

// The name of this part of the sweep, which is run in two.
std::string variant() {
  const char* const name = std::getenv("TARN_VARIANT");
  return name == nullptr ? "all" : name;
}

constexpr char kDocuments[] = "documents";
constexpr char kCases[] = "cases";
constexpr char kShut[] = "with DROP policies";
constexpr char kOthers[] = "crashes and others";

// Every way in which an operation may end, and what it is counted as.
const std::map<std::string, std::string> kEndings = {{"true", "true"},
                                                     {"false", "false"},
                                                     {"JSON exception", "JSON exceptions"},
                                                     {"took too long", "hangs"},
                                                     {"kept lock", "kept locks"}};

figures::Counts tally("hostile-documents/" + variant(),
                      {kDocuments, kCases, "true", "false", "JSON exceptions", "hangs",
                       "kept locks", kShut, kOthers});

void tryOut(const Document& document, const Location& location, const Operation& operation) {
  arrange();
  hostile::put(document, location.path);
  const std::string ending = run(operation, location.path);
  const bool open = policiesAreOpen();
  const auto known = kEndings.find(ending);
  tally.count(kCases);
  tally.count(known == kEndings.end() ? kOthers : known->second);
  if (!open) tally.count(kShut);
  EXPECT_TRUE(open && (ending == "true" || ending == "false" || ending == "JSON exception"))
      << operation.name << " with " << document.name << " (" << document.what << ") as "
      << location.name << ": " << ending << (open ? "" : ", policies not open");
}

// Takes away what the last document has left: a directory cannot be written over.
void clearPlaces() {
  for (const Location& location : hostile::kLocations) fs::remove_all(location.path);
}

constexpr unsigned kOwnDocuments = hostile::kProfile | hostile::kSettings;
constexpr std::uint64_t kPromisedDocuments = 40;

// Every operation that reads one of the places.
void sweep(const Document& document, unsigned places) {
  for (const Location& location : hostile::kLocations) {
    if ((location.place & places) == 0) continue;
    clearPlaces();
    road::installSeedFiles();
    for (const Operation& operation : hostile::operations()) {
      if ((operation.reads & location.place) != 0) tryOut(document, location, operation);
    }
  }
}

void checkCounts(std::uint64_t casesOfADocument) {
  tally.count(kDocuments, hostile::documents().size());
  EXPECT_GE(tally.counted(kDocuments), kPromisedDocuments);
  EXPECT_GE(tally.counted(kCases), kPromisedDocuments * casesOfADocument);
  // The sweep reaches all three of the fair endings.
  for (const char* fair : {"true", "false", "JSON exceptions"}) EXPECT_GT(tally.counted(fair), 0U);
}

class OwnDocuments : public testing::TestWithParam<Document> {
 protected:
  static void TearDownTestSuite() { checkCounts(/*casesOfADocument=*/125); }
};

TEST_P(OwnDocuments, HarmNoOperation) { sweep(GetParam(), kOwnDocuments); }

class OtherFiles : public testing::TestWithParam<Document> {
 protected:
  static void TearDownTestSuite() { checkCounts(/*casesOfADocument=*/75); }
};

TEST_P(OtherFiles, HarmNoOperation) { sweep(GetParam(), ~kOwnDocuments); }

std::string nameOf(const testing::TestParamInfo<Document>& row) { return row.param.name; }

INSTANTIATE_TEST_SUITE_P(Table, OwnDocuments, testing::ValuesIn(hostile::documents()), nameOf);
INSTANTIATE_TEST_SUITE_P(Table, OtherFiles, testing::ValuesIn(hostile::documents()), nameOf);

// Every document of the folder stands in the table.
TEST(HostileDocumentsTable, NamesEveryFileOfTheFolder) {
  std::size_t kept = 0;
  for (const Document& document : hostile::documents()) kept += document.make == nullptr ? 1U : 0U;
  EXPECT_EQ(kept, files::list(TARN_HOSTILE_DOCUMENTS).size());
}

// Every operation is tried out with one place at least.
TEST(HostileDocumentsTable, NamesEveryOperation) {
  EXPECT_EQ(110U, hostile::operations().size());
  for (const Operation& operation : hostile::operations()) EXPECT_NE(0U, operation.reads);
}

}  // namespace
