// What tracking costs a failure-free call: a tracked empty procedure beside an untracked one.
#include <benchmark/benchmark.h>

#include "allocation_counter.h"
#include "platform/portable/portable_platform.h"
#include "tracing/run.h"
#include "tracing/vbw_protector.h"

namespace tabforge {
namespace {

constexpr auto kEmpty = tracing::DefineProcedure(u"Bench.Empty", 100);

struct Fixture {
  PortablePlatform platform;
  VbwProtector protector{platform.View()};
  Fixture() { protector.vbwInitializeProtector(); }
  tracing::Module Trace() { return tracing::Module(protector, *this); }
  void vbwReportModuleVariables() const {}
};

__attribute__((noinline)) void Untracked(int& counter) {
  benchmark::DoNotOptimize(++counter);
}

__attribute__((noinline)) void Tracked(Fixture& fixture, int& counter) {
  tracing::Run(
      fixture.Trace(), kEmpty, [&](tracing::ParameterText& p) { p.Add(u"counter", counter); },
      [&](tracing::LocalReport& l) { l.Add(u"counter", counter); },
      [&](tracing::Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) benchmark::DoNotOptimize(++counter);
        TF_END
      });
}

void TrackedProcedure(benchmark::State& state) {
  Fixture fixture;
  int counter = 0;
  const auto before = bench::Allocations();
  for (auto _ : state)
    Tracked(fixture, counter);
  state.counters["allocs/call"] = benchmark::Counter(
      static_cast<double>(bench::Allocations() - before), benchmark::Counter::kAvgIterations);
}
BENCHMARK(TrackedProcedure)->Name("Op/tracked empty procedure");

void UntrackedProcedure(benchmark::State& state) {
  int counter = 0;
  for (auto _ : state)
    Untracked(counter);
}
BENCHMARK(UntrackedProcedure)->Name("Floor/tracked empty procedure");

}  // namespace
}  // namespace tabforge
