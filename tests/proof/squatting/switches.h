// The kernel's switches for directories where every user may make files, /proc/sys/fs/protected_*.
// They belong to the machine, not to the sandbox.

#ifndef TARNFW_TESTS_PROOF_SQUATTING_SWITCHES_H
#define TARNFW_TESTS_PROOF_SQUATTING_SWITCHES_H

#include <array>
#include <string>
#include <vector>

namespace squatting {

inline constexpr std::array<const char*, 4> kSwitches = {
    "/proc/sys/fs/protected_symlinks", "/proc/sys/fs/protected_hardlinks",
    "/proc/sys/fs/protected_fifos", "/proc/sys/fs/protected_regular"};

// One value for each of kSwitches.
using Setting = std::array<int, kSwitches.size()>;

// "symlinks 1, hardlinks 1, fifos 2, regular 2"
std::string text(const Setting& setting);

// Links on and off, hard links on and off, and for FIFOs and files the levels 0, 1, 2: all 36
// combinations.
std::vector<Setting> settings();

// Sets the machine's switches, and sets them back at its end. When the process is killed, the
// program keepSwitches, which the test is started by, does that.
class Switches {
 public:
  Switches();
  ~Switches();
  Switches(const Switches&) = delete;
  Switches& operator=(const Switches&) = delete;

  const Setting& machines() const { return machines_; }  // -1: there is no such switch
  // False when the machine does not allow it or has no such switch.
  bool set(const Setting& setting);

 private:
  Setting machines_ = {};
};

}  // namespace squatting

#endif
