// An unprivileged user puts something at one of root's fixed names, root does what uses the name.
// Every kind of thing at every name under every setting of the kernel's switches: root answers
// right within a second, and no file is created, changed or waited on that the user has chosen.

#include <sys/stat.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "attacker.h"
#include "figures.h"
#include "places.h"
#include "switches.h"

namespace {

using namespace squatting;  // NOLINT(google-build-using-namespace): the test's own support

constexpr unsigned kPromised =
    1000;  // cases; seven kinds at four places under three levels would be 84

struct Figures {
  unsigned cases = 0;
  unsigned settings = 0;
  unsigned refusedByKernel = 0;
  unsigned keptOut = 0;
  unsigned wrong = 0;
};

Figures& figuresOf() {
  static Figures kept;
  return kept;
}

class Squatting : public testing::Test {
 protected:
  static void SetUpTestSuite() { figures::open("squatting/names"); }
};

// The lock directory belongs to the attacker from the start.
void takeLockDirectory() {
  EXPECT_EQ(0, asAttacker([] { return mkdir("/var/lock/firewall", 0777); }));
}

void expectRow(const Place& place, const Squat& squat, const Setting& setting) {
  Figures& counted = figuresOf();
  makeVictims();
  reset();
  if (place.fallback) takeLockDirectory();
  const int error = asAttacker([&] { return squat.make(place.path); });
  if (error == EPERM && squat.foreignFile && setting[1] == 1) {
    ++counted.refusedByKernel;
    return;
  }
  ASSERT_EQ(0, error) << "the attacker's own part";
  const Kept squatter(place.path);
  const std::string squatBefore = squatter.description();
  const std::string placeBefore = description(place.path);
  const std::string before = victims();

  ++counted.cases;
  const std::string answered = answer(place.operation);
  const std::string wrong = fault(place, placeBefore);
  const std::string after = victims();
  const std::string squatAfter = squatter.description();
  EXPECT_EQ("true", answered);
  EXPECT_EQ("", wrong);
  EXPECT_EQ(before, after);
  EXPECT_EQ(squatBefore, squatAfter);
  if (answered != "true" || !wrong.empty() || before != after || squatBefore != squatAfter) {
    ++counted.wrong;
  }
}

void sweep(const Setting& setting) {
  SCOPED_TRACE(text(setting));
  ++figuresOf().settings;
  for (const Place& place : openPlaces()) {
    SCOPED_TRACE(place.name);
    for (const Squat& squat : squats()) {
      SCOPED_TRACE(squat.name);
      expectRow(place, squat, setting);
    }
  }
}

TEST_F(Squatting, NothingOfTheAttackersChoiceIsTouched) {
  Switches switches;
  unsigned barred = 0;
  for (const Setting& setting : settings(/*every=*/figures::longer() > 1, switches.machines())) {
    if (switches.set(setting)) {
      sweep(setting);
    } else {
      ++barred;
    }
  }
  if (figuresOf().settings == 0) sweep(switches.machines());
  const Figures& counted = figuresOf();
  figures::add(counted.settings, "of 36 settings");
  figures::add(barred, "not allowed by the machine");
  figures::add(counted.cases, "cases");
  figures::add(counted.refusedByKernel, "squats refused by the kernel");
  figures::add(counted.wrong, "wrong");
  EXPECT_GE(counted.cases, barred == 0 ? kPromised : 84);
}

// No right to the directory; what root has there already is not replaced either.
bool barred(int error) {
  return error == EACCES || error == EPERM || error == EEXIST || error == EADDRINUSE;
}

// Names in directories that root has made for itself, whatever its mask was: nothing can be put
// there at all.
TEST_F(Squatting, ClosedDirectoriesStayClosed) {
  makeVictims();
  reset();
  ASSERT_EQ("true", answer([] {
              (void)umask(0);
              return placeOf("LockDirectory").operation();
            }));
  unsigned keptOut = 0;
  for (const std::string& path : closedPlaces()) {
    for (const Squat& squat : squats()) {
      SCOPED_TRACE(path + " " + squat.name);
      const int error = asAttacker([&] { return squat.make(path.c_str()); });
      EXPECT_TRUE(barred(error)) << error;
      keptOut += barred(error) ? 1 : 0;
    }
  }
  figures::add(keptOut, "kept out");
  figures::add(closedPlaces().size() * squats().size() - keptOut, "let in");
}

}  // namespace
