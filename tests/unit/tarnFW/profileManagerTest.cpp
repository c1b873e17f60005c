// The profile manager: protection of the active profile, and test profiles.

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <json/value.h>

#include "fakePlatform.h"
#include "jsonText.h"
#include "recordText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace fs = std::filesystem;

namespace {

using FW::FWPROFILE;
using FW::FWRULE;
using FW::TARNFW_PROFILE;

class ProfileManager : public fake::MachineTest {
 protected:
  TARNFW_PROFILE manager;
};

constexpr char kSettingsNotParsed[] =
    "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json";
constexpr char kScanNotParsed[] =
    "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json\n"
    "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/firewall_settings.json";
constexpr char kNoFile[] = "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/";
constexpr char kNoMeta[] = "err fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/";

std::string lines(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : "\n") + text;
  return all;
}

// All stored profiles as text, in the order of their names.
std::string stored() {
  std::map<std::string, FWPROFILE> profiles;
  EXPECT_TRUE(TARNFW_PROFILE().profileEnum(profiles));
  std::string text;
  for (const auto& [name, profile] : profiles) text += describe(profile) + "\n";
  return text;
}

// The profiles "office", "home" and the settings that make `active` the active one.
void arrange(const std::string& active) {
  files::writeProfile("1", "office", "null", R"({"eth0": 1})");
  files::writeProfile("2", "home");
  files::writeSettings(R"({"profile": ")" + active + R"("})");
}

void arrangeWithTest(const std::string& active) {
  arrange(active);
  files::writeProfile("3", ".test_office", "null", R"({"eth0": 0, "global": 2})");
}

FWPROFILE edited() { return {"office", {{"eth1", {}}}, {{"eth0", FW::FW_POLICY_NONE}}}; }

constexpr char kOffice[] = "profile [office]\npolicy of eth0: 1\n";
constexpr char kHome[] = "profile [home]\n";
constexpr char kTest[] = "profile [.test_office]\npolicy of eth0: 0\npolicy of global: 2\n";
constexpr char kEdited[] =
    "profile [.test_office]\npolicy of eth0: 2\npolicy of eth1: 0\npolicy of global: 2\n";

struct Row {
  const char* name;
  std::function<void()> arrange;
  std::function<bool(TARNFW_PROFILE&)> operation;
  bool result;
  std::string log;
  std::string stored;  // afterwards; "(nothing)": the directory holds no file that can be read
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

bool deleteOffice(TARNFW_PROFILE& manager) { return manager.profileDelete("office"); }
bool createTest(TARNFW_PROFILE& manager) { return manager.CreateTestProfile("office", edited()); }
bool adoptTest(TARNFW_PROFILE& manager) { return manager.AdoptTestProfile("office"); }
bool removeTest(TARNFW_PROFILE& manager) { return manager.RemoveTestProfile("office"); }

void squatTemporary(const std::string& file) {
  fs::create_directory(files::kProfileDirectory + file + ".tmp");
}

const std::string kBoth = std::string(kHome) + kOffice;
const std::string kWithTest = std::string(kTest) + kHome + kOffice;

// clang-format off
const std::vector<Row> kRows = {
    {"DeleteAnother", [] { arrange("home"); }, deleteOffice, true, "", kHome},
    {"DeleteTheActive", [] { arrange("office"); }, deleteOffice, false, "err tarnFW The profile office is used now so cannot remove", kBoth},
    {"DeleteTheActiveThatIsUnknown", [] { arrange("lan"); }, [](TARNFW_PROFILE& manager) { return manager.profileDelete("lan"); }, false, "err tarnFW The profile lan is used now so cannot remove", kBoth},
    {"DeleteComparesCase", [] { arrange("Office"); }, deleteOffice, true, "", kHome},
    {"DeleteAnUnknown", [] { arrange("home"); }, [](TARNFW_PROFILE& manager) { return manager.profileDelete("lan"); }, true, "", kBoth},
    {"DeleteWithoutSettings", [] { arrange("home"); fs::remove(files::kSettingsFile); }, deleteOffice, true, "", kHome},
    {"DeleteTheDefaultWithoutSettings", [] { files::writeProfile("1", "default"); }, [](TARNFW_PROFILE& manager) { return manager.profileDelete("default"); }, false, "err tarnFW The profile default is used now so cannot remove", "profile [default]\n"},
    {"DeleteWithoutAnActiveOne", [] { arrange("home"); files::writeSettings(R"({"status": true})"); }, deleteOffice, true, "", kHome},
    {"DeleteWithSettingsOfTheWrongShape", [] { arrange("home"); files::writeSettings(R"(["office"])"); }, deleteOffice, true, "", kHome},
    {"DeleteWithBrokenSettings", [] { arrange("home"); files::writeSettings("{"); }, deleteOffice, false, lines({kSettingsNotParsed, "err tarnFW Falied to config.configGet()"}), kBoth},

    {"CreateTest", [] { arrange("office"); }, createTest, true, "", kEdited + kBoth},
    {"CreateTestReplacesTheOld", [] { arrangeWithTest("office"); }, createTest, true, "", kEdited + kBoth},
    {"CreateTestOfTheActiveTest", [] { arrangeWithTest(".test_office"); }, createTest, false, lines({"err tarnFW The profile .test_office is used now so cannot remove", "err tarnFW failed to profileDelete()"}), kWithTest},
    {"CreateTestOfAnUnknownProfile", [] { files::writeProfile("2", "home"); }, createTest, true, "", std::string(kEdited) + kHome},
    {"CreateTestOfATestProfile", [] { arrangeWithTest("home"); }, [](TARNFW_PROFILE& manager) { return manager.CreateTestProfile(".test_office", {}); }, true, "", "profile [.test_.test_office]\npolicy of global: 2\n" + kWithTest},
    {"CreateTestInAnEmptyDirectory", [] {}, createTest, false, lines({kNoFile, kNoMeta, kNoFile, kNoMeta, kNoFile, kNoMeta, "err fwDB Failed to profileDbDump()", "err fwDB Failed to profileSet", "err tarnFW failed to profileCreate()"}), "(nothing)"},

    {"AdoptTest", [] { arrangeWithTest("office"); }, adoptTest, true, "", std::string(kTest) + kHome + "profile [office]\npolicy of eth0: 0\npolicy of global: 2\n"},
    {"AdoptTestOfANewProfile", [] { arrangeWithTest("home"); fs::remove(files::kProfileDirectory + std::string("1.json")); }, adoptTest, true, "", std::string(kTest) + kHome + "profile [office]\npolicy of eth0: 0\npolicy of global: 2\n"},
    {"AdoptTestThatIsMissing", [] { arrange("office"); }, adoptTest, false, "err tarnFW profile does not exist", kBoth},
    {"AdoptTestThatVanishes", [] { arrange("office"); fake::machine().answers = {{"exist ", 1}}; }, adoptTest, false, lines({"err utils File  does not exist", "err fwDB Failed to profileDbLoad()", "err tarnFW failed to profileGet()"}), kBoth},
    {"AdoptTestThatCannotBeWritten", [] { arrangeWithTest("office"); squatTemporary("1.json"); }, adoptTest, false, lines({"err utils Failed to open json file /usr/tarn/etc/firewall.d/1.json.tmp", "err fwDB Failed to profileDbDump()", "err tarnFW failed to profileSet()"}), kWithTest},

    {"RemoveTest", [] { arrangeWithTest("office"); }, removeTest, true, "", kBoth},
    {"RemoveTestThatIsMissing", [] { arrange("office"); }, removeTest, true, "", kBoth},
    {"RemoveTestThatIsActive", [] { arrangeWithTest(".test_office"); }, removeTest, false, lines({"err tarnFW The profile .test_office is used now so cannot remove", "err tarnFW failed to profileDelete()"}), kWithTest},
    {"RemoveTestWithBrokenSettings", [] { arrangeWithTest("office"); files::writeSettings("{"); }, removeTest, false, lines({kSettingsNotParsed, "err tarnFW Falied to config.configGet()", "err tarnFW failed to profileDelete()"}), kWithTest},
};
// clang-format on

class Manager : public ProfileManager, public testing::WithParamInterface<Row> {};

TEST_P(Manager, Operation) {
  GetParam().arrange();
  EXPECT_EQ(GetParam().result, GetParam().operation(manager));
  EXPECT_EQ(GetParam().log, trace::take());
  fake::machine().answers.clear();
  if (GetParam().stored == "(nothing)") {
    EXPECT_EQ("", files::listing(files::kProfileDirectory));
    return;
  }
  EXPECT_EQ(GetParam().stored, stored());
  (void)trace::take();  // of settings that do not parse
}

INSTANTIATE_TEST_SUITE_P(ProfileManager, Manager, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ProfileManager, CreateTestWithBrokenSettingsKeepsTheOldTest) {
  arrangeWithTest("office");
  files::writeSettings("{");
  EXPECT_FALSE(createTest(manager));
  EXPECT_EQ(lines({kScanNotParsed, kSettingsNotParsed, "err tarnFW Falied to config.configGet()",
                   "err tarnFW failed to profileDelete()"}),
            trace::take());
  EXPECT_EQ("1.json 2.json 3.json firewall_settings.json",
            files::listing(files::kProfileDirectory));
}

TEST_F(ProfileManager, CreateTestTwiceKeepsTheSecond) {
  arrange("office");
  const FWPROFILE first = {"office", {}, {{"eth0", FW::FW_POLICY_DENY}}};
  EXPECT_TRUE(manager.CreateTestProfile("office", first));
  EXPECT_TRUE(manager.CreateTestProfile("office", edited()));
  EXPECT_EQ(kEdited + kBoth, stored());
  EXPECT_EQ(4U, files::list(files::kProfileDirectory).size());
}

TEST_F(ProfileManager, CreateTestLeavesTheCallersProfileAlone) {
  arrange("office");
  const FWPROFILE profile = edited();
  EXPECT_TRUE(manager.CreateTestProfile("office", profile));
  EXPECT_EQ(describe(edited()), describe(profile));
}

TEST_F(ProfileManager, CreateTestThatCannotBeFilledLeavesAnEmptyOne) {
  arrange("office");
  const FWPROFILE tooLarge = {"office", {{"eth0", std::vector<FWRULE>(200)}}, {}};
  {
    // Room for the empty test profile, not for its rules.
    const files::FileSizeLimit limit(8192);
    EXPECT_FALSE(manager.CreateTestProfile("office", tooLarge));
  }
  const std::string log = trace::take();
  EXPECT_NE(std::string::npos,
            log.find(".json.tmp: File too large\nerr fwDB Failed to profileDbDump()\n"
                     "err tarnFW failed to profileSet()"))
      << log;
  EXPECT_EQ("profile [.test_office]\npolicy of global: 2\n" + kBoth, stored());
}

TEST_F(ProfileManager, TestProfilesAreListed) {
  arrangeWithTest("office");
  std::vector<std::string> names;
  EXPECT_TRUE(manager.profileEnum(names));
  EXPECT_EQ((std::vector<std::string>{".test_office", "home", "office"}), names);
}

// --- operations that are the database's ---

TEST_F(ProfileManager, ForwardsToTheDatabase) {
  arrange("office");
  EXPECT_TRUE(manager.profileExist("home"));
  EXPECT_FALSE(manager.profileExist("lan"));
  EXPECT_TRUE(manager.profileCreate("lan"));
  EXPECT_FALSE(manager.profileCreate("lan"));
  EXPECT_TRUE(manager.profileRename("office", "work"));
  EXPECT_EQ("{\n   \"profile\" : \"work\"\n}\n", files::read(files::kSettingsFile));
  EXPECT_TRUE(manager.profileSet("lan", {"lan", {}, {{"eth1", FW::FW_POLICY_DENY}}}));
  FWPROFILE lan;
  EXPECT_TRUE(manager.profileGet("lan", lan));
  EXPECT_EQ("profile [lan]\npolicy of eth1: 1\npolicy of global: 2", describe(lan));
  FWPROFILE office;
  EXPECT_FALSE(manager.profileGet("office", office));
  EXPECT_EQ(lines({"err fwDB The profile lan already exist",
                   "err fwDB Failed to profileGet office due to not exist"}),
            trace::take());
  EXPECT_EQ(
      "profile [home]\n"
      "profile [lan]\npolicy of eth1: 1\npolicy of global: 2\n"
      "profile [work]\npolicy of eth0: 1\n",
      stored());
}

}  // namespace
