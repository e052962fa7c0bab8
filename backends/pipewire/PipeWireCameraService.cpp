#include "PipeWireCameraService.h"

#include <cstdio>

#include "IdleCard.h"
#include "PipeWireSinkStream.h"
#include "PipeWireSourceStream.h"
#include "common/LineLog.h"
#include "common/MonotonicClock.h"
#include "common/PosixFileManager.h"
#include "common/SqliteSettingsSuite.h"
#include "common/ThreadSerialQueue.h"
#include "common/WriteBehindFileManager.h"

namespace flowmere::pipewire {

namespace {

// The fixed directory the fallback state directory lives in. The service reads no environment
// (TMPDIR among it): the place where the camera's state files end up must not depend on it.
constexpr const char* kTemporaryDirectory = "/tmp";

}  // namespace

std::shared_ptr<PipeWireCameraService> PipeWireCameraService::create(PipeWireOptions options) {
  auto service = std::make_shared<PipeWireCameraService>(std::move(options));
  if (!service->connect()) {
    return nullptr;
  }
  return service;
}

PipeWireCameraService::PipeWireCameraService(PipeWireOptions options)
    : options_(std::move(options)) {
  pw_init(nullptr, nullptr);
  log_ = std::make_unique<common::LineLog>(options_.logSink);
  clock_ = std::make_unique<common::MonotonicClock>();
  // State files are replaced behind the relay, off the frame's path.
  fileManager_ = std::make_unique<common::WriteBehindFileManager>(common::PosixFileManager(
      options_.containerParent ? options_.containerParent
                               : common::PosixFileManager::defaultContainerParent(),
      std::filesystem::path(kTemporaryDirectory)));
  platformQueue_ = std::make_shared<common::ThreadSerialQueue>("pipewire.platform");
  auto makeLoop = [this](const char* name, std::shared_ptr<PipeWireLoop>& slot) {
    LoopCallbacks callbacks;
    callbacks.log = [this](std::string_view line) { writeLog(line); };
    callbacks.peersChanged = [this](PipeWireLoop& loop) { peersChanged(loop); };
    // The PipeWire daemon went away: nothing more can be published. The service stops and
    // says so in its exit status; the service manager starts it again with PipeWire.
    callbacks.disconnected = [this] { shutdown(ShutdownReason::kPipeWireLost); };
    slot = std::make_shared<PipeWireLoop>(name, std::move(callbacks));
  };
  makeLoop("flowmere-sink", sinkLoop_);
  makeLoop("flowmere-source", sourceLoop_);
}

PipeWireCameraService::~PipeWireCameraService() {
  stopNodes();
  sinkLoop_->stop();
  sourceLoop_->stop();
  platformQueue_.reset();
}

bool PipeWireCameraService::connect() {
  IdleCard::prepareText();
  return sinkLoop_->start(options_.remoteName) && sourceLoop_->start(options_.remoteName);
}

void PipeWireCameraService::peersChanged(PipeWireLoop& loop) {
  const platform::Locker lock(publishedMutex_);
  for (const auto& stream : published_) {
    if (&stream->loop() == &loop) {
      loop.lock().assertHeld();
      stream->peersChanged();
    }
  }
}

void PipeWireCameraService::producerFormatChanged(std::optional<std::int64_t> index) {
  const platform::Locker lock(publishedMutex_);
  for (const auto& stream : published_) {
    if (auto* source = dynamic_cast<PipeWireSourceStream*>(stream.get())) {
      source->producerFormatChanged(index);
    }
  }
}

void PipeWireCameraService::postToPlatform(platform::Work work) {
  platformQueue_->async(std::move(work));
}

void PipeWireCameraService::writeLog(std::string_view line) {
  log_->write(line);
}

std::shared_ptr<platform::Provider> PipeWireCameraService::createProvider(
    std::weak_ptr<platform::ProviderSource> source,
    std::shared_ptr<platform::SerialQueue> /*clientQueue*/) {
  return std::make_shared<PipeWireProvider>(std::move(source));
}

std::shared_ptr<platform::Device> PipeWireCameraService::createDevice(
    std::string localizedName, platform::Uuid deviceID,
    std::optional<std::string> /*legacyDeviceID*/, std::weak_ptr<platform::DeviceSource> source) {
  {
    const platform::Locker lock(cameraNameMutex_);
    cameraName_ = localizedName;
  }
  return std::make_shared<PipeWireDevice>(std::move(localizedName), deviceID, std::move(source));
}

std::string PipeWireCameraService::cameraName() const {
  const platform::Locker lock(cameraNameMutex_);
  return cameraName_.empty() ? std::string("Camera") : cameraName_;
}

std::shared_ptr<platform::Stream> PipeWireCameraService::createStream(
    std::string localizedName, platform::Uuid streamID, platform::StreamDirection direction,
    platform::StreamClockType /*clockType*/, std::weak_ptr<platform::StreamSource> source) {
  if (direction == platform::StreamDirection::CMIOExtensionStreamDirectionSink) {
    return std::make_shared<PipeWireSinkStream>(*this, sinkLoop_, std::move(localizedName),
                                                streamID, direction, std::move(source));
  }
  return std::make_shared<PipeWireSourceStream>(*this, sourceLoop_, std::move(localizedName),
                                                streamID, direction, std::move(source));
}

void PipeWireCameraService::startService(const std::shared_ptr<platform::Provider>& provider) {
  provider_ = std::dynamic_pointer_cast<PipeWireProvider>(provider);
  if (!provider_) {
    return;
  }
  std::string manufacturer = "Flowmere";
  if (auto source = provider_->source()) {
    const auto properties = source->providerPropertiesForProperties(
        {std::string(platform::CMIOExtensionPropertyProviderManufacturer)});
    if (properties.ok()) {
      manufacturer = properties.value().manufacturer().value_or(manufacturer);
    }
  }
  for (const auto& device : provider_->devices()) {
    std::map<std::string, std::string> identity{
        {"device.name", device->localizedName()},
        {"device.vendor.name", manufacturer},
        {"flowmere.device.name", device->localizedName()},
        {"flowmere.device.uuid", device->deviceID().toString()},
        {"flowmere.device.manufacturer", manufacturer},
    };
    if (auto source = device->source()) {
      const auto properties = source->devicePropertiesForProperties(
          {std::string(platform::CMIOExtensionPropertyDeviceModel),
           std::string(platform::CMIOExtensionPropertyDeviceLinkedCoreAudioDeviceUID)});
      if (properties.ok()) {
        if (auto model = properties.value().model()) {
          identity["flowmere.device.model"] = *model;
          identity["device.product.name"] = *model;
        }
        if (auto audio = properties.value().linkedCoreAudioDeviceUID()) {
          identity["flowmere.device.linked-audio-uid"] = *audio;
        }
      }
    }
    for (const auto& stream : device->streams()) {
      // Listed before the node exists, so that no peer change of the new node is missed.
      {
        const platform::Locker lock(publishedMutex_);
        published_.push_back(stream);
      }
      const LoopLocker lock(stream->loop().lock());
      if (stream->connectNode(identity)) {
        writeLog("[pipewire] published node " + stream->nodeName() + " \"" +
                 stream->localizedName() + "\"");
      }
    }
  }
}

void PipeWireCameraService::runMainRunLoop() {
  {
    const platform::Locker lock(runLoopMutex_);
    while (!shutdownRequested_) {
      runLoopWake_.wait(runLoopMutex_);
    }
  }
  // The shutdown order: the started streams are stopped as if their peers had left (the
  // extension writes "sink stopped" and "source stopped"), the nodes go, and the platform queue
  // runs everything posted until then, the stops among it. The extension's object tree is
  // released by the caller after this returns, and the loops only when the service goes.
  stopNodes();
  drainPlatformQueue();
  fileManager_->flush();
  const platform::Locker lock(suitesMutex_);
  for (const auto& [path, suite] : suites_) {
    suite->flush();
  }
}

void PipeWireCameraService::stopNodes() {
  std::vector<std::shared_ptr<PipeWireStream>> streams;
  {
    const platform::Locker lock(publishedMutex_);
    streams = published_;
  }
  for (const auto& stream : streams) {
    const LoopLocker lock(stream->loop().lock());
    stream->stopStreaming();
  }
  // Each node has its own loop: its threads stop before the node goes.
  for (const auto& stream : streams) {
    stream->loop().stopThreads();
    const LoopLocker lock(stream->loop().lock());
    stream->destroyNode();
  }
}

void PipeWireCameraService::drainPlatformQueue() {
  std::mutex mutex;
  std::condition_variable drained;
  bool done = false;
  platformQueue_->async([&] {
    // Notified under the lock: the waiter cannot see `done`, return and destroy the condition
    // variable (it lives on the waiter's stack) while the notification is still running.
    const std::scoped_lock lock(mutex);
    done = true;
    drained.notify_all();
  });
  std::unique_lock lock(mutex);
  drained.wait(lock, [&] { return done; });
}

void PipeWireCameraService::shutdown(ShutdownReason reason) {
  {
    const platform::Locker lock(runLoopMutex_);
    if (shutdownRequested_) {
      return;  // both loops see PipeWire go; the first reason holds
    }
    shutdownRequested_ = true;
    shutdownReason_ = reason;
  }
  if (reason == ShutdownReason::kPipeWireLost) {
    writeLog("[pipewire] PipeWire went away: stopping");
  }
  runLoopWake_.notifyAll();
}

int PipeWireCameraService::exitStatus() const {
  const platform::Locker lock(runLoopMutex_);
  return shutdownReason_ == ShutdownReason::kPipeWireLost ? kExitPipeWireLost : 0;
}

std::shared_ptr<platform::SerialQueue> PipeWireCameraService::createSerialQueue(
    const platform::QueueAttributes& attributes) {
  common::ThreadQueueOptions queueOptions;
  if (attributes.qualityOfService == platform::QualityOfService::kUserInteractive) {
    queueOptions.timerSlackNanoseconds = 1;
  }
  return std::make_shared<common::ThreadSerialQueue>(attributes.label, queueOptions);
}

std::shared_ptr<platform::SettingsSuite> PipeWireCameraService::openSettingsSuite(
    std::string_view suiteName) {
  const auto container = fileManager_->containerURLForSecurityApplicationGroupIdentifier(suiteName);
  if (!container) {
    return nullptr;
  }
  const auto database = common::SqliteSettingsSuite::defaultDatabaseFile(*container);
  const platform::Locker lock(suitesMutex_);
  auto& suite = suites_[database];
  if (!suite) {
    suite = common::SqliteSettingsSuite::open(database);
  }
  return suite;
}

platform::FileManager& PipeWireCameraService::fileManager() {
  return *fileManager_;
}

const platform::Clock& PipeWireCameraService::clock() {
  return *clock_;
}

platform::Log& PipeWireCameraService::log() {
  return *log_;
}

}  // namespace flowmere::pipewire
