#include "Soak.h"

#include <stdlib.h>  // mkdtemp
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "FramePool.h"
#include "LogFile.h"
#include "LogFormatting.h"
#include "MemoryUsage.h"
#include "VANEProbeExtensionProvider.h"
#include "VendorIdentifiers.h"
#include "common/MonotonicTime.h"
#include "common/SqliteSettingsSuite.h"
#include "embedded/EmbeddedCameraService.h"
#include "platform/SampleBuffer.h"

namespace flowmere::soak {

namespace {

using common::monotonicNanoseconds;
using common::sleepUntil;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::size_t kFailuresKept = 20;
// Enough for the producer queue (3), a delivery in flight and the buffer being pushed, with room
// for stale buffers of an earlier session still queued.
constexpr std::size_t kPoolSlotsPerFormat = 8;
constexpr const char* kStopBeforeChanging = "Stop capture before changing camera orientation.";
constexpr const char* kProducerSelected = "The producer selected this session's camera format.";

std::int64_t toNanoseconds(double seconds) {
  return static_cast<std::int64_t>(std::llround(seconds * 1e9));
}

std::optional<std::string> readWholeFile(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) {
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

std::string describeStatus(const platform::Status& status) {
  return status.ok() ? "success" : status.error().description();
}

bool isIllegalOperation(const platform::Status& status, const char* message) {
  return !status.ok() && status.error().domain == platform::NSOSStatusErrorDomain &&
         status.error().code == platform::kCMIOHardwareIllegalOperationError &&
         status.error().localizedDescription == message;
}

bool isUnsupportedOperation(const platform::Status& status) {
  return !status.ok() && status.error().domain == platform::NSOSStatusErrorDomain &&
         status.error().code == platform::kCMIOHardwareUnsupportedOperationError &&
         !status.error().localizedDescription.has_value();
}

// One soak run: the service, the extension and the two driver threads.
//
// Threading: `run` is called once, on the main thread, which creates and tears down everything
// and samples memory. The producer thread (`produce`) and the client thread (`actAsClients`)
// call the embedded service's client operations. Counters are atomics. `failureMutex_` guards
// `failures_`. `sequenceMutex_` guards `lastSequence_` (written by the scheduled-output
// subscriber on the consume queue). The service's subscribers run on its consume queue and
// platform thread; the log sink under the service's log mutex.
class SoakRun {
 public:
  SoakRun(const SoakOptions& options, std::FILE* progress, std::shared_ptr<tools::LogFile> log)
      : options_(options), progress_(progress), log_(std::move(log)) {}

  SoakReport run();

 private:
  void fail(std::string message);
  void setUp();
  void produce();
  void actAsClients();
  void sampleMemory(std::int64_t start);
  void drain();
  void tearDown();
  void checkMemory();
  [[nodiscard]] bool stopRequested() const { return stopping_.load(); }

  const SoakOptions options_;
  std::FILE* const progress_;
  // Written by the log sink under the service's log mutex; the file itself needs no lock.
  const std::shared_ptr<tools::LogFile> log_;
  SoakReport report_;
  std::filesystem::path directory_;
  bool ownsDirectory_ = false;
  std::int64_t runEnd_ = 0;

  std::shared_ptr<embedded::EmbeddedCameraService> service_;
  std::shared_ptr<VANEProbeExtensionProviderSource> provider_;
  std::shared_ptr<embedded::EmbeddedStream> sinkStream_;
  std::shared_ptr<embedded::EmbeddedStream> sourceStream_;
  std::unique_ptr<FramePool> pool_;
  std::ofstream rssCsv_;

  std::atomic<bool> stopping_{false};
  std::atomic<std::uint64_t> pushed_{0};
  std::atomic<std::uint64_t> refused_{0};
  std::atomic<std::uint64_t> poolExhausted_{0};
  std::atomic<std::uint64_t> relayed_{0};
  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> restarts_{0};
  std::atomic<std::uint64_t> formatChanges_{0};
  std::atomic<std::uint64_t> clientActions_{0};
  std::atomic<std::uint64_t> clientRefusals_{0};
  std::atomic<std::uint64_t> logLines_{0};
  std::atomic<std::uint64_t> consumeErrors_{0};
  // Frames relayed in the producer's last session; written by the producer thread, read after
  // it has been joined.
  std::uint64_t lastSessionRelayed_ = 0;

  std::mutex sequenceMutex_;
  std::uint64_t lastSequence_ = 0;  // guarded by sequenceMutex_

  std::mutex failureMutex_;
  std::vector<std::string> failures_;  // guarded by failureMutex_
  std::atomic<std::uint64_t> failureCount_{0};
};

void SoakRun::fail(std::string message) {
  failureCount_.fetch_add(1);
  const std::scoped_lock lock(failureMutex_);
  if (failures_.size() < kFailuresKept) {
    failures_.push_back(std::move(message));
  }
}

void SoakRun::setUp() {
  if (options_.directory) {
    directory_ = *options_.directory;
    std::filesystem::create_directories(directory_);
  } else {
    std::string pattern = "/var/tmp/flowmere-soak-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      pattern = (std::filesystem::temp_directory_path() / "flowmere-soak-XXXXXX").string();
      if (::mkdtemp(pattern.data()) == nullptr) {
        fail("cannot create a work directory");
      }
    }
    directory_ = pattern;
    ownsDirectory_ = true;
  }

  embedded::EmbeddedOptions serviceOptions;
  serviceOptions.mode = embedded::TimeMode::kReal;
  serviceOptions.containerDirectory = directory_ / "container";
  serviceOptions.temporaryDirectory = directory_ / "tmp";
  serviceOptions.settings = embedded::EmbeddedOptions::Settings::kSqlite;
  std::filesystem::create_directories(directory_ / "tmp");
  const std::string errorPrefix =
      std::string(kLogTag) + "sink consumeSampleBuffer result=error error=";
  serviceOptions.logSink = [this, errorPrefix](std::string_view line) {
    logLines_.fetch_add(1, std::memory_order_relaxed);
    if (line.rfind(errorPrefix, 0) == 0) {
      consumeErrors_.fetch_add(1, std::memory_order_relaxed);
    }
    if (log_) {
      log_->write(line);
    }
    if (options_.verbose) {
      std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    }
  };
  service_ = embedded::EmbeddedCameraService::create(std::move(serviceOptions));
  provider_ = VANEProbeExtensionProviderSource::create(service_, nullptr);
  service_->startService(provider_->platformProvider());
  sinkStream_ = service_->sinkStream();
  sourceStream_ = service_->sourceStream();
  pool_ = std::make_unique<FramePool>(*sinkStream_->formats(), kPoolSlotsPerFormat);

  service_->onScheduledOutput(
      [this](const embedded::EmbeddedStream&, const platform::ScheduledOutput& output) {
        relayed_.fetch_add(1);
        bool backwards = false;
        std::uint64_t previous = 0;
        {
          const std::scoped_lock lock(sequenceMutex_);
          previous = lastSequence_;
          backwards = output.sequenceNumber <= lastSequence_;
          lastSequence_ = output.sequenceNumber;
        }
        if (backwards) {
          fail("scheduled output sequence " + std::to_string(output.sequenceNumber) + " after " +
               std::to_string(previous));
        }
      });
  service_->onSend([this](const embedded::EmbeddedStream&,
                          const std::shared_ptr<platform::SampleBuffer>&,
                          platform::StreamDiscontinuityFlags,
                          std::uint64_t) { sent_.fetch_add(1, std::memory_order_relaxed); });
}

// The producer: sessions of `restartEverySeconds`, each an authorise, a format set and a start,
// frames at `fps` stamped from 0 in steps of 1/fps, and a stop. Every second session uses another
// catalogue format. Frames follow one schedule over the whole run, so restarts do not lower the
// rate.
void SoakRun::produce() {
  auto producer =
      service_->makeClient(static_cast<std::int32_t>(::getpid()), "flowmere-soak producer");
  sinkStream_->setStreamingClients({producer});
  const auto formatCount = static_cast<std::int64_t>(sinkStream_->formats()->size());
  VANEProbeSourceStream& sourceObject = *provider_->devices().front()->source();
  std::mt19937_64 random(options_.seed);
  const double period = 1e9 / options_.fps;
  const auto sessionLength = toNanoseconds(options_.restartEverySeconds);
  const std::filesystem::path framesFile =
      directory_ / "container" / std::string(kStateDirectoryName) / "bridge_frames_received";

  std::int64_t format = 0;
  std::uint64_t sequence = 0;
  std::int64_t frameIndex = 0;
  const std::int64_t scheduleStart = monotonicNanoseconds();
  const auto dueTime = [&](std::int64_t index) {
    return scheduleStart +
           static_cast<std::int64_t>(std::llround(static_cast<double>(index) * period));
  };
  // A session starts only when a frame of it is due before the run ends.
  for (std::uint64_t session = 0; !stopRequested() && dueTime(frameIndex) < runEnd_; ++session) {
    if (session > 0 && session % 2 == 0) {
      format = (format + 1 + static_cast<std::int64_t>(random() % (formatCount - 1))) % formatCount;
      formatChanges_.fetch_add(1);
    }
    sinkStream_->authorize(producer);
    platform::StreamProperties chosen;
    chosen.setActiveFormatIndex(format);
    if (const platform::Status set = sinkStream_->setProperties(chosen); !set.ok()) {
      fail("sink refused format " + std::to_string(format) +
           " while stopped: " + describeStatus(set));
    }
    const std::uint64_t relayedBeforeStart = relayed_.load();
    if (const platform::Status started = sinkStream_->start(); !started.ok()) {
      fail("sink start failed: " + describeStatus(started));
    }
    if (const auto state = sourceObject.snapshot();
        state.producerFormatIndex != format || state.storedFormatIndex != format) {
      fail("source not pinned to the producer's format " + std::to_string(format) +
           " after the start (index " + std::to_string(state.storedFormatIndex) + ")");
    }

    const std::int64_t sessionEnd = std::min(monotonicNanoseconds() + sessionLength, runEnd_);
    for (std::int64_t k = 0; !stopRequested(); ++k, ++frameIndex) {
      const std::int64_t due = dueTime(frameIndex);
      if (due >= sessionEnd) {
        break;
      }
      sleepUntil(due);
      if (k == 3) {
        // A running producer may set the format it has, and nothing else.
        platform::StreamProperties same;
        same.setActiveFormatIndex(format);
        if (const platform::Status set = sinkStream_->setProperties(same); !set.ok()) {
          fail("sink refused its own format while running: " + describeStatus(set));
        }
        platform::StreamProperties other;
        other.setActiveFormatIndex((format + 1) % formatCount);
        if (const platform::Status set = sinkStream_->setProperties(other);
            !isIllegalOperation(set, kStopBeforeChanging)) {
          fail("sink answered a format change while running with " + describeStatus(set));
        }
      }
      std::shared_ptr<platform::PixelBuffer> pixels =
          pool_->acquire(static_cast<std::size_t>(format), sequence + 1);
      if (!pixels) {
        poolExhausted_.fetch_add(1);
        continue;
      }
      auto description = platform::createVideoFormatDescriptionForImageBuffer(*pixels);
      const platform::SampleTimingInfo timing{
          platform::MediaTime::make(1, 30),
          platform::MediaTime::make(std::llround(static_cast<double>(k) * period),
                                    platform::MediaTime::kNanosecondTimescale),
          platform::MediaTime::invalid()};
      auto frame = platform::SampleBuffer::createReadyWithImageBuffer(std::move(pixels),
                                                                      description, timing);
      if (sinkStream_->push(producer, std::move(frame), sequence + 1)) {
        ++sequence;
        pushed_.fetch_add(1);
      } else {
        refused_.fetch_add(1);
      }
    }

    if (const platform::Status stopped = sinkStream_->stop(); !stopped.ok()) {
      fail("sink stop failed: " + describeStatus(stopped));
    }
    restarts_.fetch_add(1);
    // Stop waits for a delivery in progress, and none follows: the recorder's count is final.
    lastSessionRelayed_ = relayed_.load() - relayedBeforeStart;
    service_->flushStateFiles();  // real time writes them behind the relay
    const std::optional<std::string> text = readWholeFile(framesFile);
    if (text != std::to_string(lastSessionRelayed_)) {
      fail("after session " + std::to_string(session + 1) + " the frame count file holds \"" +
           text.value_or("(missing)") + "\", the session relayed " +
           std::to_string(lastSessionRelayed_));
    }
  }
}

// Camera clients on the source stream: random starts, stops, format sets (including indices
// outside the catalogue), property reads and changes of the streaming-client list.
void SoakRun::actAsClients() {
  std::mt19937_64 random(options_.seed * 7919 + 1);
  std::vector<std::shared_ptr<const platform::Client>> viewers;
  viewers.reserve(3);
  for (int i = 0; i < 3; ++i) {
    viewers.push_back(service_->makeClient(1000 + i, "flowmere-soak viewer " + std::to_string(i)));
  }
  std::uniform_real_distribution<double> spread(0.5, 1.5);
  const auto formatCount = static_cast<std::int64_t>(sourceStream_->formats()->size());
  const platform::PropertySet queried{
      std::string(platform::CMIOExtensionPropertyStreamActiveFormatIndex),
      std::string(platform::CMIOExtensionPropertyStreamFrameDuration), timelineMetadataProperty()};

  std::int64_t next = monotonicNanoseconds();
  while (!stopRequested()) {
    next += toNanoseconds(options_.clientActionEverySeconds * spread(random));
    if (next >= runEnd_) {
      break;
    }
    sleepUntil(next);
    clientActions_.fetch_add(1);
    switch (random() % 6) {
      case 0: {
        std::vector<std::shared_ptr<const platform::Client>> streaming;
        for (const auto& viewer : viewers) {
          if (random() % 2 == 0) {
            streaming.push_back(viewer);
          }
        }
        sourceStream_->setStreamingClients(std::move(streaming));
        break;
      }
      case 1:
        sourceStream_->authorize(viewers[random() % viewers.size()]);
        (void)sourceStream_->start();
        break;
      case 2:
        (void)sourceStream_->stop();
        break;
      case 3: {
        // Mostly catalogue indices, sometimes one just outside it.
        const auto index = static_cast<std::int64_t>(random() % (formatCount + 2)) - 1;
        platform::StreamProperties properties;
        properties.setActiveFormatIndex(index);
        const platform::Status set = sourceStream_->setProperties(properties);
        if (index < 0 || index >= formatCount) {
          if (!isUnsupportedOperation(set)) {
            fail("source answered format " + std::to_string(index) + " with " +
                 describeStatus(set));
          }
        } else if (!set.ok()) {
          if (isIllegalOperation(set, kProducerSelected) ||
              isIllegalOperation(set, kStopBeforeChanging)) {
            clientRefusals_.fetch_add(1);
          } else {
            fail("source answered format " + std::to_string(index) + " with " +
                 describeStatus(set));
          }
        }
        break;
      }
      default: {
        const auto answer = sourceStream_->getProperties(queried);
        if (!answer.ok()) {
          fail("source properties failed: " + answer.error().description());
          break;
        }
        const auto index = answer.value().activeFormatIndex();
        const auto duration = answer.value().frameDuration();
        const auto* timeline = answer.value().propertyState(timelineMetadataProperty());
        const auto* text = timeline ? std::get_if<std::string>(&timeline->value) : nullptr;
        const bool timelineOk =
            text != nullptr &&
            (*text == "{}" || (text->rfind(R"({"hostSeconds":)", 0) == 0 && text->size() > 13 &&
                               text->compare(text->size() - 13, 13, R"(,"version":1})") == 0));
        if (!index || *index < 0 || *index >= formatCount ||
            duration != platform::MediaTime::make(1, 30) || !timelineOk) {
          fail("source properties out of range: index " +
               (index ? std::to_string(*index) : std::string("none")) + ", timeline " +
               (text ? *text : std::string("none")));
        }
        break;
      }
    }
  }
}

// Samples memory every `rssEverySeconds` and at the run's end, checks that the source's sent
// count never goes back, and prints progress.
void SoakRun::sampleMemory(std::int64_t start) {
  VANEProbeSourceStream& sourceObject = *provider_->devices().front()->source();
  const std::int64_t sampleEvery =
      std::max<std::int64_t>(toNanoseconds(options_.rssEverySeconds), kSecond / 100);
  const std::int64_t progressEvery = toNanoseconds(options_.progressEverySeconds);
  std::int64_t nextSample = start;
  std::int64_t nextProgress = progressEvery > 0 ? start + progressEvery : INT64_MAX;
  std::uint64_t lastSent = 0;
  for (;;) {
    const std::int64_t now = monotonicNanoseconds();
    // The run's end always gets a sample of its own.
    if (now >= nextSample || now >= runEnd_) {
      // The producer's pixel pool is allocated once, before the first sample; leaving it out
      // keeps the heap figure to what the relay and the service hold.
      const std::uint64_t heap = liveHeapBytes();
      const MemorySample sample{static_cast<double>(now - start) / 1e9, residentBytes().value_or(0),
                                heap > pool_->memoryBytes() ? heap - pool_->memoryBytes() : 0};
      report_.samples.push_back(sample);
      if (rssCsv_) {
        rssCsv_ << sample.seconds << ',' << sample.residentBytes / 1024 << ','
                << sample.heapBytes / 1024 << '\n'
                << std::flush;
      }
      const std::uint64_t sentNow = sourceObject.snapshot().sentFrameCount;
      if (sentNow < lastSent) {
        fail("the source's sent count went back from " + std::to_string(lastSent) + " to " +
             std::to_string(sentNow));
      }
      lastSent = sentNow;
      nextSample += sampleEvery;
    }
    if (now >= nextProgress) {
      std::fprintf(progress_,
                   "  %6.0f s  pushed %llu  refused %llu  relayed %llu  sent %llu  restarts %llu  "
                   "rss %.1f MiB  heap %.1f MiB  failures %llu\n",
                   static_cast<double>(now - start) / 1e9,
                   static_cast<unsigned long long>(pushed_.load()),
                   static_cast<unsigned long long>(refused_.load()),
                   static_cast<unsigned long long>(relayed_.load()),
                   static_cast<unsigned long long>(sent_.load()),
                   static_cast<unsigned long long>(restarts_.load()),
                   static_cast<double>(report_.samples.back().residentBytes) / 1048576.0,
                   static_cast<double>(report_.samples.back().heapBytes) / 1048576.0,
                   static_cast<unsigned long long>(failureCount_.load()));
      std::fflush(progress_);
      nextProgress += progressEvery;
    }
    if (now >= runEnd_) {
      return;
    }
    sleepUntil(std::min({nextSample, nextProgress, runEnd_}));
  }
}

// Waits until nothing of the relay is running: a no-op through the consume queue, the platform
// thread, then the consume queue again orders after everything that could still deliver or send.
void SoakRun::drain() {
  const auto& queue = provider_->devices().front()->sink()->queue();
  const auto throughConsumeQueue = [&queue] {
    std::promise<void> done;
    queue->async([&done] { done.set_value(); });
    done.get_future().wait();
  };
  throughConsumeQueue();
  service_->callExtension([] {});
  throughConsumeQueue();
}

void SoakRun::tearDown() {
  (void)sinkStream_->stop();
  (void)sourceStream_->stop();
  drain();

  auto& device = *provider_->devices().front();
  report_.sinkReceivedFrames = device.sink()->snapshot().receivedFrames;
  const std::uint64_t sourceSent = device.source()->snapshot().sentFrameCount;
  if (sourceSent != sent_.load()) {
    fail("the source counted " + std::to_string(sourceSent) + " sent frames, its clients got " +
         std::to_string(sent_.load()));
  }
  if (report_.sinkReceivedFrames < relayed_.load() || report_.sinkReceivedFrames > pushed_.load()) {
    fail("the sink accepted " + std::to_string(report_.sinkReceivedFrames) + " frames for " +
         std::to_string(pushed_.load()) + " pushed and " + std::to_string(relayed_.load()) +
         " relayed");
  }

  // Everything goes, in the order a process exit would take it; the settings store writes what
  // it still holds as it closes.
  sinkStream_.reset();
  sourceStream_.reset();
  provider_.reset();
  service_.reset();
  if (const std::size_t held = pool_->slotsInUse(); held != 0) {
    fail(std::to_string(held) + " producer buffers are still held after teardown");
  }
  const auto stored = common::SqliteSettingsSuite::readAll(
      common::SqliteSettingsSuite::defaultDatabaseFile(directory_ / "container"));
  const auto found = stored.find("bridge_frames_received");
  const auto* count = found != stored.end() ? std::get_if<std::int64_t>(&found->second) : nullptr;
  if (count == nullptr || static_cast<std::uint64_t>(*count) != lastSessionRelayed_) {
    fail("the settings database holds frames_received " +
         (count ? std::to_string(*count) : std::string("(none)")) + ", the last session relayed " +
         std::to_string(lastSessionRelayed_));
  }
  pool_.reset();
  if (ownsDirectory_ && !options_.keepFiles) {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
}

void SoakRun::checkMemory() {
  report_.heapSource = liveHeapSource();
  report_.warmupSeconds = options_.warmupSeconds >= 0.0 ? options_.warmupSeconds
                                                        : std::min(60.0, options_.seconds / 3.0);
  for (const MemorySample& sample : report_.samples) {
    report_.maxResidentBytes = std::max(report_.maxResidentBytes, sample.residentBytes);
    if (!report_.warmup && sample.seconds >= report_.warmupSeconds) {
      report_.warmup = sample;
    }
    if (report_.warmup) {
      report_.maxResidentAfterWarmupBytes =
          std::max(report_.maxResidentAfterWarmupBytes, sample.residentBytes);
      report_.maxHeapAfterWarmupBytes = std::max(report_.maxHeapAfterWarmupBytes, sample.heapBytes);
    }
  }
  if (!report_.samples.empty()) {
    report_.end = report_.samples.back();
  }
  if (!report_.warmup) {
    fail("no memory sample after the warm-up");
    return;
  }
  const auto mib = [](std::uint64_t bytes) { return static_cast<double>(bytes) / 1048576.0; };
  const double residentGrowth =
      mib(report_.maxResidentAfterWarmupBytes) - mib(report_.warmup->residentBytes);
  if (residentGrowth > options_.rssToleranceMiB) {
    fail("resident memory grew by " + std::to_string(residentGrowth) + " MiB after the warm-up (" +
         std::to_string(options_.rssToleranceMiB) + " MiB allowed)");
  }
  const double heapGrowth = mib(report_.maxHeapAfterWarmupBytes) - mib(report_.warmup->heapBytes);
  if (heapGrowth > options_.heapToleranceMiB) {
    fail("the live heap grew by " + std::to_string(heapGrowth) + " MiB after the warm-up (" +
         std::to_string(options_.heapToleranceMiB) + " MiB allowed)");
  }
}

SoakReport SoakRun::run() {
  setUp();
  if (options_.rssOut) {
    rssCsv_.open(*options_.rssOut, std::ios::trunc);
    if (!rssCsv_) {
      fail("cannot write " + options_.rssOut->string());
    }
    rssCsv_ << "seconds,rss_kib,heap_kib\n";
  }
  const std::int64_t start = monotonicNanoseconds();
  runEnd_ = start + toNanoseconds(options_.seconds);
  std::thread producer([this] { produce(); });
  std::thread clients([this] { actAsClients(); });
  sampleMemory(start);
  stopping_.store(true);
  producer.join();
  clients.join();
  report_.wallSeconds = static_cast<double>(monotonicNanoseconds() - start) / 1e9;
  tearDown();
  checkMemory();

  if (relayed_.load() == 0) {
    fail("nothing was relayed");
  }
  if (consumeErrors_.load() != 0) {
    fail(std::to_string(consumeErrors_.load()) + " consume errors were logged");
  }
  report_.pushed = pushed_.load();
  report_.refused = refused_.load();
  report_.poolExhausted = poolExhausted_.load();
  report_.relayed = relayed_.load();
  report_.sent = sent_.load();
  report_.producerRestarts = restarts_.load();
  report_.formatChanges = formatChanges_.load();
  report_.clientActions = clientActions_.load();
  report_.clientRefusals = clientRefusals_.load();
  report_.logLines = logLines_.load();
  report_.consumeErrors = consumeErrors_.load();
  report_.failureCount = failureCount_.load();
  {
    const std::scoped_lock lock(failureMutex_);
    report_.failures = failures_;
  }
  return report_;
}

}  // namespace

SoakReport runSoak(const SoakOptions& options, std::FILE* progress,
                   std::shared_ptr<tools::LogFile> log) {
  SoakRun run(options, progress, std::move(log));
  return run.run();
}

}  // namespace flowmere::soak
