#pragma once

// A device of the embedded camera service: its streams, and the client calls that reach the
// extension's device source.

#include <memory>
#include <string>
#include <vector>

#include "EmbeddedStream.h"
#include "platform/CameraExtension.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::embedded {

class EmbeddedCameraService;

// Threading: any thread. `mutex_` guards `streams_`; the other fields are set at construction.
// Property calls reach the extension the way the service calls it (callExtension), never under
// `mutex_`. The service is borrowed and outlives the device.
class EmbeddedDevice final : public platform::Device {
 public:
  EmbeddedDevice(EmbeddedCameraService& service, std::string localizedName, platform::Uuid deviceID,
                 std::weak_ptr<platform::DeviceSource> source)
      : service_(service),
        localizedName_(std::move(localizedName)),
        deviceID_(deviceID),
        source_(std::move(source)) {}

  [[nodiscard]] const std::string& localizedName() const override { return localizedName_; }
  [[nodiscard]] const platform::Uuid& deviceID() const override { return deviceID_; }
  platform::Status addStream(const std::shared_ptr<platform::Stream>& stream) override;

  [[nodiscard]] std::vector<std::shared_ptr<EmbeddedStream>> streams() const EXCLUDES(mutex_);
  [[nodiscard]] platform::PropertySet availableProperties();
  platform::Result<platform::DeviceProperties> getProperties(const platform::PropertySet& names);
  platform::Status setProperties(const platform::DeviceProperties& properties);

 private:
  EmbeddedCameraService& service_;
  const std::string localizedName_;
  const platform::Uuid deviceID_;
  const std::weak_ptr<platform::DeviceSource> source_;
  mutable platform::Mutex mutex_;
  std::vector<std::shared_ptr<EmbeddedStream>> streams_ GUARDED_BY(mutex_);
};

}  // namespace flowmere::embedded
