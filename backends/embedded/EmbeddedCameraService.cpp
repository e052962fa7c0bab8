#include "EmbeddedCameraService.h"

#include <atomic>
#include <cstdio>
#include <random>

#include "common/LineLog.h"
#include "common/MonotonicClock.h"
#include "common/MonotonicTime.h"
#include "common/PosixFileManager.h"
#include "common/SqliteSettingsSuite.h"
#include "common/WriteBehindFileManager.h"

namespace flowmere::embedded {

namespace {

template <typename T>
void appendObserver(std::shared_ptr<const std::vector<T>>& list, T observer) {
  auto next = list ? std::make_shared<std::vector<T>>(*list) : std::make_shared<std::vector<T>>();
  next->push_back(std::move(observer));
  list = std::move(next);
}

// Keeps values in memory only; for tests and benchmarks that leave the disk out.
class MemorySettingsSuite final : public platform::SettingsSuite {
 public:
  void setInteger(std::string_view /*key*/, std::int64_t /*value*/) override {}
  void setDouble(std::string_view /*key*/, double /*value*/) override {}
  void setObject(std::string_view /*key*/, std::string_view /*value*/) override {}
};

}  // namespace

// The file layer: the POSIX one, with a failure switch for writes and an observer of successful
// writes. In real time the state files are written behind the caller, off the frame's path (the
// observer hears of a write when it is accepted); in virtual time in place, so that a file holds
// its text as soon as the step that wrote it returns. Any thread.
class EmbeddedFileManager final : public platform::FileManager {
 public:
  EmbeddedFileManager(EmbeddedCameraService& service,
                      std::optional<std::filesystem::path> containerParent,
                      std::optional<std::filesystem::path> containerDirectory,
                      std::filesystem::path temporaryDirectory, bool failWrites, bool writeBehind)
      : service_(service),
        posix_(std::move(containerParent), std::move(temporaryDirectory)),
        containerDirectory_(std::move(containerDirectory)),
        failWrites_(failWrites) {
    if (writeBehind) {
      behind_.emplace(posix_);
    }
  }

  // The path forms go through the text forms, so that every switch is checked in one place.
  std::optional<std::filesystem::path> containerURLForSecurityApplicationGroupIdentifier(
      std::string_view groupIdentifier) override {
    std::string path;
    if (!containerPathForSecurityApplicationGroupIdentifier(groupIdentifier, path)) {
      return std::nullopt;
    }
    return std::filesystem::path(std::move(path));
  }
  bool createDirectory(const std::filesystem::path& directory) override {
    return createDirectoryAtPath(directory.native());
  }
  bool writeStringAtomically(const std::filesystem::path& file, std::string_view text) override {
    return writeStringAtomicallyToPath(file.native(), text);
  }
  std::filesystem::path temporaryDirectory() override { return posix_.temporaryDirectory(); }

  bool containerPathForSecurityApplicationGroupIdentifier(std::string_view groupIdentifier,
                                                          std::string& path) override {
    if (containerDirectory_) {
      path.assign(containerDirectory_->native());
      return posix_.createDirectoryAtPath(path);
    }
    return posix_.containerPathForSecurityApplicationGroupIdentifier(groupIdentifier, path);
  }
  bool createDirectoryAtPath(const std::string& directory) override {
    return posix_.createDirectoryAtPath(directory);
  }
  bool writeStringAtomicallyToPath(const std::string& file, std::string_view text) override {
    if (failWrites_.load(std::memory_order_relaxed)) {
      return false;
    }
    const bool written = behind_ ? behind_->writeStringAtomicallyToPath(file, text)
                                 : posix_.writeStringAtomicallyToPath(file, text);
    if (!written) {
      return false;
    }
    service_.notifyFileWrite(file, text);
    return true;
  }
  void temporaryDirectoryPath(std::string& path) override { posix_.temporaryDirectoryPath(path); }

  void setFailWrites(bool fail) { failWrites_.store(fail, std::memory_order_relaxed); }
  // Returns when every state file accepted so far is on disk.
  void flush() {
    if (behind_) {
      behind_->flush();
    }
  }

 private:
  EmbeddedCameraService& service_;
  common::PosixFileManager posix_;
  const std::optional<std::filesystem::path> containerDirectory_;
  std::atomic<bool> failWrites_;
  std::optional<common::WriteBehindFileManager> behind_;  // real time only; last, goes first
};

// One settings store per suite, shared by every handle the service gives out for it, so that two
// recorders writing the same key keep last-writer-wins order. Reports each write to the service.
class EmbeddedCameraService::SharedSettingsStore final : public platform::SettingsSuite {
 public:
  SharedSettingsStore(EmbeddedCameraService& service,
                      std::shared_ptr<platform::SettingsSuite> store)
      : service_(service), store_(std::move(store)) {}

  void setInteger(std::string_view key, std::int64_t value) override {
    store_->setInteger(key, value);
    service_.notifySettingsWrite(key, platform::PropertyValue(value));
  }
  void setDouble(std::string_view key, double value) override {
    store_->setDouble(key, value);
    service_.notifySettingsWrite(key, platform::PropertyValue(value));
  }
  void setObject(std::string_view key, std::string_view value) override {
    store_->setObject(key, value);
    service_.notifySettingsWrite(key, platform::PropertyValue(std::string(value)));
  }

 private:
  EmbeddedCameraService& service_;
  const std::shared_ptr<platform::SettingsSuite> store_;
};

namespace {

// A handle of its own onto a shared store: each opener gets a distinct object.
class SettingsHandle final : public platform::SettingsSuite {
 public:
  explicit SettingsHandle(std::shared_ptr<platform::SettingsSuite> store)
      : store_(std::move(store)) {}
  void setInteger(std::string_view key, std::int64_t value) override {
    store_->setInteger(key, value);
  }
  void setDouble(std::string_view key, double value) override { store_->setDouble(key, value); }
  void setObject(std::string_view key, std::string_view value) override {
    store_->setObject(key, value);
  }

 private:
  const std::shared_ptr<platform::SettingsSuite> store_;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// EmbeddedDevice

platform::Status EmbeddedDevice::addStream(const std::shared_ptr<platform::Stream>& stream) {
  if (service_.shouldRefuseStream()) {
    return platform::Error{platform::NSOSStatusErrorDomain,
                           platform::kCMIOHardwareIllegalOperationError,
                           "The camera service refused the stream."};
  }
  auto embedded = std::dynamic_pointer_cast<EmbeddedStream>(stream);
  if (!embedded) {
    return platform::Error{platform::NSOSStatusErrorDomain,
                           platform::kCMIOHardwareUnsupportedOperationError, std::nullopt};
  }
  const platform::Locker lock(mutex_);
  streams_.push_back(std::move(embedded));
  return platform::Status::success();
}

std::vector<std::shared_ptr<EmbeddedStream>> EmbeddedDevice::streams() const {
  const platform::Locker lock(mutex_);
  return streams_;
}

platform::PropertySet EmbeddedDevice::availableProperties() {
  auto source = source_.lock();
  return source ? service_.callExtension([&] { return source->availableProperties(); })
                : platform::PropertySet{};
}

platform::Result<platform::DeviceProperties> EmbeddedDevice::getProperties(
    const platform::PropertySet& names) {
  auto source = source_.lock();
  if (!source) {
    return platform::DeviceProperties{};
  }
  return service_.callExtension([&] { return source->devicePropertiesForProperties(names); });
}

platform::Status EmbeddedDevice::setProperties(const platform::DeviceProperties& properties) {
  auto source = source_.lock();
  if (!source) {
    return platform::Status::success();
  }
  return service_.callExtension([&] { return source->setDeviceProperties(properties); });
}

// ---------------------------------------------------------------------------------------------
// EmbeddedProvider

platform::Status EmbeddedProvider::addDevice(const std::shared_ptr<platform::Device>& device) {
  if (service_.refusesDevice()) {
    return platform::Error{platform::NSOSStatusErrorDomain,
                           platform::kCMIOHardwareIllegalOperationError,
                           "The camera service refused the device."};
  }
  auto embedded = std::dynamic_pointer_cast<EmbeddedDevice>(device);
  if (!embedded) {
    return platform::Error{platform::NSOSStatusErrorDomain,
                           platform::kCMIOHardwareUnsupportedOperationError, std::nullopt};
  }
  const platform::Locker lock(mutex_);
  devices_.push_back(std::move(embedded));
  return platform::Status::success();
}

std::vector<std::shared_ptr<EmbeddedDevice>> EmbeddedProvider::devices() const {
  const platform::Locker lock(mutex_);
  return devices_;
}

platform::Status EmbeddedProvider::connect(const std::shared_ptr<const platform::Client>& client) {
  auto source = source_.lock();
  if (!source) {
    return platform::Status::success();
  }
  return service_.callExtension([&] { return source->connectClient(client); });
}

void EmbeddedProvider::disconnect(const std::shared_ptr<const platform::Client>& client) {
  if (auto source = source_.lock()) {
    service_.callExtension([&] { source->disconnectClient(client); });
  }
  // A client that leaves takes its queued buffers with it; a producer that reconnects under a
  // new identity would otherwise leave them pinned for the life of the service.
  if (client) {
    for (const auto& device : devices()) {
      for (const auto& stream : device->streams()) {
        stream->discardProducerQueue(client->clientID());
      }
    }
  }
}

platform::PropertySet EmbeddedProvider::availableProperties() {
  auto source = source_.lock();
  return source ? service_.callExtension([&] { return source->availableProperties(); })
                : platform::PropertySet{};
}

platform::Result<platform::ProviderProperties> EmbeddedProvider::getProperties(
    const platform::PropertySet& names) {
  auto source = source_.lock();
  if (!source) {
    return platform::ProviderProperties{};
  }
  return service_.callExtension([&] { return source->providerPropertiesForProperties(names); });
}

platform::Status EmbeddedProvider::setProperties(const platform::ProviderProperties& properties) {
  auto source = source_.lock();
  if (!source) {
    return platform::Status::success();
  }
  return service_.callExtension([&] { return source->setProviderProperties(properties); });
}

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
      *this, options_.containerParent, options_.containerDirectory, options_.temporaryDirectory,
      options_.faults.failFileWrites, options_.mode == TimeMode::kReal);
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
  std::unique_lock lock(runLoopMutex_);
  runLoopWake_.wait(lock, [this] { return shutdownRequested_; });
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
    const std::scoped_lock lock(runLoopMutex_);
    shutdownRequested_ = true;
  }
  runLoopWake_.notify_all();
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
    store = std::make_shared<MemorySettingsSuite>();
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
      entry->second = std::make_shared<SharedSettingsStore>(*this, std::move(store));
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
  const platform::Locker lock(mutex_);
  appendObserver(sendObservers_, std::move(observer));
}
void EmbeddedCameraService::onScheduledOutput(ScheduledOutputObserver observer) {
  const platform::Locker lock(mutex_);
  appendObserver(scheduledObservers_, std::move(observer));
}
void EmbeddedCameraService::onPropertiesChanged(PropertiesObserver observer) {
  const platform::Locker lock(mutex_);
  appendObserver(propertiesObservers_, std::move(observer));
}
void EmbeddedCameraService::onSettingsWrite(SettingsObserver observer) {
  const platform::Locker lock(mutex_);
  appendObserver(settingsObservers_, std::move(observer));
}
void EmbeddedCameraService::onFileWrite(FileObserver observer) {
  const platform::Locker lock(mutex_);
  appendObserver(fileObservers_, std::move(observer));
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

void EmbeddedCameraService::notifySend(const EmbeddedStream& stream,
                                       const std::shared_ptr<platform::SampleBuffer>& buffer,
                                       platform::StreamDiscontinuityFlags discontinuity,
                                       std::uint64_t hostTime) {
  ObserverList<SendObserver> observers;
  {
    const platform::Locker lock(mutex_);
    observers = sendObservers_;
  }
  if (observers) {
    for (const auto& observer : *observers) {
      observer(stream, buffer, discontinuity, hostTime);
    }
  }
}

void EmbeddedCameraService::notifyScheduledOutput(const EmbeddedStream& stream,
                                                  const platform::ScheduledOutput& output) {
  ObserverList<ScheduledOutputObserver> observers;
  {
    const platform::Locker lock(mutex_);
    observers = scheduledObservers_;
  }
  if (observers) {
    for (const auto& observer : *observers) {
      observer(stream, output);
    }
  }
}

void EmbeddedCameraService::notifyProperties(const EmbeddedStream& stream,
                                             const platform::PropertyStateMap& changes) {
  ObserverList<PropertiesObserver> observers;
  {
    const platform::Locker lock(mutex_);
    observers = propertiesObservers_;
  }
  if (observers) {
    for (const auto& observer : *observers) {
      observer(stream, changes);
    }
  }
}

void EmbeddedCameraService::notifySettingsWrite(std::string_view key,
                                                const platform::PropertyValue& value) {
  ObserverList<SettingsObserver> observers;
  {
    const platform::Locker lock(mutex_);
    observers = settingsObservers_;
  }
  if (observers) {
    for (const auto& observer : *observers) {
      observer(key, value);
    }
  }
}

void EmbeddedCameraService::notifyFileWrite(const std::string& path, std::string_view text) {
  ObserverList<FileObserver> observers;
  {
    const platform::Locker lock(mutex_);
    observers = fileObservers_;
  }
  if (observers) {
    // The path object is built only for observers: without them a write allocates nothing.
    const std::filesystem::path file(path);
    for (const auto& observer : *observers) {
      observer(file, text);
    }
  }
}

void EmbeddedCameraService::writeLog(std::string_view line) {
  log_->write(line);
}

}  // namespace flowmere::embedded
