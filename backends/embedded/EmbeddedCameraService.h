#pragma once

// The embedded camera service: an in-process stand-in for the operating system's camera service,
// good enough to be the default backend for the tests, the simulator and the demo.
//
// It implements the platform layer (providers, devices, streams, queues, clocks, settings suite,
// files, log) and plays the service's side towards the extension: it keeps each stream's
// streaming clients, forwards client calls (properties, authorisation, start, stop) to the
// extension, gives the producer a bounded buffer queue per sink stream and client (three
// buffers, as the sink reports) from which consume requests are answered, and hands what the
// extension sends (sample buffers, scheduled outputs, property changes) to subscribers.
//
// Two modes:
// - virtual time: a manual executor drives a virtual clock; nothing runs until the owner advances
//   time, and then everything runs on the owner's thread, deterministically. Client calls run
//   synchronously on the caller's thread. Consume requests are answered at once, with a buffer
//   or empty, so scripted runs keep their timing.
// - real time: CLOCK_MONOTONIC and real threads. Client calls and consume completions run on one
//   serial platform thread (the caller waits for the call's result), so calls into the extension
//   never run on the caller's stack or under the caller's locks. A consume request that finds
//   the queue empty waits for the producer's next push, up to `kConsumeWaitLimit`, so a frame
//   reaches the extension when it is pushed instead of at the loop's next retry.
//
// Threading: every public operation may be called from any thread unless it says otherwise.
// `mutex_` guards the published provider, the settings stores and the fault switches (except the
// consume answer delay and the file-write switch, which are atomics); each observer list has a
// leaf lock of its own. No lock is held while calling into the extension or a subscriber.

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "EmbeddedDevice.h"
#include "EmbeddedFileManager.h"
#include "EmbeddedProvider.h"
#include "EmbeddedSettings.h"
#include "EmbeddedStream.h"
#include "ObserverList.h"
#include "VirtualClock.h"
#include "VirtualSerialQueue.h"
#include "common/ThreadSerialQueue.h"
#include "platform/Platform.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::embedded {

enum class TimeMode { kVirtual, kReal };

// Failure switches for tests.
struct EmbeddedFaults {
  // Refuse the Nth addStream call (0: the first stream added).
  std::optional<int> refuseStreamNumber;
  bool refuseDevice = false;
  bool refuseSettingsSuite = false;
  bool failFileWrites = false;
};

struct EmbeddedOptions {
  TimeMode mode = TimeMode::kVirtual;
  // Virtual time at start: host time and system uptime both read this.
  std::int64_t virtualStartNanoseconds = 100'000'000'000;
  // Where application-group containers live (each in a directory named after its group); none:
  // no container is granted.
  std::optional<std::filesystem::path> containerParent;
  // The application-group container itself, when it should not be derived from the parent.
  std::optional<std::filesystem::path> containerDirectory;
  // Stands in for the system temporary directory.
  std::filesystem::path temporaryDirectory = "/tmp";
  // The settings suite: an SQLite store in the container, or an in-memory one.
  enum class Settings { kSqlite, kMemory } settings = Settings::kSqlite;
  // How long a consume request that finds the producer's queue empty waits for a push before it
  // is answered empty. None: the mode's default, `kConsumeWaitLimit` in real time and 0 (answered
  // at once) in virtual time. Tests set it to make requests wait in virtual time, or to shorten
  // the wait in real time.
  std::optional<std::chrono::nanoseconds> consumeWaitLimit{};
  // Timer slack for the real-time serial queues of user-interactive quality (0: default).
  std::uint64_t interactiveTimerSlackNanoseconds = 1;
  EmbeddedFaults faults;
  // Receives every log line; null: the lines go to stderr.
  std::function<void(std::string_view)> logSink;
};

class EmbeddedCameraService final : public platform::Platform,
                                    public std::enable_shared_from_this<EmbeddedCameraService> {
 public:
  static std::shared_ptr<EmbeddedCameraService> create(EmbeddedOptions options);
  explicit EmbeddedCameraService(EmbeddedOptions options);
  ~EmbeddedCameraService() override;

  // platform::Platform
  std::shared_ptr<platform::Provider> createProvider(
      std::weak_ptr<platform::ProviderSource> source,
      std::shared_ptr<platform::SerialQueue> clientQueue) override;
  std::shared_ptr<platform::Device> createDevice(
      std::string localizedName, platform::Uuid deviceID, std::optional<std::string> legacyDeviceID,
      std::weak_ptr<platform::DeviceSource> source) override;
  std::shared_ptr<platform::Stream> createStream(
      std::string localizedName, platform::Uuid streamID, platform::StreamDirection direction,
      platform::StreamClockType clockType, std::weak_ptr<platform::StreamSource> source) override;
  void startService(const std::shared_ptr<platform::Provider>& provider) override;
  // Virtual time: returns at once (the owner drives time). Real time: blocks until `shutdown`.
  void runMainRunLoop() override;
  std::shared_ptr<platform::SerialQueue> createSerialQueue(
      const platform::QueueAttributes& attributes) override;
  std::shared_ptr<platform::SettingsSuite> openSettingsSuite(std::string_view suiteName) override;
  platform::FileManager& fileManager() override;
  const platform::Clock& clock() override { return *clock_; }
  platform::Log& log() override { return *log_; }

  // Ends `runMainRunLoop`. Consume requests still waiting are answered empty, and later ones are
  // answered at once.
  void shutdown();
  // Returns when every state file written so far is on disk. In real time they are written
  // behind the relay; in virtual time they always are at once.
  void flushStateFiles();

  [[nodiscard]] TimeMode mode() const { return options_.mode; }
  // Virtual time only (null in real time).
  [[nodiscard]] ManualExecutor* executor() { return executor_.get(); }
  // The published provider (after startService), and shortcuts to the one device's streams.
  [[nodiscard]] std::shared_ptr<EmbeddedProvider> publishedProvider() const;
  [[nodiscard]] std::shared_ptr<EmbeddedStream> streamWithDirection(
      platform::StreamDirection direction) const;
  [[nodiscard]] std::shared_ptr<EmbeddedStream> sinkStream() const {
    return streamWithDirection(platform::StreamDirection::CMIOExtensionStreamDirectionSink);
  }
  [[nodiscard]] std::shared_ptr<EmbeddedStream> sourceStream() const {
    return streamWithDirection(platform::StreamDirection::CMIOExtensionStreamDirectionSource);
  }

  // A client with a fresh identifier.
  std::shared_ptr<const platform::Client> makeClient(std::int32_t pid, std::string description);

  // Fault switches that may change while running.
  void failNextConsumeRequests(int count, std::string localizedDescription);
  void setFailFileWrites(bool fail);
  // Every consume answer (buffer, empty or error) arrives `delay` after it is ready (at the
  // request, or for a waiting request at the push, timeout or stop that answers it) instead of
  // at once, as from a service whose answers take time; 0 restores the default. With
  // failNextConsumeRequests(n) a run of n errors then lasts n x delay, in virtual time too.
  void setConsumeAnswerDelay(std::chrono::nanoseconds delay);

  // Subscribers. They are called on the thread that sends (the consume queue for frames and
  // scheduled outputs), so they must be quick and must not call back into the extension.
  using SendObservers =
      ObserverList<const EmbeddedStream&, const std::shared_ptr<platform::SampleBuffer>&,
                   platform::StreamDiscontinuityFlags, std::uint64_t>;
  using ScheduledOutputObservers =
      ObserverList<const EmbeddedStream&, const platform::ScheduledOutput&>;
  using PropertiesObservers =
      ObserverList<const EmbeddedStream&, const platform::PropertyStateMap&>;
  using SendObserver = SendObservers::Observer;
  using ScheduledOutputObserver = ScheduledOutputObservers::Observer;
  using PropertiesObserver = PropertiesObservers::Observer;
  // Settings writes (key, value) and successful state-file writes (path, text).
  using SettingsObserver = SettingsWriteObservers::Observer;
  using FileObserver = FileWriteObservers::Observer;
  void onSend(SendObserver observer);
  void onScheduledOutput(ScheduledOutputObserver observer);
  void onPropertiesChanged(PropertiesObserver observer);
  void onSettingsWrite(SettingsObserver observer);
  void onFileWrite(FileObserver observer);

  // Runs `call` the way the service calls into the extension: at once on the caller's thread in
  // virtual time; on the platform thread in real time, waiting for its result.
  template <typename F>
  auto callExtension(F&& call) -> decltype(call());
  // As callExtension, on the extension object behind `source`; `fallback` when it is gone.
  template <typename Source, typename Fallback, typename Call>
  auto callSource(const std::weak_ptr<Source>& source, Fallback fallback, Call&& call)
      -> decltype(call(std::declval<Source&>())) {
    const std::shared_ptr<Source> strong = source.lock();
    if (!strong) {
      return fallback;
    }
    return callExtension([&] { return call(*strong); });
  }

  // Internal: used by the embedded objects.
  void dispatchCompletion(platform::Work work);
  // Runs `work` on the platform queue after `delay`.
  void schedulePlatformWork(std::chrono::nanoseconds delay, platform::Work work);
  // How long a consume request may wait for a push; 0 (answer at once) once shut down.
  [[nodiscard]] std::chrono::nanoseconds consumeWaitLimit() const {
    return shutDown_.load() ? std::chrono::nanoseconds(0) : consumeWaitLimit_;
  }
  // The clock of the platform queue's deadlines: virtual time, or CLOCK_MONOTONIC.
  [[nodiscard]] std::int64_t nowNanoseconds() const;
  bool shouldRefuseStream();
  [[nodiscard]] bool refusesDevice() const { return options_.faults.refuseDevice; }
  std::optional<platform::Error> takeConsumeFault();
  void notifySend(const EmbeddedStream& stream,
                  const std::shared_ptr<platform::SampleBuffer>& buffer,
                  platform::StreamDiscontinuityFlags discontinuity, std::uint64_t hostTime) {
    sendObservers_.notify(stream, buffer, discontinuity, hostTime);
  }
  void notifyScheduledOutput(const EmbeddedStream& stream,
                             const platform::ScheduledOutput& output) {
    scheduledObservers_.notify(stream, output);
  }
  void notifyProperties(const EmbeddedStream& stream, const platform::PropertyStateMap& changes) {
    propertiesObservers_.notify(stream, changes);
  }
  void writeLog(std::string_view line);

 private:
  const EmbeddedOptions options_;
  // Declared before the file manager and the settings stores, which borrow them.
  SendObservers sendObservers_;
  ScheduledOutputObservers scheduledObservers_;
  PropertiesObservers propertiesObservers_;
  SettingsWriteObservers settingsObservers_;
  FileWriteObservers fileObservers_;
  const std::chrono::nanoseconds consumeWaitLimit_;
  std::atomic<bool> shutDown_{false};
  std::unique_ptr<ManualExecutor> executor_;
  std::unique_ptr<platform::Clock> clock_;
  std::unique_ptr<platform::Log> log_;
  std::unique_ptr<EmbeddedFileManager> fileManager_;
  // Real time only: runs client calls and consume completions.
  std::shared_ptr<common::ThreadSerialQueue> platformQueue_;
  std::shared_ptr<platform::SerialQueue> completionQueue_;

  mutable platform::Mutex mutex_;
  std::shared_ptr<EmbeddedProvider> provider_ GUARDED_BY(mutex_);
  int streamsAdded_ GUARDED_BY(mutex_) = 0;
  int consumeFaultsLeft_ GUARDED_BY(mutex_) = 0;
  // Read on every consume request without the lock.
  std::atomic<std::int64_t> consumeAnswerDelayNanoseconds_{0};
  std::string consumeFaultDescription_ GUARDED_BY(mutex_);
  std::map<std::filesystem::path, std::shared_ptr<SharedSettingsStore>> settingsStores_
      GUARDED_BY(mutex_);
  platform::Mutex runLoopMutex_;
  platform::ConditionVariable runLoopWake_;
  bool shutdownRequested_ GUARDED_BY(runLoopMutex_) = false;
};

template <typename F>
auto EmbeddedCameraService::callExtension(F&& call) -> decltype(call()) {
  using R = decltype(call());
  if (options_.mode == TimeMode::kVirtual || platformQueue_->isCurrent()) {
    return call();
  }
  auto promise = std::make_shared<std::promise<R>>();
  std::future<R> future = promise->get_future();
  platformQueue_->async([promise, &call] {
    if constexpr (std::is_void_v<R>) {
      call();
      promise->set_value();
    } else {
      promise->set_value(call());
    }
  });
  return future.get();
}

}  // namespace flowmere::embedded
