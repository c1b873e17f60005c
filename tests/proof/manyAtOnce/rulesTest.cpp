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
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
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

// The variant of the tools that the sandbox has put in place.
std::string backend() {
  const std::string program = std::filesystem::canonical("/sbin/iptables").filename();
  return program.find("nft") != std::string::npos ? "nft" : "legacy";
}

class ManyHands : public road::RoadTest {
 protected:
  static void SetUpTestSuite() { figures::open("many-at-once/rules/" + backend()); }

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

const std::vector<std::string> kLasting = {"office", "road"};
constexpr char kOnTrial[] = "home";

struct HandCounts {
  crowd::Calls reloads;
  crowd::Calls trials;
  crowd::Calls updates;
  crowd::Calls edits;
  crowd::Calls looks;
  std::atomic<std::uint64_t> lost = 0;
};

// Is the profile there, with its own name and either all of its marks or, where that is allowed,
// none of them?
bool isWhole(const std::string& name, bool mayHaveNone) {
  FW::FWPROFILE profile;
  if (!FW::TARNFW_PROFILE().profileGet(name, profile) || profile.name != name) return false;
  const auto marks = profile.rules.find("mark0");
  const auto policy = profile.adapterPolicyMap.find("mark0");
  const bool hasRules = marks != profile.rules.end();
  const bool hasPolicy = policy != profile.adapterPolicyMap.end();
  if (!hasRules && !hasPolicy) return mayHaveNone;
  return hasRules && hasPolicy && marks->second.size() == 3 &&
         marks->second[2].name == "mark of " + name && policy->second == FW::FW_POLICY_DENY;
}

// The profile on trial may be without its marks. A trial begins with an empty test profile; an edit
// of all profiles that has read it then writes it back later, over what the trial has put there in
// between, and that is what is adopted: nothing locks a document from its reading to its writing.
// The others are never on trial.
std::uint64_t lostProfiles() {
  std::uint64_t lost = isWhole(kOnTrial, /*mayHaveNone=*/true) ? 0 : 1;
  for (const std::string& name : kLasting) lost += isWhole(name, /*mayHaveNone=*/false) ? 0U : 1U;
  return lost;
}

// How many documents there are that do not load.
std::uint64_t tornDocuments() {
  std::uint64_t torn = 0;
  for (const auto& entry : std::filesystem::directory_iterator(files::kProfileDirectory)) {
    Json::Value document;
    const bool isDocument = entry.path().extension() == ".json";
    if (isDocument && !jsonFileLoad(document, entry.path())) ++torn;
  }
  return torn;
}

// How often somebody has met a document that does not parse.
std::uint64_t unparsed() {
  constexpr char kWords[] = "Failed to parse Json value";
  const std::string log = files::read("/run/syslog");
  std::uint64_t count = 0;
  for (std::size_t at = log.find(kWords); at != std::string::npos; at = log.find(kWords, at + 1)) {
    ++count;
  }
  return count;
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
                    [&] { return profiles.CreateTestProfile(kOnTrial, profileNamed(kOnTrial)); });
  (void)crowd::call(counts.trials,
                    [] { return FW::TARNFW().TestApplyingProfile(kOnTrial, "10.9.9.9"); });
  (void)crowd::call(counts.trials, [&] { return profiles.AdoptTestProfile(kOnTrial); });
  (void)crowd::call(counts.trials, [&] { return profiles.RemoveTestProfile(kOnTrial); });
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
  for (const std::string name : {"home", "office", "road"}) {
    ASSERT_TRUE(FW::TARNFW_PROFILE().profileSet(name, profileNamed(name)));
  }
  const seconds planned(30 * figures::longer());  // with both variants a minute
  const crowd::Shared<HandCounts> counts;
  const auto work = [&](int number) {
    const auto end = steady_clock::now() + planned;
    while (steady_clock::now() < end) kHands[static_cast<std::size_t>(number)](*counts);
    return std::string("done");
  };
  const auto patience = static_cast<unsigned>(planned.count()) + kPatience;
  files::write("/run/syslog", "");
  EXPECT_EQ("", crowd::others(crowd::run(static_cast<int>(kHands.size()), patience, work), "done"));

  const std::uint64_t torn = unparsed() + tornDocuments();
  std::uint64_t calls = 0;
  std::uint64_t failed = 0;
  std::uint64_t threw = 0;
  std::uint64_t longest = 0;
  for (const crowd::Calls* kind :
       {&counts->reloads, &counts->trials, &counts->updates, &counts->edits, &counts->looks}) {
    EXPECT_GT(kind->succeeded, kind->failed);
    calls += kind->all();
    failed += kind->failed;
    threw += kind->threw;
    longest = std::max<std::uint64_t>(longest, kind->longest);
  }
  EXPECT_EQ(0U, threw);
  EXPECT_EQ(0U, torn);
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
  figures::add(failed, "met a profile that was being tried or taken away");
  figures::add(threw, "threw");
  figures::add(torn, "torn documents");
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

// Takes the lock of the packet filter; closing the descriptor lets it go.
int takeXtablesLock() {
  const int fd = open(kXtablesLock, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
  if (flock(fd, LOCK_EX) != 0) throw std::runtime_error(kXtablesLock);
  return fd;
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
    const int lock = takeXtablesLock();
    const auto start = steady_clock::now();
    std::thread holder([kHeld, lock] {
      std::this_thread::sleep_for(kHeld);
      (void)close(lock);
    });
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    const auto spent = steady_clock::now() - start;
    holder.join();
    EXPECT_GE(spent, kHeld) << "it has not waited";
    EXPECT_LT(spent, milliseconds(kLongestCall));
    expectRulesOfTheProfile();
  }
  figures::add(kRounds, "reloads behind a held xtables lock");
}

TEST_F(ManyHands, RulesArriveBesideForeignWriters) {
  const int rounds = figures::longer() > 1 ? std::max(50, 20 * figures::longer()) : 20;
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
      const int lock = takeXtablesLock();
      std::this_thread::sleep_for(milliseconds(5));
      (void)close(lock);
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
