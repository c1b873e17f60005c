// What holds for every verb, whatever it does: one document for --json on success and on failure,
// no change for --dry-run, root's things for root alone, a place in manual page and completions.

#include <json/reader.h>
#include <json/value.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

// A verb in action.
//   before    shell commands that make the machine right for it
//   success   its arguments when it works, and the exit status it then has
//   failure   shell commands that spoil it, its arguments then, and its exit status
struct Row {
  const char* verb;
  const char* before;
  const char* success;
  int succeeds;
  const char* spoil;
  const char* failure;
  int fails;
  bool root;
};

constexpr char kNoTools[] = "mv /etc/alternatives/iptables /etc/alternatives/iptables-hidden";
constexpr char kBadSettings[] = "echo '{' > /usr/tarn/etc/firewall.d/firewall_settings.json";
constexpr char kNoModules[] = "rm /usr/tarn/etc.defaults/iptables_modules_list";
constexpr char kNoServices[] = "rm /usr/tarn/etc.defaults/firewall_services.json";
constexpr char kNothing[] = ":";

// clang-format off
constexpr Row kRows[] = {
    {"setup",          ":",                           "",            0, kNoTools,     "",               1, true},
    {"enable",         "tarnfw setup",                "",            0, kNoModules,   "",               1, true},
    {"disable",        "tarnfw setup; tarnfw enable", "",            0, kBadSettings, "",               1, true},
    {"reload",         "tarnfw setup; tarnfw enable; iptables -F INPUT_FIREWALL",
                                                      "",            0, kNoTools,     "",               1, true},
    {"clear",          "tarnfw setup; tarnfw enable", "",            0, kNoTools,     "",               1, true},
    {"recover",        "tarnfw setup; tarnfw enable; iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
                                                      "",            0, kBadSettings, "",               1, true},
    {"status",         "tarnfw setup",                "--verify",    3, kBadSettings, "",               4, true},
    {"compile",        "tarnfw setup",                "default",     0, kNothing,     "nosuch",         1, true},
    {"query port",     "tarnfw setup; tarnfw enable",  "22 --protocol tcp", 0, kBadSettings, "22 --protocol tcp", 4, true},
    {"query service",  "tarnfw setup; tarnfw enable",  "ssh",        0, kNothing,     "nosuch",         4, true},
    {"profile list",   "tarnfw setup",                "",            0, "rm /usr/tarn/etc/firewall.d/*.json", "", 4, true},
    {"profile show",   "tarnfw setup",                "default",     0, kNothing,     "nosuch",         1, true},
    {"profile create", "tarnfw setup",                "office",      0, kNothing,     "default",        1, true},
    {"profile delete", "tarnfw setup; tarnfw profile create office",
                                                      "office",      0, kNothing,     "default",        1, true},
    {"profile rename", "tarnfw setup",                "default home", 0, kNothing,    "nosuch other",   1, true},
    {"profile use",    "tarnfw setup; tarnfw enable; tarnfw profile create office",
                                                      "office",      0, kNothing,     "nosuch",         1, true},
    {"update",         "tarnfw setup; sed 's/: *null/: {\"global\": [{\"portGroup\": 0, \"portList\": [\"nosuch\"]}]}/' -i /usr/tarn/etc/firewall.d/default.json",
                                                      "",            0, kNoServices,  "",               1, true},
    {"adapter list",   ":",                           "",            0, kNothing,     "surplus",        2, false},
    {"adapter rename", "tarnfw setup; tarnfw service reserve ssh --adapter eth0 --deny",
                                                      "eth0 eth9",   0, kNothing,     "eth0 eth0",      2, true},
    {"service list",   ":",                           "",            0, kNoServices,  "",               4, false},
    {"service reserve", "tarnfw setup",               "ssh --adapter eth0 --allow", 0, kNothing, "ssh --adapter eth0", 2, true},
    {"service remove", "tarnfw setup; tarnfw service reserve ssh --adapter eth0 --deny",
                                                      "ssh",         0, "rm /usr/tarn/etc/firewall.d/*.json", "ssh", 1, true},
    {"country list",   ":",                           "",            0, "rmdir /usr/share/xt_geoip", "", 4, false},
    {"country ranges", "printf '\\001\\000\\000\\012\\002\\000\\000\\012' > /usr/share/xt_geoip/AT.iv4",
                                                      "AT",          0, kNothing,     "XX",             4, false},
    {"modules load",   ":",                           "nat ntp",     0, kNoModules,   "core ntp",       1, true},
    {"modules unload", "tarnfw modules load nat ntp", "nat ntp",     0, kNoModules,   "core ntp",       1, true},
};
// clang-format on

std::string call(const Row& row, const char* arguments, const char* options) {
  return std::string("tarnfw ") + row.verb + " " + arguments + " " + options;
}

bool isOneDocument(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value document;
  return reader->parse(text.data(), text.data() + text.size(), &document, nullptr);
}

std::string nameOf(const testing::TestParamInfo<Row>& info) {
  std::string name;
  for (const char character : std::string(info.param.verb)) {
    if (character != ' ') name += character;
  }
  return name;
}

class EveryVerb : public testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    machine::reset();
    (void)machine::run(
        "mv /etc/alternatives/iptables-hidden /etc/alternatives/iptables; "
        "mkdir -p /usr/share/xt_geoip; rm -f /usr/share/xt_geoip/*");
    const machine::Result before = machine::run(GetParam().before);
    ASSERT_EQ(before.status, 0) << before.err;
  }
  void TearDown() override {
    (void)machine::run("mv /etc/alternatives/iptables-hidden /etc/alternatives/iptables");
  }

  // What the help says of the verb.
  static bool hasDryRun() {
    return machine::run(std::string("tarnfw ") + GetParam().verb + " --help")
               .out.find("--dry-run") != std::string::npos;
  }

  static void expectOneDocument(const machine::Result& result, int status) {
    EXPECT_EQ(result.status, status) << result.err;
    EXPECT_TRUE(isOneDocument(result.out)) << result.out;
  }
};

// The last call is the only one that may change the machine.
TEST_P(EveryVerb, ChangesNothingUntilItIsAskedTo) {
  const Row& row = GetParam();
  const std::string before = machine::state();

  const machine::Result misused = machine::run(call(row, "a b c d --nonsense", "--json"));
  expectOneDocument(misused, 2);
  EXPECT_EQ(std::count(misused.err.begin(), misused.err.end(), '\n'), 1) << misused.err;
  EXPECT_EQ(machine::run(call(row, "a b c d --nonsense", "")).out, "");

  const machine::Result planned = machine::run(call(row, row.success, "--dry-run --json"));
  expectOneDocument(planned, hasDryRun() ? 0 : 2);
  EXPECT_EQ(planned.out.find("\"steps\" : []"), std::string::npos) << planned.out;

  expectOneDocument(machine::run("setpriv --reuid 65534 --regid 65534 --clear-groups " +
                                 call(row, row.success, "--json")),
                    row.root ? 77 : row.succeeds);
  EXPECT_EQ(machine::state(), before);

  expectOneDocument(machine::run(std::string("tarnfw --json ") + row.verb + " " + row.success),
                    row.succeeds);
  EXPECT_EQ(machine::state() != before, hasDryRun());
}

TEST_P(EveryVerb, SaysWhyItFails) {
  const Row& row = GetParam();
  (void)machine::run(row.spoil);
  const machine::Result document = machine::run(call(row, row.failure, "--json"));
  expectOneDocument(document, row.fails);
  EXPECT_NE(document.out.find("\"error\""), std::string::npos) << document.out;

  const machine::Result text = machine::run(call(row, row.failure, ""));
  EXPECT_EQ(text.status, row.fails);
  EXPECT_EQ(text.out, "");
  EXPECT_NE(text.err.find(std::string("tarnfw: ") + row.verb + ": "), std::string::npos)
      << text.err;
}

TEST_P(EveryVerb, IsInManualAndCompletions) {
  const std::string sources = TARNFW_SOURCES;
  std::istringstream words(GetParam().verb);
  const std::string manual = machine::read(sources + "/doc/tarnfw.1");
  EXPECT_NE(manual.find(std::string("Ic ") + GetParam().verb), std::string::npos);
  for (std::string word; words >> word;) {
    for (const char* file : {"tarnfw.bash", "_tarnfw", "tarnfw.fish"}) {
      EXPECT_TRUE(std::regex_search(machine::read(sources + "/packaging/completions/" + file),
                                    std::regex("\\b" + word + "\\b")))
          << word << " in " << file;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Verbs, EveryVerb, testing::ValuesIn(kRows), nameOf);

// The verbs, and the options of each, as the help lists them.
std::string verbsOfHelp() {
  const std::string help = machine::run("tarnfw --help").out;
  const std::regex line("\n  tarnfw ((?:[a-z]+ ?){1,2})");
  std::string verbs;
  for (std::sregex_iterator found(help.begin(), help.end(), line), end; found != end; ++found) {
    const std::string verb = (*found)[1];
    verbs += verb.substr(0, verb.find_last_not_of(' ') + 1) + "\n";
  }
  return verbs;
}

TEST(Verbs, AllHaveARow) {
  std::string rows;
  for (const Row& row : kRows) rows += std::string(row.verb) + "\n";
  EXPECT_EQ(verbsOfHelp(), rows);
}

TEST(Verbs, OptionsAreInManualAndCompletions) {
  const std::string sources = TARNFW_SOURCES;
  const std::string help = machine::run("tarnfw --help").out;
  const std::regex option("--([a-z][a-z0-9-]*)");
  std::set<std::string> options;
  for (std::sregex_iterator found(help.begin(), help.end(), option), end; found != end; ++found) {
    options.insert((*found)[1]);
  }
  EXPECT_EQ(options.count("dry-run"), 1U);
  std::string manual = machine::read(sources + "/doc/tarnfw.1");
  manual = std::regex_replace(manual, std::regex("\\\\-"), "-");
  for (const std::string& name : options) {
    EXPECT_NE(manual.find("Fl -" + name), std::string::npos) << name;
    for (const char* file : {"tarnfw.bash", "_tarnfw", "tarnfw.fish"}) {
      EXPECT_NE(machine::read(sources + "/packaging/completions/" + file).find(name),
                std::string::npos)
          << name << " in " << file;
    }
  }
}

}  // namespace
