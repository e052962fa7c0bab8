#include "realtime/RealTimeRelay.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>

#include "VANEProbeExtensionProvider.h"
#include "common/MonotonicTime.h"
#include "embedded/EmbeddedCameraService.h"
#include "formats/FormatCatalogue.h"

namespace flowmere::bench {

namespace {

using common::monotonicNanoseconds;
using common::sleepUntil;

// Distinct pixel buffers the producer cycles through: one more than the producer queue holds,
// so that no buffer is pushed again while an earlier push of it still waits.
constexpr std::size_t kPixelBufferCount = embedded::EmbeddedStream::kProducerQueueCapacity + 1;

// What the subscribers record on the consume queue. `mutex` guards both vectors.
struct Recording {
  std::mutex mutex;
  std::vector<std::int64_t> sendTimes;
  std::vector<std::uint64_t> sequenceNumbers;
};

}  // namespace

const char* persistenceName(Persistence persistence) {
  return persistence == Persistence::kDisk ? "sqlite+files on disk"
                                           : "suite in memory, files on tmpfs";
}

double processCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

RealTimeRunResult runRealTime(const RealTimeRunOptions& options) {
  const std::filesystem::path directory =
      std::filesystem::path(options.persistence == Persistence::kDisk ? "/var/tmp" : "/dev/shm") /
      ("flowmere-realtime-" + std::to_string(::getpid()));
  std::filesystem::remove_all(directory);

  embedded::EmbeddedOptions serviceOptions;
  serviceOptions.mode = embedded::TimeMode::kReal;
  serviceOptions.containerDirectory = directory / "container";
  serviceOptions.temporaryDirectory = directory / "tmp";
  serviceOptions.settings = options.persistence == Persistence::kDisk
                                ? embedded::EmbeddedOptions::Settings::kSqlite
                                : embedded::EmbeddedOptions::Settings::kMemory;
  serviceOptions.interactiveTimerSlackNanoseconds = options.consumeTimerSlackNanoseconds;
  serviceOptions.logSink = [](std::string_view) {};
  auto service = embedded::EmbeddedCameraService::create(serviceOptions);
  auto provider = VANEProbeExtensionProviderSource::create(service, nullptr);
  service->startService(provider->platformProvider());

  const auto frames = static_cast<std::int64_t>(std::llround(options.seconds * options.fps));
  auto recording = std::make_shared<Recording>();
  recording->sendTimes.reserve(static_cast<std::size_t>(frames));
  recording->sequenceNumbers.reserve(static_cast<std::size_t>(frames));
  service->onSend([recording](const embedded::EmbeddedStream&,
                              const std::shared_ptr<platform::SampleBuffer>&,
                              platform::StreamDiscontinuityFlags, std::uint64_t hostTime) {
    const std::scoped_lock lock(recording->mutex);
    recording->sendTimes.push_back(static_cast<std::int64_t>(hostTime));
  });
  service->onScheduledOutput(
      [recording](const embedded::EmbeddedStream&, const platform::ScheduledOutput& output) {
        const std::scoped_lock lock(recording->mutex);
        recording->sequenceNumbers.push_back(output.sequenceNumber);
      });

  const auto catalogue = makeFormatCatalogue();
  const platform::FormatDescription& format = (*catalogue)[options.formatIndex].formatDescription;
  std::vector<std::shared_ptr<platform::PixelBuffer>> pixels;
  for (std::size_t i = 0; i < kPixelBufferCount; ++i) {
    pixels.push_back(platform::PixelBuffer::create(
        static_cast<std::uint32_t>(format.dimensions().width),
        static_cast<std::uint32_t>(format.dimensions().height), format.codecType()));
  }

  auto producer = service->makeClient(static_cast<std::int32_t>(::getpid()), "realtime producer");
  auto sink = service->sinkStream();
  sink->authorize(producer);
  platform::StreamProperties chosen;
  chosen.setActiveFormatIndex(static_cast<std::int64_t>(options.formatIndex));
  (void)sink->setProperties(chosen);
  (void)sink->start();

  // The producer wakes at the tightest slack too, so that its pushes are on time and what is
  // measured is the relay.
  const int previousSlack = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
  prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);

  RealTimeRunResult result;
  const std::int64_t start = monotonicNanoseconds() + 20'000'000;
  const double cpuBefore = processCpuSeconds();
  std::int64_t latestLateness = 0;
  for (std::int64_t k = 0; k < frames; ++k) {
    const auto due = start + static_cast<std::int64_t>(static_cast<double>(k) * 1e9 / options.fps);
    sleepUntil(due);
    latestLateness = std::max(latestLateness, monotonicNanoseconds() - due);
    // Time stamps 1/fps apart, in nanoseconds.
    auto frame = std::make_shared<platform::SampleBuffer>(
        pixels[static_cast<std::size_t>(k) % pixels.size()], std::nullopt,
        platform::SampleTimingInfo{
            {},
            platform::MediaTime::make(std::llround(static_cast<double>(k) * 1e9 / options.fps),
                                      1'000'000'000),
            {}});
    if (sink->push(producer, std::move(frame), static_cast<std::uint64_t>(k + 1))) {
      ++result.pushed;
    } else {
      ++result.refused;
    }
  }
  result.wallSeconds = static_cast<double>(monotonicNanoseconds() - start) / 1e9;
  result.cpuSeconds = processCpuSeconds() - cpuBefore;
  result.producerLateMaxMicroseconds = static_cast<double>(latestLateness) / 1e3;
  if (previousSlack > 0) {
    prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(previousSlack), 0, 0, 0);
  }

  // Let the accepted frames leave. Once the last one is recorded, the chain only polls an empty
  // queue and leaves the anchors alone; the recording's mutex orders their last writes before
  // the read below.
  const std::int64_t drainDeadline = monotonicNanoseconds() + 1'000'000'000;
  bool drained = false;
  while (!drained && monotonicNanoseconds() < drainDeadline) {
    {
      const std::scoped_lock lock(recording->mutex);
      drained = static_cast<std::int64_t>(recording->sequenceNumbers.size()) >= result.pushed;
    }
    if (!drained) {
      sleepUntil(monotonicNanoseconds() + 1'000'000);
    }
  }
  if (drained) {
    result.finalAnchorPTS = provider->devices().front()->sink()->snapshot().timelineAnchorPTS;
  }
  (void)sink->stop();

  {
    const std::scoped_lock lock(recording->mutex);
    const std::size_t count =
        std::min(recording->sendTimes.size(), recording->sequenceNumbers.size());
    result.deliveries.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      result.deliveries.push_back(Delivery{recording->sequenceNumbers[i], recording->sendTimes[i]});
    }
  }
  sink.reset();
  provider.reset();
  service.reset();
  std::filesystem::remove_all(directory);
  return result;
}

LatenessSummary summarizeLateness(const std::vector<Delivery>& deliveries, double fps,
                                  double lateLimitSeconds) {
  LatenessSummary summary;
  if (deliveries.empty()) {
    return summary;
  }
  const double period = 1e9 / fps;
  const double limit = lateLimitSeconds * 1e9;
  Delivery anchor = deliveries.front();
  for (const Delivery& delivery : deliveries) {
    const double target =
        static_cast<double>(anchor.sendNanoseconds) +
        static_cast<double>(delivery.sequenceNumber - anchor.sequenceNumber) * period;
    const double lateness = static_cast<double>(delivery.sendNanoseconds) - target;
    summary.maxLatenessMilliseconds = std::max(summary.maxLatenessMilliseconds, lateness / 1e6);
    if (lateness > limit) {
      ++summary.reanchors;
      anchor = delivery;
    }
  }
  return summary;
}

}  // namespace flowmere::bench
