// What the flight log costs a call from the host: a call beside the same call that writes one line
// to the log (a failure's, with the file opened, locked, appended and closed), and a call with
// the log installed but nothing to write beside the call without any log.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "platform/flight_events.h"
#include "platform/portable/portable_platform.h"
#include "platform/portable/posix_log_folder.h"
#include "ribbon/main2.h"
#include "tracing/vbw_protector.h"

namespace tabforge {
namespace {

namespace fs = std::filesystem;

struct Fixture {
  PortablePlatform platform;
  VbwProtector protector{platform.View()};
  Main2 main2{protector};
  Fixture() {
    protector.vbwInitializeProtector();
    main2.Initialize(nullptr, u"Morvelin");
  }
};

// A log in a folder of its own, installed for the process while it lives.
struct InstalledLog {
  fs::path folder;
  PosixLogFolder files;
  flight::RotatingLog log{files};
  LineRecorder recorder{log};
  explicit InstalledLog(const fs::path& where)
      : folder((fs::create_directories(where), where)), files(where.string(), "bench") {
    flight::Install(&recorder, std::chrono::steady_clock::now());
  }
  ~InstalledLog() {
    flight::Install(nullptr, {});
    fs::remove_all(folder);
  }
};

fs::path BenchFolder() {
  return fs::temp_directory_path() / ("tabforge-bench-log-" + std::to_string(::getpid()));
}

void CallWithLogLine(benchmark::State& state) {
  Fixture fixture;
  InstalledLog installed(BenchFolder());
  const flight::Field fields[] = {
      {"procedure", "Main2.GetLabel[Get]"}, {"line", "402"},         {"number", "13"},
      {"description", "Type mismatch"},     {"outcome", "answered"}, {"answer", "7"}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(fixture.main2.GetEnabled(u"MVN16"));
    flight::Note("failure", fields);
  }
  if (installed.log.Broken())
    state.SkipWithError("the log's folder could not be written");
}
BENCHMARK(CallWithLogLine)->Name("Op/call and a log line");

void CallWithoutLogLine(benchmark::State& state) {
  Fixture fixture;
  for (auto _ : state)
    benchmark::DoNotOptimize(fixture.main2.GetEnabled(u"MVN16"));
}
BENCHMARK(CallWithoutLogLine)->Name("Floor/call and a log line");

void CallWithIdleLog(benchmark::State& state) {
  Fixture fixture;
  InstalledLog installed(BenchFolder());
  fixture.main2.GetEnabled(u"MVN16");  // the first callback's line, written once
  for (auto _ : state)
    benchmark::DoNotOptimize(fixture.main2.GetEnabled(u"MVN16"));
}
BENCHMARK(CallWithIdleLog)->Name("Op/call with the log idle");

void CallWithoutLog(benchmark::State& state) {
  Fixture fixture;
  for (auto _ : state)
    benchmark::DoNotOptimize(fixture.main2.GetEnabled(u"MVN16"));
}
BENCHMARK(CallWithoutLog)->Name("Floor/call with the log idle");

}  // namespace
}  // namespace tabforge
