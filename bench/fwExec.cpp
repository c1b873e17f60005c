// What does TARNFW::fwExec cost on top of the processes it starts?
//
// Ours runs a command document, the other side a C loop that starts the very same processes with
// posix_spawn. Every run starts from empty firewall chains, so that both sides fill the same rule
// set line by line; emptying them is not timed.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <string>

#include <json/value.h>

#include "bareProcesses.h"
#include "commandList.h"
#include "lockstep.h"
#include "report.h"
#include "tarnfirewall.h"

namespace {

using bench::CommandList;
using bench::Pairs;
using bench::require;
using bench::TwinNetworks;

constexpr double kBound = 1.05;
constexpr double kBoundWithDescriptors = 1.10;

constexpr std::size_t kMebibyte = 1U << 20;
constexpr std::size_t kResidentBytes = 200 * kMebibyte;
constexpr int kOpenDescriptors = 1000;

// A rule for one address.
std::string lineFor(const std::string& address) {
  return "-t filter -A INPUT_FIREWALL -i eth0 -s " + address + " -p tcp --dport 22 -j RETURN";
}

// `count` lines, half of them in each family, each for another address.
Json::Value documentOf(int count) {
  Json::Value document(Json::objectValue);
  for (int number = 1; number <= count / 2; ++number) {
    const std::string high = std::to_string(number / 250);
    const std::string low = std::to_string(number % 250);
    document["v4"]["eth0"].append(
        lineFor(std::string("10.0.").append(high).append(".").append(low)));
    document["v6"]["eth0"].append(
        lineFor(std::string("fd00:").append(high).append("::").append(low)));
  }
  return document;
}

// Memory that the process really has, in small pages, as a caller gathers it over the days.
class ResidentMemory {
 public:
  ResidentMemory()
      : start_(mmap(nullptr, kResidentBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                    -1, 0)) {
    require(start_ != MAP_FAILED, "no 200 MB of memory");
    (void)madvise(start_, kResidentBytes, MADV_NOHUGEPAGE);
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    for (std::size_t at = 0; at < kResidentBytes; at += page) static_cast<char*>(start_)[at] = 1;
  }
  ~ResidentMemory() { (void)munmap(start_, kResidentBytes); }
  ResidentMemory(const ResidentMemory&) = delete;
  ResidentMemory& operator=(const ResidentMemory&) = delete;

 private:
  void* start_;
};

class OpenDescriptors {
 public:
  OpenDescriptors() {
    rlimit limit = {};
    require(getrlimit(RLIMIT_NOFILE, &limit) == 0, "limit of descriptors");
    limit.rlim_cur = limit.rlim_max;
    require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "limit of descriptors");
    for (int& fd : open_) {
      fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
      require(fd >= 0, "no 1,000 descriptors");
    }
  }
  ~OpenDescriptors() {
    for (const int fd : open_) (void)close(fd);
  }
  OpenDescriptors(const OpenDescriptors&) = delete;
  OpenDescriptors& operator=(const OpenDescriptors&) = delete;

 private:
  std::array<int, kOpenDescriptors> open_ = {};
};

struct Size {
  int lines;
  int calls;
  int quickCalls;
};

constexpr std::array<Size, 3> kSizes = {{{10, 40, 15}, {100, 6, 2}, {1000, 1, 0}}};

std::string linesText(int lines) { return std::to_string(lines) + " lines"; }

void measureCaller(const TwinNetworks& networks, const bench::Options& options, const char* caller,
                   double bound) {
  for (const Size& size : kSizes) {
    const Json::Value document = documentOf(size.lines);
    const CommandList commands(bench::commandLines(document));
    Pairs pairs;
    for (int call = 0; call < options.times(size.calls, size.quickCalls); ++call) {
      networks.flushInput();
      pairs.add(bench::lockstep(networks, commands, bench::Span::kCall, [&document] {
        require(FW::TARNFW().fwExec(document), "fwExec fails");
      }));
    }
    if (pairs.empty()) continue;
    bench::Row row = timedRow("fwExec", caller, linesText(size.lines), pairs, bound);
    row.unit = "ms for ten";
    bench::print(row);
  }
}

// What the row of the same caller would show of a library that forks.
void measureFork(const TwinNetworks& networks, const bench::Options& options) {
  constexpr int kLines = 10;
  const CommandList commands(bench::commandLines(documentOf(kLines)));
  const auto loop = [&networks, &commands](int (*run)(char* const* const*, std::size_t)) {
    const bench::Work work = bench::timed([run, &commands] {
      require(run(commands.data(), commands.size()) == 0, "a command of the loop fails");
    });
    return [&networks, work] {
      networks.flushInput();
      return work();
    };
  };
  bench::print(timedRow("fork loop", "caller with 200 MB resident", linesText(kLines),
                        bench::inTurn(options.times(10, 4), loop(forkRun), loop(bareRun)),
                        bench::kNoBound));
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Options options = bench::start(argc, argv);
  const TwinNetworks networks;
  measureCaller(networks, options, "small caller", kBound);
  {
    const OpenDescriptors descriptors;
    measureCaller(networks, options, "caller with 1000 open descriptors", kBoundWithDescriptors);
  }
  const ResidentMemory memory;
  measureCaller(networks, options, "caller with 200 MB resident", kBound);
  measureFork(networks, options);
  return 0;
}
