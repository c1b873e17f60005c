// What the block queries answer, rule by rule: which rules concern a query, what a matching rule
// makes of the verdict so far, how "global" and the adapters work together, and how the verdicts of
// a service's ports are merged.

#include <filesystem>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <json/value.h>

#include "../failingScans.h"
#include "fakePlatform.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using FW::AdapterPolicyMap;
using FW::FW_POLICY;
using FW::FW_PORT_PROTOCOL;
using FW::PortCompareST;
using FW::TARNFW;

constexpr char kOn[] = R"({"profile": "home", "status": true})";
constexpr char kOff[] = R"({"profile": "home", "status": false})";

constexpr int kTcp = 1;
constexpr int kUdp = 2;
constexpr int kBoth = 3;
constexpr int kIcmp = 4;
constexpr int kIgmp = 32;
constexpr int kDestination = 0;
constexpr int kSource = 1;

struct Query {
  int direction;
  int protocol;
  const char* port;
};

constexpr Query kTcp80 = {kDestination, kTcp, "80"};

PortCompareST record(const Query& query) {
  PortCompareST port;
  port.portDirect = query.direction;
  port.protocol = static_cast<FW_PORT_PROTOCOL>(query.protocol);
  port.port = query.port;
  return port;
}

// "eth0=1 global=2"
std::string asText(const AdapterPolicyMap& verdicts) {
  std::ostringstream text;
  for (const auto& [adapter, verdict] : verdicts) {
    text << (text.tellp() == 0 ? "" : " ") << adapter << "=" << static_cast<int>(verdict);
  }
  return text.str();
}

AdapterPolicyMap asVerdicts(const std::string& text) {
  AdapterPolicyMap verdicts;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    verdicts[word.substr(0, equals)] = static_cast<FW_POLICY>(std::stoi(word.substr(equals + 1)));
  }
  return verdicts;
}

template <class Row>
std::string rowName(const testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

// A machine whose firewall is on, with a table of services.
class Queries : public fake::MachineTest {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    files::writeSettings(kOn);
    // clang-format off
    fake::machine().services = {
      {"ssh", true, {}, {kTcp, {{"22"}}}},
      {"dns", true, {}, {kBoth, {{"53"}}}},
      {"ntp", true, {}, {kUdp, {{"123"}}}},
      {"web", true, {}, {kTcp, {{"80", "8000-8010"}}}},
      {"dhcp", true, {kUdp, {{"68"}}}, {kUdp, {{"67"}}}},
      {"old", false, {}, {kTcp, {{"23"}}}},
      {"bare", true, {}, {}},
      {"void", true, {kTcp, {std::vector<std::string>()}}, {kTcp, {std::vector<std::string>()}}},
      {"two", true, {}, {kTcp, {{"1", "2"}}}},
      {"sides", true, {kTcp, {{"1"}}}, {kTcp, {{"2"}}}},
      {"mixed", true, {kUdp, {{"1"}}}, {kTcp, {{"2"}}}},
      {"both", true, {kUdp, {{"2"}}}, {kTcp, {{"1"}}}}};
    // clang-format on
  }

  static void store(const std::string& rules, const std::string& policies) {
    files::writeProfile("1", "home", rules, policies);
  }

  // The verdicts of a query that succeeds.
  static std::string verdicts(const Query& query, const std::string& adapter) {
    AdapterPolicyMap result;
    EXPECT_TRUE(TARNFW().fwPortIsBlocked(record(query), adapter, result));
    return asText(result);
  }
};

// --- one matching rule and the verdict so far ---

// A rule for every port and address group meets the entry. Alone, and with a rule for every address
// behind it: whether that one is still reached, and from which verdict, tells what the first made
// of the entry.
struct CellRow {
  const char* name;
  int entry;
  int policy;
  int alone;
  int beforeAllow;
  int beforeDeny;
};

void PrintTo(const CellRow& row, std::ostream* out) {
  *out << "entry " << row.entry << ", policy " << row.policy;
}

class Walk : public Queries, public testing::WithParamInterface<CellRow> {
 protected:
  static std::string rule(int policy, int ipGroup) {
    return R"({"enable": true, "portGroup": 3, "policy": )" + std::to_string(policy) +
           R"(, "ipGroup": )" + std::to_string(ipGroup) + "}";
  }

  // The verdict of eth0, whose default policy is `entry`, with one rule and perhaps another one.
  static int verdict(int entry, const std::string& first, const std::string& second) {
    store(R"({"eth0": [)" + first + (second.empty() ? "" : ", ") + second + "]}",
          R"({"eth0": )" + std::to_string(entry) + "}");
    AdapterPolicyMap result;
    EXPECT_TRUE(TARNFW().fwPortIsBlocked(record(kTcp80), "eth0", result));
    EXPECT_EQ(2, result["global"]);
    EXPECT_EQ(2U, result.size());
    return result["eth0"];
  }

  void expectCell(int ipGroup) {
    SCOPED_TRACE("ipGroup " + std::to_string(ipGroup));
    const CellRow& row = GetParam();
    const std::string first = rule(row.policy, ipGroup);
    EXPECT_EQ(row.alone, verdict(row.entry, first, ""));
    EXPECT_EQ(row.beforeAllow, verdict(row.entry, first, rule(0, 5))) << "before allow";
    EXPECT_EQ(row.beforeDeny, verdict(row.entry, first, rule(1, 5))) << "before deny";
    EXPECT_EQ("", trace::take());
  }
};

class EveryAddress : public Walk {};
TEST_P(EveryAddress, Cell) { expectCell(5); }

// clang-format off
// A rule for every address ends the walk, so what stands behind it changes nothing.
INSTANTIATE_TEST_SUITE_P(Table, EveryAddress, testing::Values(
  CellRow{"Entry0Policy0", 0, 0, 0, 0, 0},
  CellRow{"Entry0Policy1", 0, 1, 1, 1, 1},
  CellRow{"Entry0Policy2", 0, 2, 2, 2, 2},
  CellRow{"Entry0Policy3", 0, 3, 3, 3, 3},
  CellRow{"Entry0Policy4LeavesAs3", 0, 4, 3, 3, 3},
  CellRow{"Entry0Policy5LeavesAs3", 0, 5, 3, 3, 3},
  CellRow{"Entry0Policy6", 0, 6, 6, 6, 6},
  CellRow{"Entry0PolicyMinus1", 0, -1, -1, -1, -1},
  CellRow{"Entry1Policy0", 1, 0, 0, 0, 0},
  CellRow{"Entry1Policy1", 1, 1, 1, 1, 1},
  CellRow{"Entry1Policy2", 1, 2, 2, 2, 2},
  CellRow{"Entry1Policy3", 1, 3, 3, 3, 3},
  CellRow{"Entry1Policy4LeavesAs3", 1, 4, 3, 3, 3},
  CellRow{"Entry1Policy7", 1, 7, 7, 7, 7},
  CellRow{"Entry2Policy0", 2, 0, 0, 0, 0},
  CellRow{"Entry2Policy1", 2, 1, 1, 1, 1},
  CellRow{"Entry2Policy2", 2, 2, 2, 2, 2},
  CellRow{"Entry2Policy3", 2, 3, 3, 3, 3},
  CellRow{"Entry2Policy5LeavesAs3", 2, 5, 3, 3, 3},
  CellRow{"Entry2Policy7", 2, 7, 7, 7, 7},
  CellRow{"Entry3Policy0", 3, 0, 3, 3, 3},
  CellRow{"Entry3Policy1", 3, 1, 3, 3, 3},
  CellRow{"Entry3Policy2", 3, 2, 3, 3, 3},
  CellRow{"Entry3Policy7", 3, 7, 3, 3, 3},
  CellRow{"Entry4Policy0", 4, 0, 0, 0, 0},
  CellRow{"Entry4Policy1", 4, 1, 3, 3, 3},
  CellRow{"Entry4Policy2", 4, 2, 3, 3, 3},
  CellRow{"Entry4Policy4", 4, 4, 3, 3, 3},
  CellRow{"Entry4Policy7", 4, 7, 3, 3, 3},
  CellRow{"Entry5Policy0", 5, 0, 3, 3, 3},
  CellRow{"Entry5Policy1", 5, 1, 1, 1, 1},
  CellRow{"Entry5Policy2", 5, 2, 3, 3, 3},
  CellRow{"Entry5Policy5", 5, 5, 3, 3, 3},
  CellRow{"Entry5Policy7", 5, 7, 3, 3, 3},
  CellRow{"Entry6Policy0", 6, 0, 6, 6, 6},
  CellRow{"Entry6Policy1", 6, 1, 6, 6, 6},
  CellRow{"Entry6Policy2", 6, 2, 6, 6, 6},
  CellRow{"Entry6Policy6", 6, 6, 6, 6, 6},
  CellRow{"Entry7Policy0", 7, 0, 7, 7, 7},
  CellRow{"Entry2147483647Policy1", 2147483647, 1, 2147483647, 2147483647, 2147483647}),
  rowName<CellRow>);
// clang-format on

// Every other address group is a rule for some addresses, those that compile to no line included.
class SomeAddresses : public Walk {};
TEST_P(SomeAddresses, Cell) {
  for (const int ipGroup : {0, 1, 2, 3, 4, 6, -1}) expectCell(ipGroup);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, SomeAddresses, testing::Values(
  CellRow{"Entry0Policy0GoesOn", 0, 0, 0, 0, 1},
  CellRow{"Entry0Policy1Makes5", 0, 1, 3, 3, 1},
  CellRow{"Entry0Policy2GoesOn", 0, 2, 0, 0, 1},
  CellRow{"Entry0Policy3GoesOn", 0, 3, 0, 0, 1},
  CellRow{"Entry0Policy7GoesOn", 0, 7, 0, 0, 1},
  CellRow{"Entry1Policy0Makes4", 1, 0, 3, 0, 3},
  CellRow{"Entry1Policy1GoesOn", 1, 1, 1, 0, 1},
  CellRow{"Entry1Policy2GoesOn", 1, 2, 1, 0, 1},
  CellRow{"Entry1Policy4GoesOn", 1, 4, 1, 0, 1},
  CellRow{"Entry1PolicyMinus1GoesOn", 1, -1, 1, 0, 1},
  CellRow{"Entry2Policy0Makes4", 2, 0, 3, 0, 3},
  CellRow{"Entry2Policy1Makes5", 2, 1, 3, 3, 1},
  CellRow{"Entry2Policy2GoesOn", 2, 2, 2, 0, 1},
  CellRow{"Entry2Policy5GoesOn", 2, 5, 2, 0, 1},
  CellRow{"Entry3Policy0Stops", 3, 0, 3, 3, 3},
  CellRow{"Entry3Policy1Stops", 3, 1, 3, 3, 3},
  CellRow{"Entry3Policy2Stops", 3, 2, 3, 3, 3},
  CellRow{"Entry3Policy3Stops", 3, 3, 3, 3, 3},
  CellRow{"Entry4Policy0GoesOn", 4, 0, 3, 0, 3},
  CellRow{"Entry4Policy1Makes3", 4, 1, 3, 3, 3},
  CellRow{"Entry4Policy2Stops", 4, 2, 3, 3, 3},
  CellRow{"Entry4Policy4Stops", 4, 4, 3, 3, 3},
  CellRow{"Entry5Policy0Makes3", 5, 0, 3, 3, 3},
  CellRow{"Entry5Policy1GoesOn", 5, 1, 3, 3, 1},
  CellRow{"Entry5Policy2Stops", 5, 2, 3, 3, 3},
  CellRow{"Entry5Policy5Stops", 5, 5, 3, 3, 3},
  CellRow{"Entry6Policy0Stops", 6, 0, 6, 6, 6},
  CellRow{"Entry6Policy1Stops", 6, 1, 6, 6, 6},
  CellRow{"Entry6Policy6Stops", 6, 6, 6, 6, 6},
  CellRow{"Entry7Policy2Stops", 7, 2, 7, 7, 7}),
  rowName<CellRow>);
// clang-format on

// --- whole walks ---

// Rules of tcp 80 on eth0: A allow and D deny for every address, a allow and d deny for some, N and
// n of policy none.
struct WalkRow {
  const char* name;
  int policy;  // default of eth0
  const char* rules;
  int verdict;
};

void PrintTo(const WalkRow& row, std::ostream* out) { *out << row.policy << " " << row.rules; }

class WholeWalk : public Queries, public testing::WithParamInterface<WalkRow> {};

std::string rulesOf(const std::string& letters) {
  static const std::map<char, std::string> kRules = {
      {'A', R"({"enable": true, "portGroup": 3, "policy": 0, "ipGroup": 5})"},
      {'D', R"({"enable": true, "portGroup": 3, "policy": 1, "ipGroup": 5})"},
      {'N', R"({"enable": true, "portGroup": 3, "policy": 2, "ipGroup": 5})"},
      {'a', R"({"enable": true, "portGroup": 3, "policy": 0, "ipGroup": 0})"},
      {'d', R"({"enable": true, "portGroup": 3, "policy": 1, "ipGroup": 0})"},
      {'n', R"({"enable": true, "portGroup": 3, "policy": 2, "ipGroup": 0})"}};
  std::string text;
  for (const char letter : letters) text += (text.empty() ? "" : ", ") + kRules.at(letter);
  return "[" + text + "]";
}

TEST_P(WholeWalk, Row) {
  const WalkRow& row = GetParam();
  store(R"({"eth0": )" + rulesOf(row.rules) + "}",
        R"({"eth0": )" + std::to_string(row.policy) + "}");
  EXPECT_EQ("eth0=" + std::to_string(row.verdict) + " global=2", verdicts(kTcp80, "eth0"));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, WholeWalk, testing::Values(
  WalkRow{"DefaultAllow", 0, "", 0},
  WalkRow{"DefaultDeny", 1, "", 1},
  WalkRow{"DefaultNone", 2, "", 2},
  WalkRow{"FirstRuleForEverybodyDecides", 1, "AD", 0},
  WalkRow{"SomeAllowedThenNobody", 2, "aD", 3},
  WalkRow{"SomeAllowedThenNobodyByDefault", 1, "a", 3},
  WalkRow{"SomeAllowedThenNobodyOnAnOpenAdapter", 0, "aD", 1},
  WalkRow{"SomeAllowedThenEverybody", 1, "aA", 0},
  WalkRow{"SomeDeniedThenEverybody", 2, "dD", 1},
  WalkRow{"SomeDeniedThenNobody", 0, "dA", 3},
  WalkRow{"SomeDeniedOnAClosedAdapterThenAllowed", 1, "dA", 0},
  WalkRow{"SomeAllowedSomeDenied", 1, "ad", 3},
  WalkRow{"SomeAllowedSomeDeniedEndsTheWalk", 1, "adA", 3},
  WalkRow{"SomeDeniedSomeAllowed", 0, "da", 3},
  WalkRow{"SomeDeniedSomeAllowedEndsTheWalk", 0, "daD", 3},
  WalkRow{"MoreAllowedStaysUndecided", 1, "aaaA", 0},
  WalkRow{"MoreDeniedStaysUndecided", 0, "dddD", 1},
  WalkRow{"NoneForEverybodyEndsTheWalk", 1, "NA", 2},
  WalkRow{"NoneForSomeIsPassedOver", 1, "nA", 0},
  WalkRow{"NoneForSomeEndsAWalkUnderWay", 1, "anA", 3}),
  rowName<WalkRow>);
// clang-format on

TEST_F(Queries, DisabledRulesAreSkipped) {
  store(R"({"eth0": [{"portGroup": 3, "policy": 0, "ipGroup": 5},
                     {"enable": true, "portGroup": 3, "policy": 1, "ipGroup": 5}]})",
        R"({"eth0": 2})");
  EXPECT_EQ("eth0=1 global=2", verdicts(kTcp80, "eth0"));
}

TEST_F(Queries, RulesThatDoNotConcernTheQueryAreSkipped) {
  store(R"({"eth0": [
    {"enable": true, "portGroup": 1, "protocol": 1, "portList": ["22"], "policy": 0, "ipGroup": 5},
    {"enable": true, "portGroup": 1, "protocol": 1, "portList": ["80"], "policy": 1, "ipGroup": 5}]})",
        R"({"eth0": 2})");
  EXPECT_EQ("eth0=1 global=2", verdicts(kTcp80, "eth0"));
}

// --- does a rule concern the query? ---

// A rule for every address on an adapter without a default policy: the verdict is the rule's policy
// when it matches and 2 when not. Deny rules match on any overlap, others on coverage, "others"
// being allow rules and those of an unknown policy.
struct MatchRow {
  const char* name;
  std::string ports;  // members of the rule
  Query query;
  bool allowMatches;
  bool denyMatches;
};

void PrintTo(const MatchRow& row, std::ostream* out) {
  *out << row.ports << " asked for " << row.query.direction << " " << row.query.protocol << " "
       << row.query.port;
}

class Match : public Queries, public testing::WithParamInterface<MatchRow> {
 protected:
  static std::string verdictOf(const MatchRow& row, const std::string& policy) {
    store(R"({"eth0": [{"enable": true, "ipGroup": 5, "policy": )" + policy + ", " + row.ports +
              "}]}",
          R"({"eth0": 2})");
    return verdicts(row.query, "eth0");
  }
};

TEST_P(Match, Row) {
  const MatchRow& row = GetParam();
  EXPECT_EQ(row.allowMatches ? "eth0=0 global=2" : "eth0=2 global=2", verdictOf(row, "0"));
  EXPECT_EQ(row.denyMatches ? "eth0=1 global=2" : "eth0=2 global=2", verdictOf(row, "1"));
  EXPECT_EQ(row.allowMatches ? "eth0=6 global=2" : "eth0=2 global=2", verdictOf(row, "6"));
  EXPECT_EQ("", trace::take());
}

// clang-format off
std::string tcpPorts(const char* list) { return R"("portGroup": 1, "protocol": 1, "portList": )" + std::string(list); }

INSTANTIATE_TEST_SUITE_P(Ranges, Match, testing::Values(
  MatchRow{"SamePort", tcpPorts(R"(["80"])"), {0, kTcp, "80"}, true, true},
  MatchRow{"OtherPort", tcpPorts(R"(["81"])"), {0, kTcp, "80"}, false, false},
  MatchRow{"PortInARange", tcpPorts(R"(["70-90"])"), {0, kTcp, "80"}, true, true},
  MatchRow{"PortAtTheFirst", tcpPorts(R"(["70-90"])"), {0, kTcp, "70"}, true, true},
  MatchRow{"PortAtTheLast", tcpPorts(R"(["70-90"])"), {0, kTcp, "90"}, true, true},
  MatchRow{"PortBelowTheFirst", tcpPorts(R"(["70-90"])"), {0, kTcp, "69"}, false, false},
  MatchRow{"PortAboveTheLast", tcpPorts(R"(["70-90"])"), {0, kTcp, "91"}, false, false},
  MatchRow{"SameRange", tcpPorts(R"(["70-90"])"), {0, kTcp, "70-90"}, true, true},
  MatchRow{"RangeWithin", tcpPorts(R"(["70-90"])"), {0, kTcp, "75-80"}, true, true},
  MatchRow{"RangeOverTheLast", tcpPorts(R"(["70-90"])"), {0, kTcp, "80-100"}, false, true},
  MatchRow{"RangeOverTheFirst", tcpPorts(R"(["70-90"])"), {0, kTcp, "60-80"}, false, true},
  MatchRow{"RangeAround", tcpPorts(R"(["70-90"])"), {0, kTcp, "60-100"}, false, true},
  MatchRow{"RangeTouchingTheLast", tcpPorts(R"(["70-90"])"), {0, kTcp, "90-100"}, false, true},
  MatchRow{"RangeTouchingTheFirst", tcpPorts(R"(["70-90"])"), {0, kTcp, "60-70"}, false, true},
  MatchRow{"RangeBehind", tcpPorts(R"(["70-90"])"), {0, kTcp, "91-100"}, false, false},
  MatchRow{"RangeBefore", tcpPorts(R"(["70-90"])"), {0, kTcp, "60-69"}, false, false},
  MatchRow{"RangeOfOnePort", tcpPorts(R"(["80-80"])"), {0, kTcp, "80"}, true, true},
  MatchRow{"RangeAskedOfOnePort", tcpPorts(R"(["80"])"), {0, kTcp, "80-81"}, false, true},
  MatchRow{"EveryEntryIsTried", tcpPorts(R"(["1", "2-3", "80"])"), {0, kTcp, "80"}, true, true},
  MatchRow{"TwoEntriesDoNotCoverTogether", tcpPorts(R"(["80-84", "85-90"])"), {0, kTcp, "80-90"}, false, true},
  MatchRow{"NoEntry", tcpPorts("[]"), {0, kTcp, "80"}, false, false},
  MatchRow{"AllPortsAsARange", tcpPorts(R"(["0-65535"])"), {0, kTcp, "1-65535"}, true, true},
  MatchRow{"TextIsPortZero", tcpPorts(R"(["http"])"), {0, kTcp, "0"}, true, true},
  MatchRow{"EmptyTextIsPortZero", tcpPorts(R"([""])"), {0, kTcp, ""}, true, true},
  MatchRow{"LeadingZerosAreDecimal", tcpPorts(R"(["0080"])"), {0, kTcp, "80"}, true, true},
  MatchRow{"BlanksAndSignsAsStrtolReadsThem", tcpPorts(R"([" +80 "])"), {0, kTcp, "80"}, true, true},
  MatchRow{"TextAfterTheNumberIsIgnored", tcpPorts(R"(["80x"])"), {0, kTcp, "80"}, true, true},
  MatchRow{"RangeWithoutAFirst", tcpPorts(R"(["-90"])"), {0, kTcp, "80"}, true, true},
  MatchRow{"RangeWithoutALastEndsAtZero", tcpPorts(R"(["70-"])"), {0, kTcp, "80"}, false, false},
  MatchRow{"OnlyTheFirstDashSplits", tcpPorts(R"(["70-80-90"])"), {0, kTcp, "85"}, false, false},
  MatchRow{"ReversedRange", tcpPorts(R"(["90-70"])"), {0, kTcp, "80"}, false, false},
  MatchRow{"PortBeyondTheLargest", tcpPorts(R"(["1-70000"])"), {0, kTcp, "66000"}, true, true},
  MatchRow{"NumberBeyondLong", tcpPorts(R"(["1-99999999999999999999"])"), {0, kTcp, "80"}, true, true}),
  rowName<MatchRow>);

std::string port80(int protocol) { return R"("portGroup": 1, "portList": ["80"], "protocol": )" + std::to_string(protocol); }

INSTANTIATE_TEST_SUITE_P(Protocols, Match, testing::Values(
  MatchRow{"TcpForTcp", port80(kTcp), {0, kTcp, "80"}, true, true},
  MatchRow{"TcpForUdp", port80(kTcp), {0, kUdp, "80"}, false, false},
  MatchRow{"TcpForBoth", port80(kTcp), {0, kBoth, "80"}, false, true},
  MatchRow{"TcpForIcmp", port80(kTcp), {0, kIcmp, "80"}, false, false},
  MatchRow{"TcpForIgmp", port80(kTcp), {0, kIgmp, "80"}, false, false},
  MatchRow{"UdpForTcp", port80(kUdp), {0, kTcp, "80"}, false, false},
  MatchRow{"UdpForUdp", port80(kUdp), {0, kUdp, "80"}, true, true},
  MatchRow{"UdpForBoth", port80(kUdp), {0, kBoth, "80"}, false, true},
  MatchRow{"BothForTcp", port80(kBoth), {0, kTcp, "80"}, true, true},
  MatchRow{"BothForUdp", port80(kBoth), {0, kUdp, "80"}, true, true},
  MatchRow{"BothForBoth", port80(kBoth), {0, kBoth, "80"}, true, true},
  MatchRow{"BothForIcmp", port80(kBoth), {0, kIcmp, "80"}, true, true},
  MatchRow{"BothForIgmp", port80(kBoth), {0, kIgmp, "80"}, true, true},
  MatchRow{"IcmpForTcp", port80(kIcmp), {0, kTcp, "80"}, false, false},
  MatchRow{"IcmpForBoth", port80(kIcmp), {0, kBoth, "80"}, false, true},
  MatchRow{"IcmpForIcmp", port80(kIcmp), {0, kIcmp, "80"}, true, true},
  MatchRow{"IgmpForBoth", port80(kIgmp), {0, kBoth, "80"}, false, true},
  MatchRow{"IgmpForIcmp", port80(kIgmp), {0, kIcmp, "80"}, false, false},
  MatchRow{"UnknownForTcp", port80(7), {0, kTcp, "80"}, false, false},
  MatchRow{"UnknownForBoth", port80(7), {0, kBoth, "80"}, false, true},
  MatchRow{"UnknownForItself", port80(7), {0, 7, "80"}, true, true},
  MatchRow{"BothStillNeedsThePort", port80(kBoth), {0, kBoth, "81"}, false, false}),
  rowName<MatchRow>);

std::string side(int direction) { return R"("portGroup": 1, "protocol": 1, "portList": ["80"], "portDirect": )" + std::to_string(direction); }

INSTANTIATE_TEST_SUITE_P(Directions, Match, testing::Values(
  MatchRow{"DestinationForDestination", side(0), {kDestination, kTcp, "80"}, true, true},
  MatchRow{"DestinationForSource", side(0), {kSource, kTcp, "80"}, false, false},
  MatchRow{"SourceForDestination", side(1), {kDestination, kTcp, "80"}, false, false},
  MatchRow{"SourceForSource", side(1), {kSource, kTcp, "80"}, true, true},
  MatchRow{"OtherNumbersMatchThemselvesOnly", side(2), {kSource, kTcp, "80"}, false, false},
  MatchRow{"OtherNumbersMatchThemselves", side(2), {2, kTcp, "80"}, true, true}),
  rowName<MatchRow>);

INSTANTIATE_TEST_SUITE_P(PortGroups, Match, testing::Values(
  MatchRow{"AllPortsMatchTcp", R"("portGroup": 3)", {0, kTcp, "80"}, true, true},
  MatchRow{"AllPortsMatchBoth", R"("portGroup": 3, "protocol": 1)", {0, kBoth, "1-65535"}, true, true},
  MatchRow{"AllPortsMatchIcmp", R"("portGroup": 3)", {0, kIcmp, ""}, true, true},
  MatchRow{"AllPortsMatchEitherDirection", R"("portGroup": 3, "portDirect": 0)", {kSource, kUdp, "80"}, true, true},
  MatchRow{"AllPortsIgnoreTheList", R"("portGroup": 3, "portList": ["22"])", {0, kTcp, "80"}, true, true},
  MatchRow{"UnknownGroupNeverMatches", R"("portGroup": 4, "protocol": 1, "portList": ["80"])", {0, kTcp, "80"}, false, false},
  MatchRow{"NegativeGroupNeverMatches", R"("portGroup": -1, "protocol": 1, "portList": ["80"])", {0, kTcp, "80"}, false, false}),
  rowName<MatchRow>);

// Rules that name services: the service table is read once.
class ServiceMatch : public Match {};

TEST_P(ServiceMatch, Row) {
  const MatchRow& row = GetParam();
  EXPECT_EQ(row.allowMatches ? "eth0=0 global=2" : "eth0=2 global=2", verdictOf(row, "0"));
  EXPECT_EQ("services enum\nservices free", trace::take());
  EXPECT_EQ(row.denyMatches ? "eth0=1 global=2" : "eth0=2 global=2", verdictOf(row, "1"));
  EXPECT_EQ("services enum\nservices free", trace::take());
}

INSTANTIATE_TEST_SUITE_P(Table, ServiceMatch, testing::Values(
  MatchRow{"ItsPort", R"("portGroup": 0, "portList": ["ssh"])", {0, kTcp, "22"}, true, true},
  MatchRow{"ReservedRulesToo", R"("portGroup": 2, "portList": ["ssh"])", {0, kTcp, "22"}, true, true},
  MatchRow{"OtherPort", R"("portGroup": 0, "portList": ["ssh"])", {0, kTcp, "23"}, false, false},
  MatchRow{"TheServicesProtocolCounts", R"("portGroup": 0, "protocol": 2, "portList": ["ssh"])", {0, kTcp, "22"}, true, true},
  MatchRow{"NotTheRulesProtocol", R"("portGroup": 0, "protocol": 2, "portList": ["ssh"])", {0, kUdp, "22"}, false, false},
  MatchRow{"TheRulesDirectionDoesNotCount", R"("portGroup": 0, "portDirect": 1, "portList": ["ssh"])", {kDestination, kTcp, "22"}, true, true},
  MatchRow{"TcpServiceForBoth", R"("portGroup": 0, "portList": ["ssh"])", {0, kBoth, "22"}, false, true},
  MatchRow{"ServiceOfBothForBoth", R"("portGroup": 0, "portList": ["dns"])", {0, kBoth, "53"}, true, true},
  MatchRow{"ServiceOfBothForUdp", R"("portGroup": 0, "portList": ["dns"])", {0, kUdp, "53"}, true, true},
  MatchRow{"EveryPortOfAService", R"("portGroup": 0, "portList": ["web"])", {0, kTcp, "8005"}, true, true},
  MatchRow{"RangeOverAServicesRange", R"("portGroup": 0, "portList": ["web"])", {0, kTcp, "8005-8011"}, false, true},
  MatchRow{"EveryService", R"("portGroup": 0, "portList": ["ssh", "dns", "ntp"])", {0, kUdp, "123"}, true, true},
  MatchRow{"EveryProtocol", R"("portGroup": 0, "portList": ["dns", "ssh"])", {0, kTcp, "22"}, true, true},
  MatchRow{"DestinationPortsOfAServiceOfBothSides", R"("portGroup": 0, "portList": ["dhcp"])", {kDestination, kUdp, "67"}, true, true},
  MatchRow{"SourcePortsAreNotDestinations", R"("portGroup": 0, "portList": ["dhcp"])", {kDestination, kUdp, "68"}, false, false},
  MatchRow{"SourcePortsOfAServiceOfBothSides", R"("portGroup": 0, "portList": ["dhcp"])", {kSource, kUdp, "68"}, true, true},
  MatchRow{"DestinationPortsAreNotSources", R"("portGroup": 0, "portList": ["dhcp"])", {kSource, kUdp, "67"}, false, false},
  MatchRow{"OtherDirectionsNeverMatch", R"("portGroup": 0, "portList": ["ssh"])", {2, kTcp, "22"}, false, false},
  MatchRow{"UnavailableService", R"("portGroup": 0, "portList": ["old"])", {0, kTcp, "23"}, false, false},
  MatchRow{"UnknownService", R"("portGroup": 0, "portList": ["nosuch"])", {0, kTcp, "22"}, false, false},
  MatchRow{"UnknownServiceAmongOthers", R"("portGroup": 0, "portList": ["nosuch", "ssh"])", {0, kTcp, "22"}, true, true},
  MatchRow{"ServiceWithoutPorts", R"("portGroup": 0, "portList": ["bare", "void"])", {0, kTcp, "0"}, false, false},
  MatchRow{"NoService", R"("portGroup": 0, "portList": [])", {0, kTcp, "22"}, false, false},
  MatchRow{"PortsAreNotServices", R"("portGroup": 0, "protocol": 1, "portList": ["22"])", {0, kTcp, "22"}, false, false}),
  rowName<MatchRow>);
// clang-format on

TEST_F(Queries, ServiceTableIsReadOnceForAllRules) {
  store(R"({"global": [{"enable": true, "ipGroup": 5, "portList": ["ntp"]}],
            "eth0": [{"enable": true, "ipGroup": 5, "portList": ["dns"]},
                     {"enable": true, "ipGroup": 5, "portGroup": 2, "portList": ["ssh"]}]})",
        R"({"eth0": 1})");
  EXPECT_EQ("eth0=0 global=2", verdicts({0, kTcp, "22"}, "eth0"));
  EXPECT_EQ("services enum\nservices free", trace::take());
}

// A service that cannot be looked up: its rule does not match, the next one is asked.
TEST_F(Queries, RulesMatchNothingWithoutTheServiceTable) {
  fake::machine().services.clear();
  store(R"({"eth0": [{"enable": true, "ipGroup": 5, "policy": 0, "portList": ["ssh"]},
                     {"enable": true, "ipGroup": 5, "policy": 0, "portGroup": 2, "portList": ["ssh"]},
                     {"enable": true, "ipGroup": 5, "policy": 1, "portGroup": 3}]})",
        R"({"eth0": 2})");
  EXPECT_EQ("eth0=1 global=2", verdicts({0, kTcp, "22"}, "eth0"));
  EXPECT_EQ(
      "services enum\n"
      "err fwIptables:427 Failed to enum services\n"
      "err tarnFW Failed to servToPorts()\n"
      "services enum\n"
      "err fwIptables:427 Failed to enum services\n"
      "err tarnFW Failed to servToPorts()",
      trace::take());
}

// --- "global" and the adapters ---

struct ProfileRow {
  const char* name;
  const char* rules;
  const char* policies;
  const char* adapter;
  const char* verdicts;
};

void PrintTo(const ProfileRow& row, std::ostream* out) {
  *out << row.rules << " " << row.policies << " asked for \"" << row.adapter << "\"";
}

class Adapters : public Queries, public testing::WithParamInterface<ProfileRow> {
 protected:
  // {"eth0": "aD"} -> rules as a document
  static std::string rulesOfAll(const std::string& text) {
    std::string all;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      const std::size_t colon = word.find(':');
      all += (all.empty() ? "" : ", ") + ("\"" + word.substr(0, colon)) +
             "\": " + rulesOf(word.substr(colon + 1));
    }
    return "{" + all + "}";
  }
};

TEST_P(Adapters, Row) {
  const ProfileRow& row = GetParam();
  store(rulesOfAll(row.rules), row.policies);
  EXPECT_EQ(row.verdicts, verdicts(kTcp80, row.adapter));
  EXPECT_EQ("", trace::take());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(WithoutGlobalRules, Adapters, testing::Values(
  ProfileRow{"NamedTakesItsOwnDefault", "", R"({"eth0": 1, "eth1": 0})", "eth0", "eth0=1 global=2"},
  ProfileRow{"EveryoneTakesTheirDefaults", "", R"({"eth0": 1, "eth1": 0, "vpn": 2})", "", "eth0=1 eth1=0 global=2 vpn=2"},
  ProfileRow{"NamedWithoutDefaultOrRulesIsOpen", "eth1:D", R"({"eth1": 1})", "eth0", "eth0=0 global=2"},
  ProfileRow{"NamedWithRulesButNoDefaultStartsOpen", "eth0:a", "null", "eth0", "eth0=0 global=2"},
  ProfileRow{"NamedWithRulesButNoDefaultIsWalked", "eth0:D", "null", "eth0", "eth0=1 global=2"},
  ProfileRow{"NamedIsWalkedFromItsDefault", "eth0:a", R"({"eth0": 1})", "eth0", "eth0=3 global=2"},
  ProfileRow{"NamedIgnoresTheRulesOfOthers", "eth0:A eth1:D", R"({"eth0": 1, "eth1": 0})", "eth0", "eth0=0 global=2"},
  ProfileRow{"EveryoneIsWalked", "eth0:A eth1:D vpn:a", R"({"eth0": 1, "eth1": 0, "vpn": 1})", "", "eth0=0 eth1=1 global=2 vpn=3"},
  ProfileRow{"AllWithRulesButNoDefaultStartOpen", "eth0:d eth1:a eth2:D", "null", "", "eth0=3 eth1=0 eth2=1 global=2"},
  ProfileRow{"EmptyProfile", "", "null", "", "global=2"},
  ProfileRow{"EmptyProfileForANamedAdapter", "", "null", "eth0", "eth0=0 global=2"},
  ProfileRow{"StoredDefaultsAreCopied", "", R"({"eth0": 7, "eth1": 3})", "", "eth0=7 eth1=3 global=2"},
  ProfileRow{"StoredWorkingStatesLeaveAsPartly", "", R"({"eth0": 4, "eth1": 5, "global": 4})", "", "eth0=3 eth1=3 global=3"},
  ProfileRow{"StoredWorkingStateOfANamedAdapter", "", R"({"eth0": 5})", "eth0", "eth0=3 global=2"},
  ProfileRow{"StoredDefaultOfGlobalIsCopiedForEveryone", "", R"({"eth0": 0, "global": 1})", "", "eth0=0 global=1"},
  ProfileRow{"StoredDefaultOfGlobalIsNotForANamedAdapter", "", R"({"eth0": 0, "global": 1})", "eth0", "eth0=0 global=2"},
  ProfileRow{"NamedGlobal", "", R"({"eth0": 1, "global": 2})", "global", "global=2"},
  ProfileRow{"NamedGlobalTakesItsDefault", "", R"({"global": 1})", "global", "global=1"},
  ProfileRow{"NamedGlobalWithoutDefaultOrRulesIsOpen", "", R"({"eth0": 1})", "global", "global=0"}),
  rowName<ProfileRow>);

INSTANTIATE_TEST_SUITE_P(GlobalDecides, Adapters, testing::Values(
  ProfileRow{"AllowForANamedAdapter", "global:A eth0:D", R"({"eth0": 1, "eth1": 1})", "eth0", "eth0=0 global=0"},
  ProfileRow{"DenyForANamedAdapter", "global:D eth0:A", R"({"eth0": 0})", "eth0", "eth0=1 global=1"},
  ProfileRow{"PartlyForANamedAdapter", "global:ad eth0:A", R"({"eth0": 0})", "eth0", "eth0=3 global=3"},
  ProfileRow{"ForAnUnknownAdapter", "global:D", R"({"eth0": 0})", "eth9", "eth9=1 global=1"},
  ProfileRow{"ForEveryAdapterWithADefault", "global:D eth0:A eth1:A", R"({"eth0": 0, "vpn": 2})", "", "eth0=1 global=1 vpn=1"},
  ProfileRow{"AllowForEveryone", "global:A eth0:D", R"({"eth0": 1, "global": 2})", "", "eth0=0 global=0"},
  ProfileRow{"PartlyForEveryone", "global:da", R"({"eth0": 1, "eth1": 0})", "", "eth0=3 eth1=3 global=3"},
  ProfileRow{"NamedGlobalAllows", "global:A", R"({"global": 2})", "global", "global=0"},
  ProfileRow{"WithoutAMatchItsStoredDefaultDecides", "global:n eth0:A", R"({"eth0": 0, "global": 1})", "", "eth0=1 global=1"}),
  rowName<ProfileRow>);

INSTANTIATE_TEST_SUITE_P(GlobalLeavesItOpen, Adapters, testing::Values(
  ProfileRow{"SomeAllowedThenTheAdaptersDefault", "global:a", R"({"eth0": 1})", "eth0", "eth0=1 global=3"},
  ProfileRow{"SomeDeniedThenTheAdaptersDefault", "global:d", R"({"eth0": 0})", "eth0", "eth0=0 global=3"},
  ProfileRow{"SomeAllowedThenTheAdaptersRules", "global:a eth0:D", R"({"eth0": 0})", "eth0", "eth0=1 global=3"},
  ProfileRow{"SomeAllowedNobodyElseIsNotFinal", "global:aD eth0:A", R"({"eth0": 1})", "eth0", "eth0=0 global=3"},
  ProfileRow{"SomeDeniedEverybodyElseIsNotFinal", "global:dA eth0:D", R"({"eth0": 0})", "eth0", "eth0=1 global=3"},
  ProfileRow{"NoneIsNotFinal", "global:N eth0:D", R"({"eth0": 0})", "eth0", "eth0=1 global=2"},
  ProfileRow{"SomeAllowedForAnUnknownAdapter", "global:a", R"({"eth0": 1})", "eth9", "eth9=0 global=3"},
  ProfileRow{"SomeDeniedForAnUnknownAdapter", "global:d", R"({"eth0": 1})", "eth9", "eth9=0 global=3"},
  ProfileRow{"SomeDeniedForEveryone", "global:d eth0:A", R"({"eth0": 1, "eth1": 1})", "", "eth0=0 eth1=1 global=3"},
  ProfileRow{"NamedGlobalIsWalkedOnceMore", "global:a", R"({"global": 2})", "global", "global=3"},
  ProfileRow{"NamedGlobalWithoutADefaultIsWalkedOnceMoreFromOpen", "global:a", "null", "global", "global=0"},
  ProfileRow{"NamedGlobalWithoutADefaultIsWalkedOnceMoreToDenied", "global:d", "null", "global", "global=3"},
  // A second walk from 4 or 5: a verdict of 5 or 4 in between would end as 1 or 0.
  ProfileRow{"SecondWalkFromSomeAllowed", "global:D", R"({"global": 4})", "", "global=3"},
  ProfileRow{"SecondWalkFromSomeDenied", "global:A", R"({"global": 5})", "", "global=3"},
  ProfileRow{"SecondWalkOfSomeAllowedNobodyElse", "global:aD", R"({"global": 2})", "", "global=3"},
  ProfileRow{"SecondWalkOfSomeDeniedEverybodyElse", "global:dA", R"({"global": 2})", "", "global=3"}),
  rowName<ProfileRow>);
// clang-format on

// A service rule that cannot be resolved says how often it was walked.
TEST_F(Queries, GlobalRulesAreAppliedTwiceForEveryone) {
  fake::machine().services.clear();
  store(R"({"global": [{"enable": true, "portList": ["ssh"]}]})", R"({"global": 2})");
  EXPECT_EQ("global=2", verdicts({0, kTcp, "22"}, ""));
  EXPECT_EQ(
      "services enum\n"
      "err fwIptables:427 Failed to enum services\n"
      "err tarnFW Failed to servToPorts()\n"
      "services enum\n"
      "err fwIptables:427 Failed to enum services\n"
      "err tarnFW Failed to servToPorts()",
      trace::take());
}

TEST_F(Queries, GlobalRulesAreAppliedOnceForANamedAdapter) {
  fake::machine().services.clear();
  store(R"({"global": [{"enable": true, "portList": ["ssh"]}]})", R"({"eth0": 1})");
  EXPECT_EQ("eth0=1 global=2", verdicts({0, kTcp, "22"}, "eth0"));
  EXPECT_EQ(
      "services enum\n"
      "err fwIptables:427 Failed to enum services\n"
      "err tarnFW Failed to servToPorts()",
      trace::take());
}

// --- the caller's map, the settings, failures ---

struct PortRow {
  const char* name;
  const char* settings;
  void (*deviate)();
  const char* adapter;
  const char* before;  // the caller's map
  bool result;
  const char* verdicts;
  std::string trace;
};

void PrintTo(const PortRow& row, std::ostream* out) { *out << row.name; }

class Port : public Queries, public testing::WithParamInterface<PortRow> {};

TEST_P(Port, Row) {
  const PortRow& row = GetParam();
  store("null", R"({"eth0": 1, "eth1": 0})");
  files::writeSettings(row.settings);
  row.deviate();
  AdapterPolicyMap verdicts = asVerdicts(row.before);
  EXPECT_EQ(row.result, TARNFW().fwPortIsBlocked(record(kTcp80), row.adapter, verdicts));
  EXPECT_EQ(row.verdicts, asText(verdicts));
  EXPECT_EQ(row.trace, trace::take());
}

void nothing() {}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Map, Port, testing::Values(
  PortRow{"EntriesOfTheCallerStay", kOn, nothing, "eth0", "eth9=1 other=0", true, "eth0=1 eth9=1 global=2 other=0", ""},
  PortRow{"EntriesOfTheCallerAreReplaced", kOn, nothing, "eth0", "eth0=0 global=1", true, "eth0=1 global=2", ""},
  PortRow{"EntriesOfTheCallerStayThoughGlobalDecides", kOn, [] { files::writeProfile("1", "home", R"({"global": [{"enable": true, "portGroup": 3, "ipGroup": 5, "policy": 1}]})", R"({"eth0": 0})"); }, "", "eth9=0", true, "eth0=1 eth9=0 global=1", ""},
  PortRow{"WorkingStatesOfTheCallerTurnIntoPartly", kOn, nothing, "eth0", "eth8=4 eth9=5", true, "eth0=1 eth8=3 eth9=3 global=2", ""}),
  rowName<PortRow>);

INSTANTIATE_TEST_SUITE_P(SwitchedOff, Port, testing::Values(
  PortRow{"NamedAdapterIsOpen", kOff, nothing, "eth0", "", true, "eth0=0", ""},
  PortRow{"UnknownAdapterIsOpen", kOff, nothing, "eth9", "", true, "eth9=0", ""},
  PortRow{"EveryAdapterIsNone", kOff, nothing, "", "", true, "", ""},
  PortRow{"EntriesOfTheCallerStay", kOff, nothing, "", "eth0=1", true, "eth0=1", ""},
  PortRow{"EntryOfTheNamedAdapterIsReplaced", kOff, nothing, "eth0", "eth0=1 eth1=1", true, "eth0=0 eth1=1", ""},
  PortRow{"NoStatusIsOff", R"({"profile": "home"})", nothing, "eth0", "", true, "eth0=0", ""},
  PortRow{"NoSettingsIsOff", "", [] { std::filesystem::remove(files::kSettingsFile); }, "eth0", "", true, "eth0=0", ""},
  PortRow{"TheProfileIsNotAsked", R"({"profile": "gone", "status": false})", nothing, "eth0", "", true, "eth0=0", ""}),
  rowName<PortRow>);

INSTANTIATE_TEST_SUITE_P(Failures, Port, testing::Values(
  PortRow{"SettingsDoNotParse", "{", nothing, "eth0", "eth0=1", false, "eth0=1",
    "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json\n"
    "err tarnFW Falied to configGet()\n"
    "err tarnFW Failed to check firewall status"},
  PortRow{"NoActiveProfile", R"({"status": true})", nothing, "eth0", "eth0=1", false, "eth0=1",
    "err tarnFW There are no key: profile in config\n"
    "err tarnFW Failed to fwProfileConfigGet()"},
  PortRow{"ActiveProfileIsNotThere", R"({"profile": "gone", "status": true})", nothing, "eth0", "eth0=1", false, "eth0=1",
    "err fwDB Failed to profileGet gone due to not exist\n"
    "err tarnFW Failed to profileGet(gone)"},
  PortRow{"ActiveProfileDoesNotParse", kOn, [] { files::write("/usr/tarn/etc/firewall.d/1.json", "{\"name\""); }, "", "", false, "",
    "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/1.json\n"
    "err fwDB Failed to load json from /usr/tarn/etc/firewall.d/1.json\n"
    "err fwDB Failed to profileGet home due to not exist\n"
    "err tarnFW Failed to profileGet(home)"}),
  rowName<PortRow>);
// clang-format on

TEST_F(Queries, ProfileThatVanishesWhileItIsReadIsAFailure) {
  store("null", R"({"eth0": 1})");
  const scans::FailAfter vanish(1);
  AdapterPolicyMap result;
  EXPECT_FALSE(TARNFW().fwPortIsBlocked(record(kTcp80), "eth0", result));
  EXPECT_EQ("", asText(result));
  EXPECT_EQ(
      "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
      "err fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\n"
      "err utils File  does not exist\n"
      "err fwDB Failed to profileDbLoad()\n"
      "err tarnFW Failed to profileGet(home)",
      trace::take());
}

// Documents of the wrong shape are the JSON library's exceptions.
TEST_F(Queries, SettingsOfTheWrongShapeThrow) {
  store("null", "null");
  files::writeSettings(R"({"status": "yes", "profile": "home"})");
  AdapterPolicyMap result;
  EXPECT_THROW((void)TARNFW().fwPortIsBlocked(record(kTcp80), "eth0", result), Json::LogicError);
  EXPECT_EQ("", asText(result));
}

TEST_F(Queries, ProfileOfTheWrongShapeThrows) {
  store(R"({"eth0": [{"portList": [[]]}]})", "null");
  AdapterPolicyMap result;
  EXPECT_THROW((void)TARNFW().fwPortIsBlocked(record(kTcp80), "eth0", result), Json::LogicError);
  EXPECT_EQ("", asText(result));
}

TEST_F(Queries, WorkingStatesDoNotLeaveWithAnException) {
  // Some addresses are let in; at the second rule memory runs out.
  store(R"({"eth0": [
      {"enable": true, "ipGroup": 0, "portGroup": 3, "policy": 0},
      {"enable": true, "ipGroup": 0, "portGroup": 0, "portList": ["ssh"], "policy": 0}]})",
        R"({"eth0": 2})");
  fake::machine().meanwhile = [](const std::string& request) {
    if (request == "services enum") throw std::bad_alloc();
  };
  AdapterPolicyMap result;
  EXPECT_THROW((void)TARNFW().fwPortIsBlocked(record(kTcp80), "eth0", result), std::bad_alloc);
  EXPECT_EQ("eth0=3 global=2", asText(result));
  EXPECT_EQ("services enum", trace::take());
}

// --- services ---

// Two ports of one service get the verdicts that the adapter's rules give them.
struct MergeRow {
  const char* name;
  int first;
  int second;
  int merged;
  const char* service = "two";  // tcp 1 and 2; "both": tcp 1 and udp 2
};

void PrintTo(const MergeRow& row, std::ostream* out) { *out << row.first << " " << row.second; }

class Merge : public Queries, public testing::WithParamInterface<MergeRow> {};

TEST_P(Merge, Row) {
  const MergeRow& row = GetParam();
  const bool both = row.service == std::string("both");
  const auto rule = [both](int policy, const char* port) {
    return R"({"enable": true, "ipGroup": 5, "portGroup": 1, "portDirect": )" +
           std::string(both && *port == '2' ? "1" : "0") + R"(, "protocol": )" +
           (both && *port == '2' ? "2" : "1") + R"(, "portList": [")" + port + R"("], "policy": )" +
           std::to_string(policy) + "}";
  };
  store(R"({"eth0": [)" + rule(row.first, "1") + ", " + rule(row.second, "2") + "]}",
        R"({"eth0": 2})");
  AdapterPolicyMap result;
  EXPECT_TRUE(TARNFW().fwServIsBlocked(row.service, "eth0", result));
  EXPECT_EQ("eth0=" + std::to_string(row.merged) + " global=2", asText(result));
  EXPECT_EQ("services enum\nservices free", trace::take());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Merge, testing::Values(
  MergeRow{"V0And0", 0, 0, 0}, MergeRow{"V0And1", 0, 1, 1}, MergeRow{"V0And2", 0, 2, 0}, MergeRow{"V0And3", 0, 3, 3}, MergeRow{"V0And6", 0, 6, 0},
  MergeRow{"V1And0", 1, 0, 1}, MergeRow{"V1And1", 1, 1, 1}, MergeRow{"V1And2", 1, 2, 1}, MergeRow{"V1And3", 1, 3, 1}, MergeRow{"V1And6", 1, 6, 1},
  MergeRow{"V2And0", 2, 0, 0}, MergeRow{"V2And1", 2, 1, 1}, MergeRow{"V2And2", 2, 2, 2}, MergeRow{"V2And3", 2, 3, 3}, MergeRow{"V2And6", 2, 6, 2},
  MergeRow{"V3And0", 3, 0, 3}, MergeRow{"V3And1", 3, 1, 1}, MergeRow{"V3And2", 3, 2, 3}, MergeRow{"V3And3", 3, 3, 3}, MergeRow{"V3And6", 3, 6, 3},
  MergeRow{"V6And0", 6, 0, 0}, MergeRow{"V6And1", 6, 1, 1}, MergeRow{"V6And2", 6, 2, 6}, MergeRow{"V6And3", 6, 3, 3}, MergeRow{"V6And7", 6, 7, 6},
  MergeRow{"WorkingStatesMergeAsPartly", 0, 4, 3}, MergeRow{"WorkingStateAndDeny", 5, 1, 1},
  MergeRow{"TcpAllowedAndUdpBlocked", 0, 1, 1, "both"}, MergeRow{"TcpBlockedAndUdpAllowed", 1, 0, 1, "both"}, MergeRow{"TcpAndUdpAllowed", 0, 0, 0, "both"}),
  rowName<MergeRow>);
// clang-format on

struct ServiceRow {
  const char* name;
  const char* service;
  const char* rules;
  const char* policies;
  const char* adapter;
  void (*deviate)();
  const char* before;  // the caller's map
  bool result;
  const char* verdicts;
  std::string trace;
};

void PrintTo(const ServiceRow& row, std::ostream* out) { *out << row.name; }

class Service : public Queries, public testing::WithParamInterface<ServiceRow> {};

TEST_P(Service, Row) {
  const ServiceRow& row = GetParam();
  store(row.rules, row.policies);
  row.deviate();
  AdapterPolicyMap verdicts = asVerdicts(row.before);
  EXPECT_EQ(row.result, TARNFW().fwServIsBlocked(row.service, row.adapter, verdicts));
  EXPECT_EQ(row.verdicts, asText(verdicts));
  EXPECT_EQ(row.trace, trace::take());
}

constexpr char kTableRead[] = "services enum\nservices free";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, Service, testing::Values(
  ServiceRow{"TakesTheDefaults", "ssh", "null", R"({"eth0": 1, "eth1": 0})", "", nothing, "", true, "eth0=1 eth1=0 global=2", kTableRead},
  ServiceRow{"TcpService", "ssh", R"({"eth0": [{"enable": true, "ipGroup": 5, "portGroup": 1, "protocol": 1, "portList": ["22"]}]})", R"({"eth0": 1})", "eth0", nothing, "", true, "eth0=0 global=2", kTableRead},
  ServiceRow{"ServiceOfBothAsksForBoth", "dns", R"({"eth0": [{"enable": true, "ipGroup": 5, "portGroup": 1, "protocol": 1, "portList": ["53"]}]})", R"({"eth0": 1})", "eth0", nothing, "", true, "eth0=1 global=2", kTableRead},
  ServiceRow{"AllowedByItsName", "web", R"({"eth0": [{"enable": true, "ipGroup": 5, "portGroup": 0, "portList": ["web"]}]})", R"({"eth0": 1})", "eth0", nothing, "", true, "eth0=0 global=2", "services enum\nservices free\nservices enum\nservices free\nservices enum\nservices free"},
  ServiceRow{"OneOfItsPortsIsBlocked", "web", R"({"eth0": [{"enable": true, "ipGroup": 5, "policy": 1, "portGroup": 1, "protocol": 1, "portList": ["8003"]}]})", R"({"eth0": 0})", "eth0", nothing, "", true, "eth0=1 global=2", kTableRead},
  ServiceRow{"OneOfItsPortsIsPartlyBlocked", "web", R"({"eth0": [{"enable": true, "ipGroup": 0, "policy": 1, "portGroup": 1, "protocol": 1, "portList": ["80"]}]})", R"({"eth0": 0})", "eth0", nothing, "", true, "eth0=3 global=2", kTableRead},
  ServiceRow{"SourcePortsCount", "dhcp", R"({"eth0": [{"enable": true, "ipGroup": 5, "policy": 1, "portGroup": 1, "protocol": 2, "portDirect": 1, "portList": ["68"]}]})", R"({"eth0": 0})", "eth0", nothing, "", true, "eth0=1 global=2", kTableRead},
  ServiceRow{"DestinationPortsCount", "dhcp", R"({"eth0": [{"enable": true, "ipGroup": 5, "policy": 1, "portGroup": 1, "protocol": 2, "portDirect": 0, "portList": ["67"]}]})", R"({"eth0": 0})", "eth0", nothing, "", true, "eth0=1 global=2", kTableRead},
  ServiceRow{"SourcePortsAreNotAskedAsDestinations", "dhcp", R"({"eth0": [{"enable": true, "ipGroup": 5, "policy": 1, "portGroup": 1, "protocol": 2, "portDirect": 0, "portList": ["68"]}]})", R"({"eth0": 0})", "eth0", nothing, "", true, "eth0=0 global=2", kTableRead},
  ServiceRow{"SourcePortsComeFirst", "sides", R"({"eth0": [{"enable": true, "ipGroup": 5, "policy": 6, "portGroup": 1, "protocol": 1, "portDirect": 1, "portList": ["1"]}, {"enable": true, "ipGroup": 5, "policy": 7, "portGroup": 1, "protocol": 1, "portList": ["2"]}]})", R"({"eth0": 2})", "eth0", nothing, "", true, "eth0=6 global=2", kTableRead},
  ServiceRow{"SourcePortsComeFirstWhateverTheProtocol", "mixed", R"({"eth0": [{"enable": true, "ipGroup": 5, "policy": 6, "portGroup": 1, "protocol": 2, "portDirect": 1, "portList": ["1"]}, {"enable": true, "ipGroup": 5, "policy": 7, "portGroup": 1, "protocol": 1, "portList": ["2"]}]})", R"({"eth0": 2})", "eth0", nothing, "", true, "eth0=6 global=2", kTableRead},
  ServiceRow{"AdaptersOfASinglePortAreTaken", "two", R"({"eth5": [{"enable": true, "ipGroup": 5, "policy": 1, "portGroup": 1, "protocol": 1, "portList": ["2"]}]})", R"({"eth0": 0})", "", nothing, "", true, "eth0=0 eth5=1 global=2", kTableRead},
  ServiceRow{"UnknownServiceHasNoPorts", "nosuch", "null", R"({"eth0": 1})", "eth0", nothing, "eth9=1", true, "eth9=1", kTableRead},
  ServiceRow{"UnavailableServiceHasNoPorts", "old", "null", R"({"eth0": 1})", "eth0", nothing, "", true, "", kTableRead},
  ServiceRow{"ServiceWithoutPorts", "bare", "null", R"({"eth0": 1})", "eth0", nothing, "", true, "", kTableRead},
  ServiceRow{"EmptyName", "", "null", R"({"eth0": 1})", "eth0", nothing, "", true, "", kTableRead},
  ServiceRow{"WithoutPortsTheSettingsAreNotAsked", "bare", "null", "null", "eth0", [] { files::writeSettings("{"); }, "", true, "", kTableRead},
  ServiceRow{"EntriesOfTheCallerAreMerged", "ssh", "null", R"({"eth0": 0, "eth1": 1, "eth2": 0})", "", nothing, "eth0=1 eth1=0 eth9=0", true, "eth0=1 eth1=1 eth2=0 eth9=0 global=2", kTableRead},
  ServiceRow{"SwitchedOffForANamedAdapter", "web", "null", R"({"eth0": 1})", "eth0", [] { files::writeSettings(kOff); }, "", true, "eth0=0", kTableRead},
  ServiceRow{"SwitchedOffForEveryAdapter", "web", "null", R"({"eth0": 1})", "", [] { files::writeSettings(kOff); }, "", true, "", kTableRead}),
  rowName<ServiceRow>);

INSTANTIATE_TEST_SUITE_P(Failures, Service, testing::Values(
  ServiceRow{"NoServiceTable", "ssh", "null", R"({"eth0": 1})", "eth0", [] { fake::machine().services.clear(); }, "eth0=0", false, "eth0=0",
    "services enum\n"
    "err fwIptables:427 Failed to enum services\n"
    "err tarnFW Failed to servToPorts()"},
  ServiceRow{"FirstPort", "two", "null", R"({"eth0": 1})", "eth0", [] { files::writeSettings("{"); }, "", false, "",
    "services enum\n"
    "services free\n"
    "err utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json\n"
    "err tarnFW Falied to configGet()\n"
    "err tarnFW Failed to check firewall status\n"
    "err tarnFW Failed to fwPortIsBlocked()"}),
  rowName<ServiceRow>);
// clang-format on

// Two scans of the profile directory to a port: the third is the second port's.
TEST_F(Queries, FailureAtTheSecondPortKeepsTheFirst) {
  store("null", R"({"eth0": 1})");
  const scans::FailAfter second(2);
  AdapterPolicyMap result;
  EXPECT_FALSE(TARNFW().fwServIsBlocked("two", "eth0", result));
  EXPECT_EQ("eth0=1 global=2", asText(result));
  EXPECT_EQ(
      "services enum\n"
      "services free\n"
      "err fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
      "err fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\n"
      "err fwDB Failed to profileGet home due to not exist\n"
      "err tarnFW Failed to profileGet(home)\n"
      "err tarnFW Failed to fwPortIsBlocked()",
      trace::take());
}

}  // namespace
