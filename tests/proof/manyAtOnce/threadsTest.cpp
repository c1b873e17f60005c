// One program of many threads, each with objects of its own: reloads, queries, compilations, hooks,
// documents and commands that fail. The results are right, and under the thread sanitizer there is
// nothing to report.
//
// What is not promised is left out: two threads that write the same document. Every thread that
// writes has its own; the settings and the profiles are only read.

#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "crowd.h"
#include "execReport.h"
#include "figures.h"
#include "machine.h"
#include "services.h"
#include "tarnfirewall.h"
#include "tarnfirewall_c.h"
#include "testFiles.h"

#if defined(__SANITIZE_THREAD__)
#define TARN_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TARN_THREAD_SANITIZER 1
#endif
#endif

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kLongestCall = 35000;  // milliseconds
constexpr char kDocuments[] = "/usr/tarn/etc/documents/";
constexpr char kHooks[] = "/usr/tarn/libexec/plugins/net/firewall_enable/";

std::atomic<std::uint64_t>& reports() {
  static std::atomic<std::uint64_t> count(0);
  return count;
}

}  // namespace

// Called by the thread sanitizer for each report it prints.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): its name
extern "C" void __tsan_on_report(void* /*report*/) { ++reports(); }

namespace {

class ManyThreads : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    figures::open("many-at-once/threads");
    (void)reports();
  }

  void SetUp() override {
    road::installSeedFiles();
    fs::create_directories(kDocuments);
    fs::create_directories(kHooks);
    fs::copy_file("/sbin/iptables", std::string(kHooks) + "hook");
    FW::FWRULE services;
    services.policy = FW::FW_POLICY_DENY;
    services.ipGroup = 5;
    services.portGroup = 0;
    services.portList = {"ssh"};
    FW::FWPROFILE profile;
    profile.name = "office";
    profile.rules["global"] = {services};
    ASSERT_TRUE(FW::TARNFW_PROFILE().profileSet("office", profile));
    ASSERT_TRUE(FW::TARNFW().fwProfileConfigSet("office", false));
    ASSERT_TRUE(FW::TARNFW().fwEnable());
    TARNExecReportClear();
  }

  static void TearDownTestSuite() { fs::remove_all("/usr/tarn/libexec"); }
};

// --- what the threads do; each answers whether all was as it should be ---

bool reload(int /*thread*/, int /*round*/) { return FW::TARNFW().fwReload(true); }

bool askQueries(int /*thread*/, int /*round*/) {
  FW::AdapterPolicyMap ports;
  FW::AdapterPolicyMap services;
  FW::PortCompareST port;
  port.port = "22";
  FW::TARNFW firewall;
  return firewall.fwPortIsBlocked(port, "", ports) && ports["global"] == FW::FW_POLICY_DENY &&
         firewall.fwServIsBlocked("ssh", "", services) &&
         services["global"] == FW::FW_POLICY_DENY &&
         TARNFwPortsCheckAllowByAdapter(nullptr, "ssh") == 0;
}

bool compile(int /*thread*/, int /*round*/) {
  Json::Value commands;
  if (!FW::TARNFW().fwIptablesRulesEnum("office", commands, "10.0.0.1")) return false;
  return commands["v4"]["global"].size() == 6 && commands["v6"]["global"].size() == 14;
}

bool useOwnDocument(int thread, int round) {
  const std::string path = kDocuments + std::to_string(thread) + ".json";
  Json::Value written;
  written["thread"] = thread;
  written["round"] = round;
  Json::Value read;
  return jsonFileDump(written, path) && jsonFileLoad(read, path) && read == written;
}

bool runHooks(int /*thread*/, int /*round*/) {
  FW::TarnFwHook hook;
  return hook.RunFwEnablePreHook() && hook.RunFwEnablePostHook(true);
}

bool listThings(int /*thread*/, int /*round*/) {
  std::vector<std::string> names;
  std::set<std::string> adapters;
  FW::ServPort ports;
  return FW::TARNFW_PROFILE().profileEnum(names) && names.size() == 2 &&
         FW::TARNFW().fwAdapterEnum(adapters) && adapters.count("global") == 1 &&
         FW::TARNFW_IPTABLES_RULES().servToPorts({"ssh"}, ports) && ports.dstPorts.size() == 1 &&
         FW::TARN_IPTABLES_MODULES::isModuleLoad("firewall");
}

// A command that fails is kept in the platform's report, which is the one thing that all threads
// share.
bool runFailingCommand(int /*thread*/, int /*round*/) {
  int status = 0;
  std::array<char, 64> command = {};
  return FW::TARNFW().cmdExec("/bin/false") && TARNExecReportCount() > 0 &&
         TARNExecReportGet(0, &status, command.data(), static_cast<int>(command.size()), nullptr,
                           0) == 0 &&
         status == 1 && command.data() == std::string("/bin/false");
}

struct Work {
  const char* name;
  int threads;
  int rounds;
  bool (*run)(int thread, int round);
};

constexpr Work kWork[] = {
    {"reloads", 2, 20, reload},
    {"queries", 2, 60, askQueries},
    {"compilations", 1, 100, compile},
    {"loads and dumps", 2, 200, useOwnDocument},
    {"hooks", 1, 40, runHooks},
    {"enumerations", 1, 60, listThings},
    {"failing commands", 2, 60, runFailingCommand},
};

TEST_F(ManyThreads, WorkAtOnce) {
  std::vector<crowd::Calls> counts(std::size(kWork));
  std::vector<std::thread> threads;
  for (std::size_t kind = 0; kind < std::size(kWork); ++kind) {
    for (int thread = 0; thread < kWork[kind].threads; ++thread) {
      threads.emplace_back([&calls = counts[kind], &work = kWork[kind], thread] {
        const int rounds = work.rounds * figures::longer();
        for (int round = 0; round < rounds; ++round) {
          (void)crowd::call(calls, [&] { return work.run(thread, round); });
        }
      });
    }
  }
  const auto count = threads.size();
  for (std::thread& thread : threads) thread.join();

  std::uint64_t calls = 0;
  std::uint64_t wrong = 0;
  for (std::size_t kind = 0; kind < std::size(kWork); ++kind) {
    const auto expected = static_cast<std::uint64_t>(kWork[kind].threads) *
                          static_cast<std::uint64_t>(kWork[kind].rounds) *
                          static_cast<std::uint64_t>(figures::longer());
    EXPECT_EQ(expected, counts[kind].succeeded) << kWork[kind].name;
    EXPECT_LT(counts[kind].longest, kLongestCall) << kWork[kind].name;
    calls += counts[kind].all();
    wrong += expected - counts[kind].succeeded;
  }
  EXPECT_TRUE(road::executionLockIsFree());
  figures::add(calls, "calls of " + std::to_string(count) + " threads");
  figures::add(wrong, "wrong");
#ifdef TARN_THREAD_SANITIZER
  EXPECT_EQ(0U, reports());
  figures::add(reports(), "reports of the thread sanitizer");
#endif
}

}  // namespace
