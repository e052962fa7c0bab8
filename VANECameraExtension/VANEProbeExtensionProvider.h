#pragma once

// The top of the extension's object tree: the process entry, the provider source and the device
// source.
//
// Ownership: one process-wide reference holds the provider source for the life of the process.
// The provider source owns its device sources; a device source owns its platform device and both
// stream objects. The sink refers to the source stream weakly. Nothing is destroyed while the
// process runs.
//
// Threading: construction, registration and the service start run on the main thread before the
// run loop starts. Afterwards the platform calls the provider- and device-source operations on
// its own threads; they read only constants and take no lock.

#include <memory>
#include <string>
#include <vector>

#include "DeviceIdentity.h"
#include "metrics/StateFiles.h"
#include "platform/Platform.h"
#include "sink/VANEProbeSinkStream.h"
#include "source/VANEProbeSourceStream.h"

namespace flowmere {

// How a fatal start-up failure ends the process. The default prints the message to stderr and
// exits with status 1; tests replace it to observe the message. Main thread.
using FatalErrorHandler = void (*)(const std::string& message);
void setFatalErrorHandler(FatalErrorHandler handler);
[[noreturn]] void fatalError(const std::string& message);

class VANEProbeExtensionDeviceSource final
    : public platform::DeviceSource,
      public std::enable_shared_from_this<VANEProbeExtensionDeviceSource> {
 public:
  // Builds the platform device, the format catalogue, both streams and their recorders, and adds
  // both streams to the device (source first). A refused stream is fatal. Main thread.
  static std::shared_ptr<VANEProbeExtensionDeviceSource> create(
      const std::shared_ptr<platform::Platform>& platform,
      FlowmereCameraDeviceDescriptor descriptor);

  explicit VANEProbeExtensionDeviceSource(FlowmereCameraDeviceDescriptor descriptor);

  // platform::DeviceSource; any platform thread.
  [[nodiscard]] platform::PropertySet availableProperties() const override;
  platform::Result<platform::DeviceProperties> devicePropertiesForProperties(
      const platform::PropertySet& properties) override;
  platform::Status setDeviceProperties(const platform::DeviceProperties& properties) override;

  [[nodiscard]] const std::shared_ptr<platform::Device>& platformDevice() const { return device; }
  [[nodiscard]] const std::shared_ptr<VANEProbeSourceStream>& source() const {
    return sourceStream;
  }
  [[nodiscard]] const std::shared_ptr<VANEProbeSinkStream>& sink() const { return sinkStream; }
  [[nodiscard]] const FlowmereCameraDeviceDescriptor& deviceDescriptor() const {
    return descriptor;
  }

  // The consume queue's label for a descriptor: prefix + ".vane-cmio-probe." + namespace +
  // ".sink.consume".
  static std::string consumeQueueLabel(const FlowmereCameraDeviceDescriptor& descriptor);

 private:
  std::shared_ptr<platform::Device> device;
  std::shared_ptr<VANEProbeSourceStream> sourceStream;
  std::shared_ptr<VANEProbeSinkStream> sinkStream;
  const FlowmereCameraDeviceDescriptor descriptor;
};

class VANEProbeExtensionProviderSource final
    : public platform::ProviderSource,
      public std::enable_shared_from_this<VANEProbeExtensionProviderSource> {
 public:
  // Creates the platform provider, one device source per descriptor of `allDescriptors()`, and
  // registers every device with the provider. A refused device is fatal. Main thread.
  static std::shared_ptr<VANEProbeExtensionProviderSource> create(
      const std::shared_ptr<platform::Platform>& platform,
      std::shared_ptr<platform::SerialQueue> clientQueue);

  VANEProbeExtensionProviderSource() = default;

  // platform::ProviderSource; any platform thread.
  platform::Status connectClient(const std::shared_ptr<const platform::Client>& client) override;
  void disconnectClient(const std::shared_ptr<const platform::Client>& client) override;
  [[nodiscard]] platform::PropertySet availableProperties() const override;
  platform::Result<platform::ProviderProperties> providerPropertiesForProperties(
      const platform::PropertySet& properties) override;
  platform::Status setProviderProperties(const platform::ProviderProperties& properties) override;

  [[nodiscard]] const std::shared_ptr<platform::Provider>& platformProvider() const {
    return provider;
  }
  [[nodiscard]] const std::vector<std::shared_ptr<VANEProbeExtensionDeviceSource>>& devices()
      const {
    return deviceSources;
  }

 private:
  std::shared_ptr<platform::Provider> provider;
  std::vector<std::shared_ptr<VANEProbeExtensionDeviceSource>> deviceSources;
};

// The process entry on a given platform: builds the provider source, keeps it in the
// process-wide reference, starts the service and runs the main run loop. If the run loop ever
// returns (the process is ending), releases the provider source and with it the whole object
// tree, then returns 0. Main thread.
int runExtension(const std::shared_ptr<platform::Platform>& platform);

// The process-wide reference to the provider source (null before `runExtension` and after it
// returns).
std::shared_ptr<VANEProbeExtensionProviderSource> sharedProviderSource();

}  // namespace flowmere
