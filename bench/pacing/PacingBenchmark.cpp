// Pacing in real time: a producer pushes frames with time stamps 1/fps apart on the embedded
// service's real clock and threads; every send is compared with its target time (the pacing
// anchor plus the time-stamp offset) and with the producer's spacing. Run once with the consume
// queue's thread at the kernel's default timer slack and once at the tightest slack an
// unprivileged thread may ask for.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <mutex>
#include <vector>

#include "VANEProbeExtensionProvider.h"
#include "embedded/EmbeddedCameraService.h"

namespace flowmere {
namespace {

std::int64_t monotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

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
  constexpr double kSeconds = 3.0;
  const std::filesystem::path directory = "/dev/shm/flowmere-pacing-" + std::to_string(::getpid());

  for (auto _ : state) {
    embedded::EmbeddedOptions options;
    options.mode = embedded::TimeMode::kReal;
    options.containerDirectory = directory / "container";
    options.temporaryDirectory = directory / "tmp";
    options.settings = embedded::EmbeddedOptions::Settings::kMemory;
    options.interactiveTimerSlackNanoseconds = slack;
    options.logSink = [](std::string_view) {};
    auto service = embedded::EmbeddedCameraService::create(options);
    auto provider = VANEProbeExtensionProviderSource::create(service, nullptr);
    service->startService(provider->platformProvider());

    std::mutex mutex;
    std::vector<std::int64_t> sendTimes;
    service->onSend([&](const embedded::EmbeddedStream&,
                        const std::shared_ptr<platform::SampleBuffer>&,
                        platform::StreamDiscontinuityFlags, std::uint64_t hostTime) {
      const std::scoped_lock lock(mutex);
      sendTimes.push_back(static_cast<std::int64_t>(hostTime));
    });

    auto producer = service->makeClient(static_cast<std::int32_t>(::getpid()), "pacing producer");
    auto sink = service->sinkStream();
    sink->authorize(producer);
    (void)sink->start();
    auto pixels = platform::PixelBuffer::create(1920, 1080, platform::kCVPixelFormatType_32BGRA);

    const auto frames = static_cast<std::int64_t>(kSeconds * fps);
    const std::int64_t start = monotonicNanoseconds() + 20'000'000;
    const double cpuBefore = cpuSeconds();
    std::int64_t refused = 0;
    for (std::int64_t k = 0; k < frames; ++k) {
      const auto due = start + static_cast<std::int64_t>(static_cast<double>(k) * 1e9 / fps);
      timespec target{static_cast<time_t>(due / 1'000'000'000),
                      static_cast<long>(due % 1'000'000'000)};
      clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &target, nullptr);
      // Time stamps 1/fps apart, in nanoseconds.
      auto frame = std::make_shared<platform::SampleBuffer>(
          pixels, std::nullopt,
          platform::SampleTimingInfo{
              {},
              platform::MediaTime::make(
                  static_cast<std::int64_t>(std::llround(static_cast<double>(k) * 1e9 / fps)),
                  1'000'000'000),
              {}});
      if (!sink->push(producer, std::move(frame), static_cast<std::uint64_t>(k + 1))) {
        ++refused;
      }
    }
    const double wall = static_cast<double>(monotonicNanoseconds() - start) / 1e9;
    const double cpu = cpuSeconds() - cpuBefore;
    (void)sink->stop();

    std::vector<std::int64_t> sends;
    {
      const std::scoped_lock lock(mutex);
      sends = sendTimes;
    }
    // The anchor is the first delivery; every later one aims at anchor + its time-stamp offset.
    std::vector<double> targetErrors;
    std::vector<double> spacingErrors;
    const double period = 1e9 / fps;
    for (std::size_t i = 1; i < sends.size(); ++i) {
      targetErrors.push_back(
          std::fabs(static_cast<double>(sends[i] - sends[0]) - static_cast<double>(i) * period) /
          1e3);
      spacingErrors.push_back(std::fabs(static_cast<double>(sends[i] - sends[i - 1]) - period) /
                              1e3);
    }
    state.counters["target_p50_us"] = percentile(targetErrors, 0.5);
    state.counters["target_p99_us"] = percentile(targetErrors, 0.99);
    state.counters["target_max_us"] = percentile(targetErrors, 1.0);
    state.counters["spacing_p50_us"] = percentile(spacingErrors, 0.5);
    state.counters["spacing_p99_us"] = percentile(spacingErrors, 0.99);
    state.counters["spacing_max_us"] = percentile(spacingErrors, 1.0);
    state.counters["cpu_ms_per_s"] = cpu / wall * 1e3;
    state.counters["delivered"] = static_cast<double>(sends.size());
    state.counters["refused"] = static_cast<double>(refused);
    provider.reset();
    service.reset();
    std::filesystem::remove_all(directory);
  }
  state.SetLabel(slack == 0 ? "default timer slack" : "timer slack 1 ns");
}

BENCHMARK(BM_Pacing)
    ->ArgsProduct({{30, 60, 120, 240}, {0, 1}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace flowmere

BENCHMARK_MAIN();
