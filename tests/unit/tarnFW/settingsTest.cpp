// The settings document: which profile is active, and whether the firewall is on.

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <json/value.h>

#include "fakePlatform.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace fs = std::filesystem;

namespace {

using FW::TARNFW;

class Settings : public fake::MachineTest {
 protected:
  TARNFW firewall;
};

constexpr char kDefaults[] = R"({
   "profile" : "default",
   "status" : false
}
)";
constexpr char kAbsent[] = "(absent)";
constexpr char kNotParsed[] =
    "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json";
constexpr char kNotOpened[] =
    "err utils Failed to open json file /usr/tarn/etc/firewall.d/firewall_settings.json";
constexpr char kTemporaryNotOpened[] =
    "err utils Failed to open json file /usr/tarn/etc/firewall.d/firewall_settings.json.tmp";

void arrange(const std::string& settings) {
  if (settings != kAbsent) files::writeSettings(settings);
}

void squatTemporary() { fs::create_directory(std::string(files::kSettingsFile) + ".tmp"); }

// --- defaults ---

TEST_F(Settings, DefaultsAreSetBesideOtherMembers) {
  Json::Value config = toJson(R"({"status": true, "profile": "office", "other": [1]})");
  EXPECT_TRUE(firewall.initJconfig(config));
  EXPECT_EQ(R"({"other":[1],"profile":"default","status":false})", toText(config));
}

TEST_F(Settings, AbsentDocumentIsWrittenWithTheDefaults) {
  Json::Value config;
  EXPECT_TRUE(firewall.configGet(config));
  EXPECT_EQ(R"({"profile":"default","status":false})", toText(config));
  EXPECT_EQ(kDefaults, files::read(files::kSettingsFile));
}

TEST_F(Settings, DefaultsHoldThoughTheyCannotBeWritten) {
  squatTemporary();
  Json::Value config;
  EXPECT_TRUE(firewall.configGet(config));
  EXPECT_EQ(R"({"profile":"default","status":false})", toText(config));
  EXPECT_EQ(kTemporaryNotOpened, trace::take());
  EXPECT_EQ(kAbsent, files::read(files::kSettingsFile));
}

TEST_F(Settings, DocumentThatIsNotJsonIsAnError) {
  for (const char* text : {"{", "profile=office", "{\"status\": tru", ""}) {
    SCOPED_TRACE(text);
    files::writeSettings(text);
    Json::Value config;
    EXPECT_FALSE(firewall.configGet(config));
    EXPECT_EQ("err utils Failed to parse Json value of " + std::string(files::kSettingsFile),
              trace::take());
    EXPECT_EQ(text, files::read(files::kSettingsFile));
  }
}

TEST_F(Settings, DefaultsHoldWithoutTheDirectory) {
  fs::remove_all(files::kProfileDirectory);
  Json::Value config;
  EXPECT_TRUE(firewall.configGet(config));
  EXPECT_EQ(R"({"profile":"default","status":false})", toText(config));
  EXPECT_EQ(kTemporaryNotOpened, trace::take());
}

// --- reading ---

// What an operation answers: its out argument as text, or "(failed)" when that was left alone.
std::string status(const std::string& settings) {
  arrange(settings);
  bool wasFalse = false;
  bool wasTrue = true;
  const bool read = TARNFW().fwStatus(wasFalse);
  EXPECT_EQ(read, TARNFW().fwStatus(wasTrue));
  EXPECT_EQ(read, wasFalse == wasTrue);
  if (!read) return "(failed)";
  return wasTrue ? "true" : "false";
}

std::string profile(const std::string& settings) {
  arrange(settings);
  std::string name = "untouched";
  const bool read = TARNFW().fwProfileConfigGet(name);
  if (read) return "[" + name + "]";
  EXPECT_EQ("untouched", name);
  return "(failed)";
}

struct ReadRow {
  const char* name;
  std::string (*operation)(const std::string& settings);
  const char* settings;
  const char* answer;
  std::string log;
};

void PrintTo(const ReadRow& row, std::ostream* out) { *out << row.name; }

std::string twice(const std::string& lines) { return lines + "\n" + lines; }

const std::string kUnreadable = std::string(kNotParsed) + "\nerr tarnFW Falied to configGet()";

// clang-format off
const std::vector<ReadRow> kReadRows = {
    {"StatusTrue", status, R"({"profile": "office", "status": true})", "true", ""},
    {"StatusFalse", status, R"({"profile": "office", "status": false})", "false", ""},
    {"StatusOfAbsentSettings", status, kAbsent, "false", ""},
    {"StatusAbsent", status, R"({"profile": "office"})", "false", ""},
    {"StatusNull", status, R"({"status": null})", "false", ""},
    {"StatusOne", status, R"({"status": 1})", "true", ""},
    {"StatusZero", status, R"({"status": 0})", "false", ""},
    {"StatusOfAnArray", status, R"([true])", "false", ""},
    {"StatusOfAText", status, R"("status")", "false", ""},
    {"StatusOfANull", status, "null", "false", ""},
    {"StatusNotJson", status, "status=yes", "(failed)", twice(kUnreadable)},
    {"StatusOfAnEmptyFile", status, "", "(failed)", twice(kUnreadable)},
    {"Profile", profile, R"({"profile": "office"})", "[office]", ""},
    {"ProfileOfAbsentSettings", profile, kAbsent, "[default]", ""},
    {"ProfileEmpty", profile, R"({"profile": ""})", "[]", ""},
    {"ProfileNull", profile, R"({"profile": null})", "[]", ""},
    {"ProfileNumber", profile, R"({"profile": 7})", "[7]", ""},
    {"ProfileAbsent", profile, R"({"status": true})", "(failed)", "err tarnFW There are no key: profile in config"},
    {"ProfileOfAnArray", profile, R"(["profile"])", "(failed)", "err tarnFW There are no key: profile in config"},
    {"ProfileNotJson", profile, "profile=office", "(failed)", kUnreadable},
};
// clang-format on

class Read : public Settings, public testing::WithParamInterface<ReadRow> {};

TEST_P(Read, OneSetting) {
  EXPECT_EQ(GetParam().answer, GetParam().operation(GetParam().settings));
  EXPECT_EQ(GetParam().log, trace::take());
  const bool absent = GetParam().settings == std::string(kAbsent);
  EXPECT_EQ(absent ? kDefaults : GetParam().settings, files::read(files::kSettingsFile));
}

INSTANTIATE_TEST_SUITE_P(Settings, Read, testing::ValuesIn(kReadRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Settings, SettingOfTheWrongTypeThrows) {
  files::writeSettings(R"({"status": "on", "profile": {"name": "office"}})");
  bool enabled = false;
  std::string name = "untouched";
  EXPECT_THROW((void)firewall.fwStatus(enabled), Json::Exception);
  EXPECT_THROW((void)firewall.fwProfileConfigGet(name), Json::Exception);
  EXPECT_EQ("untouched", name);
}

TEST_F(Settings, ReadingAnswersTheWholeDocument) {
  files::writeSettings(R"({"profile": "office", "status": true, "other": {"x": [1]}})");
  Json::Value config;
  EXPECT_TRUE(firewall.configGet(config));
  EXPECT_EQ(R"({"other":{"x":[1]},"profile":"office","status":true})", toText(config));
}

TEST_F(Settings, SettingsThatAreADirectoryAreNotReplaced) {
  fs::create_directory(files::kSettingsFile);
  Json::Value config;
  EXPECT_FALSE(firewall.configGet(config));
  EXPECT_EQ(kNotOpened, trace::take());
  EXPECT_EQ("(directory)", files::read(files::kSettingsFile));
}

// --- writing ---

struct WriteRow {
  const char* name;
  const char* before;
  const char* members;
  bool written;
  const char* after;
  std::string log;
};

void PrintTo(const WriteRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<WriteRow> kWriteRows = {
    {"StatusKeepsTheRest", R"({"profile": "office", "other": 1})", R"({"status": true})", true, "{\n   \"other\" : 1,\n   \"profile\" : \"office\",\n   \"status\" : true\n}\n", ""},
    {"SeveralMembers", R"({"profile": "office", "status": true})", R"({"new": [], "profile": "home"})", true, "{\n   \"new\" : [],\n   \"profile\" : \"home\",\n   \"status\" : true\n}\n", ""},
    {"MemberIsReplacedAsAWhole", R"({"other": {"a": 1, "b": 2}})", R"({"other": {"c": 3}})", true, "{\n   \"other\" : {\n      \"c\" : 3\n   }\n}\n", ""},
    {"NoMembers", R"({"profile": "office"})", "{}", true, "{\n   \"profile\" : \"office\"\n}\n", ""},
    {"NullMembers", R"({"profile": "office"})", "null", true, "{\n   \"profile\" : \"office\"\n}\n", ""},
    {"AbsentSettingsGetTheDefaultsToo", kAbsent, R"({"status": true})", true, "{\n   \"profile\" : \"default\",\n   \"status\" : true\n}\n", ""},
    {"SettingsOfNullGetTheMembers", "null", R"({"status": true})", true, "{\n   \"status\" : true\n}\n", ""},
    {"NotJsonIsNotReplaced", "status=yes", R"({"status": true})", false, "status=yes", std::string(kNotParsed) + "\nerr tarnFW Falied to config.configGet()"},
};
// clang-format on

class Write : public Settings, public testing::WithParamInterface<WriteRow> {};

TEST_P(Write, MergesMembers) {
  arrange(GetParam().before);
  EXPECT_EQ(GetParam().written, firewall.configSet(toJson(GetParam().members)));
  EXPECT_EQ(GetParam().after, files::read(files::kSettingsFile));
  EXPECT_EQ(GetParam().log, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Settings, Write, testing::ValuesIn(kWriteRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Settings, SettingsThatCannotBeWrittenStay) {
  files::writeSettings(R"({"status": false})");
  squatTemporary();
  EXPECT_FALSE(firewall.configSet(toJson(R"({"status": true})")));
  EXPECT_EQ(kTemporaryNotOpened, trace::take());
  EXPECT_EQ(R"({"status": false})", files::read(files::kSettingsFile));
}

TEST_F(Settings, MembersThatAreNoObjectThrow) {
  files::writeSettings(R"({"status": false})");
  EXPECT_THROW((void)firewall.configSet(toJson("[true]")), Json::Exception);
  EXPECT_EQ(R"({"status": false})", files::read(files::kSettingsFile));
}

TEST_F(Settings, SettingsThatAreNoObjectThrow) {
  files::writeSettings("[]");
  EXPECT_THROW((void)firewall.configSet(toJson(R"({"status": true})")), Json::Exception);
  EXPECT_EQ("[]", files::read(files::kSettingsFile));
}

// --- the active profile ---

struct UseRow {
  const char* name;
  std::function<void()> arrange;
  const char* profile;
  bool reload;
  bool used;
  std::string trace;
  const char* settings;
};

void PrintTo(const UseRow& row, std::ostream* out) { *out << row.name; }

void office(const std::string& settings) {
  files::writeProfile("1", "office");
  files::writeProfile("2", ".test_office");
  arrange(settings);
}

const std::string kExecutionLock = "lock /tmp/firewall_iptables_exec.lock 1 30";

// clang-format off
const std::vector<UseRow> kUseRows = {
    {"KnownProfile", [] { office(R"({"profile": "home", "status": true, "x": 1})"); }, "office", false, true, "", "{\n   \"profile\" : \"office\",\n   \"status\" : true,\n   \"x\" : 1\n}\n"},
    {"TestProfile", [] { office(kAbsent); }, ".test_office", false, true, "", "{\n   \"profile\" : \".test_office\",\n   \"status\" : false\n}\n"},
    {"ReloadOfADisabledFirewallDoesNothing", [] { office(kAbsent); }, "office", true, true, kExecutionLock + "\nunlock 100", "{\n   \"profile\" : \"office\",\n   \"status\" : false\n}\n"},
    {"ReloadThatFails", [] { office(kAbsent); fake::machine().answers = {{kExecutionLock, 0}}; }, "office", true, false, kExecutionLock + "\nerr tarnFW TIMEOUT: getting lock\nerr tarnFW Failed to reload firewall", "{\n   \"profile\" : \"office\",\n   \"status\" : false\n}\n"},
    {"UnknownProfile", [] { office(R"({"profile": "home"})"); }, "lan", true, false, "err tarnFW Profile lan is not in database", R"({"profile": "home"})"},
    {"OtherCase", [] { office(R"({"profile": "home"})"); }, "Office", true, false, "err tarnFW Profile Office is not in database", R"({"profile": "home"})"},
    {"EmptyDirectory", [] {}, "office", true, false, "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/\nerr fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\nerr tarnFW Failed to profileEnum()", kAbsent},
    {"BrokenSettings", [] { office("{"); }, "office", true, false, std::string(kNotParsed) + "\nerr fwDB Failed to load json from /usr/tarn/etc/firewall.d/firewall_settings.json\n" + kUnreadable, "{"},
    {"SettingsThatCannotBeWritten", [] { office(R"({"profile": "home"})"); squatTemporary(); }, "office", true, false, std::string(kTemporaryNotOpened) + "\nerr tarnFW Falied to configSet()", R"({"profile": "home"})"},
};
// clang-format on

class Use : public Settings, public testing::WithParamInterface<UseRow> {};

TEST_P(Use, Profile) {
  GetParam().arrange();
  EXPECT_EQ(GetParam().used, firewall.fwProfileConfigSet(GetParam().profile, GetParam().reload));
  EXPECT_EQ(GetParam().trace, trace::take());
  EXPECT_EQ(GetParam().settings, files::read(files::kSettingsFile));
}

INSTANTIATE_TEST_SUITE_P(Settings, Use, testing::ValuesIn(kUseRows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
