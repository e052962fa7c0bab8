// Pacing in real time: a producer pushes 1080p frames with time stamps 1/fps apart on the
// embedded service's real clock and threads; every send is compared with its target time (the
// first delivery plus the time-stamp offset) and its spacing with the producer's spacing. Each
// row runs with the consume queue's thread at the kernel's default timer slack and at the
// tightest slack an unprivileged thread may ask for, three times over.
//
//   pacing_benchmark [--pacing_out=DIR] [Google Benchmark flags]
//
// With --pacing_out, every delivery's errors go to DIR/pacing-deliveries.csv and every run's
// summary to DIR/pacing-runs.csv; bench/pacing/pacing_report.py turns them into the table and
// the spacing-error histogram of docs/PERFORMANCE.md.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "realtime/RealTimeRelay.h"

namespace flowmere {
namespace {

constexpr double kSeconds = 3.0;

// Open while the benchmarks run, when --pacing_out is given. Benchmark thread only.
std::FILE* deliveriesCsv = nullptr;
std::FILE* runsCsv = nullptr;

double percentile(std::vector<double> values, double q) {
  if (values.empty()) {
    return 0.0;
  }
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(q * (values.size() - 1)))];
}

void BM_Pacing(benchmark::State& state) {
  const auto fps = static_cast<double>(state.range(0));
  const auto slack = static_cast<std::uint64_t>(state.range(1));
  // Repetitions of one row run back to back; count them for the CSV.
  static std::map<std::pair<std::int64_t, std::int64_t>, int> repeats;
  const int repeat = repeats[{state.range(0), state.range(1)}]++;

  for (auto _ : state) {
    bench::RealTimeRunOptions options;
    options.formatIndex = 0;  // 1920x1080 BGRA
    options.persistence = bench::Persistence::kMemory;
    options.fps = fps;
    options.seconds = kSeconds;
    options.consumeTimerSlackNanoseconds = slack;
    const bench::RealTimeRunResult run = bench::runRealTime(options);

    // Signed errors in microseconds: the target is the first delivery plus the stamp's offset,
    // the intended spacing the stamps' difference.
    const std::vector<bench::Delivery>& sends = run.deliveries;
    const double period = 1e9 / fps;
    std::vector<double> targetErrors;
    std::vector<double> spacingErrors;
    for (std::size_t i = 1; i < sends.size(); ++i) {
      const double target =
          static_cast<double>(sends[i].sendNanoseconds - sends[0].sendNanoseconds) -
          static_cast<double>(sends[i].sequenceNumber - sends[0].sequenceNumber) * period;
      const double spacing =
          static_cast<double>(sends[i].sendNanoseconds - sends[i - 1].sendNanoseconds) -
          static_cast<double>(sends[i].sequenceNumber - sends[i - 1].sequenceNumber) * period;
      targetErrors.push_back(target / 1e3);
      spacingErrors.push_back(spacing / 1e3);
      if (deliveriesCsv != nullptr) {
        std::fprintf(deliveriesCsv, "%g,%llu,%d,%llu,%.3f,%.3f\n", fps,
                     static_cast<unsigned long long>(slack), repeat,
                     static_cast<unsigned long long>(sends[i].sequenceNumber), spacing / 1e3,
                     target / 1e3);
      }
    }
    const auto magnitudes = [](std::vector<double> values) {
      for (double& value : values) {
        value = std::fabs(value);
      }
      return values;
    };
    const std::vector<double> target = magnitudes(targetErrors);
    const std::vector<double> spacing = magnitudes(spacingErrors);
    const double cpuMsPerSecond = run.cpuSeconds / run.wallSeconds * 1e3;
    state.counters["target_p50_us"] = percentile(target, 0.5);
    state.counters["target_p99_us"] = percentile(target, 0.99);
    state.counters["target_max_us"] = percentile(target, 1.0);
    state.counters["spacing_p50_us"] = percentile(spacing, 0.5);
    state.counters["spacing_p99_us"] = percentile(spacing, 0.99);
    state.counters["spacing_max_us"] = percentile(spacing, 1.0);
    state.counters["cpu_ms_per_s"] = cpuMsPerSecond;
    state.counters["delivered"] = static_cast<double>(sends.size());
    state.counters["refused"] = static_cast<double>(run.refused);
    if (runsCsv != nullptr) {
      std::fprintf(runsCsv, "%g,%llu,%d,%zu,%lld,%.1f,%.1f,%.1f,%.1f,%.1f,%.1f,%.2f\n", fps,
                   static_cast<unsigned long long>(slack), repeat, sends.size(),
                   static_cast<long long>(run.refused), percentile(spacing, 0.5),
                   percentile(spacing, 0.99), percentile(spacing, 1.0), percentile(target, 0.5),
                   percentile(target, 0.99), percentile(target, 1.0), cpuMsPerSecond);
    }
  }
  state.SetLabel(slack == 0 ? "default timer slack" : "timer slack 1 ns");
}

BENCHMARK(BM_Pacing)
    ->ArgsProduct({{30, 60, 120, 240}, {0, 1}})
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace flowmere

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::string outputDirectory;
  for (int i = 1; i < argc; ++i) {
    constexpr std::string_view kFlag = "--pacing_out=";
    if (std::strncmp(argv[i], kFlag.data(), kFlag.size()) == 0) {
      outputDirectory = argv[i] + kFlag.size();
    } else {
      std::fprintf(stderr, "pacing_benchmark: unknown argument %s\n", argv[i]);
      return 2;
    }
  }
  if (!outputDirectory.empty()) {
    flowmere::deliveriesCsv = std::fopen((outputDirectory + "/pacing-deliveries.csv").c_str(), "w");
    flowmere::runsCsv = std::fopen((outputDirectory + "/pacing-runs.csv").c_str(), "w");
    if (flowmere::deliveriesCsv == nullptr || flowmere::runsCsv == nullptr) {
      std::fprintf(stderr, "pacing_benchmark: cannot write into %s\n", outputDirectory.c_str());
      return 2;
    }
    std::fputs("fps,slack_ns,repeat,sequence,spacing_error_us,target_error_us\n",
               flowmere::deliveriesCsv);
    std::fputs(
        "fps,slack_ns,repeat,delivered,refused,spacing_p50_us,spacing_p99_us,spacing_max_us,"
        "target_p50_us,target_p99_us,target_max_us,cpu_ms_per_s\n",
        flowmere::runsCsv);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (flowmere::deliveriesCsv != nullptr) {
    std::fclose(flowmere::deliveriesCsv);
    std::fclose(flowmere::runsCsv);
  }
  return 0;
}
