// The highest frame rate the relay sustains with 3840x2160 frames: a producer pushes frames with
// time stamps 1/fps apart for a whole trial (10 s) on the embedded service's real clock and
// threads, and the rate is sustained when no push is refused by the full producer queue and the
// sink never re-anchors its pacing because a frame came too late. The search doubles the rate
// from 60 fps until a trial fails, then bisects between the last rate that held and the first
// that did not. BM_TimerWakeUp first measures how late a lone thread wakes on this machine, the
// floor under every real-time figure here.
//
//   max_rate_benchmark [--trial_seconds=S] [--resolution=R] [Google Benchmark flags]
//
// --trial_seconds (default 10) shortens the trials for a quick look; --resolution (default 0.02)
// is where the bisection stops, as a fraction of the rate that held. A failed trial is run once
// more before the rate counts as failed, so that one disturbance from elsewhere on the machine
// does not end the search; every trial is printed to stderr.

#include <benchmark/benchmark.h>
#include <sys/prctl.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/MonotonicTime.h"
#include "realtime/RealTimeRelay.h"
#include "sink/VANEProbeSinkStream.h"

namespace flowmere {
namespace {

using common::monotonicNanoseconds;

// Set from the command line before the benchmarks run; read-only afterwards.
double trialSeconds = 10.0;
double resolution = 0.02;

struct Trial {
  bool sustained = false;
  bench::RealTimeRunResult run;
  bench::LatenessSummary lateness;
};

Trial runTrial(std::size_t formatIndex, bench::Persistence persistence, double fps) {
  bench::RealTimeRunOptions options;
  options.formatIndex = formatIndex;
  options.persistence = persistence;
  options.fps = fps;
  options.seconds = trialSeconds;
  Trial trial;
  trial.run = bench::runRealTime(options);
  trial.lateness =
      bench::summarizeLateness(trial.run.deliveries, fps, VANEProbeSinkStream::lateFrameLimit);
  // The sink's own anchor confirms the count: it still sits on the first frame's stamp (0) only
  // when the sink never re-anchored.
  const bool anchorKept = trial.run.finalAnchorPTS && *trial.run.finalAnchorPTS == 0.0;
  trial.sustained = trial.run.refused == 0 && trial.lateness.reanchors == 0 && anchorKept &&
                    static_cast<std::int64_t>(trial.run.deliveries.size()) == trial.run.pushed;
  std::fprintf(stderr,
               "  %7.1f fps: %s  pushed %lld  refused %lld  delivered %zu  re-anchors %d%s  "
               "latest %.2f ms  producer late max %.0f us  cpu %.0f ms/s\n",
               fps, trial.sustained ? "held  " : "FAILED", static_cast<long long>(trial.run.pushed),
               static_cast<long long>(trial.run.refused), trial.run.deliveries.size(),
               trial.lateness.reanchors, anchorKept ? "" : " (anchor moved)",
               trial.lateness.maxLatenessMilliseconds, trial.run.producerLateMaxMicroseconds,
               trial.run.cpuSeconds / trial.run.wallSeconds * 1e3);
  return trial;
}

// A rate fails only when two trials in a row fail.
Trial tryRate(std::size_t formatIndex, bench::Persistence persistence, double fps) {
  Trial trial = runTrial(formatIndex, persistence, fps);
  if (!trial.sustained) {
    std::fprintf(stderr, "  %7.1f fps: once more\n", fps);
    trial = runTrial(formatIndex, persistence, fps);
  }
  return trial;
}

void BM_MaxSustainedRate(benchmark::State& state) {
  const auto formatIndex = static_cast<std::size_t>(state.range(0));
  const auto persistence = static_cast<bench::Persistence>(state.range(1));
  const char* formatName = formatIndex == 4 ? "3840x2160 BGRA" : "3840x2160 x420";
  for (auto _ : state) {
    std::fprintf(stderr, "%s, %s, %.0f s trials\n", formatName, bench::persistenceName(persistence),
                 trialSeconds);
    double held = 0.0;
    Trial best;
    double failed = 60.0;
    // Doubling until a rate fails (a trial beyond the ceiling is not worth its memory).
    constexpr double kCeiling = 100'000.0;
    while (failed <= kCeiling) {
      Trial trial = tryRate(formatIndex, persistence, failed);
      if (!trial.sustained) {
        break;
      }
      held = failed;
      best = std::move(trial);
      failed *= 2.0;
    }
    // Bisection between the rate that held and the one that failed, on whole frames per second.
    while (held > 0.0 && failed - held > std::max(1.0, held * resolution)) {
      const double middle = std::round((held + failed) / 2.0);
      Trial trial = tryRate(formatIndex, persistence, middle);
      if (trial.sustained) {
        held = middle;
        best = std::move(trial);
      } else {
        failed = middle;
      }
    }
    state.counters["max_fps"] = held;
    state.counters["first_failed_fps"] = failed;
    state.counters["cpu_ms_per_s_at_max"] =
        best.run.wallSeconds > 0.0 ? best.run.cpuSeconds / best.run.wallSeconds * 1e3 : 0.0;
    state.counters["latest_ms_at_max"] = best.lateness.maxLatenessMilliseconds;
  }
  state.SetLabel(std::string(formatName) + ", " + bench::persistenceName(persistence));
}

// The machine's own floor: a lone thread at the tightest timer slack sleeping to absolute
// deadlines 1/rate apart for one trial's length, as the producer and the consume queue do. A
// wake-up H late lets H x fps frames gather in a queue that holds three.
void BM_TimerWakeUp(benchmark::State& state) {
  const auto rate = static_cast<double>(state.range(0));
  for (auto _ : state) {
    const int previousSlack = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    const auto wakeUps = static_cast<std::int64_t>(trialSeconds * rate);
    std::vector<double> lateness;
    lateness.reserve(static_cast<std::size_t>(wakeUps));
    const std::int64_t start = monotonicNanoseconds() + 1'000'000;
    for (std::int64_t k = 0; k < wakeUps; ++k) {
      const auto due = start + static_cast<std::int64_t>(static_cast<double>(k) * 1e9 / rate);
      const timespec target{static_cast<time_t>(due / 1'000'000'000),
                            static_cast<long>(due % 1'000'000'000)};
      while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &target, nullptr) == EINTR) {
      }
      lateness.push_back(static_cast<double>(monotonicNanoseconds() - due) / 1e3);
    }
    if (previousSlack > 0) {
      prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(previousSlack), 0, 0, 0);
    }
    std::sort(lateness.begin(), lateness.end());
    const auto at = [&](double q) {
      return lateness[std::min(
          lateness.size() - 1,
          static_cast<std::size_t>(q * static_cast<double>(lateness.size() - 1)))];
    };
    state.counters["late_p50_us"] = at(0.5);
    state.counters["late_p99_us"] = at(0.99);
    state.counters["late_p999_us"] = at(0.999);
    state.counters["late_max_us"] = lateness.back();
    state.counters["over_1ms"] = static_cast<double>(
        lateness.end() - std::upper_bound(lateness.begin(), lateness.end(), 1000.0));
    state.counters["over_3ms"] = static_cast<double>(
        lateness.end() - std::upper_bound(lateness.begin(), lateness.end(), 3000.0));
  }
}

BENCHMARK(BM_TimerWakeUp)->Arg(1000)->Iterations(1)->Unit(benchmark::kSecond);

// Format 4: 3840x2160 BGRA; format 6: 3840x2160 10-bit 4:2:0 (HLG).
BENCHMARK(BM_MaxSustainedRate)
    ->ArgsProduct({{4, 6},
                   {static_cast<int>(bench::Persistence::kDisk),
                    static_cast<int>(bench::Persistence::kMemory)}})
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace
}  // namespace flowmere

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const auto value = [&](std::string_view flag) -> const char* {
      return argument.rfind(flag, 0) == 0 ? argv[i] + flag.size() : nullptr;
    };
    if (const char* seconds = value("--trial_seconds=")) {
      flowmere::trialSeconds = std::atof(seconds);
    } else if (const char* fraction = value("--resolution=")) {
      flowmere::resolution = std::atof(fraction);
    } else {
      std::fprintf(stderr, "max_rate_benchmark: unknown argument %s\n", argv[i]);
      return 2;
    }
  }
  if (!(flowmere::trialSeconds > 0.0) || !(flowmere::resolution > 0.0)) {
    std::fprintf(stderr, "max_rate_benchmark: --trial_seconds and --resolution must be > 0\n");
    return 2;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
