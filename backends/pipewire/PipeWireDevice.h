#pragma once

// The provider and device objects of the camera service on PipeWire: each holds what the
// extension adds to it until the service publishes the streams as nodes. Main thread, during
// start-up.

#include <memory>
#include <string>
#include <vector>

#include "PipeWireStream.h"
#include "platform/Platform.h"

namespace flowmere::pipewire {

class PipeWireDevice final : public platform::Device {
 public:
  PipeWireDevice(std::string localizedName, platform::Uuid deviceID,
                 std::weak_ptr<platform::DeviceSource> source)
      : localizedName_(std::move(localizedName)), deviceID_(deviceID), source_(std::move(source)) {}
  [[nodiscard]] const std::string& localizedName() const override { return localizedName_; }
  [[nodiscard]] const platform::Uuid& deviceID() const override { return deviceID_; }
  platform::Status addStream(const std::shared_ptr<platform::Stream>& stream) override;

  [[nodiscard]] const std::vector<std::shared_ptr<PipeWireStream>>& streams() const {
    return streams_;
  }
  [[nodiscard]] std::shared_ptr<platform::DeviceSource> source() const { return source_.lock(); }

 private:
  const std::string localizedName_;
  const platform::Uuid deviceID_;
  const std::weak_ptr<platform::DeviceSource> source_;
  std::vector<std::shared_ptr<PipeWireStream>> streams_;
};

class PipeWireProvider final : public platform::Provider {
 public:
  explicit PipeWireProvider(std::weak_ptr<platform::ProviderSource> source)
      : source_(std::move(source)) {}
  platform::Status addDevice(const std::shared_ptr<platform::Device>& device) override;
  [[nodiscard]] const std::vector<std::shared_ptr<PipeWireDevice>>& devices() const {
    return devices_;
  }
  [[nodiscard]] std::shared_ptr<platform::ProviderSource> source() const { return source_.lock(); }

 private:
  const std::weak_ptr<platform::ProviderSource> source_;
  std::vector<std::shared_ptr<PipeWireDevice>> devices_;
};

}  // namespace flowmere::pipewire
