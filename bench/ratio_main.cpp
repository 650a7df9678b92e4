// Runs every benchmark, then prints each operation beside its floor measured in the same run.
// An operation named "Op/<name>" is compared with "Floor/<name>".
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (!run.error_occurred && run.run_type == Run::RT_Iteration) {
        times_[run.benchmark_name()] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintRatios() const {
    std::printf("\n%-40s %14s %14s %10s\n", "operation", "time", "floor", "ratio");
    for (const auto& [name, time] : times_) {
      if (name.rfind("Op/", 0) != 0)
        continue;
      const auto floor = times_.find("Floor/" + name.substr(3));
      if (floor == times_.end())
        continue;
      std::printf("%-40s %14.2f %14.2f %10.2f\n", name.substr(3).c_str(), time, floor->second,
                  floor->second > 0 ? time / floor->second : 0.0);
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
