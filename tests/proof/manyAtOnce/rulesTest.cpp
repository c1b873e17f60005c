// The real tools under many hands: reloads, trials, updates and edits of the firewall's own
// programs, and other programs that hold the lock of the packet filter or write rules of their own.
// The rules of the active profile arrive, whole, every time.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "crowd.h"
#include "figures.h"
#include "machine.h"
#include "tarnfirewall.h"
#include "tarnfirewall_c.h"
#include "testFiles.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr std::uint64_t kLongestCall = 35000;  // milliseconds; a lock is waited for 30 seconds
constexpr unsigned kPatience = 60;             // seconds beyond the planned time, for a process
constexpr milliseconds kBetweenReloads(50);
constexpr char kXtablesLock[] = "/run/xtables.lock";

constexpr char kDenied[] =
    "-A FORWARD_FIREWALL -s 10.0.0.1/32 -j DROP\n"
    "-A INPUT_FIREWALL -s 10.0.0.1/32 -j DROP\n";

FW::FWPROFILE profileNamed(const std::string& name) {
  FW::FWRULE rule;
  rule.policy = FW::FW_POLICY_DENY;
  rule.ipList = {"10.0.0.1"};
  rule.portGroup = 3;
  FW::FWPROFILE profile;
  profile.name = name;
  profile.rules["global"] = {rule};
  // Nothing that the programs do here changes what is filed under this adapter.
  rule.name = "mark of " + name;
  profile.rules["mark0"] = {rule, rule, rule};
  profile.adapterPolicyMap["mark0"] = FW::FW_POLICY_DENY;
  return profile;
}

class ManyHands : public road::RoadTest {
 protected:
  static void SetUpTestSuite() { figures::open("many-at-once/rules"); }

  void SetUp() override {
    road::RoadTest::SetUp();
    store(profileNamed("road"));
    ASSERT_TRUE(FW::TARNFW().fwEnable());
  }

  static void expectRulesOfTheProfile() {
    EXPECT_EQ(road::chainsWithPreambleV4(kDenied), road::chains("iptables"));
    EXPECT_EQ(road::chainsWithPreambleV6(""), road::chains("ip6tables"));
    EXPECT_EQ(road::kOpenPolicies, road::policies());
    EXPECT_EQ("on", road::status());
  }
};

// --- the firewall's own programs ---

const std::vector<std::string> kLasting = {"home", "office", "road"};

struct HandCounts {
  crowd::Calls reloads;
  crowd::Calls trials;
  crowd::Calls updates;
  crowd::Calls edits;
  crowd::Calls looks;
  std::atomic<std::uint64_t> lost = 0;
};

// Every lasting profile is there, with its own name and its marks.
std::uint64_t lostProfiles() {
  std::uint64_t lost = 0;
  for (const std::string& name : kLasting) {
    FW::FWPROFILE profile;
    const bool there = FW::TARNFW_PROFILE().profileGet(name, profile);
    const auto marks = profile.rules.find("mark0");
    const bool whole = there && profile.name == name && marks != profile.rules.end() &&
                       marks->second.size() == 3 && marks->second[2].name == "mark of " + name &&
                       profile.adapterPolicyMap["mark0"] == FW::FW_POLICY_DENY;
    lost += whole ? 0U : 1U;
  }
  return lost;
}

using Turn = std::function<void(HandCounts&)>;

// The lock has no queue: a program that reloads without a pause would keep the others from it.
void reloadTurn(HandCounts& counts) {
  (void)crowd::call(counts.reloads, [] { return FW::TARNFW().fwReload(true); });
  std::this_thread::sleep_for(kBetweenReloads);
}

// A trial as a management program makes one. An edit of all profiles at the same time may bring
// back the test profile that it has read before, so that a step may fail.
void trialTurn(HandCounts& counts) {
  FW::TARNFW_PROFILE profiles;
  (void)crowd::call(counts.trials,
                    [&] { return profiles.CreateTestProfile("home", profileNamed("home")); });
  (void)crowd::call(counts.trials,
                    [] { return FW::TARNFW().TestApplyingProfile("home", "10.9.9.9"); });
  (void)crowd::call(counts.trials, [&] { return profiles.AdoptTestProfile("home"); });
  (void)crowd::call(counts.trials, [&] { return profiles.RemoveTestProfile("home"); });
}

void updateTurn(HandCounts& counts) {
  (void)crowd::call(counts.updates, [] { return FW::TARNFW().fwUpdate(); });
  (void)crowd::call(counts.looks, [] {
    std::map<std::string, FW::FWPROFILE> all;
    return FW::TARNFW_PROFILE().profileEnum(all);
  });
}

void serviceTurn(HandCounts& counts) {
  (void)crowd::call(counts.edits,
                    [] { return TLIBFwRuleReserveServInsert("ssh,http", 1, 0) == 0; });
  (void)crowd::call(counts.edits, [] { return TLIBFwServRemoveRec("ssh") == 0; });
  (void)crowd::call(counts.edits, [] { return TLIBFwServRemoveRec("http") == 0; });
}

void adapterTurn(HandCounts& counts) {
  FW::TARNFW_PROFILE profiles;
  (void)crowd::call(counts.edits, [&] {
    return profiles.profileAddServToReserve("eth7", "ssh", FW::FW_POLICY_DENY, false);
  });
  (void)crowd::call(counts.edits,
                    [&] { return profiles.profileChangeAdapter("eth7", "eth8", true); });
}

void lookTurn(HandCounts& counts) {
  (void)crowd::call(counts.looks, [&] {
    counts.lost += lostProfiles();
    return true;
  });
}

const std::vector<Turn> kHands = {reloadTurn,  reloadTurn,  trialTurn, updateTurn,
                                  serviceTurn, adapterTurn, lookTurn};

TEST_F(ManyHands, NothingIsLostAndTheRulesArriveInTheEnd) {
  for (const std::string& name : kLasting) {
    ASSERT_TRUE(FW::TARNFW_PROFILE().profileSet(name, profileNamed(name)));
  }
  const seconds planned(20 * figures::longer());
  const crowd::Shared<HandCounts> counts;
  const auto work = [&](int number) {
    const auto end = steady_clock::now() + planned;
    while (steady_clock::now() < end) kHands[static_cast<std::size_t>(number)](*counts);
    return std::string("done");
  };
  const auto patience = static_cast<unsigned>(planned.count()) + kPatience;
  EXPECT_EQ("", crowd::others(crowd::run(static_cast<int>(kHands.size()), patience, work), "done"));

  std::uint64_t calls = 0;
  std::uint64_t threw = 0;
  std::uint64_t longest = 0;
  for (const crowd::Calls* kind :
       {&counts->reloads, &counts->trials, &counts->updates, &counts->edits, &counts->looks}) {
    EXPECT_GT(kind->succeeded, 0U);
    calls += kind->all();
    threw += kind->threw;
    longest = std::max<std::uint64_t>(longest, kind->longest);
  }
  EXPECT_EQ(0U, threw);
  EXPECT_EQ(0U, counts->lost);
  EXPECT_EQ(0U, counts->reloads.failed);
  EXPECT_LT(longest, kLongestCall);
  EXPECT_EQ(0U, lostProfiles());
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ("on", road::status());

  store(profileNamed("road"));
  EXPECT_TRUE(FW::TARNFW().fwReload(true));
  expectRulesOfTheProfile();
  figures::add(calls, "calls of 7 programs");
  figures::add(threw, "threw");
  figures::add(counts->lost, "profiles lost");
  figures::add(longest, "ms the longest");
}

// --- other programs ---

// A process that does something over and over until it is told to end.
class Nuisance {
 public:
  explicit Nuisance(const std::function<void()>& once) : process_(fork()) {
    if (process_ != 0) return;
    for (;;) once();
  }
  ~Nuisance() {
    (void)kill(process_, SIGKILL);
    (void)waitpid(process_, nullptr, 0);
  }
  Nuisance(const Nuisance&) = delete;
  Nuisance& operator=(const Nuisance&) = delete;

 private:
  pid_t process_;
};

void holdXtablesLock(milliseconds time) {
  const int fd = open(kXtablesLock, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
  if (flock(fd, LOCK_EX) == 0) std::this_thread::sleep_for(time);
  (void)close(fd);
}

bool xtablesLockIsHeld() {
  const int fd = open(kXtablesLock, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
  const bool held = flock(fd, LOCK_EX | LOCK_NB) != 0;
  (void)close(fd);
  return held;
}

int runTool(const std::vector<std::string>& words) {
  const pid_t process = fork();
  if (process == 0) {
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    (void)!freopen("/dev/null", "w", stderr);
    execv(words[0].c_str(), arguments.data());
    _exit(99);
  }
  int status = 0;
  (void)waitpid(process, &status, 0);
  return status;
}

// Fills a chain of its own and empties it again, in both families.
void writeForeignRules(const std::string& chain) {
  for (const std::string tool : {"/sbin/iptables", "/sbin/ip6tables"}) {
    (void)runTool({tool, "-A", chain, "-p", "tcp", "-j", "RETURN"});
    (void)runTool({tool, "-A", chain, "-p", "udp", "-j", "RETURN"});
    (void)runTool({tool, "-F", chain});
  }
}

TEST_F(ManyHands, ARuleWaitsForTheOneWhoHoldsTheLock) {
  constexpr int kRounds = 3;
  constexpr seconds kHeld(1);
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(FW::TARNFW().fwClear());
    std::thread holder([kHeld] { holdXtablesLock(kHeld); });
    while (!xtablesLockIsHeld()) std::this_thread::yield();
    const auto start = steady_clock::now();
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    const auto spent = steady_clock::now() - start;
    holder.join();
    EXPECT_GT(spent, kHeld / 2) << "it has not waited";
    EXPECT_LT(spent, seconds(15));
    expectRulesOfTheProfile();
  }
  figures::add(kRounds, "reloads behind a held xtables lock");
}

TEST_F(ManyHands, RulesArriveBesideForeignWriters) {
  const int rounds = 20 * figures::longer();
  for (const std::string chain : {"FOREIGN_1", "FOREIGN_2", "FOREIGN_3"}) {
    for (const std::string tool : {"iptables", "ip6tables"}) {
      ASSERT_EQ("", road::output(tool + " -N " + chain));
    }
  }
  std::uint64_t wrong = 0;
  {
    const Nuisance first([] { writeForeignRules("FOREIGN_1"); });
    const Nuisance second([] { writeForeignRules("FOREIGN_2"); });
    const Nuisance third([] { writeForeignRules("FOREIGN_3"); });
    const Nuisance holder([] {
      holdXtablesLock(milliseconds(5));
      std::this_thread::sleep_for(milliseconds(5));
    });
    for (int round = 0; round < rounds; ++round) {
      const bool done = FW::TARNFW().fwReload(true);
      const bool golden = road::chains("iptables") == road::chainsWithPreambleV4(kDenied) &&
                          road::chains("ip6tables") == road::chainsWithPreambleV6("");
      wrong += done && golden ? 0U : 1U;
    }
  }
  EXPECT_EQ(0U, wrong);
  expectRulesOfTheProfile();
  figures::add(static_cast<std::uint64_t>(rounds), "reloads beside 4 foreign programs");
  figures::add(wrong, "wrong");
}

}  // namespace
