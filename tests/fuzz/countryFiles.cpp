// The files of the country database against a model of ten lines: the ranges of a file of any
// length, which codes have data, which countries there are.
//
// Input: a flag, IPv6; the file's name; the number of codes and the codes that are asked about;
// then the file's bytes.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "check.h"
#include "fakePlatform.h"
#include "input.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

namespace fs = std::filesystem;

const std::string kDirectory = "/usr/share/xt_geoip/";
constexpr std::size_t kLongestName = 200;
constexpr std::size_t kPathRoom = 1023;  // characters of a path that is looked up

// --- the model ---

std::uint32_t wordAt(const std::string& bytes, std::size_t place) {
  std::uint32_t word = 0;
  std::string four = place < bytes.size() ? bytes.substr(place, 4) : "";
  four.resize(4);
  std::copy(four.begin(), four.end(), reinterpret_cast<char*>(&word));
  return word;
}

std::string addressAt(const std::string& bytes, std::size_t place, bool ipv6) {
  char text[64];
  if (!ipv6) {
    const std::uint32_t word = wordAt(bytes, place);
    (void)std::snprintf(text, sizeof text, "%u.%u.%u.%u", word >> 24, word >> 16 & 255,
                        word >> 8 & 255, word & 255);
    return text;
  }
  std::string address;
  for (std::size_t group = 0; group < 8; ++group) {
    const std::uint32_t word = wordAt(bytes, place + group / 2 * 4);
    (void)std::snprintf(text, sizeof text, "%s%04x", group == 0 ? "" : ":",
                        group % 2 == 0 ? word >> 16 : word & 0xffff);
    address += text;
  }
  return address;
}

Json::Value rangesOf(const std::string& bytes, bool ipv6) {
  Json::Value ranges;
  const std::size_t address = ipv6 ? 16 : 4;
  for (std::size_t place = 0; place < bytes.size(); place += 2 * address) {
    Json::Value range;
    range["ip_begin"] = addressAt(bytes, place, ipv6);
    range["ip_end"] = addressAt(bytes, place + address, ipv6);
    ranges.append(range);
  }
  return ranges;
}

bool hasData(const std::string& code, bool ipv6) {
  const std::string path = kDirectory + code.c_str() + (ipv6 ? ".iv6" : ".iv4");
  std::error_code error;
  const fs::path looked = path.substr(0, kPathRoom);
  if (fs::is_directory(looked, error)) return true;  // its size is not asked for in detail
  const auto bytes = fs::file_size(looked, error);
  return !error && bytes >= 8;
}

// --- the checks ---

void checkRanges(const std::string& code, bool ipv6, const std::string& bytes) {
  Json::Value ranges;
  fuzz::require(FW::FW_GEOIP().countryIPGet(code, ipv6, ranges), "a file is read");
  fuzz::requireEqual(toText(rangesOf(bytes, ipv6)), toText(ranges), "the ranges of a file");
  // Appended, never cleared.
  const Json::ArrayIndex once = ranges.size();
  fuzz::require(FW::FW_GEOIP().countryIPGet(code, ipv6, ranges) && ranges.size() == 2 * once,
                "the ranges are appended");
}

void checkCountries(const std::string& name) {
  std::vector<std::string> expected;
  if (name.find(".iv4") != std::string::npos) expected.push_back(name.substr(0, 2));
  std::vector<std::string> found;
  fuzz::require(FW::FW_GEOIP().countryEnum(found) && found == expected, "the countries there are",
                name);
}

void checkCodes(const std::vector<std::string>& codes, bool ipv6) {
  std::vector<std::string> expected;
  for (const std::string& code : codes) {
    if (hasData(code, ipv6)) expected.push_back(code);
  }
  std::vector<std::string> found;
  const bool any = FW::FW_GEOIP().geoipSanctify(codes, ipv6, found);
  fuzz::require(found == expected && any == !expected.empty(), "the codes that have data");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const bool ipv6 = input.flag();
  const std::string suffix = ipv6 ? ".iv6" : ".iv4";
  std::string name = input.text().substr(0, kLongestName).c_str();
  std::replace(name.begin(), name.end(), '/', '_');
  if (name.empty() || name == "." || name == "..") name = "US" + suffix;
  const std::vector<std::string> codes = input.texts(6);
  const std::string bytes = input.all();

  (void)trace::take();
  const std::string path = kDirectory + name;
  files::write(path, bytes);
  checkCountries(name);
  checkCodes(codes, ipv6);
  const bool isOfFamily = name.size() >= suffix.size() &&
                          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
  if (isOfFamily) checkRanges(name.substr(0, name.size() - suffix.size()), ipv6, bytes);
  (void)unlink(path.c_str());

  Json::Value none;
  fuzz::require(!FW::FW_GEOIP().countryIPGet(name, ipv6, none) && none.isNull(),
                "a country without a file has no ranges");
  return 0;
}
