#include "machine.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace machine {
namespace {

namespace fs = std::filesystem;

constexpr char kProfiles[] = "/usr/tarn/etc/firewall.d";

// Every module of it is unknown to a stock kernel, or of no consequence.
constexpr char kModuleList[] =
    "KERNEL_MODULES_CORE=\"tarn_core_a.ko tarn_core_b.ko\"\n"
    "KERNEL_MODULES_COMMON=\"tarn_common.ko\"\n"
    "KERNEL_MODULES_NAT=\"tarn_nat.ko\"\n"
    "IPV6_MODULES=\"tarn_v6.ko\"\n";

constexpr char kServices[] =
    "{\"ssh\": {\"title\": \"Secure Shell\",\n"
    "         \"destination\": {\"protocol\": \"tcp\", \"ports\": [\"22\"]}},\n"
    " \"domain\": {\"destination\": {\"protocol\": \"both\", \"ports\": [\"53\"]}},\n"
    " \"gone\": {\"title\": \"Switched off\", \"available\": false,\n"
    "          \"destination\": {\"protocol\": \"udp\", \"ports\": [\"9\", \"10-12\"]}}}\n";

void empty(const char* directory) {
  fs::create_directories(directory);
  for (const auto& entry : fs::directory_iterator(directory)) fs::remove_all(entry.path());
}

int memoryFile() { return memfd_create("output", MFD_CLOEXEC); }

std::string contents(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t length = 0;
       (length = pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;) {
    text.append(buffer, static_cast<std::size_t>(length));
  }
  (void)close(fd);
  return text;
}

std::string listing(const std::string& directory) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  std::string text;
  for (const std::string& file : files) text += file + ": " + read(file) + "\n";
  return text;
}

}  // namespace

void reset() {
  for (const char* directory : {kProfiles, "/run/tarn", "/var/lock/firewall"}) {
    empty(directory);
  }
  for (const char* path :
       {"/tmp/firewall_iptables_exec.lock", "/tmp/iptables_serv_mod_list", "/run/interruption"}) {
    fs::remove_all(path);
  }
  write("/usr/tarn/etc.defaults/iptables_modules_list", kModuleList);
  write("/usr/tarn/etc.defaults/firewall_services.json", kServices);
  const Result tables = run(
      "for tool in iptables ip6tables; do "
      "$tool -P INPUT ACCEPT && $tool -P FORWARD ACCEPT && $tool -F && $tool -X || exit 1; done");
  ASSERT_EQ(tables.status, 0) << tables.err;
}

void write(const std::string& path, const std::string& text) {
  std::ofstream stream(path, std::ios::binary);
  stream << text;
  stream.close();
  ASSERT_TRUE(stream) << path;
}

std::string read(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string profileOfRules(const std::string& name, int count) {
  std::ostringstream rules;
  for (int number = 0; number < count; ++number) {
    rules << (number == 0 ? "" : ",\n") << R"({"enable": true, "adapterDirect": 1, "policy": )"
          << number % 2 << R"(, "table": "filter", "ipType": 2, "ipDirect": 1, "ipGroup": 5, )"
          << R"("portGroup": 1, "protocol": 1, "portList": [")" << 1000 + number << R"("]})";
  }
  return R"({"name": ")" + name + R"(", "adapterPolicyMap": {"global": 2}, "rules": {"global": [)" +
         rules.str() + "]}}\n";
}

Result run(const std::string& command) {
  const int out = memoryFile();
  const int err = memoryFile();
  const pid_t child = fork();
  if (child == 0) {
    (void)setpgid(0, 0);
    (void)dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    (void)dup2(out, STDOUT_FILENO);
    (void)dup2(err, STDERR_FILENO);
    const std::string path =
        std::string("PATH=") + TARNFW_COMMAND_DIRECTORY + ":/usr/sbin:/usr/bin:/sbin:/bin";
    (void)execle("/bin/sh", "sh", "-c", command.c_str(), nullptr,
                 std::vector<const char*>{path.c_str(), "LC_ALL=C", nullptr}.data());
    _exit(127);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contents(out),
          contents(err)};
}

std::string filterTables() {
  return run("for tool in iptables ip6tables; do echo $tool; $tool -S 2>/dev/null; done").out;
}

std::string state() {
  return filterTables() + listing(kProfiles) + listing("/run/tarn") +
         read("/tmp/iptables_serv_mod_list");
}

bool eventually(const std::function<bool()>& holds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace machine
