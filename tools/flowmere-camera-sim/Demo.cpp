#include "Demo.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <random>
#include <unordered_map>
#include <vector>

#include "FramePattern.h"
#include "LogFile.h"
#include "PngWriter.h"
#include "VANEProbeExtensionProvider.h"
#include "VendorIdentifiers.h"
#include "common/MonotonicTime.h"
#include "common/PosixFileManager.h"
#include "embedded/EmbeddedCameraService.h"
#include "formats/FormatCatalogue.h"

namespace flowmere::sim {

namespace {

using common::monotonicNanoseconds;

std::atomic<bool> interrupted{false};

void onSignal(int /*signal*/) {
  interrupted.store(true);
}

// How long after a push the next frame's drawing starts. Relaying a frame takes about 0.2 ms.
constexpr std::int64_t kDrawingPause = 2'000'000;

// Draws frame `frame` of the test pattern that the producer pushes too: a moving ramp under a
// frame counter that capture checks can read back.
void drawPattern(platform::PixelBuffer& buffer, std::uint64_t frame) {
  const platform::PixelBufferPlane& first = buffer.plane(0);
  auto* firstData = reinterpret_cast<std::uint8_t*>(first.data);
  if (buffer.pixelFormat() == platform::kCVPixelFormatType_32BGRA) {
    pattern::fillBgra(firstData, first.bytesPerRow, buffer.width(), buffer.height(), frame);
    return;
  }
  const platform::PixelBufferPlane& chroma = buffer.plane(1);
  pattern::fillP010(firstData, first.bytesPerRow, reinterpret_cast<std::uint8_t*>(chroma.data),
                    chroma.bytesPerRow, buffer.width(), buffer.height(), frame);
}

// Ctrl-C ends a wait for the next frame at once.
void sleepUntil(std::int64_t deadline) {
  common::sleepUntil(deadline, interrupted);
}

struct Percentiles {
  double median = 0;
  double p99 = 0;
  double max = 0;
};

Percentiles percentiles(std::vector<double> values) {
  if (values.empty()) {
    return {};
  }
  std::sort(values.begin(), values.end());
  auto at = [&](double q) {
    return values[std::min(values.size() - 1, static_cast<std::size_t>(q * (values.size() - 1)))];
  };
  return {at(0.5), at(0.99), values.back()};
}

// What the camera client saw, filled in on the consume queue.
struct Reception {
  std::mutex mutex;
  std::unordered_map<const platform::PixelBuffer*, std::int64_t> pushTimes;  // by buffer
  std::vector<double> latenciesMs;
  std::vector<std::int64_t> sendHostTimes;
  std::vector<double> producerPts;
  std::uint64_t sent = 0;
  std::uint64_t scheduled = 0;
};

}  // namespace

int runDemo(const DemoOptions& options) {
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);

  // The log file outlives the service (it is declared first), so every line the service's threads
  // write before they stop reaches it.
  std::shared_ptr<tools::LogFile> logFile;
  if (options.logFile) {
    std::string problem;
    logFile = tools::LogFile::open(*options.logFile, problem);
    if (!logFile) {
      std::fprintf(stderr, "flowmere-camera-sim: %s (choose another place with --log FILE)\n",
                   problem.c_str());
      return 1;
    }
  }

  embedded::EmbeddedOptions serviceOptions;
  serviceOptions.mode = embedded::TimeMode::kReal;
  serviceOptions.logSink = [file = std::weak_ptr(logFile),
                            verbose = options.verbose](std::string_view line) {
    if (auto strong = file.lock()) {
      strong->write(line);
    }
    if (verbose) {
      std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    }
  };
  serviceOptions.temporaryDirectory = options.temporaryDirectory;
  if (options.container) {
    serviceOptions.containerDirectory = options.container;
  } else if (!options.noContainer) {
    serviceOptions.containerParent = common::PosixFileManager::defaultContainerParent();
  }
  auto service = embedded::EmbeddedCameraService::create(serviceOptions);
  auto provider = VANEProbeExtensionProviderSource::create(service, nullptr);
  service->startService(provider->platformProvider());
  auto& deviceSource = *provider->devices().front();

  const platform::StreamFormat& format =
      (*deviceSource.sink()->formats())[static_cast<std::size_t>(options.formatIndex)];
  const auto width = static_cast<std::uint32_t>(format.formatDescription.dimensions().width);
  const auto height = static_cast<std::uint32_t>(format.formatDescription.dimensions().height);
  const platform::FourCharCode pixelFormat = format.formatDescription.codecType();

  Reception reception;
  std::shared_ptr<platform::SampleBuffer> lastReceived;
  service->onSend([&](const embedded::EmbeddedStream&,
                      const std::shared_ptr<platform::SampleBuffer>& buffer,
                      platform::StreamDiscontinuityFlags, std::uint64_t hostTime) {
    const std::int64_t now = monotonicNanoseconds();
    const std::scoped_lock lock(reception.mutex);
    ++reception.sent;
    reception.sendHostTimes.push_back(static_cast<std::int64_t>(hostTime));
    auto found = reception.pushTimes.find(buffer->imageBuffer().get());
    if (found != reception.pushTimes.end()) {
      reception.latenciesMs.push_back(static_cast<double>(now - found->second) / 1e6);
      reception.pushTimes.erase(found);
    }
    lastReceived = buffer;
  });
  service->onScheduledOutput(
      [&](const embedded::EmbeddedStream&, const platform::ScheduledOutput&) {
        const std::scoped_lock lock(reception.mutex);
        ++reception.scheduled;
      });

  auto sink = service->sinkStream();
  auto source = service->sourceStream();
  auto producer =
      service->makeClient(static_cast<std::int32_t>(getpid()), "flowmere-camera-sim producer");
  auto viewer =
      service->makeClient(static_cast<std::int32_t>(getpid()), "flowmere-camera-sim viewer");

  sink->setStreamingClients({producer});
  sink->authorize(producer);
  platform::StreamProperties chosen;
  chosen.setActiveFormatIndex(options.formatIndex);
  if (platform::Status set = sink->setProperties(chosen); !set.ok()) {
    std::fprintf(stderr, "flowmere-camera-sim: the sink refused format %lld: %s\n",
                 static_cast<long long>(options.formatIndex), set.error().description().c_str());
    return 1;
  }
  if (platform::Status started = sink->start(); !started.ok()) {
    std::fprintf(stderr, "flowmere-camera-sim: the sink did not start: %s\n",
                 started.error().description().c_str());
    return 1;
  }
  source->setStreamingClients({viewer});
  source->authorize(viewer);
  (void)source->start();

  std::printf("Flowmere camera demo: format %lld (%ux%u %s), %.1f fps for %.1f s\n",
              static_cast<long long>(options.formatIndex), width, height,
              platform::fourCharCodeString(pixelFormat).c_str(), options.fps, options.seconds);
  std::fflush(stdout);

  std::mt19937_64 random(42);
  std::uniform_real_distribution<double> jitter(-options.jitterMilliseconds / 1000.0,
                                                options.jitterMilliseconds / 1000.0);
  std::int64_t start = 0;  // the first frame's push
  const auto frames = static_cast<std::uint64_t>(std::llround(options.seconds * options.fps));
  std::uint64_t pushed = 0;
  std::uint64_t refused = 0;
  std::vector<double> producerPts;
  // When frame `frame` is pushed, on the schedule that starts at the first push.
  const auto due = [&start, &options](std::uint64_t frame) {
    return start + static_cast<std::int64_t>(static_cast<double>(frame) * 1e9 / options.fps);
  };
  for (std::uint64_t k = 0; k < frames && !interrupted.load(); ++k) {
    // Drawn before its due time and pushed at it, as a camera pushes a frame when it is
    // captured: a frame pushed late by its drawing time, which varies by milliseconds, would be
    // held back by the relay's pacing until its time stamp's place, and the summary would count
    // that hold as latency. The schedule starts at the first push, for the same reason.
    // Drawing waits a moment after the previous push: the relay's threads woken by that push
    // are queued on this core, and drawing at once (11 ms at 1080p) kept them waiting there for
    // up to a scheduler tick (2-4 ms) while the other core idled.
    if (k > 0) {
      sleepUntil(due(k - 1) + kDrawingPause);
    }
    auto pixels = platform::PixelBuffer::create(width, height, pixelFormat);
    drawPattern(*pixels, k + 1);
    if (k > 0) {
      sleepUntil(due(k));
    }
    const double ptsSeconds = static_cast<double>(k) / options.fps +
                              (options.jitterMilliseconds > 0 ? jitter(random) : 0.0);
    const auto pts =
        platform::MediaTime::make(std::llround(std::max(ptsSeconds, 0.0) * 1e6), 1'000'000);
    auto description = platform::createVideoFormatDescriptionForImageBuffer(*pixels);
    const platform::PixelBuffer* identity = pixels.get();
    auto frame = platform::SampleBuffer::createReadyWithImageBuffer(
        std::move(pixels), description,
        platform::SampleTimingInfo{platform::MediaTime::make(1, 30), pts,
                                   platform::MediaTime::invalid()});
    {
      const std::scoped_lock lock(reception.mutex);
      const std::int64_t now = monotonicNanoseconds();
      if (k == 0) {
        start = now;
      }
      reception.pushTimes[identity] = now;
    }
    if (sink->push(producer, std::move(frame), k + 1)) {
      ++pushed;
      producerPts.push_back(pts.seconds());
    } else {
      ++refused;
      const std::scoped_lock lock(reception.mutex);
      reception.pushTimes.erase(identity);
    }
    if ((k + 1) % static_cast<std::uint64_t>(std::max(1.0, options.fps)) == 0) {
      const std::scoped_lock lock(reception.mutex);
      std::printf("  %5.1f s  pushed %llu  refused %llu  relayed %llu  sent %llu\n",
                  static_cast<double>(monotonicNanoseconds() - start) / 1e9,
                  static_cast<unsigned long long>(pushed), static_cast<unsigned long long>(refused),
                  static_cast<unsigned long long>(reception.scheduled),
                  static_cast<unsigned long long>(reception.sent));
      std::fflush(stdout);
    }
  }
  // Let the last frames leave, then stop the producer and the client.
  sleepUntil(monotonicNanoseconds() + 200'000'000);
  (void)sink->stop();
  (void)source->stop();

  platform::PropertySet timelineOnly{std::string("4cc_fwtc_glob_0000")};
  auto timeline = source->getProperties(timelineOnly);
  std::string timelineText = "{}";
  if (timeline.ok()) {
    if (const auto* state = timeline.value().propertyState("4cc_fwtc_glob_0000")) {
      timelineText = std::get<std::string>(state->value);
    }
  }

  const std::scoped_lock lock(reception.mutex);
  std::vector<double> spacingErrorsUs;
  const std::size_t pairs = std::min(reception.sendHostTimes.size(), producerPts.size());
  for (std::size_t i = 1; i < pairs; ++i) {
    const double delivered =
        static_cast<double>(reception.sendHostTimes[i] - reception.sendHostTimes[i - 1]) / 1e3;
    const double intended = (producerPts[i] - producerPts[i - 1]) * 1e6;
    spacingErrorsUs.push_back(std::fabs(delivered - intended));
  }
  const Percentiles spacing = percentiles(spacingErrorsUs);
  const Percentiles latency = percentiles(reception.latenciesMs);

  std::filesystem::path stateDirectory;
  std::filesystem::path settingsStore;
  auto& files = service->fileManager();
  if (auto container =
          files.containerURLForSecurityApplicationGroupIdentifier(kApplicationGroupIdentifier)) {
    stateDirectory = *container / std::string(kStateDirectoryName);
    settingsStore = *container / "settings.sqlite3";
  } else {
    stateDirectory = files.temporaryDirectory() / std::string(kStateDirectoryName);
  }
  std::string status = "(unknown)";
  service->flushStateFiles();  // written behind the relay in real time
  if (FILE* file = std::fopen((stateDirectory / "bridge_extension_status").c_str(), "rb")) {
    char text[256] = {};
    const std::size_t length = std::fread(text, 1, sizeof(text) - 1, file);
    std::fclose(file);
    status.assign(text, length);
  }

  std::printf("\nSummary%s\n", interrupted.load() ? " (interrupted)" : "");
  std::printf("  frames pushed        %llu\n", static_cast<unsigned long long>(pushed));
  std::printf("  refused (queue full) %llu\n", static_cast<unsigned long long>(refused));
  std::printf("  relayed              %llu\n",
              static_cast<unsigned long long>(reception.scheduled));
  std::printf("  sent to the client   %llu\n", static_cast<unsigned long long>(reception.sent));
  std::printf("  spacing error        median %.0f us, p99 %.0f us, max %.0f us (%zu intervals)\n",
              spacing.median, spacing.p99, spacing.max, spacingErrorsUs.size());
  std::printf("  push-to-receipt      median %.2f ms, p99 %.2f ms, max %.2f ms\n", latency.median,
              latency.p99, latency.max);
  std::printf("  timeline             %s\n", timelineText.c_str());
  std::printf("  status               %s\n", status.c_str());
  std::printf("  state files          %s\n", stateDirectory.c_str());
  if (options.snapshot) {
    if (lastReceived && writePng(*lastReceived->imageBuffer(), *options.snapshot)) {
      std::printf("  snapshot             %s\n", options.snapshot->c_str());
    } else {
      std::printf("  snapshot             (not written: %s)\n",
                  lastReceived ? "cannot write the file" : "no frame was received");
    }
  }
  std::printf("  settings store       %s\n", settingsStore.empty()
                                                 ? "(none: no application-group container)"
                                                 : settingsStore.c_str());
  if (logFile) {
    std::printf("  extension log        %s (%llu lines)\n", logFile->path().c_str(),
                static_cast<unsigned long long>(logFile->lineCount()));
  } else {
    std::printf("  extension log        (not kept)\n");
  }
  return 0;
}

}  // namespace flowmere::sim
