// From a line to the words that are run, from a document to the order of its lines, and the two
// fixed sets around the drop period.

#include <ostream>
#include <string>

#include <json/value.h>

#include "fakePlatform.h"
#include "jsonText.h"
#include "tarnFW/module.h"
#include "tarnfirewall.h"
#include "trace.h"

namespace {

constexpr char kTooLong[] = "err tarnFW #Arguments exceeds limit";
constexpr char kEmptyOrTooLong[] = "err tarnFW cmd is empty or arguments exceeding limit";

std::string run(const std::string& line) { return "exec " + line; }

// Two words that take `bytes` bytes, the NUL after each included.
std::string twoWords(std::size_t bytes) { return "/p " + std::string(bytes - 4, 'x'); }

// `count` words of one character.
std::string shortWords(std::size_t count) {
  std::string line = "p";
  while (--count > 0) line += " p";
  return line;
}

template <class Row>
std::string rowName(const testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

// --- one line ---

struct LineRow {
  const char* name;
  std::string line;
  std::string trace;
  bool result;

  friend void PrintTo(const LineRow& row, std::ostream* out) { *out << row.name; }
};

class CommandLine : public fake::MachineTest, public testing::WithParamInterface<LineRow> {};

TEST_P(CommandLine, IsSplitAtBlanksAndRun) {
  const LineRow& row = GetParam();
  EXPECT_EQ(row.result, FW::TARNFW().cmdExec(row.line));
  EXPECT_EQ(row.trace, trace::take());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Blanks, CommandLine, testing::Values(
  LineRow{"Plain", "/sbin/iptables -F INPUT_FIREWALL", "exec /sbin/iptables -F INPUT_FIREWALL", true},
  LineRow{"DoubledBlanksGiveNoWord", "/sbin/iptables  -F  INPUT_FIREWALL", "exec /sbin/iptables -F INPUT_FIREWALL", true},
  LineRow{"LeadingBlanks", "   /sbin/iptables -F", "exec /sbin/iptables -F", true},
  LineRow{"TrailingBlanks", "/sbin/iptables -F   ", "exec /sbin/iptables -F", true},
  LineRow{"DoubledBlankAfterAnEmptyFragment", "/sbin/iptables -A INPUT_FIREWALL -p icmp  -j RETURN", "exec /sbin/iptables -A INPUT_FIREWALL -p icmp -j RETURN", true},
  LineRow{"TabsAndLineFeedsDoNotSeparate", "/sbin/iptables\t-F\nINPUT", "exec /sbin/iptables\t-F\nINPUT", true},
  LineRow{"QuotesMeanNothing", "/sbin/iptables -m comment --comment \"a b\"", "exec /sbin/iptables -m comment --comment \"a b\"", true},
  LineRow{"ShellCharactersMeanNothing", "/sbin/iptables -F;reboot $HOME `id` *", "exec /sbin/iptables -F;reboot $HOME `id` *", true},
  LineRow{"OneWord", "/sbin/iptables", "exec /sbin/iptables", true},
  LineRow{"WordEndsAtANul", std::string("/sbin/iptables -F\0X INPUT", 25), "exec /sbin/iptables -F INPUT", true},
  LineRow{"Empty", "", kEmptyOrTooLong, false},
  LineRow{"OneBlank", " ", kEmptyOrTooLong, false},
  LineRow{"BlanksOnly", "   ", kEmptyOrTooLong, false},
  LineRow{"MoreBlanksThanTheBufferHasBytes", std::string(2000, ' '), kEmptyOrTooLong, false}),
  rowName<LineRow>);

INSTANTIATE_TEST_SUITE_P(Bytes, CommandLine, testing::Values(
  LineRow{"B1022", twoWords(1022), run(twoWords(1022)), true},
  LineRow{"B1022AndOneMoreOfTwoBytes", twoWords(1022) + " y", run(twoWords(1022) + " y"), true},
  LineRow{"B1022AndOneMoreOfThreeBytes", twoWords(1022) + " yy", kEmptyOrTooLong, false},
  LineRow{"B1022AndTwoMore", twoWords(1022) + " y z", kTooLong, false},
  LineRow{"B1023", twoWords(1023), run(twoWords(1023)), true},
  LineRow{"B1023AndOneMore", twoWords(1023) + " y", kTooLong, false},
  LineRow{"B1023AndOneMoreAfterDoubledBlanks", twoWords(1023) + "  y", kTooLong, false},
  LineRow{"B1023AndClosingBlank", twoWords(1023) + " ", run(twoWords(1023)), true},
  LineRow{"B1023AndAnEmptyPiece", twoWords(1023) + "  ", kTooLong, false},
  LineRow{"B1024", twoWords(1024), run(twoWords(1024)), true},
  LineRow{"B1024AndOneMore", twoWords(1024) + " y", kTooLong, false},
  LineRow{"B1024AndAnEmptyPiece", twoWords(1024) + "  ", kTooLong, false},
  LineRow{"B1025", twoWords(1025), kEmptyOrTooLong, false},
  LineRow{"B1025AndOneMore", twoWords(1025) + " y", kTooLong, false},
  LineRow{"B9000", twoWords(9000), kEmptyOrTooLong, false},
  LineRow{"B9000AndOneMore", twoWords(9000) + " y", kTooLong, false},
  LineRow{"OneWordOfB1024", std::string(1023, 'p'), run(std::string(1023, 'p')), true},
  LineRow{"OneWordOfB1025", std::string(1024, 'p'), kEmptyOrTooLong, false}),
  rowName<LineRow>);

INSTANTIATE_TEST_SUITE_P(Words, CommandLine, testing::Values(
  LineRow{"W255", shortWords(255), run(shortWords(255)), true},
  LineRow{"W255AndBlanks", shortWords(255) + "   ", run(shortWords(255)), true},
  LineRow{"W256", shortWords(256), kTooLong, false},
  LineRow{"W512OfB1024", shortWords(512), kTooLong, false}),
  rowName<LineRow>);
// clang-format on

struct StatusRow {
  const char* name;
  int status;
  std::string trace;
  bool result;

  friend void PrintTo(const StatusRow& row, std::ostream* out) { *out << row.name; }
};

class CommandStatus : public fake::MachineTest, public testing::WithParamInterface<StatusRow> {};

TEST_P(CommandStatus, FailsOnlyWhenTheProgramCouldNotBeRun) {
  const StatusRow& row = GetParam();
  fake::machine().exec = [&row](const std::string&) { return row.status; };
  EXPECT_EQ(row.result, FW::TARNFW().cmdExec("/sbin/iptables -F INPUT_FIREWALL"));
  EXPECT_EQ(row.trace, trace::take());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, CommandStatus, testing::Values(
  StatusRow{"Done", 0, "exec /sbin/iptables -F INPUT_FIREWALL", true},
  StatusRow{"NoSuchChain", 1, "exec /sbin/iptables -F INPUT_FIREWALL", true},
  StatusRow{"BadLine", 2, "exec /sbin/iptables -F INPUT_FIREWALL", true},
  StatusRow{"NoResources", 4, "exec /sbin/iptables -F INPUT_FIREWALL", true},
  StatusRow{"Largest", 255, "exec /sbin/iptables -F INPUT_FIREWALL", true},
  StatusRow{"NotRun", -1, "exec /sbin/iptables -F INPUT_FIREWALL\nerr tarnFW Failed to execute /sbin/iptables", false},
  StatusRow{"OtherNegative", -2, "exec /sbin/iptables -F INPUT_FIREWALL", true}),
  rowName<StatusRow>);
// clang-format on

// --- a command document ---

struct DocumentRow {
  const char* name;
  const char* document;
  const char* failing;  // the line that cannot be run
  const char* trace;
  bool result;

  friend void PrintTo(const DocumentRow& row, std::ostream* out) { *out << row.name; }
};

class CommandDocument : public fake::MachineTest,
                        public testing::WithParamInterface<DocumentRow> {};

TEST_P(CommandDocument, RunsInOrderUntilALineFails) {
  const DocumentRow& row = GetParam();
  fake::machine().answers = {{row.failing, -1}};
  EXPECT_EQ(row.result, FW::TARNFW().fwExec(toJson(row.document)));
  EXPECT_EQ(row.trace, trace::take());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Order, CommandDocument, testing::Values(
  DocumentRow{"NoFamily", "{}", "", "", true},
  DocumentRow{"Null", "null", "", "", true},
  DocumentRow{"NotAnObject", "[\"v4\"]", "", "", true},
  DocumentRow{"OtherKeysAreIgnored", R"({"v5": {"global": ["-F a"]}, "global": ["-F b"]})", "", "", true},
  DocumentRow{"EmptyFamilies", R"({"v4": {}, "v6": null})", "", "", true},
  DocumentRow{"V6Only", R"({"v6": {"global": ["-F a"]}})", "",
    "exec /sbin/ip6tables -F a", true},
  DocumentRow{"V4BeforeV6", R"({"v6": {"A": ["-F a"]}, "v4": {"Z": ["-F z"]}})", "",
    "exec /sbin/iptables -F z\n"
    "exec /sbin/ip6tables -F a", true},
  DocumentRow{"GlobalThenTheOthersByName", R"({"v4": {"B": ["-F b1", "-F b2"], "global": ["-F g1", "-F g2"], "A": ["-F a"], "zz": ["-F z"], "eth0": ["-F e"]}})", "",
    "exec /sbin/iptables -F g1\n"
    "exec /sbin/iptables -F g2\n"
    "exec /sbin/iptables -F a\n"
    "exec /sbin/iptables -F b1\n"
    "exec /sbin/iptables -F b2\n"
    "exec /sbin/iptables -F e\n"
    "exec /sbin/iptables -F z", true},
  DocumentRow{"NamesGoByBytes", R"({"v4": {"a": ["-F a"], "Z": ["-F Z"], "a1": ["-F a1"], "": ["-F none"]}})", "",
    "exec /sbin/iptables -F none\n"
    "exec /sbin/iptables -F Z\n"
    "exec /sbin/iptables -F a\n"
    "exec /sbin/iptables -F a1", true},
  DocumentRow{"NumbersAreText", R"({"v4": {"global": [5, true]}})", "",
    "exec /sbin/iptables 5\n"
    "exec /sbin/iptables true", true},
  DocumentRow{"EmptyLineIsTheBareTool", R"({"v4": {"global": [""]}})", "",
    "exec /sbin/iptables", true}),
  rowName<DocumentRow>);

INSTANTIATE_TEST_SUITE_P(Failures, CommandDocument, testing::Values(
  DocumentRow{"FirstOfGlobal", R"({"v4": {"global": ["-F g1", "-F g2"], "A": ["-F a"]}, "v6": {"global": ["-F h"]}})", "exec /sbin/iptables -F g1",
    "exec /sbin/iptables -F g1\n"
    "err tarnFW Failed to execute /sbin/iptables\n"
    "err tarnFW Failed to execute \"/sbin/iptables -F g1\"", false},
  DocumentRow{"SecondOfV4StopsBothFamilies", R"({"v4": {"global": ["-F g1", "-F g2", "-F g3"], "A": ["-F a"]}, "v6": {"global": ["-F h"]}})", "exec /sbin/iptables -F g2",
    "exec /sbin/iptables -F g1\n"
    "exec /sbin/iptables -F g2\n"
    "err tarnFW Failed to execute /sbin/iptables\n"
    "err tarnFW Failed to execute \"/sbin/iptables -F g2\"", false},
  DocumentRow{"LineOfAnAdapter", R"({"v4": {"global": ["-F g"], "A": ["-F a1", "-F a2"], "B": ["-F b"]}, "v6": {"global": ["-F h"]}})", "exec /sbin/iptables -F a1",
    "exec /sbin/iptables -F g\n"
    "exec /sbin/iptables -F a1\n"
    "err tarnFW Failed to execute /sbin/iptables\n"
    "err tarnFW Failed to execute \"/sbin/iptables -F a1\"", false},
  DocumentRow{"LineOfV6KeepsV4", R"({"v4": {"global": ["-F g"]}, "v6": {"global": ["-F h"], "A": ["-F a"], "B": ["-F b"]}})", "exec /sbin/ip6tables -F a",
    "exec /sbin/iptables -F g\n"
    "exec /sbin/ip6tables -F h\n"
    "exec /sbin/ip6tables -F a\n"
    "err tarnFW Failed to execute /sbin/ip6tables\n"
    "err tarnFW Failed to execute \"/sbin/ip6tables -F a\"", false}),
  rowName<DocumentRow>);
// clang-format on

class Commands : public fake::MachineTest {};

// A line that is too long never reaches the tool, and stops the document like one that fails.
TEST_F(Commands, LineBeyondTheLimitsStopsTheDocument) {
  const std::string text(1020, 'x');
  Json::Value document;
  document["v4"]["global"].append("-F " + text);
  document["v4"]["global"].append("-F a");
  EXPECT_FALSE(FW::TARNFW().fwExec(document));
  EXPECT_EQ(
      "err tarnFW cmd is empty or arguments exceeding limit\n"
      "err tarnFW Failed to execute \"/sbin/iptables -F " +
          text + "\"",
      trace::take());
}

TEST_F(Commands, LineThatIsNoTextThrows) {
  EXPECT_THROW(FW::TARNFW().fwExec(toJson(R"({"v4": {"global": ["-F a", {}]}})")),
               Json::LogicError);
  EXPECT_EQ("exec /sbin/iptables -F a", trace::take());
}

// --- the fixed sets ---

struct SetRow {
  const char* name;
  bool (FW::TARNFW::*set)();
  const char* failing;
  const char* trace;
  bool result;

  friend void PrintTo(const SetRow& row, std::ostream* out) { *out << row.name; }
};

class FixedSet : public fake::MachineTest, public testing::WithParamInterface<SetRow> {};

TEST_P(FixedSet, StopsAtTheFirstFailure) {
  const SetRow& row = GetParam();
  fake::machine().answers = {{row.failing, -1}};
  FW::TARNFW firewall;
  EXPECT_EQ(row.result, (firewall.*row.set)());
  EXPECT_EQ(row.trace, trace::take());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Drop, FixedSet, testing::Values(
  SetRow{"Done", &FW::TARNFW::fwDefaultDrop, "",
    "exec /sbin/iptables --policy INPUT DROP\n"
    "exec /sbin/iptables --policy FORWARD DROP\n"
    "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
    "exec /sbin/ip6tables --policy INPUT DROP\n"
    "exec /sbin/ip6tables --policy FORWARD DROP\n"
    "exec /sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT", true},
  SetRow{"FirstFails", &FW::TARNFW::fwDefaultDrop, "exec /sbin/iptables --policy INPUT DROP",
    "exec /sbin/iptables --policy INPUT DROP\n"
    "err tarnFW Failed to execute /sbin/iptables\n"
    "err tarnFW Failed to execute \"/sbin/iptables --policy INPUT DROP\"\n"
    "err tarnFW Failed to fwExec() to set default drop.", false},
  SetRow{"LastFails", &FW::TARNFW::fwDefaultDrop, "exec /sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
    "exec /sbin/iptables --policy INPUT DROP\n"
    "exec /sbin/iptables --policy FORWARD DROP\n"
    "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
    "exec /sbin/ip6tables --policy INPUT DROP\n"
    "exec /sbin/ip6tables --policy FORWARD DROP\n"
    "exec /sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
    "err tarnFW Failed to execute /sbin/ip6tables\n"
    "err tarnFW Failed to execute \"/sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\"\n"
    "err tarnFW Failed to fwExec() to set default drop.", false}),
  rowName<SetRow>);

INSTANTIATE_TEST_SUITE_P(Accept, FixedSet, testing::Values(
  SetRow{"Done", &FW::TARNFW::fwDefaultAccept, "",
    "exec /sbin/iptables --policy INPUT ACCEPT\n"
    "exec /sbin/iptables --policy FORWARD ACCEPT\n"
    "exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
    "exec /sbin/ip6tables --policy INPUT ACCEPT\n"
    "exec /sbin/ip6tables --policy FORWARD ACCEPT\n"
    "exec /sbin/ip6tables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT", true},
  SetRow{"FirstFails", &FW::TARNFW::fwDefaultAccept, "exec /sbin/iptables --policy INPUT ACCEPT",
    "exec /sbin/iptables --policy INPUT ACCEPT\n"
    "err tarnFW Failed to execute /sbin/iptables\n"
    "err tarnFW Failed to execute \"/sbin/iptables --policy INPUT ACCEPT\"\n"
    "err tarnFW Failed to fwExec() to set default accept.", false},
  SetRow{"FirstOfV6Fails", &FW::TARNFW::fwDefaultAccept, "exec /sbin/ip6tables --policy INPUT ACCEPT",
    "exec /sbin/iptables --policy INPUT ACCEPT\n"
    "exec /sbin/iptables --policy FORWARD ACCEPT\n"
    "exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
    "exec /sbin/ip6tables --policy INPUT ACCEPT\n"
    "err tarnFW Failed to execute /sbin/ip6tables\n"
    "err tarnFW Failed to execute \"/sbin/ip6tables --policy INPUT ACCEPT\"\n"
    "err tarnFW Failed to fwExec() to set default accept.", false}),
  rowName<SetRow>);
// clang-format on

// The way out of an exception: all six lines are tried, whatever becomes of each.
TEST_F(Commands, OpenPoliciesTriesEveryLine) {
  fake::machine().exec = [](const std::string&) { return -1; };
  FW::openPolicies();
  EXPECT_EQ(
      "exec /sbin/iptables --policy INPUT ACCEPT\n"
      "exec /sbin/iptables --policy FORWARD ACCEPT\n"
      "exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
      "exec /sbin/ip6tables --policy INPUT ACCEPT\n"
      "exec /sbin/ip6tables --policy FORWARD ACCEPT\n"
      "exec /sbin/ip6tables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
      trace::take());
}

}  // namespace
