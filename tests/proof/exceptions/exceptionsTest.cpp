// Exceptions inside the drop period, from every kind of caller: the policies are open and no lock
// is held afterwards, C++ sees the exception that was thrown, C the failure value.
//
//   harm      documents whose types make the JSON library throw; every allocation that fails, and
//             all from it on
//   callers   with a handler, without one, not to throw, a thread; C functions with and without
//             tables for unwinding, between C++ and the library; C programs of the C interface
//
// The recorded sweeps take every point; those with the real tools take a sample, another with each
// variant of the tools.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "attempt.h"
#include "figures.h"
#include "machine.h"
#include "surroundings.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "throwingDocuments.h"

namespace {

using exceptions::Attempt;
using exceptions::attempts;
using exceptions::Operation;
using exceptions::thrownBy;
using exceptions::trial;
using surroundings::Harm;

bool legacyTools() { return road::output("iptables -V").find("legacy") != std::string::npos; }

// --- documents ---

// Of the exceptions.
constexpr char kLogic[] = "N4Json10LogicErrorE";
constexpr char kRuntime[] = "N4Json12RuntimeErrorE";

int readProfile() {
  FW::FWPROFILE profile;
  return FW::TARNFW_PROFILE().profileGet("office", profile) ? 0 : 1;
}

int readActiveName() {
  std::string name;
  return FW::TARNFW().fwProfileConfigGet(name) ? 0 : 1;
}

class Documents : public exceptions::ExceptionTest {
 protected:
  void SetUp() override {
    ExceptionTest::SetUp();
    std::filesystem::create_directories(surroundings::kPreparedDirectory);
  }

  // The documents of the profile directory change into those that `write` writes as soon as the
  // chains are flushed.
  template <class Write>
  static void prepare(Write write) {
    write();
    for (const std::string& name : files::list(files::kProfileDirectory)) {
      if (name.find(".json") == std::string::npos) continue;
      std::filesystem::copy_file(files::kProfileDirectory + name,
                                 surroundings::kPreparedDirectory + name,
                                 std::filesystem::copy_options::overwrite_existing);
    }
    writeDocuments();
  }

  template <class Write>
  static void sweep(const std::string& name, const char* type, bool real, Operation read,
                    const std::vector<Attempt>& all, Write write) {
    write();
    const std::string exception = thrownBy(read);
    EXPECT_EQ(0U, exception.rfind(std::string(type) + ": ", 0)) << name << ": " << exception;
    // With the real tools every second one, the others with the other variant.
    std::size_t turn = real && legacyTools() ? 1 : 0;
    for (const Attempt& one : all) {
      if (real && ++turn % 2 == 0 && figures::longer() == 1) continue;
      prepare(write);
      surroundings::arrange(Harm::kDocuments, 0, real);
      EXPECT_TRUE(attempt(one, exception, /*mayReturn=*/false, real, name));
    }
  }

  static void sweepAll(bool real) {
    for (const files::ThrowingDocument& row : files::kThrowingDocuments) {
      sweep(row.name, kLogic, real, readProfile, attempts(), [&row] {
        files::writeProfile("1", "office", row.rules, row.policies);
        files::writeProfile("2", ".test_office", row.rules, row.policies);
      });
    }
    sweep("NestedTooDeep", kRuntime, real, readProfile, attempts(), [] {
      files::write("/usr/tarn/etc/firewall.d/3.json",
                   std::string(2000, '[') + std::string(2000, ']'));
    });
    std::vector<Attempt> reloads;
    for (const Attempt& one : attempts()) {
      if (one.operation != trial) reloads.push_back(one);
    }
    sweep("NameOfTheActiveProfile", kLogic, real, readActiveName, reloads,
          [] { files::writeSettings(R"({"status": true, "profile": ["office"]})"); });
  }
};

TEST_F(Documents, RecordedThrow) { sweepAll(/*real=*/false); }
TEST_F(Documents, RealThrow) { sweepAll(/*real=*/true); }

// --- no memory ---

constexpr long kAllocations = 200;  // at least so many has a drop period
#ifdef TARN_SANITIZED
constexpr long kCoarser = 5;  // every allocation would take minutes
#else
constexpr long kCoarser = 1;
#endif

class NoMemory : public exceptions::ExceptionTest {
 protected:
  // The n-th allocation of the drop period fails, for every `step`-th n. Answers how often one did.
  static long sweep(const Attempt& one, Harm harm, bool real, long first, long step) {
    long attempts = 0;
    for (long number = first; !HasFailure(); number += step) {
      surroundings::arrange(harm, number, real);
      if (!attempt(one, "St9bad_alloc: std::bad_alloc", /*mayReturn=*/true, real,
                   "allocation " + std::to_string(number))) {
        break;
      }
      ++attempts;
    }
    return attempts;
  }
};

// Every allocation for C++ callers with a handler and for those of the C interface; every fourth
// for the others, another fourth for each.
TEST_F(NoMemory, RecordedOnce) {
  long turn = 0;
  for (const Attempt& one : attempts()) {
    const bool every = one.caller.end == exceptions::End::kAnswers || turn < 2;
    const long step = (every ? 1 : std::max(1, 4 / figures::longer())) * kCoarser;
    EXPECT_LE(kAllocations / step,
              sweep(one, Harm::kAllocation, /*real=*/false, turn++ % step, step))
        << one.name;
  }
}

// From every fifth allocation on; another fifth for each caller.
TEST_F(NoMemory, RecordedFromThenOn) {
  const long step = std::max(1, 5 / figures::longer());
  long turn = 0;
  for (const Attempt& one : attempts()) {
    EXPECT_LE(kAllocations / step,
              sweep(one, Harm::kAllocations, /*real=*/false, turn++ % step, step))
        << one.name;
  }
}

TEST_F(NoMemory, RealOnce) {
  const long step = std::max(1, 331 / figures::longer());
  long turn = legacyTools() ? 9 : 0;
  for (const Attempt& one : attempts()) {
    EXPECT_LE(1, sweep(one, Harm::kAllocation, /*real=*/true, turn++ * 17 % step, step))
        << one.name;
  }
}

}  // namespace
