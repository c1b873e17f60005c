#include "processes.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>

namespace ops {
namespace {

// What the file "stat" of a process says.
struct Stat {
  pid_t session = 0;
  std::uint64_t start = 0;
};

// None of a process that has ended: a zombie only waits for whoever collects it.
std::optional<Stat> statOf(const std::filesystem::path& process) {
  std::ifstream file(process / "stat");
  std::string text;
  std::getline(file, text, '\0');            // a process that ends meanwhile makes the reading fail
  const std::size_t name = text.rfind(')');  // the name may have blanks and brackets of its own
  if (name == std::string::npos) return std::nullopt;
  std::istringstream fields(text.substr(name + 1));
  char state = 0;
  std::string skipped;
  Stat stat;
  fields >> state >> skipped >> skipped >> stat.session;  // state, parent, group, session
  constexpr int kBetween = 15;                            // from the terminal to the interval timer
  for (int field = 0; field < kBetween; ++field) fields >> skipped;
  fields >> stat.start;
  if (!fields || state == 'Z' || state == 'X') return std::nullopt;
  return stat;
}

std::filesystem::path directoryOf(pid_t process) { return "/proc/" + std::to_string(process); }

}  // namespace

ProcessId ownProcess() {
  const pid_t number = getpid();
  const std::optional<Stat> stat = statOf(directoryOf(number));
  return {number, stat ? stat->start : 0};
}

bool lives(const ProcessId& process) {
  const std::optional<Stat> stat = statOf(directoryOf(process.number));
  return stat && stat->start == process.start;
}

bool anyoneIn(pid_t session) {
  std::error_code error;
  std::filesystem::directory_iterator entry("/proc", error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const char first = entry->path().filename().string().front();
    if (first < '0' || first > '9') continue;
    const std::optional<Stat> stat = statOf(entry->path());
    if (stat && stat->session == session) return true;
  }
  return false;
}

}  // namespace ops
