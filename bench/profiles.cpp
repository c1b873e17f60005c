#include "profiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <utility>

#include <json/reader.h>
#include <json/writer.h>

#include "report.h"

namespace bench {
namespace {

constexpr int kPreambleLines = 18;  // with connection state: 2 chains of 2 IPv4 and 7 IPv6 lines
constexpr int kLinesOfRule = 2;     // one in each chain

// ipGroup
constexpr int kOneAddress = 0;
constexpr int kSubnet = 1;
constexpr int kAddressRange = 4;
constexpr int kAnyAddress = 5;

// portGroup
constexpr int kServices = 0;
constexpr int kExplicitPorts = 1;
constexpr int kAllPorts = 3;

// "10.77.3.9"; the addresses of different rules differ.
std::string addressOf(int number, int host) {
  return "10." + std::to_string(number / 256 % 256) + "." + std::to_string(number % 256) + "." +
         std::to_string(host);
}

void allowPortFromSubnet(int number, FW::FWRULE& rule) {
  rule.ipGroup = kSubnet;
  rule.ipList = {addressOf(number, 0), "24"};
  rule.portGroup = kExplicitPorts;
  rule.portList = {"22"};
}

void allowPortsFromAddress(int number, FW::FWRULE& rule) {
  rule.ipGroup = kOneAddress;
  rule.ipList = {addressOf(number, 1)};
  rule.portGroup = kExplicitPorts;
  rule.portList = {"80", "443", "8080", "8443"};
}

void allowRangeFromAnywhere(int number, FW::FWRULE& rule) {
  const int port = 1024 + number % 60000;
  rule.ipType = 2;
  rule.ipGroup = kAnyAddress;
  rule.portGroup = kExplicitPorts;
  rule.protocol = FW::FW_PROTO_TCP_UDP;
  rule.portList = {std::to_string(port) + "-" + std::to_string(port + 8)};
}

void denyAddressRange(int number, FW::FWRULE& rule) {
  rule.policy = FW::FW_POLICY_DENY;
  rule.ipGroup = kAddressRange;
  rule.ipList = {addressOf(number, 10), addressOf(number, 90)};
  rule.portGroup = kAllPorts;
}

void allowPortOverIpv6(int number, FW::FWRULE& rule) {
  rule.ipType = 1;
  rule.ipGroup = kSubnet;
  rule.ipList = {"fd00:" + std::to_string(number % 10000) + "::", "64"};
  rule.portGroup = kExplicitPorts;
  rule.portList = {"22"};
}

// Makes a rule for port 22 one for the service that has it.
void nameService(FW::FWRULE& rule) {
  rule.portGroup = kServices;
  rule.portList = {"ssh"};
}

constexpr std::array<void (*)(int, FW::FWRULE&), 5> kKinds = {
    allowPortFromSubnet, allowPortsFromAddress, allowRangeFromAnywhere, denyAddressRange,
    allowPortOverIpv6};
constexpr std::array<const char*, 3> kAdapters = {"eth0", "eth1", "global"};

}  // namespace

FW::FWPROFILE mixedProfile(int rules, Ports ports) {
  FW::FWPROFILE profile;
  profile.name = kProfileName;
  for (int number = 0; number < rules; ++number) {
    const auto index = static_cast<std::size_t>(number);
    FW::FWRULE rule;
    rule.name = "rule " + std::to_string(number);
    rule.labelList = {"office"};
    kKinds[index % kKinds.size()](number, rule);
    if (ports == Ports::kServiceNames && index % kKinds.size() == 0) nameService(rule);
    profile.rules[kAdapters[index % kAdapters.size()]].push_back(std::move(rule));
  }
  profile.adapterPolicyMap = {
      {"eth0", FW::FW_POLICY_DENY}, {"eth1", FW::FW_POLICY_ALLOW}, {"global", FW::FW_POLICY_NONE}};
  return profile;
}

FW::FWPROFILE profileOfLines(int lines) {
  FW::FWPROFILE profile;
  profile.name = kProfileName;
  std::vector<FW::FWRULE>& rules = profile.rules["eth0"];
  for (int number = 0; number < (lines - kPreambleLines) / kLinesOfRule; ++number) {
    allowPortsFromAddress(number, rules.emplace_back());
  }
  profile.adapterPolicyMap = {{"eth0", FW::FW_POLICY_NONE}, {"global", FW::FW_POLICY_NONE}};
  return profile;
}

void install(const FW::FWPROFILE& profile) {
  Json::Value document;
  FW::TARNFW_JSON_DB().profileToJson(profile, document);
  require(jsonFileDump(document, kProfilePath), "cannot write the profile");
  Json::Value settings;
  settings["status"] = true;
  settings["profile"] = kProfileName;
  require(FW::TARNFW().configSet(settings), "cannot write the settings");
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

void bareParse(const std::string& path, Json::Value& document) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info = {};
  require(fd >= 0 && fstat(fd, &info) == 0, "cannot open " + path);
  std::string text(static_cast<std::size_t>(info.st_size), '\0');
  require(read(fd, text.data(), text.size()) == info.st_size, "cannot read " + path);
  (void)close(fd);
  require(Json::Reader().parse(text.data(), text.data() + text.size(), document),
          "cannot parse " + path);
}

std::string bareWrite(const Json::Value& document) { return Json::StyledWriter().write(document); }

#pragma GCC diagnostic pop

}  // namespace bench
