#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "fakePlatform.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

using FW::FW_GEOIP;

using Texts = std::vector<std::string>;

const std::string kDirectory = "/usr/share/xt_geoip/";

class Geoip : public fake::MachineTest {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    std::filesystem::remove_all(kDirectory);
    std::filesystem::create_directory(kDirectory);
  }
};

// --- addresses as text ---

// An IPv6 address as the range files have it: host-order words, the most significant first.
in6_addr words(const std::array<std::uint32_t, 4>& host) {
  in6_addr address;
  static_assert(sizeof host == sizeof address);
  std::memcpy(&address, host.data(), sizeof address);
  return address;
}

struct V4Row {
  const char* name;
  std::uint32_t address;
  int size;  // of the buffer, bytes
  int result;
  const char* text;
};

void PrintTo(const V4Row& row, std::ostream* out) { *out << row.text; }

// clang-format off
const V4Row kV4Rows[] = {
    {"MostSignificantByteFirst", 0x0A000001, 64, 8, "10.0.0.1"},
    {"FourBytes", 0x01020304, 64, 7, "1.2.3.4"},
    {"Smallest", 0x00000000, 64, 7, "0.0.0.0"},
    {"Largest", 0xFFFFFFFF, 64, 15, "255.255.255.255"},
    {"BufferJustLargeEnough", 0xFFFFFFFF, 16, 15, "255.255.255.255"},
    {"BufferOneByteShort", 0xFFFFFFFF, 15, 15, "255.255.255.25"},
    {"BufferOfOneByte", 0x0A000001, 1, 8, ""},
};
// clang-format on

class Ipv4Text : public testing::TestWithParam<V4Row> {};

TEST_P(Ipv4Text, IsDotted) {
  std::string buffer(66, '#');
  EXPECT_EQ(GetParam().result,
            FW_GEOIP().Ipv4ToString(GetParam().address, buffer.data(), GetParam().size));
  EXPECT_STREQ(GetParam().text, buffer.c_str());
  EXPECT_EQ('#', buffer[static_cast<std::size_t>(GetParam().size)]);
}

INSTANTIATE_TEST_SUITE_P(Rows, Ipv4Text, testing::ValuesIn(kV4Rows),
                         [](const auto& row) { return std::string(row.param.name); });

struct V6Row {
  const char* name;
  std::array<std::uint32_t, 4> address;
  int size;
  int result;
  const char* text;
};

void PrintTo(const V6Row& row, std::ostream* out) { *out << row.text; }

// clang-format off
const V6Row kV6Rows[] = {
    {"LoopbackIsNotCompressed", {0, 0, 0, 1}, 64, 39, "0000:0000:0000:0000:0000:0000:0000:0001"},
    {"Unspecified", {0, 0, 0, 0}, 64, 39, "0000:0000:0000:0000:0000:0000:0000:0000"},
    {"WordsFromTheMostSignificant", {0x00112233, 0x44556677, 0x8899AABB, 0xCCDDEEFF}, 64, 39, "0011:2233:4455:6677:8899:aabb:ccdd:eeff"},
    {"Largest", {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}, 64, 39, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
    {"BufferJustLargeEnough", {0x20010DB8, 0, 0, 0xA}, 40, 39, "2001:0db8:0000:0000:0000:0000:0000:000a"},
    {"BufferOneByteShort", {0x20010DB8, 0, 0, 0xA}, 39, 39, "2001:0db8:0000:0000:0000:0000:0000:000"},
    {"BufferOfOneByte", {0x20010DB8, 0, 0, 0xA}, 1, 39, ""},
};
// clang-format on

class Ipv6Text : public testing::TestWithParam<V6Row> {};

TEST_P(Ipv6Text, IsEightGroups) {
  std::string buffer(66, '#');
  const in6_addr address = words(GetParam().address);
  EXPECT_EQ(GetParam().result, FW_GEOIP().Ipv6ToString(&address, buffer.data(), GetParam().size));
  EXPECT_STREQ(GetParam().text, buffer.c_str());
  EXPECT_EQ('#', buffer[static_cast<std::size_t>(GetParam().size)]);
}

INSTANTIATE_TEST_SUITE_P(Rows, Ipv6Text, testing::ValuesIn(kV6Rows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Geoip, RangeOfV4SetsItsTwoMembers) {
  Json::Value element = toJson(R"({"country":"US","ip_end":"x"})");
  FW_GEOIP().ParseV4(0x01020304, 0xFF000001, element);
  EXPECT_EQ(R"({"country":"US","ip_begin":"1.2.3.4","ip_end":"255.0.0.1"})", toText(element));
}

TEST_F(Geoip, RangeOfV6SetsItsTwoMembers) {
  Json::Value element;
  const in6_addr first = words({0xFD000000, 0, 0, 1});
  const in6_addr last = words({0xFD000000, 0, 1, 0xFFFF});
  FW_GEOIP().ParseV6(&first, &last, element);
  // clang-format off
  EXPECT_EQ(R"({"ip_begin":"fd00:0000:0000:0000:0000:0000:0000:0001","ip_end":"fd00:0000:0000:0000:0000:0001:0000:ffff"})",
            toText(element));
  // clang-format on
}

// --- range files ---

// A file whose 32-bit words are 0x0A000000, 0x0A000001, 0x0A000002 ...; cut to `size` bytes.
std::string rangeFile(std::size_t size) {
  std::string bytes;
  for (std::uint32_t word = 0x0A000000; bytes.size() < size; ++word) {
    char piece[sizeof word];
    std::memcpy(piece, &word, sizeof word);
    bytes.append(piece, sizeof word);
  }
  bytes.resize(size);
  return bytes;
}

struct ReadRow {
  const char* name;
  std::size_t size;
  bool ipv6;
  std::size_t ranges;
  const char* last;  // of the ranges
};

void PrintTo(const ReadRow& row, std::ostream* out) {
  *out << row.size << " bytes, " << (row.ipv6 ? "IPv6" : "IPv4");
}

// The cut-off rows end in zero bytes; on a host of the other byte order they would end in others.
//
// clang-format off
const ReadRow kReadRows[] = {
    {"EmptyV4", 0, false, 0, "null"},
    {"FourBytesOfV4", 4, false, 1, R"({"ip_begin":"10.0.0.0","ip_end":"0.0.0.0"})"},
    {"SevenBytesOfV4", 7, false, 1, R"({"ip_begin":"10.0.0.0","ip_end":"0.0.0.1"})"},
    {"OneRangeOfV4", 8, false, 1, R"({"ip_begin":"10.0.0.0","ip_end":"10.0.0.1"})"},
    {"NineBytesOfV4", 9, false, 2, R"({"ip_begin":"0.0.0.2","ip_end":"0.0.0.0"})"},
    {"TwelveBytesOfV4", 12, false, 2, R"({"ip_begin":"10.0.0.2","ip_end":"0.0.0.0"})"},
    {"TwoRangesOfV4", 16, false, 2, R"({"ip_begin":"10.0.0.2","ip_end":"10.0.0.3"})"},
    {"OneByteShortOfAChunkOfV4", 4095, false, 512, R"({"ip_begin":"10.0.3.254","ip_end":"0.0.3.255"})"},
    {"OneChunkOfV4", 4096, false, 512, R"({"ip_begin":"10.0.3.254","ip_end":"10.0.3.255"})"},
    {"OneByteMoreThanAChunkOfV4", 4097, false, 513, R"({"ip_begin":"0.0.0.0","ip_end":"0.0.0.0"})"},
    {"OneRangeMoreThanAChunkOfV4", 4104, false, 513, R"({"ip_begin":"10.0.4.0","ip_end":"10.0.4.1"})"},
    {"HalfARangeMoreThanAChunkOfV4", 4100, false, 513, R"({"ip_begin":"10.0.4.0","ip_end":"0.0.0.0"})"},
    {"ThreeChunksOfV4", 12288, false, 1536, R"({"ip_begin":"10.0.11.254","ip_end":"10.0.11.255"})"},
    {"EmptyV6", 0, true, 0, "null"},
    {"SevenBytesOfV6", 7, true, 1, R"({"ip_begin":"0a00:0000:0000:0001:0000:0000:0000:0000","ip_end":"0000:0000:0000:0000:0000:0000:0000:0000"})"},
    {"EightBytesOfV6", 8, true, 1, R"({"ip_begin":"0a00:0000:0a00:0001:0000:0000:0000:0000","ip_end":"0000:0000:0000:0000:0000:0000:0000:0000"})"},
    {"HalfARangeOfV6", 16, true, 1, R"({"ip_begin":"0a00:0000:0a00:0001:0a00:0002:0a00:0003","ip_end":"0000:0000:0000:0000:0000:0000:0000:0000"})"},
    {"OneByteShortOfARangeOfV6", 31, true, 1, R"({"ip_begin":"0a00:0000:0a00:0001:0a00:0002:0a00:0003","ip_end":"0a00:0004:0a00:0005:0a00:0006:0000:0007"})"},
    {"OneRangeOfV6", 32, true, 1, R"({"ip_begin":"0a00:0000:0a00:0001:0a00:0002:0a00:0003","ip_end":"0a00:0004:0a00:0005:0a00:0006:0a00:0007"})"},
    {"OneByteMoreThanARangeOfV6", 33, true, 2, R"({"ip_begin":"0000:0008:0000:0000:0000:0000:0000:0000","ip_end":"0000:0000:0000:0000:0000:0000:0000:0000"})"},
    {"OneChunkOfV6", 4096, true, 128, R"({"ip_begin":"0a00:03f8:0a00:03f9:0a00:03fa:0a00:03fb","ip_end":"0a00:03fc:0a00:03fd:0a00:03fe:0a00:03ff"})"},
    {"EightBytesMoreThanAChunkOfV6", 4104, true, 129, R"({"ip_begin":"0a00:0400:0a00:0401:0000:0000:0000:0000","ip_end":"0000:0000:0000:0000:0000:0000:0000:0000"})"},
    {"OneRangeMoreThanAChunkOfV6", 4128, true, 129, R"({"ip_begin":"0a00:0400:0a00:0401:0a00:0402:0a00:0403","ip_end":"0a00:0404:0a00:0405:0a00:0406:0a00:0407"})"},
};
// clang-format on

// The ranges of the whole records of rangeFile().
Json::Value rangesOfWholeRecords(std::size_t size, bool ipv6) {
  Json::Value list;
  std::uint32_t word = 0x0A000000;
  const auto v4 = [](std::uint32_t host) {
    const in_addr address = {htonl(host)};
    char text[INET_ADDRSTRLEN] = {};
    return std::string(inet_ntop(AF_INET, &address, text, sizeof text));
  };
  const auto v6 = [](std::uint32_t host) {
    std::string text;
    for (std::uint32_t part = host; part < host + 4; ++part) {
      char group[12];
      (void)std::snprintf(group, sizeof group, "%04x:%04x", part >> 16, part & 0xFFFF);
      text += (text.empty() ? "" : ":") + std::string(group);
    }
    return text;
  };
  const std::size_t record = ipv6 ? 32 : 8;
  for (std::size_t count = 0; count < size / record; ++count) {
    Json::Value range;
    range["ip_begin"] = ipv6 ? v6(word) : v4(word);
    word += ipv6 ? 4 : 1;
    range["ip_end"] = ipv6 ? v6(word) : v4(word);
    word += ipv6 ? 4 : 1;
    list.append(range);
  }
  return list;
}

class RangeFiles : public Geoip, public testing::WithParamInterface<ReadRow> {};

TEST_P(RangeFiles, AreReadInRecords) {
  const std::size_t whole = GetParam().size / (GetParam().ipv6 ? 32 : 8);
  Json::Value expected = rangesOfWholeRecords(GetParam().size, GetParam().ipv6);
  if (GetParam().ranges > whole) expected.append(toJson(GetParam().last));
  files::write(kDirectory + (GetParam().ipv6 ? "US.iv6" : "US.iv4"), rangeFile(GetParam().size));
  const std::string descriptors = files::descriptors();

  Json::Value list;
  EXPECT_TRUE(FW_GEOIP().countryIPGet("US", GetParam().ipv6, list));
  EXPECT_EQ(GetParam().ranges, list.size());
  EXPECT_EQ(GetParam().last, list.empty() ? "null" : toText(list[list.size() - 1]));
  EXPECT_EQ(toText(expected), toText(list));
  EXPECT_EQ("", trace::take());
  EXPECT_EQ(descriptors, files::descriptors());
}

INSTANTIATE_TEST_SUITE_P(Rows, RangeFiles, testing::ValuesIn(kReadRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Geoip, RangesAreAppendedInFileOrder) {
  const std::uint32_t file[] = {9, 10, 1, 2, 1, 2, 8, 7};
  files::write(kDirectory + "US.iv4", {reinterpret_cast<const char*>(file), sizeof file});
  Json::Value list = toJson(R"(["kept"])");
  Json::Value scratch = toJson(R"({"left":"over"})");
  EXPECT_EQ(0, FW_GEOIP().geoipFileRead("US", scratch, list, /*ipv6=*/false));
  // clang-format off
  EXPECT_EQ(R"(["kept",{"ip_begin":"0.0.0.9","ip_end":"0.0.0.10"},{"ip_begin":"0.0.0.1","ip_end":"0.0.0.2"},{"ip_begin":"0.0.0.1","ip_end":"0.0.0.2"},{"ip_begin":"0.0.0.8","ip_end":"0.0.0.7"}])",
            toText(list));
  // clang-format on
  EXPECT_EQ(R"({"ip_begin":"0.0.0.8","ip_end":"0.0.0.7"})", toText(scratch));
}

TEST_F(Geoip, EmptyFileLeavesTheListAsItWas) {
  files::write(kDirectory + "US.iv6", "");
  Json::Value list = toJson(R"(["kept"])");
  EXPECT_TRUE(FW_GEOIP().countryIPGet("US", /*ipv6=*/true, list));
  EXPECT_EQ(R"(["kept"])", toText(list));
}

TEST_F(Geoip, DirectoryReadsAsEmpty) {
  std::filesystem::create_directory(kDirectory + "US.iv4");
  const std::string descriptors = files::descriptors();
  Json::Value list = toJson(R"(["kept"])");
  EXPECT_TRUE(FW_GEOIP().countryIPGet("US", /*ipv6=*/false, list));
  EXPECT_EQ(R"(["kept"])", toText(list));
  EXPECT_EQ("", trace::take());
  EXPECT_EQ(descriptors, files::descriptors());
}

TEST_F(Geoip, LinkToARangeFileIsRead) {
  files::write(kDirectory + "US.iv4", rangeFile(8));
  std::filesystem::create_symlink("US.iv4", kDirectory + "UM.iv4");
  Json::Value list;
  EXPECT_TRUE(FW_GEOIP().countryIPGet("UM", /*ipv6=*/false, list));
  EXPECT_EQ(R"([{"ip_begin":"10.0.0.0","ip_end":"10.0.0.1"}])", toText(list));
}

// What stands at the name of a range file and is none.
struct UnreadableRow {
  const char* name;
  bool ipv6;
  void (*make)(const std::string& stem);
  const char* trace;
};

void PrintTo(const UnreadableRow& row, std::ostream* out) { *out << row.name; }

void makeFifo(const std::string& path) { ASSERT_EQ(0, mkfifo(path.c_str(), 0666)); }
void makeDevice(const std::string& path) { std::filesystem::create_symlink("/dev/zero", path); }

// clang-format off
const UnreadableRow kUnreadableRows[] = {
    {"AbsentV4", false, [](const std::string&) {},
     "err fwGeoip Failed to open file /usr/share/xt_geoip/US.iv4\n\nerr fwGeoip Failed to read geoip database"},
    {"AbsentV6", true, [](const std::string&) {},
     "err fwGeoip Failed to open file /usr/share/xt_geoip/US.iv6\n\nerr fwGeoip Failed to read geoip database"},
    {"OtherFamilyOnly", true, [](const std::string& stem) { files::write(stem + ".iv4", rangeFile(8)); },
     "err fwGeoip Failed to open file /usr/share/xt_geoip/US.iv6\n\nerr fwGeoip Failed to read geoip database"},
    {"FifoIsNotWaitedFor", false, [](const std::string& stem) { makeFifo(stem + ".iv4"); },
     "err fwGeoip Failed to open file /usr/share/xt_geoip/US.iv4\n\nerr fwGeoip Failed to read geoip database"},
    {"FifoOfV6IsNotWaitedFor", true, [](const std::string& stem) { makeFifo(stem + ".iv6"); },
     "err fwGeoip Failed to open file /usr/share/xt_geoip/US.iv6\n\nerr fwGeoip Failed to read geoip database"},
    {"EndlessDeviceIsNotRead", false, [](const std::string& stem) { makeDevice(stem + ".iv4"); },
     "err fwGeoip Failed to open file /usr/share/xt_geoip/US.iv4\n\nerr fwGeoip Failed to read geoip database"},
    {"LinkToNothing", false, [](const std::string& stem) { std::filesystem::create_symlink("nosuch", stem + ".iv4"); },
     "err fwGeoip Failed to open file /usr/share/xt_geoip/US.iv4\n\nerr fwGeoip Failed to read geoip database"},
    {"DirectoryMissing", false, [](const std::string&) { std::filesystem::remove_all(kDirectory); },
     "err fwGeoip Failed to open file /usr/share/xt_geoip/US.iv4\n\nerr fwGeoip Failed to read geoip database"},
};
// clang-format on

class UnreadableRangeFile : public Geoip, public testing::WithParamInterface<UnreadableRow> {};

TEST_P(UnreadableRangeFile, Fails) {
  GetParam().make(kDirectory + "US");
  const std::string descriptors = files::descriptors();
  Json::Value list = toJson(R"(["kept"])");
  EXPECT_FALSE(FW_GEOIP().countryIPGet("US", GetParam().ipv6, list));
  EXPECT_EQ(R"(["kept"])", toText(list));
  EXPECT_EQ(GetParam().trace, trace::take());
  EXPECT_EQ(descriptors, files::descriptors());
}

TEST_P(UnreadableRangeFile, GivesMinusOne) {
  GetParam().make(kDirectory + "US");
  Json::Value scratch = "untouched";
  Json::Value list;
  EXPECT_EQ(-1, FW_GEOIP().geoipFileRead("US", scratch, list, GetParam().ipv6));
  EXPECT_EQ("\"untouched\"", toText(scratch));
  EXPECT_EQ("null", toText(list));
  const std::string whole = GetParam().trace;
  EXPECT_EQ(whole.substr(0, whole.find("\nerr fwGeoip Failed to read")), trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, UnreadableRangeFile, testing::ValuesIn(kUnreadableRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- which countries there are ---

struct EnumRow {
  const char* name;
  Texts files;
  Texts codes;  // sorted
};

void PrintTo(const EnumRow& row, std::ostream* out) { *out << testing::PrintToString(row.files); }

// clang-format off
const EnumRow kEnumRows[] = {
    {"EachCountryWithAV4File", {"US.iv4", "US.iv6", "DE.iv4"}, {"DE", "US"}},
    {"V6FilesAloneAreNotListed", {"US.iv6", "JP.iv6"}, {}},
    {"EmptyDirectory", {}, {}},
    {"SuffixMayStandAnywhere", {"US.iv4.bak", "DE.iv4~", "old-FR.iv4"}, {"DE", "US", "ol"}},
    {"RepeatedCodesStay", {"US.iv4", "US.iv4.bak", "US-2.iv4"}, {"US", "US", "US"}},
    {"SuffixIsComparedLetterByLetter", {"US.IV4", "DEiv4", "FR.iv", "GB.v4"}, {}},
    {"CodeIsCutFromTheName", {"A.iv4", ".iv4", "lower.iv4"}, {".i", "A.", "lo"}},
    {"OtherFilesAreNotListed", {"README", "us"}, {}},
};
// clang-format on

class Countries : public Geoip, public testing::WithParamInterface<EnumRow> {};

TEST_P(Countries, AreListed) {
  for (const std::string& name : GetParam().files) files::write(kDirectory + name, "");
  Texts inDirectoryOrder = {"kept"};
  for (const auto& entry : std::filesystem::directory_iterator(kDirectory)) {
    const std::string name = entry.path().filename();
    if (name.find(".iv4") != std::string::npos) inDirectoryOrder.push_back(name.substr(0, 2));
  }
  const std::string descriptors = files::descriptors();

  Texts codes = {"kept"};
  EXPECT_TRUE(FW_GEOIP().countryEnum(codes));
  EXPECT_EQ(inDirectoryOrder, codes);
  codes.erase(codes.begin());
  std::sort(codes.begin(), codes.end());
  EXPECT_EQ(GetParam().codes, codes);
  EXPECT_EQ("", trace::take());
  EXPECT_EQ(descriptors, files::descriptors());
}

INSTANTIATE_TEST_SUITE_P(Rows, Countries, testing::ValuesIn(kEnumRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Geoip, MissingDirectoryCannotBeListed) {
  std::filesystem::remove_all(kDirectory);
  Texts codes = {"kept"};
  EXPECT_FALSE(FW_GEOIP().countryEnum(codes));
  EXPECT_EQ(Texts{"kept"}, codes);
  EXPECT_EQ("err fwGeoip Failed to opendir /usr/share/xt_geoip/", trace::take());
}

TEST_F(Geoip, FileInPlaceOfTheDirectoryCannotBeListed) {
  std::filesystem::remove_all(kDirectory);
  files::write("/usr/share/xt_geoip", "US.iv4");
  Texts codes;
  EXPECT_FALSE(FW_GEOIP().countryEnum(codes));
  EXPECT_EQ("err fwGeoip Failed to opendir /usr/share/xt_geoip/", trace::take());
  std::filesystem::remove("/usr/share/xt_geoip");
}

// --- countries that the match can use ---

struct SanctifyRow {
  const char* name;
  Texts codes;
  bool ipv6;
  bool result;
  Texts before;
  Texts after;
  const char* trace;
};

void PrintTo(const SanctifyRow& row, std::ostream* out) {
  *out << testing::PrintToString(row.codes) << (row.ipv6 ? ", IPv6" : ", IPv4");
}

// A code by which the IPv4 file of US has a path of `length` characters.
std::string codeOfPathLength(std::size_t length) {
  const std::size_t filling = length - kDirectory.size() - std::strlen("US.iv4");
  std::string code = filling % 2 == 0 ? "" : "/";
  while (code.size() < filling) code += "./";
  return code + "US";
}

// Files of the fixture, named after their size in bytes: A0 A7 A8 A9 in IPv4, B0 B7 B8 BV (31) BW
// (32) in IPv6; US (16 bytes) in IPv4; a FIFO FF, a directory DD, and a link LN to US.
//
// clang-format off
const SanctifyRow kSanctifyRows[] = {
    {"V4FromEightBytes", {"A0", "A7", "A8", "A9"}, false, true, {}, {"A8", "A9"}, ""},
    {"V6FromEightBytesToo", {"B0", "B7", "B8", "BV", "BW"}, true, true, {}, {"B8", "BV", "BW"}, ""},
    {"FilesOfTheOtherFamilyDoNotCount", {"A8", "B8"}, true, true, {}, {"B8"}, ""},
    {"OrderAndRepetitionsStay", {"US", "A9", "US", "A8"}, false, true, {}, {"US", "A9", "US", "A8"}, ""},
    {"OnlyEmptyFilesLeaveNothing", {"A0"}, false, false, {}, {}, ""},
    {"AbsentCountriesLeaveNothing", {"XX", ""}, false, false, {}, {}, ""},
    {"CodesAreComparedLetterByLetter", {"us", "US "}, false, false, {}, {}, ""},
    {"NoCodeIsReported", {}, false, false, {}, {}, "err fwGeoip There are no country"},
    {"NoCodeFailsWhateverIsThere", {}, true, false, {"kept"}, {"kept"}, "err fwGeoip There are no country"},
    {"ResultCountsWhatWasThere", {"XX"}, false, true, {"kept"}, {"kept"}, ""},
    {"CodesAreAppended", {"US"}, false, true, {"kept"}, {"kept", "US"}, ""},
    {"FifoHasNoSize", {"FF", "US"}, false, true, {}, {"US"}, ""},
    {"DirectoryCountsByItsSize", {"DD"}, false, true, {}, {"DD"}, ""},
    {"LinkCountsByItsTarget", {"LN"}, false, true, {}, {"LN"}, ""},
    {"LongestPath", {codeOfPathLength(1023)}, false, true, {}, {codeOfPathLength(1023)}, ""},
    {"PathOneCharacterTooLongLosesItsEnd", {codeOfPathLength(1024), "US"}, false, true, {}, {"US"}, ""},
};
// clang-format on

class Sanctified : public Geoip, public testing::WithParamInterface<SanctifyRow> {
 protected:
  void SetUp() override {
    Geoip::SetUp();
    files::write(kDirectory + "A0.iv4", "");
    files::write(kDirectory + "A7.iv4", rangeFile(7));
    files::write(kDirectory + "A8.iv4", rangeFile(8));
    files::write(kDirectory + "A9.iv4", rangeFile(9));
    files::write(kDirectory + "B0.iv6", "");
    files::write(kDirectory + "B7.iv6", rangeFile(7));
    files::write(kDirectory + "B8.iv6", rangeFile(8));
    files::write(kDirectory + "BV.iv6", rangeFile(31));
    files::write(kDirectory + "BW.iv6", rangeFile(32));
    files::write(kDirectory + "US.iv4", rangeFile(16));
    makeFifo(kDirectory + "FF.iv4");
    std::filesystem::create_directory(kDirectory + "DD.iv4");
    std::filesystem::create_symlink("US.iv4", kDirectory + "LN.iv4");
  }
};

TEST_P(Sanctified, KeepsCountriesWithData) {
  Texts codes = GetParam().before;
  EXPECT_EQ(GetParam().result, FW_GEOIP().geoipSanctify(GetParam().codes, GetParam().ipv6, codes));
  EXPECT_EQ(GetParam().after, codes);
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, Sanctified, testing::ValuesIn(kSanctifyRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Geoip, MissingDirectoryLeavesNoCountry) {
  std::filesystem::remove_all(kDirectory);
  Texts codes;
  EXPECT_FALSE(FW_GEOIP().geoipSanctify({"US"}, /*ipv6=*/false, codes));
  EXPECT_EQ(Texts(), codes);
  EXPECT_EQ("", trace::take());
}

}  // namespace
