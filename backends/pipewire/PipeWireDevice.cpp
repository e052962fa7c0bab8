#include "PipeWireDevice.h"

namespace flowmere::pipewire {

platform::Status PipeWireDevice::addStream(const std::shared_ptr<platform::Stream>& stream) {
  auto ours = std::dynamic_pointer_cast<PipeWireStream>(stream);
  if (!ours) {
    return platform::Error{platform::NSOSStatusErrorDomain,
                           platform::kCMIOHardwareUnsupportedOperationError, std::nullopt};
  }
  streams_.push_back(std::move(ours));
  return platform::Status::success();
}

platform::Status PipeWireProvider::addDevice(const std::shared_ptr<platform::Device>& device) {
  auto ours = std::dynamic_pointer_cast<PipeWireDevice>(device);
  if (!ours) {
    return platform::Error{platform::NSOSStatusErrorDomain,
                           platform::kCMIOHardwareUnsupportedOperationError, std::nullopt};
  }
  devices_.push_back(std::move(ours));
  return platform::Status::success();
}

}  // namespace flowmere::pipewire
