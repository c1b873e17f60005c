// The JSON file store: jsonFileLoad, jsonFileDump, getLockFile.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>
#include <boost/interprocess/exceptions.hpp>

#include "fakePlatform.h"
#include "jsonText.h"
#include "lease.h"
#include "ordinaryRights.h"
#include "processes.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace fs = std::filesystem;

namespace {

constexpr char kDocument[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";
constexpr char kTemporary[] = "/usr/tarn/etc/firewall.d/firewall_settings.json.tmp";
constexpr char kLockFile[] = "/var/lock/firewall/firewall_settings.json.lock";
constexpr char kOther[] = "/tmp/other";
constexpr uid_t kNobody = 65534;

// The C library's calls that put a document on the disk, below. With `recorded` they are lines of
// the trace; a flush or a close of what the other members name gives EIO.
struct Disk {
  bool recorded = false;
  std::string flushFails;
  std::string closeFails;
};
Disk disk;

// The n-th allocation from now fails; 0: none does.
std::atomic<long> allocationsLeft = 0;

std::string targetOf(int fd) {
  std::error_code error;
  return fs::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
}

class Utils : public fake::MachineTest {
 protected:
  void TearDown() override {
    disk = Disk();
    fake::MachineTest::TearDown();
  }
};

std::string modeOf(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) return "(absent)";
  char text[64];
  (void)std::snprintf(text, sizeof text, "%06o %ld links, owner %ld",
                      static_cast<unsigned>(status.st_mode), static_cast<long>(status.st_nlink),
                      static_cast<long>(status.st_uid));
  return text;
}

// The profile directory on a disk of `size`, as mount takes it.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& size) {
    EXPECT_EQ(0, mount("small", files::kProfileDirectory, "tmpfs", 0, ("size=" + size).c_str()));
  }
  ~SmallDisk() { EXPECT_EQ(0, umount(files::kProfileDirectory)); }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
};

// --- getLockFile ---

struct LockFileRow {
  const char* name;
  std::string document;
  std::string lockFile;
  std::string made;  // what the lock directory holds afterwards
};

void PrintTo(const LockFileRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<LockFileRow> kLockFileRows = {
    {"Settings", "/usr/tarn/etc/firewall.d/firewall_settings.json", "/var/lock/firewall/firewall_settings.json.lock", "firewall_settings.json.lock"},
    {"Profile", "/usr/tarn/etc/firewall.d/1690000042.json", "/var/lock/firewall/1690000042.json.lock", "1690000042.json.lock"},
    {"SameLastComponentSameLock", "/elsewhere/1690000042.json", "/var/lock/firewall/1690000042.json.lock", "1690000042.json.lock"},
    {"NoDirectory", "a.json", "/var/lock/firewall/a.json.lock", "a.json.lock"},
    {"TrailingSlash", "/usr/tarn/a/", "/var/lock/firewall/a.lock", "a.lock"},
    {"Empty", "", "/var/lock/firewall/..lock", "..lock"},
    {"Root", "/", "/var/lock/firewall//.lock", ".lock"},
    {"Blanks", "/tmp/a b.json", "/var/lock/firewall/a b.json.lock", "a b.json.lock"},
    {"PathOf1023Bytes", "/" + std::string(1015, 'd') + "/a.json", "/var/lock/firewall/a.json.lock", "a.json.lock"},
    {"PathOf1024BytesLosesOne", "/" + std::string(1016, 'd') + "/a.json", "/var/lock/firewall/a.jso.lock", "a.jso.lock"},
    {"ComponentTooLongForAFile", "/" + std::string(251, 'n'), "/var/lock/firewall/" + std::string(251, 'n') + ".lock", ""},
};
// clang-format on

class LockFileOf : public Utils, public testing::WithParamInterface<LockFileRow> {};

TEST_P(LockFileOf, IsNamedAndMade) {
  EXPECT_EQ(GetParam().lockFile, getLockFile(GetParam().document));
  EXPECT_EQ(GetParam().made, files::listing(files::kLockDirectory));
}

INSTANTIATE_TEST_SUITE_P(Utils, LockFileOf, testing::ValuesIn(kLockFileRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Utils, LockFileIsEmptyAndForItsOwnerOnly) {
  const mode_t before = umask(0);
  EXPECT_EQ(kLockFile, getLockFile(kDocument));
  (void)umask(before);
  EXPECT_EQ("", files::read(kLockFile));
  EXPECT_EQ("100600 1 links, owner 0", modeOf(kLockFile));
  EXPECT_EQ("040770 2 links, owner 0", modeOf("/var/lock/firewall"));
}

TEST_F(Utils, LockFileThatExistsStaysAsItIs) {
  (void)getLockFile(kDocument);
  files::write(kLockFile, "kept");
  EXPECT_EQ(kLockFile, getLockFile(kDocument));
  EXPECT_EQ("kept", files::read(kLockFile));
}

TEST_F(Utils, LockFilesAreInTmpWithoutTheLockDirectory) {
  fake::machine().answers = {{"mkdir /var/lock/firewall/", {-1, EROFS}}};
  EXPECT_EQ("/tmp/firewall_settings.json.lock", getLockFile(kDocument));
  EXPECT_EQ("debug utils Failed to create path: Read-only file system", trace::take());
  EXPECT_EQ("", files::read("/tmp/firewall_settings.json.lock"));
  EXPECT_EQ("100600 1 links, owner 0", modeOf("/tmp/firewall_settings.json.lock"));
}

TEST_F(Utils, DocumentsAreKeptWithTheLockInTmp) {
  fake::machine().answers = {{"mkdir /var/lock/firewall/", {-1, EACCES}}};
  Json::Value value;
  EXPECT_TRUE(jsonFileDump(toJson(R"({"a":1})"), kDocument));
  EXPECT_TRUE(jsonFileLoad(value, kDocument));
  EXPECT_EQ(R"({"a":1})", toText(value));
  EXPECT_EQ(
      "debug utils Failed to create path: Permission denied\n"
      "debug utils Failed to create path: Permission denied",
      trace::take());
  EXPECT_EQ("", files::listing(files::kLockDirectory));
}

// --- jsonFileLoad ---

struct LoadRow {
  const char* name;
  std::string text;
  std::string value;  // empty: the load fails with the message about parsing
};

void PrintTo(const LoadRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<LoadRow> kLoadRows = {
    {"Object", R"({"status": true, "profile": "office"})", R"({"profile":"office","status":true})"},
    {"Array", R"([1, "a", null])", R"([1,"a",null])"},
    {"Comments", "// written by hand\n{\"a\": 1 /* one */}\n", R"({"a":1})"},
    {"NestedAThousandDeep", std::string(1000, '[') + std::string(1000, ']'), std::string(1000, '[') + std::string(1000, ']')},
    {"ByteZeroInAString", std::string("{\"a\":\"x\0y\"}", 11), R"({"a":"x\u0000y"})"},
    {"Empty", "", ""},
    {"Blanks", " \n\t ", ""},
    {"NotJson", "status = yes\n", ""},
    {"Cut", R"({"status": true, "pro)", ""},
    {"TrailingComma", R"({"a": 1,})", ""},
    {"ByteZero", std::string("\0", 1), ""},
    {"ByteOrderMark", "\xEF\xBB\xBF{}", ""},
};
// clang-format on

class Load : public Utils, public testing::WithParamInterface<LoadRow> {};

TEST_P(Load, ReadsTheText) {
  files::write(kDocument, GetParam().text);
  Json::Value value;
  const bool loaded = jsonFileLoad(value, kDocument);
  EXPECT_EQ(!GetParam().value.empty(), loaded);
  if (loaded) {
    EXPECT_EQ(GetParam().value, toText(value));
  }
  EXPECT_EQ(loaded ? "" : std::string("err utils Failed to parse Json value of ") + kDocument,
            trace::take());
  EXPECT_EQ(GetParam().text, files::read(kDocument));
  EXPECT_EQ("firewall_settings.json.lock", files::listing(files::kLockDirectory));
}

INSTANTIATE_TEST_SUITE_P(Utils, Load, testing::ValuesIn(kLoadRows),
                         [](const auto& row) { return std::string(row.param.name); });

// The styled writer puts the last comment of a list before the bracket that ends it.
TEST_F(Utils, CommentsDoNotMakeADocumentUnreadable) {
  const char* const kComments = "{\"a\": [1, // one\n2 // two \n]// list\n}";
  files::write(kDocument, kComments);
  Json::Value value;
  ASSERT_TRUE(jsonFileLoad(value, kDocument));
  EXPECT_TRUE(jsonFileDump(value, kDocument));
  EXPECT_EQ("{\n   \"a\" : [ 1, 2 ]\n}\n", files::read(kDocument));

  files::write(kDocument, "{\n   // where the rules come from\n   \"a\" : \"http://x\"\n}\n");
  ASSERT_TRUE(jsonFileLoad(value, kDocument));
  EXPECT_TRUE(jsonFileDump(value, kDocument));
  EXPECT_EQ("{\n   // where the rules come from\n   \"a\" : \"http://x\"\n}\n",
            files::read(kDocument));
}

TEST_F(Utils, LoadOfAnAbsentDocumentMakesNoLockFile) {
  Json::Value value = "untouched";
  EXPECT_FALSE(jsonFileLoad(value, kDocument));
  EXPECT_EQ(std::string("err utils File ") + kDocument + " does not exist", trace::take());
  EXPECT_EQ("\"untouched\"", toText(value));
  EXPECT_EQ("", files::listing(files::kLockDirectory));
}

TEST_F(Utils, LoadOfADanglingLinkIsOfAnAbsentDocument) {
  fs::create_symlink("/nowhere", kDocument);
  Json::Value value;
  EXPECT_FALSE(jsonFileLoad(value, kDocument));
  EXPECT_EQ(std::string("err utils File ") + kDocument + " does not exist", trace::take());
}

TEST_F(Utils, LoadFollowsALinkToADocument) {
  files::write(kOther, R"({"a": 1})");
  fs::create_symlink(kOther, kDocument);
  Json::Value value;
  EXPECT_TRUE(jsonFileLoad(value, kDocument));
  EXPECT_EQ(R"({"a":1})", toText(value));
}

TEST_F(Utils, LoadReadsAFileThatDoesNotTellItsSize) {
  constexpr char kNumber[] = "/proc/self/oom_score_adj";
  const std::string before = files::read(kNumber);
  files::write(kNumber, "517");
  ASSERT_EQ(0U, fs::file_size(kNumber));
  fs::create_symlink(kNumber, kDocument);
  Json::Value value;
  EXPECT_TRUE(jsonFileLoad(value, kDocument));
  EXPECT_EQ("517", toText(value));
  files::write(kNumber, before);
}

TEST_F(Utils, LoadOfADirectoryFails) {
  fs::create_directory(kDocument);
  Json::Value value;
  EXPECT_FALSE(jsonFileLoad(value, kDocument));
  EXPECT_EQ(std::string("err utils Failed to open json file ") + kDocument, trace::take());
}

TEST_F(Utils, LoadOfAFifoFailsWithoutWaiting) {
  ASSERT_EQ(0, mkfifo(kDocument, 0644));
  Json::Value value;
  EXPECT_FALSE(jsonFileLoad(value, kDocument));
  EXPECT_EQ(std::string("err utils Failed to open json file ") + kDocument, trace::take());
}

TEST_F(Utils, LoadOfADeviceFails) {
  fs::create_symlink("/dev/zero", kDocument);
  Json::Value value;
  EXPECT_FALSE(jsonFileLoad(value, kDocument));
  EXPECT_EQ(std::string("err utils Failed to open json file ") + kDocument, trace::take());
}

TEST_F(Utils, LoadOfAnUnreadableDocumentFails) {
  files::write(kDocument, "{}");
  ASSERT_EQ(0, chown(kDocument, kNobody, kNobody));
  ASSERT_EQ(0, chmod(kDocument, 0));
  (void)getLockFile(kDocument);
  Json::Value value;
  {
    const fake::OrdinaryRights rights;
    EXPECT_FALSE(jsonFileLoad(value, kDocument));
  }
  EXPECT_EQ(std::string("err utils Failed to open json file ") + kDocument, trace::take());
}

TEST_F(Utils, LoadOfADocumentNestedTwoThousandDeepThrows) {
  files::write(kDocument, std::string(2000, '[') + std::string(2000, ']'));
  Json::Value value;
  EXPECT_THROW((void)jsonFileLoad(value, kDocument), Json::Exception);
}

TEST_F(Utils, LoadOf64MebibytesReadsThemAll) {
  constexpr std::size_t kLength = 64UL << 20U;  // bytes
  files::write(kDocument, "[\"" + std::string(kLength, 'x') + "\"]");
  Json::Value value;
  EXPECT_TRUE(jsonFileLoad(value, kDocument));
  EXPECT_EQ(kLength, value[0].asString().size());
}

TEST_F(Utils, LoadOf64MebibytesThatAreNoDocumentFails) {
  files::write(kDocument, std::string(64UL << 20U, '\0'));
  Json::Value value;
  EXPECT_FALSE(jsonFileLoad(value, kDocument));
  EXPECT_EQ(std::string("err utils Failed to parse Json value of ") + kDocument, trace::take());
}

// --- jsonFileDump ---

TEST_F(Utils, DumpWritesTheStyledFormAndNothingElse) {
  const Json::Value value = toJson(
      R"({"status": false, "profile": "Gästenetz/1", "empty": {}, "none": [], "list": ["a", 2], "deep": {"x": [{"y": null}]}})");
  EXPECT_TRUE(jsonFileDump(value, kDocument));
  EXPECT_EQ(
      R"({
   "deep" : {
      "x" : [
         {
            "y" : null
         }
      ]
   },
   "empty" : {},
   "list" : [ "a", 2 ],
   "none" : [],
   "profile" : "G\u00e4stenetz/1",
   "status" : false
}
)",
      files::read(kDocument));
  EXPECT_EQ("firewall_settings.json", files::listing(files::kProfileDirectory));
  EXPECT_EQ("firewall_settings.json.lock", files::listing(files::kLockDirectory));
}

// An unsigned number is read back as a signed one.
TEST_F(Utils, CommentsSurviveANumberOfAnotherType) {
  files::write(kDocument, "{\n   // one\n   \"a\" : 1\n}\n");
  Json::Value value;
  ASSERT_TRUE(jsonFileLoad(value, kDocument));
  value["b"] = 2U;
  EXPECT_TRUE(jsonFileDump(value, kDocument));
  EXPECT_EQ("{\n   // one\n   \"a\" : 1,\n   \"b\" : 2\n}\n", files::read(kDocument));
}

TEST_F(Utils, CommentsOfADocumentSurvive) {
  files::write(kDocument, "// written by hand\n{\n   \"a\" : 1 // one\n}\n");
  Json::Value value;
  EXPECT_TRUE(jsonFileLoad(value, kDocument));
  EXPECT_TRUE(jsonFileDump(value, kDocument));
  // Where the JSON library puts them is its own affair.
  const std::string text = files::read(kDocument);
  EXPECT_NE(std::string::npos, text.find("// written by hand\n{")) << text;
  EXPECT_NE(std::string::npos, text.find("\"a\" : 1 // one\n")) << text;
}

TEST_F(Utils, DumpReplacesALongerDocument) {
  files::write(kDocument, std::string(10000, ' '));
  EXPECT_TRUE(jsonFileDump(toJson("{}"), kDocument));
  EXPECT_EQ("{}\n", files::read(kDocument));
}

TEST_F(Utils, DumpFlushesTheDocumentBeforeTheRenameAndTheDirectoryAfter) {
  disk.recorded = true;
  EXPECT_TRUE(jsonFileDump(toJson("{}"), kDocument));
  EXPECT_EQ(
      "fsync /usr/tarn/etc/firewall.d/firewall_settings.json.tmp\n"
      "rename /usr/tarn/etc/firewall.d/firewall_settings.json.tmp /usr/tarn/etc/firewall.d/firewall_settings.json\n"
      "fsync /usr/tarn/etc/firewall.d",
      trace::take());
}

TEST_F(Utils, DumpThatCannotBeFlushedFails) {
  files::write(kDocument, "{}\n");
  disk.flushFails = kTemporary;
  EXPECT_FALSE(jsonFileDump(toJson("[1]"), kDocument));
  EXPECT_EQ(
      std::string("err utils Failed to write json file ") + kTemporary + ": Input/output error",
      trace::take());
  EXPECT_EQ("{}\n", files::read(kDocument));
}

TEST_F(Utils, DumpWhoseErrorShowsAtTheCloseFails) {
  files::write(kDocument, "{}\n");
  disk.closeFails = kTemporary;
  EXPECT_FALSE(jsonFileDump(toJson("[1]"), kDocument));
  EXPECT_EQ(
      std::string("err utils Failed to write json file ") + kTemporary + ": Input/output error",
      trace::take());
  EXPECT_EQ("{}\n", files::read(kDocument));
}

TEST_F(Utils, DumpIsDoneThoughTheDirectoryCannotBeFlushed) {
  disk.flushFails = "/usr/tarn/etc/firewall.d";
  EXPECT_TRUE(jsonFileDump(toJson("[1]"), kDocument));
  EXPECT_EQ("err utils Failed to flush directory /usr/tarn/etc/firewall.d/: Input/output error",
            trace::take());
  EXPECT_EQ("[ 1 ]\n", files::read(kDocument));
}

TEST_F(Utils, DumpWithoutTheDirectoryFails) {
  EXPECT_FALSE(jsonFileDump(toJson("{}"), "/usr/tarn/etc/none/a.json"));
  EXPECT_EQ("err utils Failed to open json file /usr/tarn/etc/none/a.json.tmp", trace::take());
  EXPECT_EQ("a.json.lock", files::listing(files::kLockDirectory));
}

TEST_F(Utils, DumpOverADirectoryFailsAtTheRename) {
  fs::create_directory(kDocument);
  EXPECT_FALSE(jsonFileDump(toJson("{}"), kDocument));
  EXPECT_EQ(std::string("err utils Failed to rename to ") + kDocument, trace::take());
  EXPECT_EQ("(directory)", files::read(kDocument));
  EXPECT_EQ("{}\n", files::read(kTemporary));
}

TEST_F(Utils, DumpOverALinkReplacesTheLink) {
  files::write(kOther, "other");
  fs::create_symlink(kOther, kDocument);
  EXPECT_TRUE(jsonFileDump(toJson("{}"), kDocument));
  EXPECT_FALSE(fs::is_symlink(kDocument));
  EXPECT_EQ("{}\n", files::read(kDocument));
  EXPECT_EQ("other", files::read(kOther));
}

struct ModeRow {
  const char* name;
  int before;  // mode of the document, -1: there is none
  std::string after;
};

void PrintTo(const ModeRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<ModeRow> kModeRows = {
    {"NewDocument", -1, "100640 1 links, owner 0"},
    {"StaysPrivate", 0600, "100600 1 links, owner 0"},
    {"StaysGroupWritable", 0660, "100660 1 links, owner 0"},
    {"OthersLoseTheirRights", 0666, "100660 1 links, owner 0"},
    {"NoExecutionNoSetUid", 04775, "100660 1 links, owner 0"},
};
// clang-format on

class DocumentMode : public Utils, public testing::WithParamInterface<ModeRow> {};

TEST_P(DocumentMode, IsKeptWithinBounds) {
  if (GetParam().before >= 0) {
    files::write(kDocument, "old");
    ASSERT_EQ(0, chmod(kDocument, static_cast<mode_t>(GetParam().before)));
  }
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{0777}}) {
    const mode_t before = umask(mask);
    EXPECT_TRUE(jsonFileDump(toJson("{}"), kDocument));
    (void)umask(before);
    EXPECT_EQ(GetParam().after, modeOf(kDocument)) << std::oct << mask;
  }
}

INSTANTIATE_TEST_SUITE_P(Utils, DocumentMode, testing::ValuesIn(kModeRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- what stands at the name of the temporary file ---

enum class Squatter {
  kFile,
  kForeignFile,
  kOpenFile,  // ours, with rights for everybody
  kLink,
  kDanglingLink,
  kHardLink,
  kFifo,
  kSocket,
  kDirectory,
};

constexpr char kLeft[] = "left by an earlier dump, longer than what comes now";

// Puts it at `path`; links lead to kOther, which holds "other".
void put(Squatter squatter, const std::string& path) {
  files::write(kOther, "other");
  switch (squatter) {
    case Squatter::kFile:
      files::write(path, kLeft);
      break;
    case Squatter::kForeignFile:
      files::write(path, kLeft);
      ASSERT_EQ(0, chown(path.c_str(), kNobody, kNobody));
      break;
    case Squatter::kOpenFile:
      files::write(path, kLeft);
      ASSERT_EQ(0, chmod(path.c_str(), 0666));
      break;
    case Squatter::kLink:
      fs::create_symlink(kOther, path);
      break;
    case Squatter::kDanglingLink:
      fs::create_symlink("/tmp/made", path);
      break;
    case Squatter::kHardLink:
      fs::create_directories("/usr/tarn/etc");
      files::write("/usr/tarn/etc/linked", "other");
      fs::rename("/usr/tarn/etc/linked", kOther);
      fs::create_hard_link(kOther, path);
      break;
    case Squatter::kFifo:
      ASSERT_EQ(0, mkfifo(path.c_str(), 0666));
      break;
    case Squatter::kSocket:
      ASSERT_EQ(0, mknod(path.c_str(), S_IFSOCK | 0666, 0));
      break;
    case Squatter::kDirectory:
      fs::create_directory(path);
      break;
  }
}

struct SquatterRow {
  const char* name;
  Squatter squatter;
  bool dumped;  // with the squatter at the name of the temporary file
};

void PrintTo(const SquatterRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<SquatterRow> kSquatterRows = {
    {"File", Squatter::kFile, true},
    {"ForeignFile", Squatter::kForeignFile, false},
    {"FileOpenToAll", Squatter::kOpenFile, true},
    {"Link", Squatter::kLink, false},
    {"DanglingLink", Squatter::kDanglingLink, false},
    {"HardLink", Squatter::kHardLink, false},
    {"Fifo", Squatter::kFifo, false},
    {"Socket", Squatter::kSocket, false},
    {"Directory", Squatter::kDirectory, false},
};
// clang-format on

class Squatted : public Utils, public testing::WithParamInterface<SquatterRow> {};

TEST_P(Squatted, TemporaryFile) {
  put(GetParam().squatter, kTemporary);
  files::write(kDocument, "{}\n");
  EXPECT_EQ(GetParam().dumped, jsonFileDump(toJson("[1]"), kDocument));
  EXPECT_EQ(
      GetParam().dumped ? "" : std::string("err utils Failed to open json file ") + kTemporary,
      trace::take());
  EXPECT_EQ(GetParam().dumped ? "[ 1 ]\n" : "{}\n", files::read(kDocument));
  EXPECT_EQ("other", files::read(kOther));
  EXPECT_EQ("(absent)", files::read("/tmp/made"));
}

TEST_P(Squatted, LockFile) {
  (void)getLockFile(kDocument);
  fs::remove(kLockFile);
  put(GetParam().squatter, kLockFile);
  Json::Value value;
  EXPECT_TRUE(jsonFileDump(toJson("[1]"), kDocument));
  EXPECT_TRUE(jsonFileLoad(value, kDocument));
  EXPECT_EQ("[1]", toText(value));
  EXPECT_EQ("100600 1 links, owner 0", modeOf(kLockFile));
  EXPECT_EQ("firewall_settings.json.lock", files::listing(files::kLockDirectory));
  EXPECT_EQ("other", files::read(kOther));
  EXPECT_EQ("(absent)", files::read("/tmp/made"));
}

TEST_P(Squatted, LockFileInTmp) {
  fake::machine().answers = {{"mkdir /var/lock/firewall/", {-1, EROFS}}};
  put(GetParam().squatter, "/tmp/firewall_settings.json.lock");
  EXPECT_TRUE(jsonFileDump(toJson("[1]"), kDocument));
  EXPECT_EQ("debug utils Failed to create path: Read-only file system", trace::take());
  EXPECT_EQ("[ 1 ]\n", files::read(kDocument));
  EXPECT_EQ("100600 1 links, owner 0", modeOf("/tmp/firewall_settings.json.lock"));
  EXPECT_EQ("other", files::read(kOther));
  EXPECT_EQ("(absent)", files::read("/tmp/made"));
}

TEST_F(Utils, LockFileInTmpThatIsLinkedWhileItIsHeldIsWaitedFor) {
  constexpr char kInTmp[] = "/tmp/firewall_settings.json.lock";
  fake::machine().answers = {{"mkdir /var/lock/firewall/", {-1, EROFS}}};
  EXPECT_TRUE(jsonFileDump(toJson("[1]"), kDocument));
  processes::LockHolder holder(kInTmp);
  ASSERT_EQ(0, link(kInTmp, "/tmp/linked"));
  std::thread releases([&holder] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    holder.release();
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(jsonFileDump(toJson("[2]"), kDocument));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1400));
  releases.join();
  EXPECT_EQ("100600 1 links, owner 0", modeOf(kInTmp));
  (void)trace::take();
}

INSTANTIATE_TEST_SUITE_P(Utils, Squatted, testing::ValuesIn(kSquatterRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- disks that fail ---

TEST_F(Utils, DumpToAFullDiskKeepsTheOldDocument) {
  const SmallDisk small("16k");
  const Json::Value old = toJson(R"({"old": true})");
  EXPECT_TRUE(jsonFileDump(old, kDocument));
  const std::string before = files::read(kDocument);
  EXPECT_FALSE(jsonFileDump(Json::Value(std::string(65536, 'x')), kDocument));
  EXPECT_EQ(std::string("err utils Failed to write json file ") + kTemporary +
                ": No space left on device",
            trace::take());
  EXPECT_EQ(before, files::read(kDocument));
}

TEST_F(Utils, DumpThatStopsAtAnyByteKeepsTheOldDocument) {
  constexpr rlim_t kStep = 511;         // bytes
  constexpr std::size_t kText = 32768;  // bytes
  files::write(kDocument, "{}\n");
  const Json::Value value(std::string(kText, 'x'));
  const rlim_t length = kText + 3;  // bytes: quotes and line feed
  for (rlim_t limit = 0; limit < length; limit = limit + kStep < length ? limit + kStep : length) {
    const files::FileSizeLimit limited(limit);
    EXPECT_FALSE(jsonFileDump(value, kDocument)) << limit;
    EXPECT_EQ(std::string("err utils Failed to write json file ") + kTemporary + ": File too large",
              trace::take());
    EXPECT_EQ("{}\n", files::read(kDocument)) << limit;
  }
  EXPECT_TRUE(jsonFileDump(value, kDocument));
  EXPECT_EQ(length, files::read(kDocument).size());
}

// --- locks ---

TEST_F(Utils, LockFileThatCannotBeOpenedThrows) {
  const std::string document = files::kProfileDirectory + std::string(251, 'n');
  files::write(document, "{}");
  Json::Value value;
  EXPECT_THROW((void)jsonFileLoad(value, document), boost::interprocess::interprocess_exception);
  EXPECT_THROW((void)jsonFileDump(value, document), boost::interprocess::interprocess_exception);
  EXPECT_EQ("{}", files::read(document));
}

// A file server may lease the lock file, and lets go of it some time after somebody opens it.
TEST_F(Utils, LeasedLockFileIsWaitedFor) {
  (void)getLockFile(kDocument);
  const processes::Lease lease(kLockFile, std::chrono::milliseconds(300));
  ASSERT_TRUE(lease.taken()) << "a file system without leases";
  EXPECT_TRUE(jsonFileDump(toJson("[1]"), kDocument));
  EXPECT_EQ("[ 1 ]\n", files::read(kDocument));
}

TEST_F(Utils, LeaseOfTheLockFileThatIsKeptIsWaitedForASecond) {
  (void)getLockFile(kDocument);
  const processes::Lease lease(kLockFile, std::chrono::seconds(60));
  ASSERT_TRUE(lease.taken()) << "a file system without leases";
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THROW((void)jsonFileDump(toJson("[1]"), kDocument),
               boost::interprocess::interprocess_exception);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ("firewall_settings.json.lock", files::listing(files::kLockDirectory));
}

// The numbers of our descriptors that are open on `path`.
std::vector<int> descriptorsOf(const std::string& path) {
  std::vector<int> numbers;
  for (const std::string& number : files::list("/proc/self/fd")) {
    std::error_code error;
    if (fs::read_symlink("/proc/self/fd/" + number, error) == path)
      numbers.push_back(std::stoi(number));
  }
  return numbers;
}

// One load or dump in a thread of its own.
class Waiting {
 public:
  explicit Waiting(bool (*operation)()) : thread_([this, operation] { result_ = operation(); }) {}
  ~Waiting() {
    if (thread_.joinable()) thread_.join();
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;
  bool result() {
    thread_.join();
    return result_;
  }

 private:
  bool result_ = false;
  std::thread thread_;
};

bool load() {
  Json::Value value;
  return jsonFileLoad(value, kDocument);
}

bool dump() { return jsonFileDump(toJson("[1]"), kDocument); }

struct OperationRow {
  const char* name;
  bool (*operation)();
};

void PrintTo(const OperationRow& row, std::ostream* out) { *out << row.name; }

const std::vector<OperationRow> kOperationRows = {{"Load", load}, {"Dump", dump}};

class Locked : public Utils, public testing::WithParamInterface<OperationRow> {
 protected:
  void SetUp() override {
    Utils::SetUp();
    files::write(kDocument, "{}");
    (void)getLockFile(kDocument);
  }
};

TEST_P(Locked, WaitsUntilTheLockIsReleased) {
  const std::string lockFile = fs::canonical(kLockFile);
  processes::LockHolder holder(kLockFile);
  Waiting waiting(GetParam().operation);
  EXPECT_TRUE(processes::eventually([&] { return descriptorsOf(lockFile).size() == 2; }));
  EXPECT_EQ("{}", files::read(kDocument));
  holder.release();
  EXPECT_TRUE(waiting.result());
}

TEST_P(Locked, LockDescriptorsAreCloseOnExec) {
  const std::string lockFile = fs::canonical(kLockFile);
  processes::LockHolder holder(kLockFile);
  Waiting waiting(GetParam().operation);
  EXPECT_TRUE(processes::eventually([&] {
    const std::vector<int> numbers = descriptorsOf(lockFile);
    return numbers.size() == 2 && std::all_of(numbers.begin(), numbers.end(), [](int number) {
             return (fcntl(number, F_GETFD) & FD_CLOEXEC) != 0;
           });
  }));
  holder.release();
  EXPECT_TRUE(waiting.result());
}

TEST_P(Locked, LockFileReplacedWhileWaitingIsLockedAnew) {
  const std::string lockFile = fs::canonical(kLockFile);
  processes::LockHolder first(kLockFile);
  Waiting waiting(GetParam().operation);
  EXPECT_TRUE(processes::eventually([&] { return descriptorsOf(lockFile).size() == 2; }));
  fs::remove(kLockFile);
  EXPECT_EQ(kLockFile, getLockFile(kDocument));
  processes::LockHolder second(kLockFile);
  first.release();
  // Now it waits for the file that has the name.
  EXPECT_TRUE(processes::eventually([&] { return descriptorsOf(lockFile).size() == 2; }));
  EXPECT_EQ("{}", files::read(kDocument));
  second.release();
  EXPECT_TRUE(waiting.result());
}

INSTANTIATE_TEST_SUITE_P(Utils, Locked, testing::ValuesIn(kOperationRows),
                         [](const auto& row) { return std::string(row.param.name); });

// Loads and dumps {"round": N, "again": N} in turn; answers what is wrong.
std::string loadAndDump(int rounds) {
  for (int round = 0; round < rounds; ++round) {
    Json::Value value;
    if (!jsonFileLoad(value, kDocument)) return "load failed: " + trace::take();
    if (value["round"] != value["again"] || value.size() != 2) return "torn: " + toText(value);
    value["round"] = round;
    value["again"] = round;
    if (!jsonFileDump(value, kDocument)) return "dump failed: " + trace::take();
  }
  return "done";
}

TEST_F(Utils, ProcessesNeverSeeATornDocument) {
  constexpr int kProcesses = 4;
  constexpr int kRounds = 250;
  files::write(kDocument, R"({"round": 0, "again": 0})");
  std::vector<std::unique_ptr<processes::Child>> children;
  children.reserve(kProcesses);
  for (int child = 0; child < kProcesses; ++child) {
    children.push_back(std::make_unique<processes::Child>([] { return loadAndDump(kRounds); }));
  }
  for (const auto& child : children) EXPECT_EQ("done", child->answer());
  EXPECT_EQ("firewall_settings.json", files::listing(files::kProfileDirectory));
}

// What an operation answers while another process holds the lock, and whether it took about 30
// seconds.
std::string underForeignLock(bool (*operation)()) {
  const auto begin = std::chrono::steady_clock::now();
  const std::clock_t ticks = std::clock();
  const bool result = operation();
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
  const double busy = static_cast<double>(std::clock() - ticks) / CLOCKS_PER_SEC;
  return std::string(result ? "true" : "false") + (seconds.count() >= 29.5 ? "" : ", early") +
         (seconds.count() <= 35 ? "" : ", late") + (busy < 3 ? "" : ", busy") + "\n" +
         trace::take();
}

using SlowUtils = Utils;

TEST_F(SlowUtils, ForeignLockHeldLongerThan30SecondsMakesLoadAndDumpFail) {
  files::write(kDocument, "{}");
  const processes::LockHolder holder(getLockFile(kDocument));
  processes::Child loading([] { return underForeignLock(load); });
  processes::Child dumping([] { return underForeignLock(dump); });
  EXPECT_EQ("false\nerr utils Failed to get lock timeout", loading.answer());
  EXPECT_EQ("false\nerr utils Failed to get lock timeout", dumping.answer());
  EXPECT_EQ("{}", files::read(kDocument));
  EXPECT_EQ("firewall_settings.json", files::listing(files::kProfileDirectory));
}

// --- memory that runs out ---

// Runs the operation with its n-th allocation failing, for every n that it gets to.
void failEveryAllocation(bool (*operation)(), const std::vector<std::string>& documents) {
  bool failed = true;
  for (long n = 1; failed; ++n) {
    files::write(kDocument, "{}\n");
    allocationsLeft = n;
    try {
      EXPECT_TRUE(operation());
      failed = allocationsLeft <= 0;
    } catch (const std::bad_alloc&) {
      failed = true;
    }
    allocationsLeft = 0;
    EXPECT_EQ(1, std::count(documents.begin(), documents.end(), files::read(kDocument))) << n;
    EXPECT_EQ("", processes::locks()) << n;
    ASSERT_LT(n, 10000);
  }
}

TEST_F(Utils, LoadWithoutMemoryThrows) { failEveryAllocation(load, {"{}\n"}); }

TEST_F(Utils, DumpWithoutMemoryThrowsAndLeavesTheOldDocumentOrTheNewOne) {
  failEveryAllocation(dump, {"{}\n", "[ 1 ]\n"});
}

}  // namespace

// The C library's names: the library under test calls these.

int fsync(int fd) {
  const std::string path = targetOf(fd);
  if (disk.recorded) trace::add("fsync " + path);
  if (disk.flushFails.empty() || path != disk.flushFails) {
    return static_cast<int>(syscall(SYS_fsync, fd));
  }
  errno = EIO;
  return -1;
}

int close(int fd) {
  const bool fails = !disk.closeFails.empty() && targetOf(fd) == disk.closeFails;
  const auto result = static_cast<int>(syscall(SYS_close, fd));
  if (!fails) return result;
  errno = EIO;
  return -1;
}

int rename(const char* from, const char* to) noexcept {
  if (disk.recorded) trace::add(std::string("rename ") + from + " " + to);
  return renameat(AT_FDCWD, from, AT_FDCWD, to);
}

// Not inlined: the compiler would otherwise see memory of the one operator freed by the body of the
// other.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (allocationsLeft > 0 && --allocationsLeft == 0) throw std::bad_alloc();
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
