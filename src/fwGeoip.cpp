// Country address ranges, from the files of the xt_geoip match. A file has no header, only records:
//
//   CC.iv4    8 bytes: first and last address, a 32-bit unsigned integer each
//   CC.iv6   32 bytes: first and last address, four 32-bit unsigned integers each
//
// The most significant integer comes first, each in host byte order, as the kernel match takes
// them.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <json/value.h>

#include "cancellation.h"
#include "cleanup.h"
#include "log.h"
#include "tarnfirewall.h"

namespace FW {
namespace {

constexpr LogSite here(int line = __builtin_LINE()) { return {"fwGeoip", line}; }

constexpr char kDirectory[] = "/usr/share/xt_geoip/";
constexpr std::size_t kChunk = 4096;       // bytes; a multiple of both record sizes
constexpr std::size_t kRecordV4 = 8;       // bytes
constexpr std::size_t kRecordV6 = 32;      // bytes
constexpr std::size_t kAddressText = 64;   // bytes, NUL included
constexpr std::size_t kPathBuffer = 1024;  // bytes, NUL included
constexpr std::size_t kCodeLength = 2;     // characters of a country code
constexpr off_t kSmallestFile = 8;         // bytes. Kept: for IPv6 files too

// The byte of `word` that stands at `place`, counted from the most significant.
unsigned byteOf(std::uint32_t word, unsigned place) { return (word >> (24 - 8 * place)) & 0xFFU; }

// Fills `chunk` from the file. A short result means the end.
std::size_t readChunk(int fd, std::array<unsigned char, kChunk>& chunk) {
  std::size_t used = 0;
  while (used < kChunk) {
    const ssize_t count = read(fd, chunk.data() + used, kChunk - used);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    used += static_cast<std::size_t>(count);
  }
  return used;
}

// A FIFO or a device named like a range file would block or never end. A directory opens, and reads
// as empty.
int openRanges(const char* path) {
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat info = {};
  if (fd >= 0 && fstat(fd, &info) == 0 && (S_ISREG(info.st_mode) || S_ISDIR(info.st_mode))) {
    return fd;
  }
  if (fd >= 0) (void)close(fd);
  return -1;
}

}  // namespace

int FW_GEOIP::Ipv4ToString(std::uint32_t address, char* buffer, int size) {
  return std::snprintf(buffer, static_cast<std::size_t>(size), "%u.%u.%u.%u", byteOf(address, 0),
                       byteOf(address, 1), byteOf(address, 2), byteOf(address, 3));
}

int FW_GEOIP::Ipv6ToString(const in6_addr* address, char* buffer, int size) {
  std::array<std::uint32_t, 4> words = {};
  std::memcpy(words.data(), address, sizeof words);
  const auto byte = [&words](unsigned index) { return byteOf(words[index / 4], index % 4); };
  return std::snprintf(buffer, static_cast<std::size_t>(size),
                       "%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x",
                       byte(0), byte(1), byte(2), byte(3), byte(4), byte(5), byte(6), byte(7),
                       byte(8), byte(9), byte(10), byte(11), byte(12), byte(13), byte(14),
                       byte(15));
}

void FW_GEOIP::ParseV4(std::uint32_t first, std::uint32_t last, Json::Value& element) {
  char text[kAddressText] = {};
  (void)Ipv4ToString(first, text, sizeof text);
  element["ip_begin"] = text;
  (void)Ipv4ToString(last, text, sizeof text);
  element["ip_end"] = text;
}

void FW_GEOIP::ParseV6(const in6_addr* first, const in6_addr* last, Json::Value& element) {
  char text[kAddressText] = {};
  (void)Ipv6ToString(first, text, sizeof text);
  element["ip_begin"] = text;
  (void)Ipv6ToString(last, text, sizeof text);
  element["ip_end"] = text;
}

int FW_GEOIP::geoipFileRead(const std::string& country, Json::Value& element, Json::Value& list,
                            bool ipv6) {
  const tarn::CancellationHold noCancellation;
  const std::string path = kDirectory + country + (ipv6 ? ".iv6" : ".iv4");
  const int fd = openRanges(path.c_str());
  if (fd < 0) {
    here().error("Failed to open file %s\n", path.c_str());
    return -1;
  }
  const Cleanup release([fd] { (void)close(fd); });
  const std::size_t record = ipv6 ? kRecordV6 : kRecordV4;
  std::array<unsigned char, kChunk> chunk = {};
  while (const std::size_t used = readChunk(fd, chunk)) {
    // Kept: a record that the file's end cuts short is completed with zero bytes.
    for (std::size_t start = 0; start < used; start += record) {
      element.clear();
      if (ipv6) {
        std::array<in6_addr, 2> range = {};
        std::memcpy(range.data(), chunk.data() + start, sizeof range);
        ParseV6(&range[0], &range[1], element);
      } else {
        std::array<std::uint32_t, 2> range = {};
        std::memcpy(range.data(), chunk.data() + start, sizeof range);
        ParseV4(range[0], range[1], element);
      }
      list.append(element);
    }
    chunk.fill(0);
  }
  return 0;
}

bool FW_GEOIP::countryIPGet(const std::string& country, const bool& ipv6, Json::Value& list) {
  Json::Value element;
  if (geoipFileRead(country, element, list, ipv6) < 0) {
    return here().fail("Failed to read geoip database");
  }
  return true;
}

bool FW_GEOIP::countryEnum(std::vector<std::string>& codes) {
  const tarn::CancellationHold noCancellation;
  DIR* directory = opendir(kDirectory);
  if (directory == nullptr) return here().fail("Failed to opendir %s", kDirectory);
  const Cleanup release([directory] { (void)closedir(directory); });
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name.find(".iv4") != std::string::npos) codes.push_back(name.substr(0, kCodeLength));
  }
  return true;
}

bool FW_GEOIP::geoipSanctify(const std::vector<std::string>& codes, const bool& ipv6,
                             std::vector<std::string>& out) {
  if (codes.empty()) return here().fail("There are no country");
  for (const std::string& code : codes) {
    char path[kPathBuffer];
    (void)std::snprintf(path, sizeof path, ipv6 ? "%s%s.iv6" : "%s%s.iv4", kDirectory,
                        code.c_str());
    struct stat info = {};
    if (stat(path, &info) == 0 && info.st_size >= kSmallestFile) out.push_back(code);
  }
  return !out.empty();
}

}  // namespace FW
