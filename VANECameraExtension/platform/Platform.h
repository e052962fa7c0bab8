#pragma once

// The whole platform as the extension sees it: factories for the camera-extension objects and
// access to the services. A backend implements this once; the extension receives it at process
// entry and hands it down to every object it builds.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/CameraExtension.h"
#include "platform/Services.h"

namespace flowmere::platform {

class Platform {
 public:
  virtual ~Platform() = default;

  // Camera-extension objects. Main thread, during start-up.
  virtual std::shared_ptr<Provider> createProvider(std::weak_ptr<ProviderSource> source,
                                                   std::shared_ptr<SerialQueue> clientQueue) = 0;
  virtual std::shared_ptr<Device> createDevice(std::string localizedName, Uuid deviceID,
                                               std::optional<std::string> legacyDeviceID,
                                               std::weak_ptr<DeviceSource> source) = 0;
  virtual std::shared_ptr<Stream> createStream(std::string localizedName, Uuid streamID,
                                               StreamDirection direction, StreamClockType clockType,
                                               std::weak_ptr<StreamSource> source) = 0;
  // Publishes the provider to the camera service; returns at once.
  virtual void startService(const std::shared_ptr<Provider>& provider) = 0;
  // Runs the main thread's run loop; returns only when the service shuts down.
  virtual void runMainRunLoop() = 0;

  // Services.
  virtual std::shared_ptr<SerialQueue> createSerialQueue(const QueueAttributes& attributes) = 0;
  // Opens a named settings suite; null when the platform refuses it.
  virtual std::shared_ptr<SettingsSuite> openSettingsSuite(std::string_view suiteName) = 0;
  virtual FileManager& fileManager() = 0;
  virtual const Clock& clock() = 0;
  virtual Log& log() = 0;
};

}  // namespace flowmere::platform
