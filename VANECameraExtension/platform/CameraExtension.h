#pragma once

// The camera-extension object model: the platform's provider, device and stream objects, and the
// source interfaces through which the platform calls the extension.
//
// Ownership: the extension owns its platform objects strongly; a platform object refers back to
// its source weakly, so no cycle forms. Calls into a source arrive on the platform's threads;
// calls from the extension into a platform object may come from any thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Client.h"
#include "platform/Error.h"
#include "platform/InlineFunction.h"
#include "platform/Properties.h"
#include "platform/SampleBuffer.h"
#include "platform/StreamFormat.h"
#include "platform/Uuid.h"

namespace flowmere::platform {

enum class StreamDirection : std::int32_t {
  CMIOExtensionStreamDirectionSource = 0,
  CMIOExtensionStreamDirectionSink = 1,
};

enum class StreamClockType : std::int32_t {
  CMIOExtensionStreamClockTypeHostTime = 0,
};

using StreamDiscontinuityFlags = std::uint32_t;
inline constexpr StreamDiscontinuityFlags CMIOExtensionStreamDiscontinuityFlagNone = 0;

struct ScheduledOutput {
  std::uint64_t sequenceNumber = 0;
  std::uint64_t hostTimeInNanoseconds = 0;
  friend bool operator==(const ScheduledOutput&, const ScheduledOutput&) = default;
};

// The answer to a consume request: buffer (or none), its sequence number, discontinuity flags,
// whether more buffers are waiting, and an error (or none).
using ConsumeCompletion = InlineFunction<void(std::shared_ptr<SampleBuffer>, std::uint64_t,
                                              StreamDiscontinuityFlags, bool, std::optional<Error>),
                                         48>;

// Implemented by the extension for each stream. Called on platform threads.
class StreamSource {
 public:
  virtual ~StreamSource() = default;
  [[nodiscard]] virtual std::shared_ptr<const StreamFormatList> formats() const = 0;
  [[nodiscard]] virtual PropertySet availableProperties() const = 0;
  virtual Result<StreamProperties> streamPropertiesForProperties(const PropertySet& properties) = 0;
  virtual Status setStreamProperties(const StreamProperties& properties) = 0;
  virtual bool authorizedToStartStreamForClient(const std::shared_ptr<const Client>& client) = 0;
  virtual Status startStream() = 0;
  virtual Status stopStream() = 0;
};

// Implemented by the extension for each device. Called on platform threads.
class DeviceSource {
 public:
  virtual ~DeviceSource() = default;
  [[nodiscard]] virtual PropertySet availableProperties() const = 0;
  virtual Result<DeviceProperties> devicePropertiesForProperties(const PropertySet& properties) = 0;
  virtual Status setDeviceProperties(const DeviceProperties& properties) = 0;
};

// Implemented by the extension once per process. Called on platform threads.
class ProviderSource {
 public:
  virtual ~ProviderSource() = default;
  virtual Status connectClient(const std::shared_ptr<const Client>& client) = 0;
  virtual void disconnectClient(const std::shared_ptr<const Client>& client) = 0;
  [[nodiscard]] virtual PropertySet availableProperties() const = 0;
  virtual Result<ProviderProperties> providerPropertiesForProperties(
      const PropertySet& properties) = 0;
  virtual Status setProviderProperties(const ProviderProperties& properties) = 0;
};

// A platform stream. Any thread.
class Stream {
 public:
  virtual ~Stream() = default;
  [[nodiscard]] virtual const std::string& localizedName() const = 0;
  [[nodiscard]] virtual const Uuid& streamID() const = 0;
  [[nodiscard]] virtual StreamDirection direction() const = 0;
  [[nodiscard]] virtual StreamClockType clockType() const = 0;
  // The clients currently streaming, in the platform's order.
  [[nodiscard]] virtual std::vector<std::shared_ptr<const Client>> streamingClients() const = 0;
  // Tells the stream's clients that these properties changed.
  virtual void notifyPropertiesChanged(const PropertyStateMap& changes) = 0;
  // Sink streams: asks for the next buffer of `client`. The completion is called exactly once,
  // later, on a platform queue.
  virtual void consumeSampleBufferFromClient(const std::shared_ptr<const Client>& client,
                                             ConsumeCompletion completion) = 0;
  // Sink streams: which sequence number was output at which host time.
  virtual void notifyScheduledOutputChanged(const ScheduledOutput& output) = 0;
  // Source streams: hands a buffer to the stream's clients.
  virtual void sendSampleBuffer(const std::shared_ptr<SampleBuffer>& buffer,
                                StreamDiscontinuityFlags discontinuity,
                                std::uint64_t hostTimeInNanoseconds) = 0;
};

// A platform device. Called on the main thread during start-up.
class Device {
 public:
  virtual ~Device() = default;
  [[nodiscard]] virtual const std::string& localizedName() const = 0;
  [[nodiscard]] virtual const Uuid& deviceID() const = 0;
  virtual Status addStream(const std::shared_ptr<Stream>& stream) = 0;
};

// The platform provider. Called on the main thread during start-up.
class Provider {
 public:
  virtual ~Provider() = default;
  virtual Status addDevice(const std::shared_ptr<Device>& device) = 0;
};

}  // namespace flowmere::platform
