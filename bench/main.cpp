// main.cpp: runs the benchmarks, interleaved so that a change of the machine's speed meets both sides of a ratio, and
// prints the ratios behind Google Benchmark's own table.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench.hpp"

namespace {

struct Pair {
  std::string name, ours, theirs;
};

std::vector<Pair> &pairs() {
  static std::vector<Pair> all;
  return all;
}

class Reporter : public benchmark::ConsoleReporter {
 public:
  Reporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.aggregate_name == "median") medians_[run.run_name.function_name] = timeOf(run);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void printRatios() const {
    for (const Pair &pair : pairs()) {
      const auto ours = medians_.find(pair.ours);
      const auto theirs = medians_.find(pair.theirs);
      if (ours == medians_.end() || theirs == medians_.end()) continue;  // filtered out
      std::printf("ratio %-48s %6.2f\n", pair.name.c_str(), ours->second / theirs->second);
    }
  }

 private:
  // Processor time, which other processes disturb less, except for what waits for another thread.
  static double timeOf(const Run &run) {
    return run.run_name.time_type == "real_time" ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
  }

  std::map<std::string, double> medians_;
};

}  // namespace

Ratio::Ratio(const char *name, const char *ours, const char *theirs) { pairs().push_back({name, ours, theirs}); }

int main(int argc, char **argv) {
  std::vector<char *> args(argv, argv + argc);
  std::string defaults[] = {"--benchmark_repetitions=9", "--benchmark_enable_random_interleaving=true",
                            "--benchmark_report_aggregates_only=true", "--benchmark_min_time=0.1"};
  for (std::string &option : defaults) args.insert(args.begin() + 1, option.data());  // the user's options come later
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
}
