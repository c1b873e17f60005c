#include "machine.h"

#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "lock.h"
#include "processes.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace road {
namespace {

namespace fs = std::filesystem;

constexpr char kExecutionLock[] = "/tmp/firewall_iptables_exec.lock";
constexpr char kSystemLog[] = "/run/syslog";
constexpr char kProfile[] = "road";

// clang-format off
constexpr char kBaseTable[] =
  "*filter\n"
  ":INPUT ACCEPT\n"
  ":FORWARD ACCEPT\n"
  ":OUTPUT ACCEPT\n"
  ":FIREWALL_RELOADING -\n"
  ":INPUT_FIREWALL -\n"
  ":FORWARD_FIREWALL -\n"
  "-A INPUT -j FIREWALL_RELOADING\n"
  "-A INPUT -j INPUT_FIREWALL\n"
  "-A FORWARD -j FIREWALL_RELOADING\n"
  "-A FORWARD -j FORWARD_FIREWALL\n"
  "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
  "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n"
  "COMMIT\n";

constexpr char kReloadingChain[] =
  "-N FIREWALL_RELOADING\n"
  "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
  "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n";

constexpr char kForwardPreambleV4[] =
  "-N FORWARD_FIREWALL\n"
  "-A FORWARD_FIREWALL -i lo -j ACCEPT\n"
  "-A FORWARD_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT\n";
constexpr char kInputPreambleV4[] =
  "-N INPUT_FIREWALL\n"
  "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
  "-A INPUT_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT\n";

constexpr char kForwardPreambleV6[] =
  "-N FORWARD_FIREWALL\n"
  "-A FORWARD_FIREWALL -i lo -j ACCEPT\n"
  "-A FORWARD_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 133 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 134 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 135 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 136 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 137 -j ACCEPT\n"
  "-A FORWARD_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT\n";
constexpr char kInputPreambleV6[] =
  "-N INPUT_FIREWALL\n"
  "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
  "-A INPUT_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 133 -j ACCEPT\n"
  "-A INPUT_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 134 -j ACCEPT\n"
  "-A INPUT_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 135 -j ACCEPT\n"
  "-A INPUT_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 136 -j ACCEPT\n"
  "-A INPUT_FIREWALL -s fe80::/10 -p ipv6-icmp -m icmp6 --icmpv6-type 137 -j ACCEPT\n"
  "-A INPUT_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT\n";
// clang-format on

// The lines that begin with `beginning`.
std::string linesOf(const std::string& text, const std::string& beginning) {
  std::istringstream stream(text);
  std::string lines;
  for (std::string line; std::getline(stream, line);) {
    if (line.compare(0, beginning.size(), beginning) == 0) lines += line + "\n";
  }
  return lines;
}

void install(const std::string& name, const std::string& path) {
  fs::copy_file(TARN_SEED_DIRECTORY "/" + name, path, fs::copy_options::overwrite_existing);
}

// "<11>Nov 21 11:05:00 roadTest: tarnFW:63 Failed ..." as "tarnFW Failed ..."; "" when it is no
// error of the library's.
std::string libraryError(const std::string& line) {
  constexpr char kError[] = "<11>";  // facility user, priority error
  if (line.compare(0, sizeof kError - 1, kError) != 0) return "";
  constexpr std::array<const char*, 8> kModules = {"utils",   "tarnFW",        "fwHook",
                                                   "fwDB",    "fwIptables",    "tarnIptablesModule",
                                                   "fwGeoip", "tarnfirewall_c"};
  for (const std::string module : kModules) {
    const std::size_t at = line.find(": " + module + ":");
    if (at == std::string::npos) continue;
    std::string message = line.substr(at + 2);
    if (module == "fwIptables") return message;
    return module + message.substr(message.find(' '));
  }
  return "";
}

std::string libraryErrors() {
  std::istringstream log(files::read(kSystemLog));
  std::string messages;
  for (std::string line; std::getline(log, line);) {
    const std::string message = libraryError(line);
    if (!message.empty()) messages += message + "\n";
  }
  return messages;
}

}  // namespace

const char kEmptyChains[] =
    "-N FIREWALL_RELOADING\n"
    "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
    "-A FIREWALL_RELOADING -m state --state INVALID -j RETURN\n"
    "-N FORWARD_FIREWALL\n"
    "-N INPUT_FIREWALL\n";

const char kOpenPolicies[] =
    "iptables INPUT ACCEPT FORWARD ACCEPT ip6tables INPUT ACCEPT FORWARD ACCEPT";

std::string output(const std::string& command) {
  // NOLINTNEXTLINE(cert-env33-c): a shell is wanted, and what it runs are the tests' own words
  FILE* const pipe = popen((command + " 2>&1").c_str(), "re");
  if (pipe == nullptr) throw std::runtime_error("popen " + command);
  std::string text;
  std::array<char, 4096> buffer;
  while (const std::size_t size = fread(buffer.data(), 1, buffer.size(), pipe)) {
    text.append(buffer.data(), size);
  }
  const int result = pclose(pipe);
  if (result != 0) text += "(exit " + std::to_string(WEXITSTATUS(result)) + ")";
  return text;
}

void makeBaseChains() {
  files::write("/tmp/base", kBaseTable);
  ASSERT_EQ("", output("iptables-restore < /tmp/base"));
  ASSERT_EQ("", output("ip6tables-restore < /tmp/base"));
  fs::remove("/tmp/base");
}

void installSeedFiles() {
  files::clear();
  install("firewall_services.json", "/usr/tarn/etc.defaults/firewall_services.json");
  install("iptables_modules_list", "/usr/tarn/etc.defaults/iptables_modules_list");
  install("tarninfo.conf", "/etc.defaults/tarninfo.conf");
  install("profile-default.json", "/usr/tarn/etc/firewall.d/1.json");
  fs::remove_all("/usr/tarn/libexec");
  fs::remove_all("/run/tarn");
}

std::string chains(const std::string& tool) {
  std::string text;
  for (const char* chain : {"FIREWALL_RELOADING", "FORWARD_FIREWALL", "INPUT_FIREWALL"}) {
    text += output(tool + " -S " + chain);
  }
  return text;
}

std::string chainsWithPreambleV4(const std::string& lines) {
  return std::string(kReloadingChain) + kForwardPreambleV4 +
         linesOf(lines, "-A FORWARD_FIREWALL ") + kInputPreambleV4 +
         linesOf(lines, "-A INPUT_FIREWALL ");
}

std::string chainsWithPreambleV6(const std::string& lines) {
  return std::string(kReloadingChain) + kForwardPreambleV6 +
         linesOf(lines, "-A FORWARD_FIREWALL ") + kInputPreambleV6 +
         linesOf(lines, "-A INPUT_FIREWALL ");
}

std::string policies() {
  std::string text;
  for (const std::string tool : {"iptables", "ip6tables"}) {
    text.append(text.empty() ? "" : " ").append(tool);
    for (const std::string chain : {"INPUT", "FORWARD"}) {
      const std::string policy = linesOf(output(tool + " -S " + chain), "-P ");
      text.append(" ").append(policy, 3, policy.size() - 4);
    }
  }
  return text;
}

std::string libraryLog(const std::string& expected) {
  (void)processes::eventually([&] { return libraryErrors() == expected; });
  return libraryErrors();
}

std::string status() {
  std::string settings = files::read(files::kSettingsFile);
  if (settings.find("\"status\" : true") != std::string::npos) return "on";
  if (settings.find("\"status\" : false") != std::string::npos) return "off";
  return settings;
}

bool executionLockIsFree() {
  int fd = -1;
  return TLIBCFileLockTimeByFile(kExecutionLock, 1, 0, &fd) == 1 && TLIBCFileUnlockByFile(fd) != 0;
}

void RoadTest::SetUp() {
  installSeedFiles();
  makeBaseChains();
  files::write(kSystemLog, "");
  FW::FWPROFILE empty;
  store(empty);
}

void RoadTest::TearDown() { EXPECT_TRUE(executionLockIsFree()); }

void RoadTest::store(FW::FWPROFILE profile) {
  profile.name = kProfile;
  ASSERT_TRUE(FW::TARNFW_PROFILE().profileSet(kProfile, profile));
  ASSERT_TRUE(FW::TARNFW().fwProfileConfigSet(kProfile, false));
}

}  // namespace road
