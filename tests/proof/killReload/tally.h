// What a sweep has counted. Each part of the sweep prints its own as one line of numbers; the test
// adds them up.

#ifndef TARNFW_TESTS_PROOF_KILL_RELOAD_TALLY_H
#define TARNFW_TESTS_PROOF_KILL_RELOAD_TALLY_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

inline constexpr char kTallyMark[] = "tally:";

struct Tally {
  std::uint64_t points = 0;  // something was killed, and the machine judged
  std::uint64_t kill = 0;    // points of SIGKILL, SIGINT ...
  std::uint64_t interrupt = 0;
  std::uint64_t hangUp = 0;
  std::uint64_t terminate = 0;
  std::uint64_t pipe = 0;
  std::uint64_t late = 0;          // all was over before the signal came; not a point
  std::uint64_t untraced = 0;      // parts of sweeps at moments where strace does not trace
  std::uint64_t closedBefore = 0;  // points that left DROP policies for recovery to open
  std::uint64_t closed = 0;        // DROP policies when they must be open
  std::uint64_t stale = 0;         // FIREWALL_RELOADING still accepts open connections
  std::uint64_t wrongStatus = 0;
  std::uint64_t locked = 0;         // the execution lock is held by nobody alive
  std::uint64_t damaged = 0;        // documents
  std::uint64_t failedReloads = 0;  // the next one: false, too long, or other rules

  static Tally& of() {
    static Tally tally;
    return tally;
  }

  std::array<std::uint64_t*, 15> members() {
    return {&points, &kill,        &interrupt, &hangUp,       &terminate,
            &pipe,   &late,        &untraced,  &closedBefore, &closed,
            &stale,  &wrongStatus, &locked,    &damaged,      &failedReloads};
  }

  // `signal` is KILL, INT, HUP, TERM or PIPE.
  std::uint64_t& pointsOf(const std::string& signal) {
    if (signal == "INT") return interrupt;
    if (signal == "HUP") return hangUp;
    if (signal == "TERM") return terminate;
    return signal == "PIPE" ? pipe : kill;
  }

  std::string text() {
    std::string line = kTallyMark;
    for (const std::uint64_t* member : members()) line += " " + std::to_string(*member);
    return line;
  }

  void add(const std::string& line) {
    std::istringstream numbers(line.substr(sizeof kTallyMark - 1));
    for (std::uint64_t* member : members()) {
      std::uint64_t number = 0;
      numbers >> number;
      *member += number;
    }
  }
};

#endif
