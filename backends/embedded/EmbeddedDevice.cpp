#include "EmbeddedDevice.h"

#include "EmbeddedCameraService.h"

namespace flowmere::embedded {

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
  return service_.callSource(source_, platform::PropertySet{}, [](platform::DeviceSource& source) {
    return source.availableProperties();
  });
}

platform::Result<platform::DeviceProperties> EmbeddedDevice::getProperties(
    const platform::PropertySet& names) {
  return service_.callSource(
      source_, platform::DeviceProperties{},
      [&](platform::DeviceSource& source) { return source.devicePropertiesForProperties(names); });
}

platform::Status EmbeddedDevice::setProperties(const platform::DeviceProperties& properties) {
  return service_.callSource(
      source_, platform::Status::success(),
      [&](platform::DeviceSource& source) { return source.setDeviceProperties(properties); });
}

}  // namespace flowmere::embedded
