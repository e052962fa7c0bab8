#include "EmbeddedProvider.h"

#include "EmbeddedCameraService.h"

namespace flowmere::embedded {

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
  return service_.callSource(
      source_, platform::Status::success(),
      [&](platform::ProviderSource& source) { return source.connectClient(client); });
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
  return service_.callSource(
      source_, platform::PropertySet{},
      [](platform::ProviderSource& source) { return source.availableProperties(); });
}

platform::Result<platform::ProviderProperties> EmbeddedProvider::getProperties(
    const platform::PropertySet& names) {
  return service_.callSource(source_, platform::ProviderProperties{},
                             [&](platform::ProviderSource& source) {
                               return source.providerPropertiesForProperties(names);
                             });
}

platform::Status EmbeddedProvider::setProperties(const platform::ProviderProperties& properties) {
  return service_.callSource(
      source_, platform::Status::success(),
      [&](platform::ProviderSource& source) { return source.setProviderProperties(properties); });
}

}  // namespace flowmere::embedded
