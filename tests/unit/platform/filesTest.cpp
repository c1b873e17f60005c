// Key/value files, existence, directories.

#include "files.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "error.h"
#include "platformTest.h"

namespace {

// Flushes still to succeed; after them the disk fails.
int goodFlushes = 1000;

}  // namespace

// In place of the C library's, also for the platform's library.
extern "C" int fsync(int fd) {
  if (goodFlushes-- > 0) return static_cast<int>(syscall(SYS_fsync, fd));
  errno = EIO;
  return -1;
}

namespace {

namespace fs = std::filesystem;

constexpr char kFile[] = "/tmp/platform/file";
constexpr int kFileError = 0x0400;
constexpr int kArgumentError = 0x0D00;

class KeyValueFile : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    TLIBCErrSetEx(0, "", 0);
  }
};

// Result and buffer of a read: "3 yes".
std::string get(const std::string& file, const std::string& key) {
  char buffer[64] = "untouched";
  const int result = TLIBCFileGetKeyValue(file.c_str(), key.c_str(), buffer, sizeof buffer, 0);
  return std::to_string(result) + " " + buffer;
}

int set(const std::string& file, const std::string& key, const std::string& value) {
  return TLIBCFileSetKeyValue(file.c_str(), key.c_str(), value.c_str(), 0);
}

// --- reading ---

struct GetRow {
  const char* name;
  std::string text;
  std::string key;
  std::string result;
};

void PrintTo(const GetRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<GetRow> kGetRows = {
    {"Quoted", "firewall=\"yes\"\n", "firewall", "3 yes"},
    {"Plain", "firewall=yes\n", "firewall", "3 yes"},
    {"NoLineFeedAtTheEnd", "firewall=\"yes\"", "firewall", "3 yes"},
    {"CarriageReturns", "a=\"1\"\r\nfirewall=\"yes\"\r\nb=2\r\n", "firewall", "3 yes"},
    {"PlainWithCarriageReturn", "firewall=yes\r\n", "firewall", "3 yes"},
    {"Absent", "a=\"1\"\n", "firewall", "0 untouched"},
    {"EmptyFile", "", "firewall", "0 untouched"},
    {"EmptyQuotes", "firewall=\"\"\n", "firewall", "0 untouched"},
    {"EmptyPlain", "firewall=\n", "firewall", "0 untouched"},
    {"Comment", "#firewall=\"yes\"\n # firewall=\"yes\"\n", "firewall", "0 untouched"},
    {"CommentBehindTheValue", "firewall=\"yes\" # really\n", "firewall", "3 yes"},
    {"HashInPlainValue", "firewall=a#b\n", "firewall", "3 a#b"},
    {"NoEqualsSign", "firewall\n", "firewall", "0 untouched"},
    {"BlanksAround", "  firewall = \"yes\" \t\n", "firewall", "3 yes"},
    {"BlanksInQuotesCount", "firewall=\" yes \"\n", "firewall", "5  yes "},
    {"BlanksInPlainValue", "modules=a.ko  b.ko \n", "modules", "11 a.ko  b.ko "},
    {"BlankBehindPlainValue", "firewall=yes \n", "firewall", "4 yes "},
    {"BlankBehindQuotedValue", "firewall=\"yes\" \n", "firewall", "3 yes"},
    {"EqualsSignsInValue", "a=\"b=c=d\"\n", "a", "5 b=c=d"},
    {"NoClosingQuote", "firewall=\"yes\n", "firewall", "3 yes"},
    {"SingleQuotesAreText", "firewall='yes'\n", "firewall", "5 'yes'"},
    {"LastOneCounts", "firewall=\"no\"\nfirewall=\"yes\"\n", "firewall", "3 yes"},
    {"PrefixIsAnotherKey", "firewalls=\"yes\"\nfire=\"yes\"\n", "firewall", "0 untouched"},
    {"CaseCounts", "FIREWALL=\"yes\"\n", "firewall", "0 untouched"},
    {"KeyWithBlank", "VPN Server=\"yes\"\n", "VPN Server", "3 yes"},
    {"EmptyKey", "=\"yes\"\n", "", "3 yes"},
    {"LongestValue", "a=\"" + std::string(63, 'x') + "\"\n", "a", "63 " + std::string(63, 'x')},
    {"Binary", std::string("\0\xff=\"\x01\"\na=\"b\"\n", 13), "a", "1 b"},
};
// clang-format on

class Get : public KeyValueFile, public testing::WithParamInterface<GetRow> {};

TEST_P(Get, ReadsTheValue) {
  files::write(kFile, GetParam().text);
  EXPECT_EQ(GetParam().result, get(kFile, GetParam().key));
  EXPECT_EQ(0, TLIBCErrGet());
}

INSTANTIATE_TEST_SUITE_P(KeyValueFile, Get, testing::ValuesIn(kGetRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(KeyValueFile, LongerValueIsCutAndSaid) {
  files::write(kFile, "modules=\"" + std::string(64, 'x') + "\"\n");
  EXPECT_EQ("63 " + std::string(63, 'x'), get(kFile, "modules"));
  EXPECT_EQ("err tarnPlatform /tmp/platform/file: the value of modules is cut at 63 bytes",
            trace::take());
}

// --- files that cannot be read or must not be trusted ---

struct TrustRow {
  const char* name;
  const char* prepare;  // shell command
  const char* file;
  std::string result;
  std::string log;
};

void PrintTo(const TrustRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<TrustRow> kTrustRows = {
    {"OwnFileInSharedDirectory", "echo key=value >open/file", "/tmp/platform/open/file", "5 value", ""},
    {"ForeignFileInSharedDirectory", "echo key=value >open/file; chown 65534 open/file", "/tmp/platform/open/file", "-1 untouched", "err tarnPlatform /tmp/platform/open/file cannot be read: Operation not permitted"},
    {"LinkInSharedDirectory", "ln -s /tmp/platform/target open/file", "/tmp/platform/open/file", "-1 untouched", "err tarnPlatform /tmp/platform/open/file cannot be read: Operation not permitted"},
    {"HardLinkInSharedDirectory", "ln target open/file", "/tmp/platform/open/file", "-1 untouched", "err tarnPlatform /tmp/platform/open/file cannot be read: Operation not permitted"},
    {"FifoInSharedDirectory", "mkfifo open/file", "/tmp/platform/open/file", "-1 untouched", "err tarnPlatform /tmp/platform/open/file cannot be read: Operation not permitted"},
    {"ForeignFileInOwnDirectory", "echo key=value >own/file; chown 65534 own/file", "/tmp/platform/own/file", "5 value", ""},
    {"LinkInOwnDirectory", "ln -s /tmp/platform/target own/file", "/tmp/platform/own/file", "5 value", ""},
    {"FifoInOwnDirectory", "mkfifo own/file", "/tmp/platform/own/file", "-1 untouched", "err tarnPlatform /tmp/platform/own/file cannot be read: Invalid argument"},
    {"DirectoryOfThatName", "mkdir own/file", "/tmp/platform/own/file", "-1 untouched", "err tarnPlatform /tmp/platform/own/file cannot be read: Invalid argument"},
    {"DeviceOfThatName", "mknod own/file c 1 5", "/tmp/platform/own/file", "-1 untouched", "err tarnPlatform /tmp/platform/own/file cannot be read: Invalid argument"},
    {"NoFile", "true", "/tmp/platform/own/file", "-1 untouched", ""},
    {"NoDirectory", "true", "/tmp/platform/absent/file", "-1 untouched", ""},
    {"LargeFile", "head -c 1048577 /dev/zero >own/file", "/tmp/platform/own/file", "-1 untouched", "err tarnPlatform /tmp/platform/own/file cannot be read: File too large"},
    {"LargestFile", "(echo key=value; yes '' | head -c 1048566) >own/file", "/tmp/platform/own/file", "5 value", ""},
};
// clang-format on

class Trust : public KeyValueFile, public testing::WithParamInterface<TrustRow> {};

TEST_P(Trust, DecidesWhatIsRead) {
  run("cd /tmp/platform; mkdir -m 1777 open; mkdir -m 755 own; echo key=value >target");
  run(std::string("cd /tmp/platform; ") + GetParam().prepare);
  EXPECT_EQ(GetParam().result, get(GetParam().file, "key"));
  EXPECT_EQ(GetParam().log, trace::take());
  EXPECT_EQ(GetParam().result[0] == '-' ? kFileError : 0, TLIBCErrGet());
}

INSTANTIATE_TEST_SUITE_P(KeyValueFile, Trust, testing::ValuesIn(kTrustRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- writing ---

struct SetRow {
  const char* name;
  std::string before;  // "(absent)": no file
  std::string key;
  std::string value;
  std::string after;
};

void PrintTo(const SetRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<SetRow> kSetRows = {
    {"NewFile", "(absent)", "firewall", "yes", "firewall=\"yes\"\n"},
    {"EmptyFile", "", "firewall", "yes", "firewall=\"yes\"\n"},
    {"NewKey", "a=\"1\"\n", "firewall", "yes", "a=\"1\"\nfirewall=\"yes\"\n"},
    {"NewKeyAfterUnfinishedLine", "a=\"1\"", "firewall", "yes", "a=\"1\"\nfirewall=\"yes\"\n"},
    {"OtherLinesStay", "# text\n\na = 1 \nfirewall=no\n  b=\"2\" # c\nrubbish\n", "firewall", "yes", "# text\n\na = 1 \nfirewall=\"yes\"\n  b=\"2\" # c\nrubbish\n"},
    {"SameValue", "firewall=\"yes\"\n", "firewall", "yes", "firewall=\"yes\"\n"},
    {"EmptyValue", "firewall=\"yes\"\n", "firewall", "", "firewall=\"\"\n"},
    {"LastOfSeveral", "firewall=\"a\"\nb=\"1\"\nfirewall=\"c\"\n", "firewall", "yes", "firewall=\"a\"\nb=\"1\"\nfirewall=\"yes\"\n"},
    {"CarriageReturnStays", "firewall=\"no\"\r\na=\"1\"\r\n", "firewall", "yes", "firewall=\"yes\"\r\na=\"1\"\r\n"},
    {"LastLineWithoutLineFeed", "a=\"1\"\nfirewall=\"no\"", "firewall", "yes", "a=\"1\"\nfirewall=\"yes\""},
    {"EmptyKey", "(absent)", "", "yes", "=\"yes\"\n"},
    {"KeyWithBlank", "(absent)", "VPN Server", "yes", "VPN Server=\"yes\"\n"},
    {"ValueWithEqualsSignAndHash", "(absent)", "a", "b=c#d", "a=\"b=c#d\"\n"},
    {"ValueWithBlanks", "(absent)", "a", " b ", "a=\" b \"\n"},
};
// clang-format on

class Set : public KeyValueFile, public testing::WithParamInterface<SetRow> {};

TEST_P(Set, ChangesOneLine) {
  const SetRow& row = GetParam();
  if (row.before != "(absent)") files::write(kFile, row.before);
  EXPECT_EQ(0, set(kFile, row.key, row.value));
  EXPECT_EQ(row.after, files::read(kFile));
  EXPECT_EQ("file", files::listing(kScratch)) << "nothing else is left";
  std::string expected = std::to_string(row.value.size()) + " " + row.value;
  if (row.value.empty()) expected = "0 untouched";
  EXPECT_EQ(expected, get(kFile, row.key));
}

INSTANTIATE_TEST_SUITE_P(KeyValueFile, Set, testing::ValuesIn(kSetRows),
                         [](const auto& row) { return std::string(row.param.name); });

struct RefusalRow {
  const char* name;
  std::string key;
  std::string value;
};

TEST_F(KeyValueFile, WhatCannotBeReadBackIsRefused) {
  const RefusalRow rows[] = {
      {"EqualsSignInKey", "a=b", "yes"},         {"LineFeedInKey", "a\nb", "yes"},
      {"CarriageReturnInKey", "a\rb", "yes"},    {"CommentKey", "#a", "yes"},
      {"BlankBeforeKey", " a", "yes"},           {"BlankAfterKey", "a ", "yes"},
      {"LineFeedInValue", "a", "yes\nb=\"no\""}, {"QuoteInValue", "a", "y\"es"},
      {"CarriageReturnInValue", "a", "yes\r"},
  };
  for (const RefusalRow& row : rows) {
    SCOPED_TRACE(row.name);
    files::write(kFile, "a=\"1\"\n");
    EXPECT_EQ(-1, set(kFile, row.key, row.value));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(kArgumentError, TLIBCErrGet());
    EXPECT_EQ("a=\"1\"\n", files::read(kFile));
    EXPECT_EQ("err tarnPlatform /tmp/platform/file: key \"" + row.key +
                  "\" or its value cannot stand in a key/value file",
              trace::take());
  }
}

struct ModeRow {
  const char* prepare;
  std::string status;
};

TEST_F(KeyValueFile, ModeAndOwnerStay) {
  const ModeRow rows[] = {
      {"rm -f file", "100644 1 links, owner 0"},
      {"echo >file; chmod 600 file", "100600 1 links, owner 0"},
      {"echo >file; chmod 664 file", "100664 1 links, owner 0"},
      {"echo >file; chown 33 file; chmod 640 file", "100640 1 links, owner 33"},
  };
  for (const ModeRow& row : rows) {
    SCOPED_TRACE(row.prepare);
    run(std::string("cd /tmp/platform; ") + row.prepare);
    EXPECT_EQ(0, set(kFile, "a", "b"));
    EXPECT_EQ(row.status, statusOf(kFile));
  }
}

struct SquatterRow {
  const char* name;
  const char* prepare;
  std::string log;
};

TEST_F(KeyValueFile, UntrustedFileInSharedDirectoryIsReplaced) {
  const std::string refused = "err tarnPlatform /tmp/platform/open/file: something of user ";
  // clang-format off
  const SquatterRow rows[] = {
      {"ForeignFile", "echo a=evil >file; chown 65534 file", refused + "65534 stood in the way: removed"},
      {"Link", "ln -s /tmp/platform/victim file", refused + "0 stood in the way: removed"},
      {"HardLink", "ln /tmp/platform/victim file", refused + "0 stood in the way: removed"},
      {"Fifo", "mkfifo file", refused + "0 stood in the way: removed"},
      {"Directory", "mkdir file", refused + "0 stood in the way: removed"},
  };
  // clang-format on
  for (const SquatterRow& row : rows) {
    SCOPED_TRACE(row.name);
    run("cd /tmp/platform; rm -rf open; mkdir -m 1777 open; echo text >victim; chmod 600 victim");
    run(std::string("cd /tmp/platform/open; ") + row.prepare);
    EXPECT_EQ(0, set("/tmp/platform/open/file", "b", "c"));
    EXPECT_EQ("b=\"c\"\n", files::read("/tmp/platform/open/file"));
    EXPECT_EQ("100644 1 links, owner 0", statusOf("/tmp/platform/open/file"));
    EXPECT_EQ("text\n", files::read("/tmp/platform/victim"));
    EXPECT_EQ(row.log, trace::take());
  }
}

struct WriteFailureRow {
  const char* name;
  const char* file;
  std::string log;
};

TEST_F(KeyValueFile, FailuresToWriteAreSaid) {
  run("cd /tmp/platform; mkdir full; mount -t tmpfs -o size=8k small full; mkdir fixed;"
      "mount -t tmpfs -o ro fixed fixed; echo 'a=\"1\"' >full/file; cat /dev/zero >full/rest 2>/dev/null; true");
  // clang-format off
  const WriteFailureRow rows[] = {
      {"NoSpace", "/tmp/platform/full/file", "err tarnPlatform /tmp/platform/full/file cannot be written: No space left on device"},
      {"ReadOnly", "/tmp/platform/fixed/file", "err tarnPlatform /tmp/platform/fixed/file cannot be written: Read-only file system"},
      {"NoDirectory", "/tmp/platform/absent/file", "err tarnPlatform /tmp/platform/absent/file cannot be written: No such file or directory"},
      {"NoRegularFile", "/dev/null", "err tarnPlatform /dev/null cannot be read: Invalid argument"},
  };
  // clang-format on
  for (const WriteFailureRow& row : rows) {
    SCOPED_TRACE(row.name);
    TLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, set(row.file, "b", "2"));
    EXPECT_EQ(kFileError, TLIBCErrGet());
    EXPECT_EQ(row.log, trace::take());
  }
  EXPECT_EQ("a=\"1\"\n", files::read("/tmp/platform/full/file"));
  EXPECT_EQ("file rest", files::listing("/tmp/platform/full"));
  run("umount /tmp/platform/full /tmp/platform/fixed");
}

TEST_F(KeyValueFile, TextThatDoesNotReachTheDiskDoesNotReplaceTheFile) {
  files::write(kFile, "a=\"1\"\n");
  goodFlushes = 0;
  EXPECT_EQ(-1, set(kFile, "b", "2"));
  EXPECT_EQ("err tarnPlatform /tmp/platform/file cannot be written: Input/output error",
            trace::take());
  EXPECT_EQ("a=\"1\"\n", files::read(kFile));
  goodFlushes = 1;  // the file's; the directory's fails
  EXPECT_EQ(0, set(kFile, "b", "2"));
  EXPECT_EQ("a=\"1\"\nb=\"2\"\n", files::read(kFile));
  EXPECT_EQ("file", files::listing(kScratch));
  goodFlushes = 1000;
}

TEST_F(KeyValueFile, NullArgumentsAreRefused) {
  char buffer[8];
  EXPECT_EQ(-1, TLIBCFileGetKeyValue(nullptr, "a", buffer, sizeof buffer, 0));
  EXPECT_EQ(-1, TLIBCFileGetKeyValue(kFile, nullptr, buffer, sizeof buffer, 0));
  EXPECT_EQ(-1, TLIBCFileGetKeyValue(kFile, "a", nullptr, sizeof buffer, 0));
  EXPECT_EQ(-1, TLIBCFileGetKeyValue(kFile, "a", buffer, 0, 0));
  EXPECT_EQ(-1, TLIBCFileSetKeyValue(nullptr, "a", "b", 0));
  EXPECT_EQ(-1, TLIBCFileSetKeyValue(kFile, nullptr, "b", 0));
  EXPECT_EQ(-1, TLIBCFileSetKeyValue(kFile, "a", nullptr, 0));
  EXPECT_EQ(0, TLIBCFileCheckKeyValue(nullptr, "a", "b", 0));
  EXPECT_EQ(0, TLIBCFileCheckKeyValue(kFile, nullptr, "b", 0));
  EXPECT_EQ(0, TLIBCFileCheckKeyValue(kFile, "a", nullptr, 0));
  EXPECT_EQ(kArgumentError, TLIBCErrGet());
}

// --- checking ---

struct CheckRow {
  std::string text;
  const char* value;
  bool has;
};

TEST_F(KeyValueFile, CheckComparesTheWholeValue) {
  const CheckRow rows[] = {
      {"a=\"yes\"\n", "yes", true},  {"a=yes\n", "yes", true},      {"a=\"yes\"\n", "ye", false},
      {"a=\"ye\"\n", "yes", false},  {"a=\"Yes\"\n", "yes", false}, {"a=\"yes \"\n", "yes", false},
      {"b=\"yes\"\n", "yes", false}, {"a=\"\"\n", "", true},        {"", "yes", false},
  };
  for (const CheckRow& row : rows) {
    SCOPED_TRACE(row.text);
    files::write(kFile, row.text);
    EXPECT_EQ(row.has, TLIBCFileCheckKeyValue(kFile, "a", row.value, 0) != 0);
  }
  EXPECT_EQ(0, TLIBCFileCheckKeyValue("/tmp/platform/absent", "a", "yes", 0));
}

// --- existence ---

TEST_F(KeyValueFile, AnythingOfThatNameExists) {
  run("cd /tmp/platform; touch file; mkdir directory; mkfifo fifo; ln -s nowhere link");
  for (const char* name : {"file", "directory", "fifo", "link"}) {
    EXPECT_EQ(1, TLIBCFileExist((std::string("/tmp/platform/") + name).c_str())) << name;
  }
  EXPECT_EQ(0, TLIBCFileExist("/tmp/platform/absent"));
  EXPECT_EQ(0, TLIBCFileExist(""));
  EXPECT_EQ(0, TLIBCFileExist(nullptr));
}

// --- directories ---

struct DirectoryRow {
  const char* name;
  const char* prepare;
  const char* path;
  int createParents;
  int result;
  int error;
  std::string made;  // status of the last component
};

void PrintTo(const DirectoryRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<DirectoryRow> kDirectoryRows = {
    {"New", "true", "/tmp/platform/a", 1, 0, 0, "040770 2 links, owner 0"},
    {"TrailingSlash", "true", "/tmp/platform/a/", 1, 0, 0, "040770 2 links, owner 0"},
    {"TrailingSlashes", "true", "/tmp/platform/a///", 1, 0, 0, "040770 2 links, owner 0"},
    {"MissingParents", "true", "/tmp/platform/b/c/d/", 1, 0, 0, "040770 2 links, owner 0"},
    {"MissingParentsNotWanted", "true", "/tmp/platform/b/c/d/", 0, -1, ENOENT, "(absent)"},
    {"There", "mkdir -m 700 a", "/tmp/platform/a/", 1, 0, 0, "040700 2 links, owner 0"},
    {"ParentIsALink", "mkdir b; ln -s b c", "/tmp/platform/c/a/", 1, 0, 0, "040770 2 links, owner 0"},
    {"File", "touch a", "/tmp/platform/a/", 1, -1, ENOTDIR, "100644 1 links, owner 0"},
    {"LinkToADirectory", "mkdir b; ln -s b a", "/tmp/platform/a/", 1, -1, ENOTDIR, "120777 1 links, owner 0"},
    {"LinkToNothing", "ln -s b a", "/tmp/platform/a/", 1, -1, ENOTDIR, "120777 1 links, owner 0"},
    {"ForeignDirectory", "mkdir a; chown 65534 a", "/tmp/platform/a/", 1, -1, EPERM, "040755 2 links, owner 65534"},
    {"FileAsParent", "touch b", "/tmp/platform/b/a", 1, -1, ENOTDIR, "(absent)"},
    {"Root", "true", "/", 1, 0, 0, ""},
    {"Empty", "true", "", 1, -1, EINVAL, ""},
};
// clang-format on

class Directory : public KeyValueFile, public testing::WithParamInterface<DirectoryRow> {};

TEST_P(Directory, IsMadeOrIsOurs) {
  const DirectoryRow& row = GetParam();
  run(std::string("cd /tmp/platform; umask 022; ") + row.prepare);
  const mode_t mask = umask(0);
  EXPECT_EQ(row.result, TARNFSMkdirP(row.path, 0, row.createParents, 0, 0, 0770));
  const int error = errno;
  (void)umask(mask);
  EXPECT_EQ(row.error, row.result < 0 ? error : 0);
  std::string path = row.path;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  EXPECT_EQ(row.made, row.made.empty() ? "" : statusOf(path));
}

INSTANTIATE_TEST_SUITE_P(KeyValueFile, Directory, testing::ValuesIn(kDirectoryRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(KeyValueFile, ParentsCanBePassedThroughByOthers) {
  const mode_t mask = umask(0);
  EXPECT_EQ(0, TARNFSMkdirP("/tmp/platform/a/b", 0, 1, 0, 0, 0770));
  (void)umask(mask);
  EXPECT_EQ("040755 3 links, owner 0", statusOf("/tmp/platform/a"));
}

TEST_F(KeyValueFile, PathOfTheLongestLengthOrLonger) {
  EXPECT_EQ(-1, TARNFSMkdirP(std::string(4096, 'a').c_str(), 0, 1, 0, 0, 0770));
  EXPECT_EQ(ENAMETOOLONG, errno);
  EXPECT_EQ(-1, TARNFSMkdirP(nullptr, 0, 1, 0, 0, 0770));
  EXPECT_EQ(EINVAL, errno);
}

}  // namespace
