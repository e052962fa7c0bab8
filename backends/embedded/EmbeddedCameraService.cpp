#include "EmbeddedCameraService.h"

#include <atomic>
#include <cstdio>
#include <random>

#include "common/LineLog.h"
#include "common/MonotonicClock.h"
#include "common/MonotonicTime.h"
#include "common/SqliteSettingsSuite.h"

namespace flowmere::embedded {

// ---------------------------------------------------------------------------------------------
// EmbeddedCameraService

std::shared_ptr<EmbeddedCameraService> EmbeddedCameraService::create(EmbeddedOptions options) {
  return std::make_shared<EmbeddedCameraService>(std::move(options));
}

EmbeddedCameraService::EmbeddedCameraService(EmbeddedOptions options)
    : options_(std::move(options)),
      consumeWaitLimit_(options_.consumeWaitLimit.value_or(
          options_.mode == TimeMode::kReal ? std::chrono::nanoseconds(kConsumeWaitLimit)
                                           : std::chrono::nanoseconds(0))) {
  log_ = std::make_unique<common::LineLog>(options_.logSink);
  fileManager_ = std::make_unique<EmbeddedFileManager>(
      EmbeddedFileManager::Options{options_.containerParent, options_.containerDirectory,
                                   options_.temporaryDirectory, options_.faults.failFileWrites,
                                   options_.mode == TimeMode::kReal},
      fileObservers_);
  if (options_.mode == TimeMode::kVirtual) {
    executor_ = std::make_unique<ManualExecutor>(options_.virtualStartNanoseconds);
    clock_ = std::make_unique<VirtualClock>(*executor_);
    completionQueue_ = std::make_shared<VirtualSerialQueue>("embedded.platform", *executor_);
  } else {
    clock_ = std::make_unique<common::MonotonicClock>();
    platformQueue_ = std::make_shared<common::ThreadSerialQueue>("embedded.platform");
    completionQueue_ = platformQueue_;
  }
}

EmbeddedCameraService::~EmbeddedCameraService() = default;

std::shared_ptr<platform::Provider> EmbeddedCameraService::createProvider(
    std::weak_ptr<platform::ProviderSource> source,
    std::shared_ptr<platform::SerialQueue> /*clientQueue*/) {
  return std::make_shared<EmbeddedProvider>(*this, std::move(source));
}

std::shared_ptr<platform::Device> EmbeddedCameraService::createDevice(
    std::string localizedName, platform::Uuid deviceID,
    std::optional<std::string> /*legacyDeviceID*/, std::weak_ptr<platform::DeviceSource> source) {
  return std::make_shared<EmbeddedDevice>(*this, std::move(localizedName), deviceID,
                                          std::move(source));
}

std::shared_ptr<platform::Stream> EmbeddedCameraService::createStream(
    std::string localizedName, platform::Uuid streamID, platform::StreamDirection direction,
    platform::StreamClockType /*clockType*/, std::weak_ptr<platform::StreamSource> source) {
  return std::make_shared<EmbeddedStream>(*this, std::move(localizedName), streamID, direction,
                                          std::move(source));
}

void EmbeddedCameraService::startService(const std::shared_ptr<platform::Provider>& provider) {
  const platform::Locker lock(mutex_);
  provider_ = std::dynamic_pointer_cast<EmbeddedProvider>(provider);
}

void EmbeddedCameraService::runMainRunLoop() {
  if (options_.mode == TimeMode::kVirtual) {
    return;
  }
  const platform::Locker lock(runLoopMutex_);
  while (!shutdownRequested_) {
    runLoopWake_.wait(runLoopMutex_);
  }
}

void EmbeddedCameraService::flushStateFiles() {
  fileManager_->flush();
}

void EmbeddedCameraService::shutdown() {
  // Set before the sweep: a request either sees it and is answered at once, or is swept.
  shutDown_.store(true);
  if (const auto provider = publishedProvider()) {
    for (const auto& device : provider->devices()) {
      for (const auto& stream : device->streams()) {
        stream->answerWaitingRequests();
      }
    }
  }
  {
    const platform::Locker lock(runLoopMutex_);
    shutdownRequested_ = true;
  }
  runLoopWake_.notifyAll();
}

std::shared_ptr<platform::SerialQueue> EmbeddedCameraService::createSerialQueue(
    const platform::QueueAttributes& attributes) {
  if (options_.mode == TimeMode::kVirtual) {
    return std::make_shared<VirtualSerialQueue>(attributes.label, *executor_);
  }
  common::ThreadQueueOptions queueOptions;
  if (attributes.qualityOfService == platform::QualityOfService::kUserInteractive) {
    queueOptions.timerSlackNanoseconds = options_.interactiveTimerSlackNanoseconds;
  }
  return std::make_shared<common::ThreadSerialQueue>(attributes.label, queueOptions);
}

std::shared_ptr<platform::SettingsSuite> EmbeddedCameraService::openSettingsSuite(
    std::string_view suiteName) {
  if (options_.faults.refuseSettingsSuite) {
    return nullptr;
  }
  const std::optional<std::filesystem::path> container =
      fileManager_->containerURLForSecurityApplicationGroupIdentifier(suiteName);
  if (!container) {
    return nullptr;
  }
  const std::filesystem::path database =
      common::SqliteSettingsSuite::defaultDatabaseFile(*container);
  {
    const platform::Locker lock(mutex_);
    if (auto found = settingsStores_.find(database); found != settingsStores_.end()) {
      return std::make_shared<SettingsHandle>(found->second);
    }
  }
  // Opened outside the lock: opening does file and database work.
  std::shared_ptr<platform::SettingsSuite> store;
  if (options_.settings == EmbeddedOptions::Settings::kSqlite) {
    store = common::SqliteSettingsSuite::open(database);
  } else {
    store = std::make_shared<DiscardingSettingsSuite>();
  }
  if (!store) {
    return nullptr;
  }
  std::shared_ptr<SharedSettingsStore> shared;
  {
    const platform::Locker lock(mutex_);
    // Another opener may have won the race; every handle must share one store.
    auto [entry, inserted] = settingsStores_.try_emplace(database, nullptr);
    if (inserted) {
      entry->second = std::make_shared<SharedSettingsStore>(std::move(store), settingsObservers_);
    }
    shared = entry->second;
  }
  return std::make_shared<SettingsHandle>(shared);
}

platform::FileManager& EmbeddedCameraService::fileManager() {
  return *fileManager_;
}

std::shared_ptr<EmbeddedProvider> EmbeddedCameraService::publishedProvider() const {
  const platform::Locker lock(mutex_);
  return provider_;
}

std::shared_ptr<EmbeddedStream> EmbeddedCameraService::streamWithDirection(
    platform::StreamDirection direction) const {
  const auto provider = publishedProvider();
  if (!provider) {
    return nullptr;
  }
  for (const auto& device : provider->devices()) {
    for (const auto& stream : device->streams()) {
      if (stream->direction() == direction) {
        return stream;
      }
    }
  }
  return nullptr;
}

std::shared_ptr<const platform::Client> EmbeddedCameraService::makeClient(std::int32_t pid,
                                                                          std::string description) {
  static std::atomic<std::uint64_t> counter{0};
  const std::uint64_t number = ++counter;
  std::array<char, 37> text{};
  std::snprintf(text.data(), text.size(), "00000000-0000-4000-8000-%012llX",
                static_cast<unsigned long long>(number));
  return std::make_shared<const platform::Client>(*platform::Uuid::fromString(text.data()), pid,
                                                  std::move(description));
}

void EmbeddedCameraService::failNextConsumeRequests(int count, std::string localizedDescription) {
  const platform::Locker lock(mutex_);
  consumeFaultsLeft_ = count;
  consumeFaultDescription_ = std::move(localizedDescription);
}

void EmbeddedCameraService::setFailFileWrites(bool fail) {
  fileManager_->setFailWrites(fail);
}

void EmbeddedCameraService::onSend(SendObserver observer) {
  sendObservers_.add(std::move(observer));
}
void EmbeddedCameraService::onScheduledOutput(ScheduledOutputObserver observer) {
  scheduledObservers_.add(std::move(observer));
}
void EmbeddedCameraService::onPropertiesChanged(PropertiesObserver observer) {
  propertiesObservers_.add(std::move(observer));
}
void EmbeddedCameraService::onSettingsWrite(SettingsObserver observer) {
  settingsObservers_.add(std::move(observer));
}
void EmbeddedCameraService::onFileWrite(FileObserver observer) {
  fileObservers_.add(std::move(observer));
}

void EmbeddedCameraService::setConsumeAnswerDelay(std::chrono::nanoseconds delay) {
  consumeAnswerDelayNanoseconds_.store(delay.count(), std::memory_order_relaxed);
}

void EmbeddedCameraService::dispatchCompletion(platform::Work work) {
  const std::int64_t delay = consumeAnswerDelayNanoseconds_.load(std::memory_order_relaxed);
  if (delay > 0) {
    completionQueue_->asyncAfter(std::chrono::nanoseconds(delay), std::move(work));
  } else {
    completionQueue_->async(std::move(work));
  }
}

void EmbeddedCameraService::schedulePlatformWork(std::chrono::nanoseconds delay,
                                                 platform::Work work) {
  completionQueue_->asyncAfter(delay, std::move(work));
}

std::int64_t EmbeddedCameraService::nowNanoseconds() const {
  return executor_ ? executor_->nowNanoseconds() : common::monotonicNanoseconds();
}

bool EmbeddedCameraService::shouldRefuseStream() {
  const platform::Locker lock(mutex_);
  const int number = streamsAdded_++;
  return options_.faults.refuseStreamNumber && *options_.faults.refuseStreamNumber == number;
}

std::optional<platform::Error> EmbeddedCameraService::takeConsumeFault() {
  const platform::Locker lock(mutex_);
  if (consumeFaultsLeft_ <= 0) {
    return std::nullopt;
  }
  --consumeFaultsLeft_;
  return platform::Error{"EmbeddedCameraServiceErrorDomain", 1, consumeFaultDescription_};
}

void EmbeddedCameraService::writeLog(std::string_view line) {
  log_->write(line);
}

}  // namespace flowmere::embedded
