// The database of services.

#include "services.h"

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platformTest.h"

namespace {

namespace fs = std::filesystem;

constexpr char kDatabase[] = "/usr/tarn/etc.defaults/firewall_services.json";
constexpr char kDropIns[] = "/usr/tarn/etc/firewall_services.d";
constexpr char kSsh[] = R"({"ssh": {"destination": {"protocol": "tcp", "ports": ["22"]}}})";

class Services : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    fs::create_directories("/usr/tarn/etc.defaults");
    fs::remove_all(kDatabase);
    fs::remove_all(kDropIns);
    fs::create_directories(kDropIns);
  }
  void TearDown() override {
    fs::remove_all(kDropIns);
    PlatformTest::TearDown();
  }
};

struct FreeServices {
  void operator()(TARNFW_SERVICE_LIST* list) const { TARNFwServiceFree(list); }
};
using List = std::unique_ptr<TARNFW_SERVICE_LIST, FreeServices>;

// The database, or null when it cannot be read; a failure leaves the caller's handle alone.
List load(int* result) {
  auto* const untouched = reinterpret_cast<TARNFW_SERVICE_LIST*>(&result);
  TARNFW_SERVICE_LIST* list = untouched;
  *result = TARNFwServiceEnum(&list);
  if (*result > 0) return List(list);
  EXPECT_EQ(untouched, list);
  return nullptr;
}

std::string ports(const TLIBCSZLIST* list) {
  if (list == nullptr) return "none";
  std::string all;
  for (int i = 0; i < list->count; ++i) {
    all += (i == 0 ? "" : ",") + std::string(TLIBCSzListGet(list, i));
  }
  return all;
}

// "available 1, protocol 1, source 0 none, destination 1 22".
std::string record(const TARNFW_SERVICE_LIST* list, const char* name) {
  const TARNFW_SERVICE* service = TARNFWServiceFind(list, name);
  if (service == nullptr) return "no record";
  EXPECT_STREQ(name, service->name);
  return "available " + std::to_string(service->available) + ", protocol " +
         std::to_string(service->protocol) + ", source " + std::to_string(service->srcProtocol) +
         " " + ports(service->srcPorts) + ", destination " + std::to_string(service->dstProtocol) +
         " " + ports(service->dstPorts);
}

// --- records ---

struct RecordRow {
  const char* name;
  const char* entry;
  std::string record;
};

void PrintTo(const RecordRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<RecordRow> kRecordRows = {
    {"Tcp", R"({"title": "T", "available": true, "destination": {"protocol": "tcp", "ports": ["22"]}})", "available 1, protocol 1, source 0 none, destination 1 22"},
    {"Udp", R"({"destination": {"protocol": "udp", "ports": ["53"]}})", "available 1, protocol 2, source 0 none, destination 2 53"},
    {"Both", R"({"destination": {"protocol": "both", "ports": ["53", "5353"]}})", "available 1, protocol 3, source 0 none, destination 3 53,5353"},
    {"Icmp", R"({"destination": {"protocol": "icmp"}})", "available 1, protocol 4, source 0 none, destination 4 0"},
    {"IcmpWithEmptyPorts", R"({"destination": {"protocol": "icmp", "ports": []}})", "available 1, protocol 4, source 0 none, destination 4 0"},
    {"Igmp", R"({"destination": {"protocol": "igmp"}})", "available 1, protocol 32, source 0 none, destination 32 0"},
    {"Range", R"({"destination": {"protocol": "tcp", "ports": ["6881-6889", "0", "65535", "0-65535", "7-7"]}})", "available 1, protocol 1, source 0 none, destination 1 6881-6889,0,65535,0-65535,7-7"},
    {"Source", R"({"source": {"protocol": "udp", "ports": ["68"]}})", "available 1, protocol 2, source 2 68, destination 0 none"},
    {"DestinationsProtocolIsTheRecords", R"({"source": {"protocol": "udp", "ports": ["68"]}, "destination": {"protocol": "tcp", "ports": ["67"]}})", "available 1, protocol 1, source 2 68, destination 1 67"},
    {"NotAvailable", R"({"available": false, "destination": {"protocol": "tcp", "ports": ["22"]}})", "available 0, protocol 1, source 0 none, destination 1 22"},
    {"NoPortsAtAll", R"({})", "available 1, protocol 0, source 0 none, destination 0 none"},
};
// clang-format on

class Record : public Services, public testing::WithParamInterface<RecordRow> {};

TEST_P(Record, HoldsWhatTheEntrySays) {
  files::write(kDatabase, std::string("{\"name\": ") + GetParam().entry + "}");
  int result = 0;
  const List list = load(&result);
  EXPECT_EQ(1, result);
  EXPECT_EQ(GetParam().record, record(list.get(), "name"));
}

INSTANTIATE_TEST_SUITE_P(Services, Record, testing::ValuesIn(kRecordRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- broken tables ---

struct BrokenRow {
  const char* name;
  std::string text;
  int result;
  std::string log;  // how it begins: the words of the JSON library are its own
};

std::string beginning(const std::string& text, const std::string& expected) {
  return text.substr(0, expected.size());
}

void PrintTo(const BrokenRow& row, std::ostream* out) { *out << row.name; }

const std::string kFile = std::string("err tarnPlatform ") + kDatabase;

std::string entry(const std::string& text) { return "{\"ssh\": " + text + "}"; }
std::string destination(const std::string& text) {
  return entry("{\"destination\": " + text + "}");
}
std::string port(const std::string& text) {
  return destination("{\"protocol\": \"tcp\", \"ports\": [" + text + "]}");
}
std::string said(const std::string& what) { return kFile + ": service \"ssh\"" + what; }
std::string badPort(const std::string& text) {
  return said(", member \"destination\": a port is \"22\" or \"6881-6889\", 0 to 65535, not " +
              text);
}

// clang-format off
const std::vector<BrokenRow> kBrokenRows = {
    {"EmptyFile", "", -1, kFile + " is not valid JSON: * Line 1, Column "},
    {"CutInTheMiddle", R"({"ssh": {"destination": {"prot)", -1, kFile + " is not valid JSON: * Line 1, Column "},
    {"TextBehindTheEnd", R"({"ssh": {}} x)", -1, kFile + " is not valid JSON: * Line 1, Column "},
    {"NameTwice", R"({"ssh": {}, "ssh": {}})", -1, kFile + " is not valid JSON: * Line 1, Column "},
    {"NoObject", R"(["ssh"])", -1, kFile + " must hold an object of services"},
    {"Null", "null", -1, kFile + " must hold an object of services"},
    {"NoService", "{}", 0, kFile + " names no service"},
    {"EntryIsNoObject", entry("\"22\""), -1, said(": must be an object, not \"22\"")},
    {"EntryIsNull", entry("null"), -1, said(": must be an object, not null")},
    {"UnknownMember", entry(R"({"avaliable": false})"), -1, said(", member \"avaliable\": is not known")},
    {"AvailableIsNoBoolean", entry(R"({"available": "no"})"), -1, said(", member \"available\": must be true or false, not \"no\"")},
    {"AvailableIsANumber", entry(R"({"available": 0})"), -1, said(", member \"available\": must be true or false, not 0")},
    {"TitleIsNoText", entry(R"({"title": 5})"), -1, said(", member \"title\": must be a text, not 5")},
    {"DestinationIsNoObject", destination("[]"), -1, said(", member \"destination\": must be an object, not []")},
    {"SourceIsNoObject", entry(R"({"source": true})"), -1, said(", member \"source\": must be an object, not true")},
    {"UnknownMemberOfDestination", destination(R"({"protocol": "tcp", "port": ["22"]})"), -1, said(", member \"destination\": unknown member \"port\"")},
    {"NoProtocol", destination(R"({"ports": ["22"]})"), -1, said(", member \"destination\": \"protocol\" is tcp, udp, both, icmp or igmp, not null")},
    {"UnknownProtocol", destination(R"({"protocol": "sctp", "ports": ["22"]})"), -1, said(", member \"destination\": \"protocol\" is tcp, udp, both, icmp or igmp, not \"sctp\"")},
    {"ProtocolInCapitals", destination(R"({"protocol": "TCP", "ports": ["22"]})"), -1, said(", member \"destination\": \"protocol\" is tcp, udp, both, icmp or igmp, not \"TCP\"")},
    {"ProtocolIsANumber", destination(R"({"protocol": 6, "ports": ["22"]})"), -1, said(", member \"destination\": \"protocol\" is tcp, udp, both, icmp or igmp, not 6")},
    {"NoPorts", destination(R"({"protocol": "tcp"})"), -1, said(", member \"destination\": \"ports\" must be a list of ports, not null")},
    {"EmptyPorts", port(""), -1, said(", member \"destination\": \"ports\" must be a list of ports, not []")},
    {"PortsAreNoList", destination(R"({"protocol": "tcp", "ports": "22"})"), -1, said(", member \"destination\": \"ports\" must be a list of ports, not \"22\"")},
    {"PortsOfIcmp", destination(R"({"protocol": "icmp", "ports": ["8"]})"), -1, said(", member \"destination\": a service of this protocol has no ports, not [\"8\"]")},
    {"PortIsANumber", port("22"), -1, badPort("22")},
    {"PortTooHigh", port("\"65536\""), -1, badPort("\"65536\"")},
    {"PortOfManyDigits", port("\"4294967318\""), -1, badPort("\"4294967318\"")},
    {"PortIsEmpty", port("\"\""), -1, badPort("\"\"")},
    {"PortIsAName", port("\"ssh\""), -1, badPort("\"ssh\"")},
    {"PortWithBlank", port("\"22 \""), -1, badPort("\"22 \"")},
    {"PortWithLeadingZero", port("\"022\""), -1, badPort("\"022\"")},
    {"NegativePort", port("\"-22\""), -1, badPort("\"-22\"")},
    {"RangeWithoutEnd", port("\"22-\""), -1, badPort("\"22-\"")},
    {"RangeBackwards", port("\"23-22\""), -1, badPort("\"23-22\"")},
    {"RangeOfThree", port("\"1-2-3\""), -1, badPort("\"1-2-3\"")},
    {"RangeWithColon", port("\"1:2\""), -1, badPort("\"1:2\"")},
    {"SecondPortIsBad", port("\"22\", \"x\""), -1, badPort("\"x\"")},
    {"EmptyName", R"({"": {}})", -1, kFile + ": service \"\": a name has no comma and no control character and is not empty"},
    {"NameWithComma", R"({"a,b": {}})", -1, kFile + ": service \"a,b\": a name has no comma and no control character and is not empty"},
    {"TooDeep", std::string(2000, '['), -1, "err tarnPlatform The service database cannot be read: "},
};
// clang-format on

class Broken : public Services, public testing::WithParamInterface<BrokenRow> {};

TEST_P(Broken, TableIsRefused) {
  files::write(kDatabase, GetParam().text);
  int result = 7;
  EXPECT_EQ(nullptr, load(&result));
  EXPECT_EQ(GetParam().result, result);
  const std::string log = trace::take();
  EXPECT_EQ(GetParam().log, beginning(log, GetParam().log));
  EXPECT_EQ(std::string::npos, log.find('\n')) << "one line is enough";
}

INSTANTIATE_TEST_SUITE_P(Services, Broken, testing::ValuesIn(kBrokenRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Services, TableCutAtAnyPlaceIsRefused) {
  const std::string whole = kSsh;
  for (size_t length = 0; length < whole.size(); ++length) {
    SCOPED_TRACE(length);
    files::write(kDatabase, whole.substr(0, length));
    int result = 7;
    EXPECT_EQ(nullptr, load(&result));
    EXPECT_EQ(-1, result);
  }
  (void)trace::take();
}

TEST_F(Services, AbsentTableIsRefused) {
  int result = 7;
  EXPECT_EQ(nullptr, load(&result));
  EXPECT_EQ(-1, result);
  EXPECT_EQ(kFile + " cannot be read: No such file or directory", trace::take());
}

TEST_F(Services, FifoIsRefusedAtOnce) {
  EXPECT_EQ(0, mkfifo(kDatabase, 0600));
  int result = 7;
  EXPECT_EQ(nullptr, load(&result));
  EXPECT_EQ(kFile + " cannot be read: Invalid argument", trace::take());
}

// --- drop-ins ---

struct DropInRow {
  const char* name;
  std::vector<std::pair<std::string, std::string>> dropIns;  // name, text
  int result;
  std::string ssh;
  std::string extra;
  std::string log;
};

void PrintTo(const DropInRow& row, std::ostream* out) { *out << row.name; }

const std::string kPort22 = "available 1, protocol 1, source 0 none, destination 1 22";
const std::string kPort23 = "available 1, protocol 1, source 0 none, destination 1 23";
const std::string kUdp24 = "available 1, protocol 2, source 0 none, destination 2 24";
const std::string kTwentyThree =
    R"({"ssh": {"destination": {"protocol": "tcp", "ports": ["23"]}}})";
const std::string kTwentyFour = R"({"ssh": {"destination": {"protocol": "udp", "ports": ["24"]}}})";
const std::string kExtra = R"({"extra": {"destination": {"protocol": "tcp", "ports": ["23"]}}})";
const std::string kDropInFile = std::string("err tarnPlatform ") + kDropIns;

// clang-format off
const std::vector<DropInRow> kDropInRows = {
    {"None", {}, 1, kPort22, "no record", ""},
    {"Adds", {{"a.json", kExtra}}, 2, kPort22, kPort23, ""},
    {"Replaces", {{"a.json", kTwentyThree}}, 1, kPort23, "no record", ""},
    {"LaterNameWins", {{"20.json", kTwentyFour}, {"10.json", kTwentyThree}}, 1, kUdp24, "no record", ""},
    {"ReplacesTheWholeEntry", {{"a.json", R"({"ssh": {}})"}}, 1, "available 1, protocol 0, source 0 none, destination 0 none", "no record", ""},
    {"TakesAwayAvailability", {{"a.json", R"({"ssh": {"available": false}})"}}, 1, "available 0, protocol 0, source 0 none, destination 0 none", "no record", ""},
    {"EmptyObject", {{"a.json", "{}"}}, 1, kPort22, "no record", ""},
    {"OtherNamesAreNotRead", {{"a.json~", "x"}, {"a.txt", "x"}, {".a.json", "x"}, {".json", "x"}, {"json", "x"}}, 1, kPort22, "no record", ""},
    {"BrokenOneRefusesTheWholeDatabase", {{"a.json", kExtra}, {"b.json", "{"}}, -1, "", "", kDropInFile + "/b.json is not valid JSON: * Line 1, Column "},
    {"WrongTypeRefusesTheWholeDatabase", {{"a.json", "[]"}}, -1, "", "", kDropInFile + "/a.json must hold an object of services"},
};
// clang-format on

class DropIn : public Services, public testing::WithParamInterface<DropInRow> {};

TEST_P(DropIn, IsReadInNameOrder) {
  const DropInRow& row = GetParam();
  files::write(kDatabase, kSsh);
  for (const auto& dropIn : row.dropIns) {
    files::write(std::string(kDropIns) + "/" + dropIn.first, dropIn.second);
  }
  int result = 0;
  const List list = load(&result);
  EXPECT_EQ(row.result, result);
  const std::string log = trace::take();
  EXPECT_EQ(row.log, row.log.empty() ? log : beginning(log, row.log));
  EXPECT_EQ(row.ssh, result > 0 ? record(list.get(), "ssh") : "");
  EXPECT_EQ(row.extra, result > 0 ? record(list.get(), "extra") : "");
}

INSTANTIATE_TEST_SUITE_P(Services, DropIn, testing::ValuesIn(kDropInRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Services, DirectoryOfDropInsMayBeMissing) {
  files::write(kDatabase, kSsh);
  fs::remove_all(kDropIns);
  int result = 0;
  const List list = load(&result);
  EXPECT_EQ(1, result);
}

TEST_F(Services, FileInsteadOfTheDirectoryIsRefused) {
  files::write(kDatabase, kSsh);
  fs::remove_all(kDropIns);
  files::write(kDropIns, "");
  int result = 0;
  EXPECT_EQ(nullptr, load(&result));
  EXPECT_EQ(kDropInFile + " cannot be read: Not a directory", trace::take());
}

// --- the shipped table ---

TEST_F(Services, ShippedTableIsValid) {
  files::write(kDatabase, files::read(PLATFORM_DATA "/firewall_services.json"));
  int result = 0;
  const List list = load(&result);
  EXPECT_GE(result, 100);
  struct {
    const char* name;
    std::string record;
  } const rows[] = {
      {"ssh", kPort22},
      {"https", "available 1, protocol 1, source 0 none, destination 1 443"},
      {"dns", "available 1, protocol 3, source 0 none, destination 3 53"},
      {"smb", "available 1, protocol 1, source 0 none, destination 1 139,445"},
      {"ping", "available 1, protocol 4, source 0 none, destination 4 0"},
      {"vpn_server_pptp", "available 1, protocol 1, source 0 none, destination 1 1723"},
      {"vpn_server_ipsec", "available 1, protocol 2, source 0 none, destination 2 500,4500"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.record, record(list.get(), row.name)) << row.name;
}

// --- the handle ---

TEST_F(Services, NullHandlesAreAccepted) {
  EXPECT_EQ(-1, TARNFwServiceEnum(nullptr));
  EXPECT_EQ(nullptr, TARNFWServiceFind(nullptr, "ssh"));
  TARNFwServiceFree(nullptr);
  files::write(kDatabase, kSsh);
  int result = 0;
  const List list = load(&result);
  EXPECT_EQ(nullptr, TARNFWServiceFind(list.get(), nullptr));
  EXPECT_EQ(nullptr, TARNFWServiceFind(list.get(), "SSH"));
  EXPECT_EQ(nullptr, TARNFWServiceFind(list.get(), ""));
}

}  // namespace
