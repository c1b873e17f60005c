// The library inside programs that are interrupted, mask modes, or call it from several threads and
// processes at once. What else programs may have done to themselves is swept by the proof of the
// odd hosts.

#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "machine.h"
#include "processes.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

constexpr itimerval kEveryMillisecond = {{0, 1000}, {0, 1000}};

void ignore(int /*signal*/) {}

bool alarmRings() {
  struct sigaction action = {};
  itimerval timer = {};
  (void)sigaction(SIGALRM, nullptr, &action);
  (void)getitimer(ITIMER_REAL, &timer);
  return action.sa_handler == ignore && (action.sa_flags & SA_RESTART) == 0 &&
         timer.it_interval.tv_usec == kEveryMillisecond.it_interval.tv_usec;
}

std::string descriptorsAndChildren() {
  return files::descriptors() + " " + files::read("/proc/thread-self/children");
}

class Callers : public road::RoadTest {};

// Calls are interrupted all the time and not restarted.
TEST_F(Callers, SwitchOnWhileAnAlarmRings) {
  constexpr char kDenied[] =
      "-A FORWARD_FIREWALL -s 10.0.0.1/32 -j DROP\n"
      "-A INPUT_FIREWALL -s 10.0.0.1/32 -j DROP\n";
  FW::FWRULE rule;
  rule.policy = FW::FW_POLICY_DENY;
  rule.ipList = {"10.0.0.1"};
  rule.portGroup = 3;
  FW::FWPROFILE profile;
  profile.rules["global"] = {rule};
  store(profile);

  processes::Child caller([]() -> std::string {
    syslog(LOG_DEBUG, "a system log of its own");
    struct sigaction action = {};
    action.sa_handler = ignore;
    (void)sigaction(SIGALRM, &action, nullptr);
    (void)setitimer(ITIMER_REAL, &kEveryMillisecond, nullptr);
    const std::string before = descriptorsAndChildren();
    FW::TARNFW firewall;
    std::string answer;
    for (const bool result : {firewall.fwEnable(), firewall.fwDisable(), firewall.fwEnable()}) {
      answer += result ? "true " : "false ";
    }
    answer += alarmRings() ? "rings" : "silent";
    const std::string after = descriptorsAndChildren();
    return before == after ? answer : answer + "\nbefore " + before + "\nafter " + after;
  });
  EXPECT_EQ("true true true rings", caller.answer());
  EXPECT_EQ(road::chainsWithPreambleV4(kDenied), road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6(""), road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
  EXPECT_EQ("on", road::status());
  EXPECT_EQ("", road::libraryLog(""));
}

// The documents' modes do not depend on the caller's mask.
TEST_F(Callers, DocumentsHaveTheirModes) {
  const auto modes = [] {
    std::string text;
    for (const std::string path : {files::kSettingsFile, "/tmp/firewall_iptables_exec.lock",
                                   "/var/lock/firewall/firewall_settings.json.lock"}) {
      struct stat info = {};
      (void)stat(path.c_str(), &info);
      text += std::to_string(info.st_mode & 07777) + " ";
    }
    return text;
  };
  std::filesystem::remove(files::kSettingsFile);
  processes::Child strict([] {
    (void)umask(0777);
    return FW::TARNFW().fwDisable() && FW::TARNFW().fwReload(true) ? "true" : "false";
  });
  EXPECT_EQ("true", strict.answer());
  EXPECT_EQ("416 384 384 ", modes());  // 0640 0600 0600
}

// Threads of one program that switch on, off and reload at once get in each other's way by the lock
// only.
TEST_F(Callers, ThreadsTakeTurns) {
  ASSERT_TRUE(FW::TARNFW().fwEnable());
  std::atomic<int> done(0);
  std::array<std::thread, 4> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([&done] {
      for (int round = 0; round < 2; ++round) done += FW::TARNFW().fwReload(true) ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(8, done);
  EXPECT_EQ(road::chainsWithPreambleV4(""), road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6(""), road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
}

TEST_F(Callers, ProcessesTakeTurns) {
  ASSERT_TRUE(FW::TARNFW().fwEnable());
  const auto work = [] {
    bool all = true;
    for (int round = 0; round < 2; ++round) all = FW::TARNFW().fwReload(true) && all;
    return std::string(all ? "true" : "false");
  };
  processes::Child first(work);
  processes::Child second(work);
  processes::Child third(work);
  EXPECT_EQ("true", first.answer());
  EXPECT_EQ("true", second.answer());
  EXPECT_EQ("true", third.answer());
  EXPECT_EQ(road::chainsWithPreambleV4(""), road::chains("iptables"));
  EXPECT_EQ(road::chainsWithPreambleV6(""), road::chains("ip6tables"));
  EXPECT_EQ(road::kOpenPolicies, road::policies());
}

}  // namespace
