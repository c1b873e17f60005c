// The profile directory: how profiles are found, made, renamed and removed.

#include <dlfcn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

#include "fakePlatform.h"
#include "jsonText.h"
#include "ordinaryRights.h"
#include "processes.h"
#include "recordText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace fs = std::filesystem;

namespace {

// Called with each path that is unlinked.
std::function<void(const std::string& path)> atUnlink;

}  // namespace

extern "C" int unlink(const char* path) noexcept {
  static const auto kUnlink = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "unlink"));
  if (atUnlink) atUnlink(path);
  return kUnlink(path);
}

namespace {

using FW::FWPROFILE;
using FW::FWRULE;
using FW::TARNFW_JSON_DB;

// What time() and rand() answer, below: the clock's time and any number unless set here.
struct Source {
  std::optional<std::time_t> now;
  std::vector<int> draws;            // the next ones, in order
  std::optional<long> drawsAllowed;  // one more ends the process with SIGUSR1
};
Source source;

class Directory : public fake::MachineTest {
 protected:
  void TearDown() override {
    source = Source();
    fake::MachineTest::TearDown();
  }
  TARNFW_JSON_DB database;
};

std::string path(const std::string& file) { return files::kProfileDirectory + file; }

// --- profileMetaCreate ---

struct MetaRow {
  const char* name;
  std::map<std::string, std::string> files;
  const char* meta;
  const char* log;
};

void PrintTo(const MetaRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<MetaRow> kMetaRows = {
    {"TwoProfiles", {{"1690000042.json", R"({"name": "office"})"}, {"1690000007.json", R"({"name": "home"})"}}, R"({"home":{"fileName":"1690000007"},"office":{"fileName":"1690000042"}})", ""},
    {"SettingsAreNoProfile", {{"firewall_settings.json", R"({"profile": "office", "status": true})"}, {"1.json", R"({"name": "office"})"}}, R"({"office":{"fileName":"1"}})", ""},
    {"OnlySettings", {{"firewall_settings.json", R"({"profile": "default", "status": false})"}}, "{}", ""},
    {"AnyStem", {{"seed profile.v2.json", R"({"name": "default"})"}}, R"({"default":{"fileName":"seed profile.v2"}})", ""},
    {"NamesAreNotFileNames", {{"office.json", R"({"name": "home"})"}, {"home.json", R"({"name": "office"})"}}, R"({"home":{"fileName":"office"},"office":{"fileName":"home"}})", ""},
    {"SameNameFirstPathWins", {{"2.json", R"({"name": "office"})"}, {"10.json", R"({"name": "office"})"}, {"3.json", R"({"name": "office"})"}}, R"({"office":{"fileName":"10"}})", ""},
    {"EmptyName", {{"1.json", R"({"name": ""})"}}, R"({"":{"fileName":"1"}})", ""},
    {"TestProfile", {{"1.json", R"({"name": ".test_office"})"}}, R"({".test_office":{"fileName":"1"}})", ""},
    {"OtherNamesAreNotRead", {{".hidden.json", R"({"name": "a"})"}, {"1.json.tmp", R"({"name": "b"})"}, {"2.JSON", R"({"name": "c"})"}, {"3", R"({"name": "d"})"}, {"4.json", R"({"name": "e"})"}}, R"({"e":{"fileName":"4"}})", ""},
    {"NotJson", {{"1.json", "name=office"}, {"2.json", R"({"name": "home"})"}}, R"({"home":{"fileName":"2"}})", "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/1.json\nerr fwDB Failed to load json from /usr/tarn/etc/firewall.d/1.json"},
    {"EveryDocumentBroken", {{"1.json", ""}, {"2.json", "{"}}, "{}", "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/2.json\nerr fwDB Failed to load json from /usr/tarn/etc/firewall.d/2.json\nerr utils Failed to parse Json value of /usr/tarn/etc/firewall.d/1.json\nerr fwDB Failed to load json from /usr/tarn/etc/firewall.d/1.json"},
    {"NotAnObject", {{"1.json", "[]"}, {"2.json", R"("name")"}, {"3.json", "null"}, {"4.json", "7"}}, "{}", ""},
    {"NameIsNoText", {{"1.json", R"({"name": 7})"}, {"2.json", R"({"name": null})"}, {"3.json", R"({"name": ["a"]})"}, {"4.json", R"({"Name": "a"})"}}, "{}", ""},
    {"EmptyDirectory", {}, "null", "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/"},
    {"NothingOfTheSuffix", {{"1.json.tmp", R"({"name": "a"})"}}, "null", "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/"},
};
// clang-format on

class Meta : public Directory, public testing::WithParamInterface<MetaRow> {};

TEST_P(Meta, OfTheDirectory) {
  for (const auto& [file, text] : GetParam().files) files::write(path(file), text);
  const bool scanned =
      GetParam().log != std::string("err fwDB Fail to read file from /usr/tarn/etc/firewall.d/");
  const std::string before = files::profileDirectory();
  Json::Value meta;
  EXPECT_EQ(scanned, database.profileMetaCreate(meta));
  EXPECT_EQ(GetParam().meta, toText(meta));
  EXPECT_EQ(GetParam().log, trace::take());
  EXPECT_EQ(before, files::profileDirectory());
}

INSTANTIATE_TEST_SUITE_P(Directory, Meta, testing::ValuesIn(kMetaRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Directory, WhatIsNoFileIsNoProfile) {
  files::writeProfile("2", "office");
  fs::create_directory(path("1.json"));
  ASSERT_EQ(0, mkfifo(path("3.json").c_str(), 0644));
  Json::Value meta;
  EXPECT_TRUE(database.profileMetaCreate(meta));
  EXPECT_EQ(R"({"office":{"fileName":"2"}})", toText(meta));
  EXPECT_EQ(
      "err utils Failed to open json file /usr/tarn/etc/firewall.d/3.json\n"
      "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/3.json\n"
      "err utils Failed to open json file /usr/tarn/etc/firewall.d/1.json\n"
      "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/1.json",
      trace::take());
}

TEST_F(Directory, DocumentNestedTwoThousandDeepStopsTheScan) {
  files::writeProfile("1", "office");
  files::write(path("2.json"), std::string(2000, '[') + std::string(2000, ']'));
  Json::Value meta;
  EXPECT_THROW((void)database.profileMetaCreate(meta), Json::Exception);
}

// --- operations that fail ---

struct FailureRow {
  const char* name;
  std::function<void()> arrange;
  std::function<bool(TARNFW_JSON_DB&)> operation;
  std::string log;
};

void PrintTo(const FailureRow& row, std::ostream* out) { *out << row.name; }

void nothing() {}

void removeDirectory() { fs::remove_all(files::kProfileDirectory); }

void oneProfile() {
  files::writeProfile("1", "office");
  files::writeSettings(R"({"profile": "office", "status": false})");
}

void twoProfiles() {
  oneProfile();
  files::writeProfile("2", "home");
}

void squatTemporary(const std::string& file) { fs::create_directory(path(file + ".tmp")); }

bool exists(TARNFW_JSON_DB& database) { return database.profileExist("office"); }
bool hasPath(TARNFW_JSON_DB& database) { return !database.profilePathGet("office").empty(); }

bool names(TARNFW_JSON_DB& database) {
  std::vector<std::string> result;
  return database.profileEnum(result);
}

bool profiles(TARNFW_JSON_DB& database) {
  std::map<std::string, FWPROFILE> result;
  return database.profileEnum(result);
}

bool get(TARNFW_JSON_DB& database) {
  FWPROFILE profile;
  return database.profileGet("office", profile);
}

bool dbLoad(TARNFW_JSON_DB& database) {
  Json::Value document;
  return database.profileDbLoad("office", document);
}

bool dbDump(TARNFW_JSON_DB& database) { return database.profileDbDump("office", Json::Value()); }
bool set(TARNFW_JSON_DB& database) { return database.profileSet("office", {"office", {}, {}}); }
bool create(TARNFW_JSON_DB& database) { return database.profileCreate("office"); }
bool renameToLan(TARNFW_JSON_DB& database) { return database.profileRename("office", "lan"); }
bool renameToHome(TARNFW_JSON_DB& database) { return database.profileRename("office", "home"); }
bool renameToItself(TARNFW_JSON_DB& database) { return database.profileRename("office", "office"); }

constexpr char kNoFile[] = "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/";
constexpr char kNoMeta[] = "err fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/";

std::string lines(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : "\n") + text;
  return all;
}

// clang-format off
const std::vector<FailureRow> kFailureRows = {
    {"ExistInAnEmptyDirectory", nothing, exists, lines({kNoFile, kNoMeta})},
    {"ExistWithoutTheDirectory", removeDirectory, exists, lines({kNoFile, kNoMeta})},
    {"ExistOfAnUnknownName", [] { files::writeProfile("1", "Office"); }, exists, ""},
    {"PathInAnEmptyDirectory", nothing, hasPath, lines({kNoFile, kNoMeta})},
    {"PathOfAnUnknownName", [] { files::writeProfile("1", "home"); }, hasPath, ""},
    {"PathBesideSettingsOnly", [] { files::writeSettings("{}"); }, hasPath, ""},
    {"NamesInAnEmptyDirectory", nothing, names, lines({kNoFile, kNoMeta})},
    {"ProfilesInAnEmptyDirectory", nothing, profiles, lines({kNoFile, kNoMeta})},
    {"ProfilesWithOneThatVanished", [] { twoProfiles(); fake::machine().answers = {{"exist /usr/tarn/etc/firewall.d/1.json", 0}}; }, profiles, lines({"err fwDB Failed to profileGet office due to not exist", "err fwDB Failed to profileDbLoad() [office]"})},
    {"LoadInAnEmptyDirectory", nothing, dbLoad, lines({kNoFile, kNoMeta, "err utils File  does not exist"})},
    {"LoadOfAnUnknownName", [] { files::writeProfile("1", "home"); }, dbLoad, "err utils File  does not exist"},
    {"GetInAnEmptyDirectory", nothing, get, lines({kNoFile, kNoMeta, "err fwDB Failed to profileGet office due to not exist"})},
    {"GetOfAnUnknownName", [] { files::writeProfile("1", "home"); }, get, "err fwDB Failed to profileGet office due to not exist"},
    {"GetOfOneThatVanishes", [] { files::writeProfile("1", "home"); fake::machine().answers = {{"exist ", 1}}; }, get, lines({"err utils File  does not exist", "err fwDB Failed to profileDbLoad()"})},
    {"DumpInAnEmptyDirectory", nothing, dbDump, lines({kNoFile, kNoMeta})},
    {"DumpThatCannotBeWritten", [] { oneProfile(); squatTemporary("1.json"); }, dbDump, "err utils Failed to open json file /usr/tarn/etc/firewall.d/1.json.tmp"},
    {"SetInAnEmptyDirectory", nothing, set, lines({kNoFile, kNoMeta, "err fwDB Failed to profileDbDump()"})},
    {"SetThatCannotBeWritten", [] { oneProfile(); squatTemporary("1.json"); }, set, lines({"err utils Failed to open json file /usr/tarn/etc/firewall.d/1.json.tmp", "err fwDB Failed to profileDbDump()"})},
    {"CreateInAnEmptyDirectory", nothing, create, lines({kNoFile, kNoMeta, kNoFile, kNoMeta, "err fwDB Failed to profileDbDump()", "err fwDB Failed to profileSet"})},
    {"CreateOfAKnownName", oneProfile, create, "err fwDB The profile office already exist"},
    {"RenameToAKnownName", [] { twoProfiles(); fs::remove(files::kSettingsFile); }, renameToHome, "err fwDB profile home already exist"},
    {"RenameToItself", oneProfile, renameToItself, "err fwDB profile office already exist"},
    {"RenameWithBrokenSettings", [] { oneProfile(); files::writeSettings("{"); }, renameToLan, lines({"err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json", "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/firewall_settings.json", "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json", "err fwDB Falied to config.configGet()"})},
    {"RenameOfAnUnknownName", [] { files::writeProfile("1", "home"); files::writeSettings("{}"); }, renameToLan, lines({"err fwDB Failed to profileGet office due to not exist", "err fwDB Failed to get profile office"})},
    {"RenameThatCannotBeWritten", [] { oneProfile(); squatTemporary("1.json"); }, renameToLan, lines({"err utils Failed to open json file /usr/tarn/etc/firewall.d/1.json.tmp", "err fwDB Failed to jsonFileDump [/usr/tarn/etc/firewall.d/1.json]"})},
};
// clang-format on

class Failure : public Directory, public testing::WithParamInterface<FailureRow> {};

TEST_P(Failure, ChangesNothing) {
  GetParam().arrange();
  const std::string before = files::profileDirectory();
  EXPECT_FALSE(GetParam().operation(database));
  EXPECT_EQ(GetParam().log, trace::take());
  EXPECT_EQ(before, files::profileDirectory());
}

INSTANTIATE_TEST_SUITE_P(Directory, Failure, testing::ValuesIn(kFailureRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Directory, UnreadableDirectoryFailsTheScan) {
  files::writeProfile("1", "office");
  ASSERT_EQ(0, chmod(files::kProfileDirectory, 0300));
  Json::Value meta;
  {
    const fake::OrdinaryRights rights;
    EXPECT_FALSE(database.profileMetaCreate(meta));
  }
  ASSERT_EQ(0, chmod(files::kProfileDirectory, 0755));
  EXPECT_EQ(kNoFile, trace::take());
}

TEST_F(Directory, FailedGetLeavesTheProfileAlone) {
  files::writeProfile("1", "home");
  FWPROFILE profile = {"mine", {{"eth0", {FWRULE()}}}, {{"eth0", FW::FW_POLICY_DENY}}};
  const std::string before = describe(profile);
  EXPECT_FALSE(database.profileGet("office", profile));
  EXPECT_EQ("err fwDB Failed to profileGet office due to not exist", trace::take());
  EXPECT_EQ(before, describe(profile));
}

// --- looking up and reading ---

TEST_F(Directory, PathAndExistenceGoByTheNameInside) {
  files::writeProfile("17", "office");
  EXPECT_EQ("/usr/tarn/etc/firewall.d/17.json", database.profilePathGet("office"));
  EXPECT_EQ("", database.profilePathGet("17"));
  EXPECT_TRUE(database.profileExist("office"));
  EXPECT_FALSE(database.profileExist("17"));
}

TEST_F(Directory, NamesAreAppendedInByteOrder) {
  files::writeProfile("1", "b");
  files::writeProfile("2", "\u00e9");
  files::writeProfile("3", "B");
  files::writeProfile("4", "a");
  files::writeProfile("5", ".test_b");
  std::vector<std::string> found = {"z"};
  EXPECT_TRUE(database.profileEnum(found));
  EXPECT_EQ((std::vector<std::string>{"z", ".test_b", "B", "a", "b", "\u00e9"}), found);
}

TEST_F(Directory, NamesBesideSettingsOnlyAreNone) {
  files::writeSettings("{}");
  std::vector<std::string> found;
  EXPECT_TRUE(database.profileEnum(found));
  EXPECT_EQ(std::vector<std::string>(), found);
}

TEST_F(Directory, ProfilesAreInsertedOrReplaced) {
  files::writeProfile("1", "office", "null", R"({"eth0": 1})");
  files::writeProfile("2", "home");
  std::map<std::string, FWPROFILE> found = {{"office", {"old", {{"eth9", {FWRULE()}}}, {}}},
                                            {"other", {"other", {}, {}}}};
  EXPECT_TRUE(database.profileEnum(found));
  std::string text;
  for (const auto& [name, profile] : found) text += name + ": " + describe(profile) + "\n";
  EXPECT_EQ(
      "home: profile [home]\n"
      "office: profile [office]\npolicy of eth0: 1\n"
      "other: profile [other]\n",
      text);
}

TEST_F(Directory, ProfileOfTheWrongShapeThrows) {
  files::writeProfile("1", "office", R"({"eth0": [{"policy": "deny"}]})");
  FWPROFILE profile;
  std::map<std::string, FWPROFILE> all;
  EXPECT_THROW((void)database.profileGet("office", profile), Json::Exception);
  EXPECT_THROW((void)database.profileEnum(all), Json::Exception);
}

TEST_F(Directory, GetReadsTheDocument) {
  files::writeProfile(
      "1", "office",
      R"({"eth0": [{"name": "r", "enable": true, "table": "filter", "ipDirect": 1, "ruleID": 4}]})",
      R"({"eth0": 1, "global": 2})");
  FWPROFILE profile;
  EXPECT_TRUE(database.profileGet("office", profile));
  EXPECT_EQ(
      "profile [office]\n"
      "rules of eth0:\n"
      "  ruleID 4, enable 1, adapterDirect 0, policy 0, blLog 0, labelList , name [r], table [filter], "
      "chainList [FORWARD_FIREWALL][INPUT_FIREWALL], ipType 0, ipDirect 1, ipGroup 0, ipList , portDirect 0, "
      "portGroup 0, protocol 0, portList \n"
      "policy of eth0: 1\n"
      "policy of global: 2",
      describe(profile));
}

TEST_F(Directory, LoadReadsTheDocumentAsItIs) {
  files::write(path("1.json"), R"({"name": "office", "rules": 7, "extra": [true]})");
  Json::Value document;
  EXPECT_TRUE(database.profileDbLoad("office", document));
  EXPECT_EQ(R"({"extra":[true],"name":"office","rules":7})", toText(document));
}

// --- new files ---

TEST_F(Directory, NewStemIsADecimalNumberNearNow) {
  const std::time_t before = std::time(nullptr);
  const std::string stem = database.profilePathNameGen(toJson(R"({"office": {"fileName": "1"}})"));
  const std::time_t after = std::time(nullptr);
  EXPECT_EQ(stem, std::to_string(std::stoll(stem)));
  EXPECT_LE(before, std::stoll(stem));
  EXPECT_GE(after + 99, std::stoll(stem));
}

struct StemRow {
  const char* name;
  std::time_t now;
  std::vector<int> draws;
  const char* meta;
  const char* stem;
};

void PrintTo(const StemRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<StemRow> kStemRows = {
    {"FirstDraw", 1690000000, {42}, R"({"a":{"fileName":"1"}})", "1690000042"},
    {"DrawBelowOneHundred", 1690000000, {1234567}, R"({"a":{"fileName":"1"}})", "1690000067"},
    {"ClashDrawsAgain", 1690000000, {42, 142, 7}, R"({"a":{"fileName":"1690000042"}})", "1690000007"},
    {"ClashWithTheLastOfSeveral", 1690000000, {5, 6}, R"({"a":{"fileName":"1"},"b":{"fileName":"2"},"c":{"fileName":"1690000005"}})", "1690000006"},
    {"ClashWithTheFirstOfSeveral", 1690000000, {5, 6}, R"({"a":{"fileName":"1690000005"},"b":{"fileName":"2"}})", "1690000006"},
    {"ClockBefore1970", -1000, {1}, R"({"a":{"fileName":"1"}})", "-999"},
    {"ClockBeyond32Bits", 4294967296, {9}, R"({"a":{"fileName":"1"}})", "4294967305"},
};
// clang-format on

class Stem : public Directory, public testing::WithParamInterface<StemRow> {};

TEST_P(Stem, IsDrawn) {
  source.now = GetParam().now;
  source.draws = GetParam().draws;
  EXPECT_EQ(GetParam().stem, database.profilePathNameGen(toJson(GetParam().meta)));
  EXPECT_EQ(std::vector<int>(), source.draws);
}

INSTANTIATE_TEST_SUITE_P(Directory, Stem, testing::ValuesIn(kStemRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Directory, StemIsDrawnForeverForAnEmptyMeta) {
  processes::Child child([] {
    source.drawsAllowed = 10000;
    return TARNFW_JSON_DB().profilePathNameGen(Json::Value());
  });
  EXPECT_EQ("(signal " + std::to_string(SIGUSR1) + ")", child.answer());
}

TEST_F(Directory, CreatedProfile) {
  files::writeProfile("1", "office");
  source.now = 1690000000;
  source.draws = {42};
  EXPECT_TRUE(database.profileCreate("home"));
  EXPECT_EQ(
      R"({
   "adapterPolicyMap" : {
      "global" : 2
   },
   "name" : "home",
   "rules" : null
}
)",
      files::read(path("1690000042.json")));
  EXPECT_EQ("1.json 1690000042.json", files::listing(files::kProfileDirectory));
  struct stat status = {};
  ASSERT_EQ(0, stat(path("1690000042.json").c_str(), &status));
  EXPECT_EQ(0100640U, status.st_mode);
}

TEST_F(Directory, KnownProfileKeepsItsFile) {
  files::writeProfile("office", "office");
  EXPECT_TRUE(database.profileDbDump("office", toJson(R"({"name": "other"})")));
  EXPECT_EQ("office.json: {\n   \"name\" : \"other\"\n}\n\n", files::profileDirectory());
}

TEST_F(Directory, SecondFileOfANameStaysInvisible) {
  files::writeProfile("1", "office");
  files::writeProfile("2", "office", "null", R"({"eth0": 1})");
  EXPECT_TRUE(database.profileDbDump("office", toJson(R"({"name": "office"})")));
  EXPECT_EQ(
      "1.json: {\n   \"name\" : \"office\"\n}\n\n"
      "2.json: {\"name\": \"office\", \"rules\": null, \"adapterPolicyMap\": {\"eth0\": 1}}\n\n",
      files::profileDirectory());
}

TEST_F(Directory, NewProfileReplacesNoFile) {
  files::writeProfile("1", "office");
  files::write(path("1690000001.json"), "no profile\n");  // a document that is none
  files::write(path("1690000002.json.tmp"), "");          // another process is about to write it
  fs::create_symlink("/nowhere", path("1690000003.json.tmp"));
  source.now = 1690000000;
  source.draws = {1, 2, 3, 4};
  EXPECT_TRUE(database.profileDbDump("home", toJson("{}")));
  EXPECT_EQ(
      "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/1690000001.json\n"
      "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/1690000001.json",
      trace::take());
  EXPECT_EQ("1.json 1690000001.json 1690000002.json.tmp 1690000003.json.tmp 1690000004.json",
            files::listing(files::kProfileDirectory));
  EXPECT_EQ("no profile\n", files::read(path("1690000001.json")));
  EXPECT_EQ("{}\n", files::read(path("1690000004.json")));
}

TEST_F(Directory, ProcessesThatCreateInTheSameSecondLoseNothing) {
  constexpr int kProcesses = 8;
  constexpr int kEach = 10;
  files::writeProfile("1", "seed");
  source.now = std::time(nullptr);  // for all of them, and all draw the same numbers
  std::vector<std::unique_ptr<processes::Child>> children;
  children.reserve(kProcesses);
  for (int child = 0; child < kProcesses; ++child) {
    children.push_back(std::make_unique<processes::Child>([child] {
      for (int number = 0; number < kEach; ++number) {
        const std::string name = std::to_string(child) + "/" + std::to_string(number);
        if (!TARNFW_JSON_DB().profileCreate(name)) return name + " failed: " + trace::take();
      }
      return std::string("done");
    }));
  }
  for (const auto& child : children) EXPECT_EQ("done", child->answer());

  std::vector<std::string> expected;
  for (int child = 0; child < kProcesses; ++child) {
    for (int number = 0; number < kEach; ++number) {
      expected.push_back(std::to_string(child) + "/" + std::to_string(number));
    }
  }
  expected.emplace_back("seed");
  std::vector<std::string> found;
  EXPECT_TRUE(database.profileEnum(found));
  EXPECT_EQ(expected, found);
  EXPECT_EQ(expected.size(), files::list(files::kProfileDirectory).size());
}

TEST_F(Directory, NewProfileOnAFullDiskIsNoProfile) {
  ASSERT_EQ(0, mount("small", files::kProfileDirectory, "tmpfs", 0, "size=16k"));
  files::writeProfile("1", "office");
  source.now = 1690000000;
  source.draws = {42};
  FWPROFILE profile = {"home", {{"eth0", std::vector<FWRULE>(100)}}, {}};
  EXPECT_FALSE(database.profileSet("home", profile));
  EXPECT_EQ(
      "err utils Failed to write json file /usr/tarn/etc/firewall.d/1690000042.json.tmp: No space left on device\n"
      "err fwDB Failed to profileDbDump()",
      trace::take());
  EXPECT_FALSE(database.profileExist("home"));
  EXPECT_TRUE(database.profileExist("office"));
  ASSERT_EQ(0, umount(files::kProfileDirectory));
}

// --- profileSet ---

struct PolicyRow {
  const char* name;
  FWPROFILE profile;
  const char* policies;
};

void PrintTo(const PolicyRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<PolicyRow> kPolicyRows = {
    {"GlobalIsAdded", {"office", {}, {}}, R"({"global":2})"},
    {"GlobalAllowBecomesNone", {"office", {}, {{"global", FW::FW_POLICY_ALLOW}}}, R"({"global":2})"},
    {"GlobalDenyBecomesNone", {"office", {{"global", {FWRULE()}}}, {{"global", FW::FW_POLICY_DENY}}}, R"({"global":2})"},
    {"GlobalWithRulesGetsNone", {"office", {{"global", {FWRULE()}}}, {}}, R"({"global":2})"},
    {"AdapterWithRulesGetsAllow", {"office", {{"eth0", {FWRULE()}}}, {}}, R"({"eth0":0,"global":2})"},
    {"AdapterWithoutRulesGetsAllow", {"office", {{"eth0", {}}}, {}}, R"({"eth0":0,"global":2})"},
    {"PoliciesStay", {"office", {{"eth0", {FWRULE()}}, {"eth1", {FWRULE()}}, {"vpn", {FWRULE()}}}, {{"eth0", FW::FW_POLICY_DENY}, {"eth1", FW::FW_POLICY_NONE}, {"unused", FW::FW_POLICY_DENY}}}, R"({"eth0":1,"eth1":2,"global":2,"unused":1,"vpn":0})"},
};
// clang-format on

class Policies : public Directory, public testing::WithParamInterface<PolicyRow> {};

TEST_P(Policies, AreCompletedInTheDocumentOnly) {
  files::writeProfile("1", "office");
  const FWPROFILE profile = GetParam().profile;
  EXPECT_TRUE(database.profileSet("office", profile));
  Json::Value document;
  EXPECT_TRUE(database.profileDbLoad("office", document));
  EXPECT_EQ(GetParam().policies, toText(document["adapterPolicyMap"]));
  EXPECT_EQ(describe(GetParam().profile), describe(profile));
}

INSTANTIATE_TEST_SUITE_P(Directory, Policies, testing::ValuesIn(kPolicyRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Directory, SetStoresUnderTheArgumentAndWritesTheProfilesName) {
  files::writeProfile("1", "office");
  files::writeProfile("2", "home");
  EXPECT_TRUE(database.profileSet("office", {"renamed", {}, {}}));
  std::vector<std::string> found;
  EXPECT_TRUE(database.profileEnum(found));
  EXPECT_EQ((std::vector<std::string>{"home", "renamed"}), found);
  EXPECT_EQ("/usr/tarn/etc/firewall.d/1.json", database.profilePathGet("renamed"));
}

// --- removing ---

TEST_F(Directory, DeleteRemovesTheDocumentAndItsLockFile) {
  twoProfiles();
  EXPECT_TRUE(database.profileDelete("office"));
  EXPECT_EQ("2.json firewall_settings.json", files::listing(files::kProfileDirectory));
  EXPECT_EQ("2.json.lock firewall_settings.json.lock", files::listing(files::kLockDirectory));
}

// A writer whose lock file is taken away under it would share its temporary file with the next one.
TEST_F(Directory, DeleteHoldsTheLockWhileItRemoves) {
  twoProfiles();
  std::vector<std::string> removed;
  atUnlink = [&removed](const std::string& path) {
    removed.push_back(path + (processes::locks().empty() ? " not locked" : " locked"));
  };
  EXPECT_TRUE(database.profileDelete("office"));
  atUnlink = nullptr;
  EXPECT_EQ((std::vector<std::string>{"/usr/tarn/etc/firewall.d/1.json locked",
                                      "/var/lock/firewall/1.json.lock locked"}),
            removed);
  EXPECT_EQ("", processes::locks());
}

TEST_F(Directory, DeleteOfAnUnknownNameRemovesNothing) {
  twoProfiles();
  const std::string before = files::profileDirectory();
  EXPECT_TRUE(database.profileDelete("lan"));
  EXPECT_EQ(before, files::profileDirectory());
  EXPECT_EQ("1.json.lock 2.json.lock firewall_settings.json.lock",
            files::listing(files::kLockDirectory));
}

TEST_F(Directory, DeleteInAnEmptyDirectorySucceeds) {
  EXPECT_TRUE(database.profileDbRemove("office"));
  EXPECT_EQ(lines({kNoFile, kNoMeta}), trace::take());
}

TEST_F(Directory, DeleteUncoversTheSecondFileOfTheName) {
  files::writeProfile("1", "office");
  files::writeProfile("2", "office");
  EXPECT_TRUE(database.profileDelete("office"));
  EXPECT_EQ("/usr/tarn/etc/firewall.d/2.json", database.profilePathGet("office"));
}

// --- renaming ---

constexpr char kRenamed[] = R"({
   "adapterPolicyMap" : {
      "eth0" : 1
   },
   "name" : "lan",
   "rules" : null
}
)";

TEST_F(Directory, RenameOfTheActiveProfileTakesTheSettingsAlong) {
  files::writeProfile("1", "office", R"({"eth1": []})", R"({"eth0": 1})");
  files::writeSettings(R"({"profile": "office", "status": true, "extra": 1})");
  EXPECT_TRUE(database.profileRename("office", "lan"));
  EXPECT_EQ(
      std::string("1.json: ") + kRenamed +
          "\nfirewall_settings.json: {\n   \"extra\" : 1,\n   \"profile\" : \"lan\",\n   \"status\" : true\n}\n\n",
      files::profileDirectory());
}

TEST_F(Directory, RenameOfAnotherProfileLeavesTheSettingsAlone) {
  files::writeProfile("1", "office", "null", R"({"eth0": 1})");
  files::writeSettings(R"({"profile": "Office"})");
  EXPECT_TRUE(database.profileRename("office", "lan"));
  EXPECT_EQ(
      std::string("1.json: ") + kRenamed + "\nfirewall_settings.json: {\"profile\": \"Office\"}\n",
      files::profileDirectory());
}

TEST_F(Directory, RenameWithoutAnActiveProfileLeavesTheSettingsAlone) {
  files::writeProfile("1", "office", "null", R"({"eth0": 1})");
  files::writeSettings("{\"status\": true}");
  EXPECT_TRUE(database.profileRename("office", "lan"));
  EXPECT_EQ(std::string("1.json: ") + kRenamed + "\nfirewall_settings.json: {\"status\": true}\n",
            files::profileDirectory());
}

TEST_F(Directory, RenameOfTheDefaultProfileWithoutSettingsWritesThem) {
  files::writeProfile("1", "default", "null", R"({"eth0": 1})");
  EXPECT_TRUE(database.profileRename("default", "lan"));
  EXPECT_EQ(
      std::string("1.json: ") + kRenamed +
          "\nfirewall_settings.json: {\n   \"profile\" : \"lan\",\n   \"status\" : false\n}\n\n",
      files::profileDirectory());
}

TEST_F(Directory, RenameWhoseSettingsCannotBeWrittenKeepsTheNewName) {
  files::writeProfile("1", "office", "null", R"({"eth0": 1})");
  files::writeSettings(R"({"profile": "office"})");
  squatTemporary("firewall_settings.json");
  EXPECT_FALSE(database.profileRename("office", "lan"));
  EXPECT_EQ(
      "err utils Failed to open json file /usr/tarn/etc/firewall.d/firewall_settings.json.tmp\n"
      "err fwDB Falied to config.configSet()",
      trace::take());
  EXPECT_EQ(
      std::string("1.json: ") + kRenamed +
          "\nfirewall_settings.json: {\"profile\": \"office\"}\nfirewall_settings.json.tmp: (directory)\n",
      files::profileDirectory());
}

TEST_F(Directory, RenameToAKnownNameReadsNoSettings) {
  twoProfiles();
  fs::remove(files::kSettingsFile);
  EXPECT_FALSE(database.profileRename("office", "home"));
  EXPECT_EQ("err fwDB profile home already exist", trace::take());
  EXPECT_EQ("1.json 2.json", files::listing(files::kProfileDirectory));
}

}  // namespace

// The C library's names: the library under test calls these.

std::time_t time(std::time_t* result) noexcept {
  timespec now = {};
  (void)clock_gettime(CLOCK_REALTIME, &now);
  const std::time_t answer = source.now.value_or(now.tv_sec);
  if (result != nullptr) *result = answer;
  return answer;
}

int rand() noexcept {
  if (source.drawsAllowed && (*source.drawsAllowed)-- == 0) (void)raise(SIGUSR1);
  if (source.draws.empty()) return static_cast<int>(random());
  const int drawn = source.draws.front();
  source.draws.erase(source.draws.begin());
  return drawn;
}
