#include "lockstep.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <utility>

#include "bareProcesses.h"
#include "process.h"
#include "report.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBlock = 10;

void run(const std::vector<std::string>& lines) {
  const CommandList commands(lines);
  require(bareRun(commands.data(), commands.size()) == 0, "the packet filter cannot be set up");
}

void makeBaseChains() {
  for (const std::string tool : {"/sbin/iptables", "/sbin/ip6tables"}) {
    run({tool + " -N FIREWALL_RELOADING", tool + " -N INPUT_FIREWALL",
         tool + " -N FORWARD_FIREWALL", tool + " -A INPUT -j FIREWALL_RELOADING",
         tool + " -A INPUT -j INPUT_FIREWALL", tool + " -A FORWARD -j FIREWALL_RELOADING",
         tool + " -A FORWARD -j FORWARD_FIREWALL"});
  }
}

void flushInput() {
  run({"/sbin/iptables -F INPUT_FIREWALL", "/sbin/ip6tables -F INPUT_FIREWALL"});
}

int ownNetwork() {
  const int fd = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  require(fd >= 0, "/proc/self/ns/net");
  return fd;
}

// Keeps the library's clock, and runs the bare loop while it stands.
class Lockstep {
 public:
  Lockstep(const TwinNetworks& networks, const CommandList& commands)
      : networks_(networks), commands_(commands) {}

  Pairs follow(Span span, const std::function<void()>& work) {
    resume();
    work();
    pause();
    require(next_ == commands_.size(), "the library runs fewer commands than the bare loop");
    if (span == Span::kCall) {
      pairs_.ours.back() += ours_;
    } else {
      pairs_.ours.front() -= untilFirst_;
    }
    return std::move(pairs_);
  }

  // Called around each command that the library runs.
  void before(char* const argv[]) {
    require(commands_.matches(next_, argv), "the library runs another command than the bare loop");
    if (next_ != block()) return;
    pause();
    if (next_ == 0) untilFirst_ = ours_;
    if (bareIsFirst()) runBare();
    resume();
  }
  void after() {
    ++next_;
    if (next_ != blockEnd()) return;
    pause();
    if (!bareIsFirst()) runBare();
    pairs_.ours.push_back(ours_);
    ours_ = 0;
    resume();
  }

 private:
  // The current block is the one that follows the finished ones.
  std::size_t block() const { return pairs_.ours.size() * kBlock; }
  std::size_t blockEnd() const { return std::min(block() + kBlock, commands_.size()); }
  bool bareIsFirst() const { return pairs_.ours.size() % 2 == 1; }

  void pause() { ours_ += std::chrono::duration<double>(Clock::now() - resumed_).count(); }
  void resume() { resumed_ = Clock::now(); }

  void runBare() {
    networks_.enterBare();
    pairs_.bare.push_back(timed([this] {
      require(bareRun(commands_.data() + block(), blockEnd() - block()) == 0,
              "a command of the bare loop fails");
    })());
    networks_.enterOurs();
  }

  const TwinNetworks& networks_;
  const CommandList& commands_;
  std::size_t next_ = 0;  // command
  Clock::time_point resumed_;
  double ours_ = 0;        // seconds of the current block up to the last pause
  double untilFirst_ = 0;  // seconds before the first command
  Pairs pairs_;
};

Lockstep* lockstepNow = nullptr;

}  // namespace
}  // namespace bench

// Stands before the platform's own function of this name, which does the work.
int TLIBCExecv(const char* path, char* const argv[], int wait) {
  static const auto platforms =
      reinterpret_cast<decltype(&TLIBCExecv)>(dlsym(RTLD_NEXT, "TLIBCExecv"));
  if (bench::lockstepNow == nullptr) return platforms(path, argv, wait);
  bench::lockstepNow->before(argv);
  const int status = platforms(path, argv, wait);
  bench::lockstepNow->after();
  return status;
}

namespace bench {

TwinNetworks::TwinNetworks() : ours_(ownNetwork()) {
  makeBaseChains();
  require(unshare(CLONE_NEWNET) == 0, "no second network");
  bare_ = ownNetwork();
  makeBaseChains();
  enterOurs();
}

TwinNetworks::~TwinNetworks() {
  (void)close(ours_);
  (void)close(bare_);
}

void TwinNetworks::enterOurs() const { require(setns(ours_, CLONE_NEWNET) == 0, "setns"); }

void TwinNetworks::enterBare() const { require(setns(bare_, CLONE_NEWNET) == 0, "setns"); }

void TwinNetworks::flushInput() const {
  enterBare();
  bench::flushInput();
  enterOurs();
  bench::flushInput();
}

Pairs lockstep(const TwinNetworks& networks, const CommandList& commands, Span span,
               const std::function<void()>& work) {
  Lockstep lockstep(networks, commands);
  lockstepNow = &lockstep;
  Pairs pairs = lockstep.follow(span, work);
  lockstepNow = nullptr;
  return pairs;
}

}  // namespace bench
