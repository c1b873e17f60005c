// One point of the sweep: a firewall operation is started, something of it is killed, and the
// machine that this leaves is judged.
//
//   prepare(operation)     the machine in the state that the operation begins in
//   ... start, kill ...
//   judge(point, claim)    nobody locked out, nothing stale, lock free, documents whole, next
//   reload true

#ifndef TARNFW_TESTS_PROOF_KILL_RELOAD_SWEEP_H
#define TARNFW_TESTS_PROOF_KILL_RELOAD_SWEEP_H

#include <optional>
#include <string>
#include <vector>

#include "victims.h"

namespace sweep {

// What is interrupted, and whether the firewall is on when it begins.
struct Operation {
  const char* name;  // as the victim has it
  bool on;           // "status" before
  bool after;        // "status" after
};
inline constexpr Operation kEnable = {"enable", false, true};
inline constexpr Operation kReload = {"reload", true, true};
inline constexpr Operation kDisable = {"disable", true, false};
inline constexpr Operation kTrial = {"trial", true, true};
inline constexpr Operation kTrialWhenOff = {"trial", false, false};

// Makes the machine new, with a small profile that is active and loaded. With `refused` one of its
// lines is one that the tools do not take.
void setUp(bool refused);
void prepare(const Operation& operation);

// The victim that does `operation`.
std::vector<std::string> victim(const Operation& operation);

// Runs `operation` to its end and counts the tool's runs. `calls` of a worker.
long countCalls(const std::vector<std::string>& command);

// Tells the interrupting tool: before (or after) its run number `call` for the worker, `signal`
// goes to `target`. forgetPlan() before judging; it answers whether the signal was sent.
void planSignal(long call, const std::string& signal, const std::string& target, bool after);
bool forgetPlan();

// What must hold after a point.
//   signal    that came to what was to be interrupted
//   status    "status" as it must be; without a value either is right, a damaged document never is
//   recovers  `tarnfw recover` is run first; otherwise nothing is, and the machine must be open all
//   the same
struct Claim {
  std::string signal;
  std::optional<bool> status;
  bool recovers = true;
};
void judge(const std::string& point, const Claim& claim);

// Can system calls be traced here? When not, the sweep that asks takes as many moments instead, and
// is counted.
bool traces();

// This program's share of the points of a sweep: TARN_PART=1/3 is the second third.
bool ours(std::size_t point);

// True when nobody but the sandbox and this program is left.
bool alone();

}  // namespace sweep

#endif
