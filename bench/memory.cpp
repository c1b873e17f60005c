// How much memory does compiling a stored profile take at its peak?
//
// Each side runs in a process of its own and is asked for the most memory it ever had; a process
// that does nothing gives what is taken off both. The other side is jsoncpp alone: it parses the
// profile's document as many times as ours reads it, and then parses the finished command document
// and renders it. It never holds both documents, so it is the least that these steps take.

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

#include <json/value.h>

#include "documentReads.h"
#include "profiles.h"
#include "report.h"
#include "tarnfirewall.h"

namespace {

using bench::require;

constexpr double kBound = 1.5;
constexpr int kRules = 10000;
constexpr int kPairs = 3;
constexpr char kCommandsPath[] = "/tmp/commands.json";
constexpr double kKibPerMib = 1024;

// The most memory this process ever had resident, in KiB.
long peak() {
  constexpr std::string_view kLabel = "VmHWM:";
  std::FILE* const file = std::fopen("/proc/self/status", "re");
  require(file != nullptr, "/proc/self/status");
  std::array<char, 256> line;
  long kib = 0;
  while (std::fgets(line.data(), line.size(), file) != nullptr) {
    if (std::strncmp(line.data(), kLabel.data(), kLabel.size()) == 0) {
      kib = std::strtol(line.data() + kLabel.size(), nullptr, /*base=*/10);
    }
  }
  (void)std::fclose(file);
  require(kib > 0, "no VmHWM in /proc/self/status");
  return kib;
}

// Runs `work` in a process of its own and answers the number it returns.
long inProcess(const std::function<long()>& work) {
  std::array<int, 2> ends;
  require(pipe(ends.data()) == 0, "pipe");
  const pid_t process = fork();
  require(process >= 0, "fork");
  if (process == 0) {
    const long number = work();
    _exit(write(ends[1], &number, sizeof number) == sizeof number ? 0 : 1);
  }
  (void)close(ends[1]);
  long number = 0;
  const bool answered = read(ends[0], &number, sizeof number) == sizeof number;
  (void)close(ends[0]);
  int status = 0;
  require(waitpid(process, &status, 0) == process && status == 0 && answered,
          "a measured process fails");
  return number;
}

void compile(Json::Value& commands) {
  require(FW::TARNFW().fwIptablesRulesEnum(bench::kProfileName, commands, /*withState=*/true),
          "the profile does not compile");
}

// Answers how many times the profile is read for it.
long prepare() {
  bench::install(bench::mixedProfile(kRules));
  Json::Value commands;
  const int reads = bench::documentReads(bench::kProfilePath, [&commands] { compile(commands); });
  require(jsonFileDump(commands, kCommandsPath), "cannot write the command document");
  return reads;
}

long nothing() { return peak(); }

long ours() {
  Json::Value commands;
  compile(commands);
  return peak();
}

long bare(long reads) {
  for (long count = 0; count < reads; ++count) {
    Json::Value document;
    bench::bareParse(bench::kProfilePath, document);
  }
  Json::Value commands;
  bench::bareParse(kCommandsPath, commands);
  (void)bench::bareWrite(commands);
  return peak();
}

}  // namespace

int main(int argc, char** argv) {
  (void)bench::start(argc, argv);
  const long reads = inProcess(prepare);
  const long empty = inProcess(nothing);
  bench::Pairs pairs;
  for (int count = 0; count < kPairs; ++count) {
    pairs.ours.push_back(static_cast<double>(inProcess(ours) - empty) / kKibPerMib);
    pairs.bare.push_back(static_cast<double>(inProcess([reads] { return bare(reads); }) - empty) /
                         kKibPerMib);
  }
  bench::print({"peak memory", std::to_string(reads) + " parses and a write",
                std::to_string(kRules) + " rules", pairs.ratio(), kPairs, kBound,
                bench::estimate(pairs.ours).median, bench::estimate(pairs.bare).median, "MiB"});
  return 0;
}
