// A plain program that uses the library and is killed: no handler, no supervisor, signals as a
// shell gives them.
//
//   killReload_victim enable|reload|disable|trial
//
// Leads a session and calls itself as the command does, so that the interrupting tool takes it for
// a worker.

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <map>
#include <string>

#include "tarnfirewall.h"

int main(int argc, char* argv[]) {
  static const std::map<std::string, std::function<bool()>> kOperations = {
      {"enable", [] { return FW::TARNFW().fwEnable(); }},
      {"reload", [] { return FW::TARNFW().fwReload(/*withState=*/true); }},
      {"disable", [] { return FW::TARNFW().fwDisable(); }},
      {"trial", [] { return FW::TARNFW().TestApplyingProfile("default", "10.77.0.2"); }},
  };
  const auto operation = kOperations.find(argc == 2 ? argv[1] : "");
  if (operation == kOperations.end()) {
    (void)std::fprintf(stderr, "usage: %s enable|reload|disable|trial\n", argv[0]);
    return 2;
  }
  for (const int signal : {SIGINT, SIGHUP, SIGTERM, SIGPIPE}) (void)std::signal(signal, SIG_DFL);
  sigset_t none;
  (void)sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
  (void)setsid();
  (void)prctl(PR_SET_NAME, "tarnfw");
  return operation->second() ? 0 : 1;
}
