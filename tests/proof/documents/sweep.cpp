#include "sweep.h"

#include <libkmod.h>

#include <iostream>
#include <utility>

#include "fakeKmod.h"
#include "figures.h"
#include "store.h"
#include "supervisor.h"

namespace sweep {
namespace {

// What surrounds the tests of a program.
class World : public testing::Environment {
 public:
  World(const Counts& counts, std::string points, long promised, std::string (*whyNot)())
      : counts_(counts), points_(std::move(points)), promised_(promised), whyNot_(whyNot) {}

  void SetUp() override {
    if (whyNot_ != nullptr) figures::skipFor(whyNot_());
    for (const char* name : {"xt_alpha", "xt_beta"}) {
      fakeKmod::kernel().modules[name].state = KMOD_MODULE_LIVE;
    }
    store::prepare();
  }

  void TearDown() override {
    EXPECT_LE(promised_, static_cast<long>(counts_.counted(points_))) << points_;
  }

 private:
  const Counts& counts_;
  std::string points_;
  long promised_;
  std::string (*whyNot_)();
};

// How many points the operation comes to.
long pointsOf(const operations::Operation& operation, const std::function<bool(long point)>& harm) {
  const store::Documents before = operations::before(operation);
  long point = 0;
  for (;; ++point) {
    store::reset(before);
    if (!harm(point)) return point;
  }
}

void print(const operations::Operation& operation, long points) {
  std::cout << operation.name << ": " << points << " points\n";
}

}  // namespace

Counts::Counts(const std::string& suite, long promised, const std::vector<std::string>& names,
               std::string (*whyNot)())
    : figures::Counts(suite, names) {
  (void)testing::AddGlobalTestEnvironment(new World(*this, names.front(), promised, whyNot));
}

void Counts::fault(const std::string& name, const std::string& what) {
  if (what.empty()) return;
  count(name);
  ADD_FAILURE() << name << ": " << what;
}

void atEveryPoint(const operations::Operation& operation,
                  const std::function<bool(long point)>& harm) {
  print(operation, pointsOf(operation, harm));
}

void atEveryCall(const operations::Operation& operation, bool filesOnly,
                 const std::function<bool(int call, long point)>& harm) {
  long points = 0;
  store::reset(operations::before(operation));
  const auto work = [&operation] { return operations::answer(operation); };
  for (const int call : supervisor::callsOf(work, filesOnly)) {
    points += pointsOf(operation, [&harm, call](long point) { return harm(call, point); });
  }
  print(operation, points);
}

std::string nameOf(const testing::TestParamInfo<operations::Operation>& operation) {
  return operation.param.name;
}

}  // namespace sweep
