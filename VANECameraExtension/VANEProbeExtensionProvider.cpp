#include "VANEProbeExtensionProvider.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "VendorIdentifiers.h"
#include "formats/FormatCatalogue.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere {

namespace {

void defaultFatalErrorHandler(const std::string& message) {
  std::fprintf(stderr, "%s\n", message.c_str());
  std::fflush(stderr);
  std::exit(1);  // NOLINT(concurrency-mt-unsafe): start-up on the main thread, nothing else runs
}

std::atomic<FatalErrorHandler> fatalHandler{&defaultFatalErrorHandler};

// The process-wide reference to the provider source: set and cleared by runExtension on the main
// thread, read by sharedProviderSource from any thread.
platform::Mutex providerMutex;
std::shared_ptr<VANEProbeExtensionProviderSource> providerSourceReference GUARDED_BY(providerMutex);

std::shared_ptr<VANEProbeExtensionMetrics> makeRecorder(
    platform::Platform& platform, const FlowmereCameraDeviceDescriptor& descriptor,
    const std::shared_ptr<StateFiles>& stateFiles) {
  // Each recorder opens its own handle to the one shared suite; none when it is refused.
  return std::make_shared<VANEProbeExtensionMetrics>(
      platform.openSettingsSuite(kApplicationGroupIdentifier), descriptor.metricsNamespace,
      stateFiles, platform.log());
}

}  // namespace

void setFatalErrorHandler(FatalErrorHandler handler) {
  fatalHandler.store(handler != nullptr ? handler : &defaultFatalErrorHandler);
}

void fatalError(const std::string& message) {
  fatalHandler.load()(message);
  // A handler that returns (tests throw instead) must not let start-up go on.
  std::abort();
}

// ---------------------------------------------------------------------------------------------
// Device source

VANEProbeExtensionDeviceSource::VANEProbeExtensionDeviceSource(
    FlowmereCameraDeviceDescriptor deviceDescriptor)
    : descriptor(std::move(deviceDescriptor)) {}

std::string VANEProbeExtensionDeviceSource::consumeQueueLabel(
    const FlowmereCameraDeviceDescriptor& deviceDescriptor) {
  return std::string(kConsumeQueueLabelPrefix) + deviceDescriptor.metricsNamespace +
         ".sink.consume";
}

std::shared_ptr<VANEProbeExtensionDeviceSource> VANEProbeExtensionDeviceSource::create(
    const std::shared_ptr<platform::Platform>& platform,
    FlowmereCameraDeviceDescriptor descriptor) {
  auto self = std::make_shared<VANEProbeExtensionDeviceSource>(std::move(descriptor));
  const FlowmereCameraDeviceDescriptor& identity = self->descriptor;

  self->device = platform->createDevice(identity.localizedName, identity.deviceID, std::nullopt,
                                        self->weak_from_this());

  const std::shared_ptr<const platform::StreamFormatList> catalogue = makeFormatCatalogue();
  // Both recorders write the same state files; the writer itself holds no state.
  auto stateFiles = std::make_shared<StateFiles>(platform->fileManager(),
                                                 std::string(kApplicationGroupIdentifier),
                                                 std::string(kStateDirectoryName));

  self->sourceStream = VANEProbeSourceStream::create(platform, identity, catalogue,
                                                     makeRecorder(*platform, identity, stateFiles));

  auto consumeQueue = platform->createSerialQueue(platform::QueueAttributes{
      consumeQueueLabel(identity), platform::QualityOfService::kUserInteractive});
  self->sinkStream = VANEProbeSinkStream::create(platform, identity, catalogue,
                                                 makeRecorder(*platform, identity, stateFiles),
                                                 self->sourceStream, std::move(consumeQueue));

  for (const auto& stream :
       {self->sourceStream->platformStream(), self->sinkStream->platformStream()}) {
    const platform::Status added = self->device->addStream(stream);
    if (!added.ok()) {
      fatalError("VANEProbeExtension: failed to add stream: " + added.error().description());
    }
  }
  return self;
}

platform::PropertySet VANEProbeExtensionDeviceSource::availableProperties() const {
  return {std::string(platform::CMIOExtensionPropertyDeviceTransportType),
          std::string(platform::CMIOExtensionPropertyDeviceModel),
          std::string(platform::CMIOExtensionPropertyDeviceLinkedCoreAudioDeviceUID)};
}

platform::Result<platform::DeviceProperties>
VANEProbeExtensionDeviceSource::devicePropertiesForProperties(
    const platform::PropertySet& properties) {
  platform::DeviceProperties result;
  if (properties.contains(platform::CMIOExtensionPropertyDeviceTransportType)) {
    result.setTransportType(platform::kAudioDeviceTransportTypeVirtual);
  }
  if (properties.contains(platform::CMIOExtensionPropertyDeviceModel)) {
    result.setModel(descriptor.model);
  }
  if (properties.contains(platform::CMIOExtensionPropertyDeviceLinkedCoreAudioDeviceUID)) {
    result.setLinkedCoreAudioDeviceUID(descriptor.linkedCoreAudioDeviceUID);
  }
  return result;
}

platform::Status VANEProbeExtensionDeviceSource::setDeviceProperties(
    const platform::DeviceProperties& /*properties*/) {
  return platform::Status::success();
}

// ---------------------------------------------------------------------------------------------
// Provider source

std::shared_ptr<VANEProbeExtensionProviderSource> VANEProbeExtensionProviderSource::create(
    const std::shared_ptr<platform::Platform>& platform,
    std::shared_ptr<platform::SerialQueue> clientQueue) {
  auto self = std::make_shared<VANEProbeExtensionProviderSource>();
  self->provider = platform->createProvider(self->weak_from_this(), std::move(clientQueue));

  std::vector<std::shared_ptr<VANEProbeExtensionDeviceSource>> built;
  for (const FlowmereCameraDeviceDescriptor& descriptor : allDescriptors()) {
    built.push_back(VANEProbeExtensionDeviceSource::create(platform, descriptor));
  }
  self->deviceSources = std::move(built);

  // Devices are registered only once every device source is complete.
  for (const auto& deviceSource : self->deviceSources) {
    const platform::Status added = self->provider->addDevice(deviceSource->platformDevice());
    if (!added.ok()) {
      fatalError("VANEProbeExtension: failed to add device: " + added.error().description());
    }
  }
  return self;
}

platform::Status VANEProbeExtensionProviderSource::connectClient(
    const std::shared_ptr<const platform::Client>& /*client*/) {
  return platform::Status::success();
}

void VANEProbeExtensionProviderSource::disconnectClient(
    const std::shared_ptr<const platform::Client>& /*client*/) {}

platform::PropertySet VANEProbeExtensionProviderSource::availableProperties() const {
  return {std::string(platform::CMIOExtensionPropertyProviderManufacturer)};
}

platform::Result<platform::ProviderProperties>
VANEProbeExtensionProviderSource::providerPropertiesForProperties(
    const platform::PropertySet& properties) {
  platform::ProviderProperties result;
  if (properties.contains(platform::CMIOExtensionPropertyProviderManufacturer)) {
    result.setManufacturer("Flowmere");
  }
  return result;
}

platform::Status VANEProbeExtensionProviderSource::setProviderProperties(
    const platform::ProviderProperties& /*properties*/) {
  return platform::Status::success();
}

// ---------------------------------------------------------------------------------------------
// Process entry

int runExtension(const std::shared_ptr<platform::Platform>& platform) {
  auto providerSource = VANEProbeExtensionProviderSource::create(platform, nullptr);
  {
    const platform::Locker lock(providerMutex);
    providerSourceReference = providerSource;
  }
  platform->startService(providerSource->platformProvider());
  platform->runMainRunLoop();
  // The run loop returned: the process is ending, and the platform has stopped the streams.
  // The object tree goes here, on this thread, while the platform its streams refer to is
  // still there, rather than in the static destructors after it.
  {
    const platform::Locker lock(providerMutex);
    providerSourceReference.reset();
  }
  return 0;
}

std::shared_ptr<VANEProbeExtensionProviderSource> sharedProviderSource() {
  const platform::Locker lock(providerMutex);
  return providerSourceReference;
}

}  // namespace flowmere
