// Where does the time of a compilation go, and is each stage linear in the number of rules?
//
// The stages of TARNFW::fwIptablesRulesEnum one by one, as times of one run: loading the document
// under its lock, which happens once for every look-up, reading records out of it, and compiling
// the records. bench/compile.cpp has the numbers that are held to a bound.

#include <benchmark/benchmark.h>

#include <json/value.h>

#include "profiles.h"
#include "report.h"
#include "tarnfirewall.h"

namespace {

int rulesOf(const benchmark::State& state) { return static_cast<int>(state.range(0)); }

void load(benchmark::State& state) {
  bench::install(bench::mixedProfile(rulesOf(state)));
  for ([[maybe_unused]] auto step : state) {
    Json::Value document;
    bench::require(jsonFileLoad(document, bench::kProfilePath), "the document does not load");
  }
  state.SetComplexityN(state.range(0));
}

void readRecords(benchmark::State& state) {
  Json::Value document;
  FW::TARNFW_JSON_DB().profileToJson(bench::mixedProfile(rulesOf(state)), document);
  for ([[maybe_unused]] auto step : state) {
    FW::FWPROFILE profile;
    FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
    benchmark::DoNotOptimize(profile);
  }
  state.SetComplexityN(state.range(0));
}

void compileRecords(benchmark::State& state) {
  const FW::FWPROFILE profile = bench::mixedProfile(rulesOf(state));
  for ([[maybe_unused]] auto step : state) {
    Json::Value commands;
    bench::require(FW::TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
                       /*withState=*/true, profile.rules, profile.adapterPolicyMap, commands),
                   "the records do not compile");
  }
  state.SetComplexityN(state.range(0));
}

void whole(benchmark::State& state) {
  bench::install(bench::mixedProfile(rulesOf(state)));
  for ([[maybe_unused]] auto step : state) {
    Json::Value commands;
    bench::require(
        FW::TARNFW().fwIptablesRulesEnum(bench::kProfileName, commands, /*withState=*/true),
        "the profile does not compile");
  }
  state.SetComplexityN(state.range(0));
}

void sizes(benchmark::internal::Benchmark* stage) {
  stage->RangeMultiplier(10)->Range(100, 10000)->Complexity(benchmark::oN);
  stage->Unit(benchmark::kMicrosecond)->MinTime(0.2);
}

BENCHMARK(load)->Apply(sizes);
BENCHMARK(readRecords)->Apply(sizes);
BENCHMARK(compileRecords)->Apply(sizes);
BENCHMARK(whole)->Apply(sizes);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  (void)bench::start(argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
