// An unprivileged user puts something at one of root's fixed names, root does what uses the name.
// Every kind of thing at every name under every setting of the kernel's switches: root answers
// right within a second, and no file is created, changed or waited on that the user has chosen.

#include <sys/stat.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "attacker.h"
#include "counts.h"
#include "figures.h"
#include "places.h"
#include "switches.h"

namespace {

using namespace squatting;  // NOLINT(google-build-using-namespace): the test's own support

constexpr unsigned kPromised = 6000;     // cases under all settings
constexpr unsigned kPromisedOfOne = 84;  // under the machine's setting alone

figures::Counts tally("squatting/names",
                      {"sweeps under the 36 settings", "not allowed by the machine", "cases",
                       "squats refused by the kernel", "wrong", "kept out", "let in"});

// The lock directory belongs to the attacker from the start.
void takeLockDirectory() {
  EXPECT_EQ(0, asAttacker([] { return mkdir("/var/lock/firewall", 0777); }));
}

void expectRow(const Place& place, const Squat& squat, const Setting& setting) {
  makeVictims();
  reset();
  if (place.fallback) takeLockDirectory();
  const int error = asAttacker([&] { return squat.make(place.path); });
  if (error == EPERM && squat.foreignFile && setting[1] == 1) {
    tally.count("squats refused by the kernel");
    return;
  }
  ASSERT_EQ(0, error) << "the attacker's own part";
  const Kept squatter(place.path);
  const std::string squatBefore = squatter.description();
  const std::string placeBefore = description(place.path);
  const std::string before = victims();

  tally.count("cases");
  const std::string answered = answer(place.operation);
  const std::string wrong = fault(place, placeBefore);
  const std::string after = victims();
  const std::string squatAfter = squatter.description();
  EXPECT_EQ("true", answered);
  EXPECT_EQ("", wrong);
  EXPECT_EQ(before, after);
  EXPECT_EQ(squatBefore, squatAfter);
  if (answered != "true" || !wrong.empty() || before != after || squatBefore != squatAfter) {
    tally.count("wrong");
  }
}

void sweep(const Setting& setting) {
  SCOPED_TRACE(text(setting));
  tally.count("sweeps under the 36 settings");
  for (const Place& place : openPlaces()) {
    SCOPED_TRACE(place.name);
    for (const Squat& squat : squats()) {
      SCOPED_TRACE(squat.name);
      expectRow(place, squat, setting);
    }
  }
}

TEST(Squatting, NothingOfTheAttackersChoiceIsTouched) {
  Switches switches;
  for (int round = 0; round < figures::longer(); ++round) {
    for (const Setting& setting : settings()) {
      if (switches.set(setting)) {
        sweep(setting);
      } else {
        tally.count("not allowed by the machine");
      }
    }
  }
  if (tally.counted("sweeps under the 36 settings") == 0) sweep(switches.machines());
  const bool all = tally.counted("not allowed by the machine") == 0;
  EXPECT_GE(tally.counted("cases"), all ? kPromised : kPromisedOfOne);
}

// No right to the directory; what root has there already is not replaced either.
bool barred(int error) {
  return error == EACCES || error == EPERM || error == EEXIST || error == EADDRINUSE;
}

// Names in directories that root has made for itself, whatever its mask was: nothing can be put
// there at all.
TEST(Squatting, ClosedDirectoriesStayClosed) {
  makeVictims();
  reset();
  ASSERT_EQ("true", answer([] {
              (void)umask(0);
              return placeOf("LockDirectory").operation();
            }));
  for (const std::string& path : closedPlaces()) {
    for (const Squat& squat : squats()) {
      SCOPED_TRACE(path + " " + squat.name);
      const int error = asAttacker([&] { return squat.make(path.c_str()); });
      EXPECT_TRUE(barred(error)) << error;
      tally.count(barred(error) ? "kept out" : "let in");
    }
  }
}

}  // namespace
