#pragma once
// Shared main for the benchmark programs. Besides Google Benchmark's own
// table it prints the ratios a program declares, each measured in the same
// run:
//
//   KORA_BENCH_RATIO("ReLU f32 / memcpy", "relu_f32_contiguous", "memcpy");
//
// reads "throughput of the first relative to the second" (time of the second
// divided by time of the first, per iteration); 1.0 means as fast.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace kora::bench {

struct Ratio {
  std::string label, subject, baseline;
};

inline std::vector<Ratio>& ratios() {
  static std::vector<Ratio> list;
  return list;
}

inline bool declareRatio(std::string label, std::string subject, std::string baseline) {
  ratios().push_back({std::move(label), std::move(subject), std::move(baseline)});
  return true;
}

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration && run.iterations > 0)
        seconds_[run.run_name.function_name] = run.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }

  void printRatios() const {
    if (ratios().empty()) return;
    std::printf("\nratios (throughput of subject / baseline, same run):\n");
    for (const Ratio& r : ratios()) {
      auto s = seconds_.find(r.subject), b = seconds_.find(r.baseline);
      if (s == seconds_.end() || b == seconds_.end() || s->second <= 0) {
        std::printf("  %-52s (not measured)\n", r.label.c_str());
        continue;
      }
      std::printf("  %-52s %6.3f\n", r.label.c_str(), b->second / s->second);
    }
  }

 private:
  std::map<std::string, double> seconds_;
};

}  // namespace kora::bench

#define KORA_BENCH_CONCAT2(a, b) a##b
#define KORA_BENCH_CONCAT(a, b) KORA_BENCH_CONCAT2(a, b)
#define KORA_BENCH_RATIO(label, subject, baseline) \
  static const bool KORA_BENCH_CONCAT(koraRatio_, __LINE__) = ::kora::bench::declareRatio(label, subject, baseline)

#define KORA_BENCH_MAIN()                                    \
  int main(int argc, char** argv) {                          \
    benchmark::Initialize(&argc, argv);                      \
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1; \
    ::kora::bench::RatioReporter reporter;                   \
    benchmark::RunSpecifiedBenchmarks(&reporter);            \
    reporter.printRatios();                                  \
    benchmark::Shutdown();                                   \
    return 0;                                                \
  }
