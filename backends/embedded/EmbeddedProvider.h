#pragma once

// The provider of the embedded camera service: its devices, and the client calls that reach the
// extension's provider source.

#include <memory>
#include <vector>

#include "EmbeddedDevice.h"
#include "platform/CameraExtension.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::embedded {

class EmbeddedCameraService;

// Threading: any thread. `mutex_` guards `devices_`; the other fields are set at construction.
// Client calls reach the extension the way the service calls it (callExtension), never under
// `mutex_`. The service is borrowed and outlives the provider.
class EmbeddedProvider final : public platform::Provider {
 public:
  EmbeddedProvider(EmbeddedCameraService& service, std::weak_ptr<platform::ProviderSource> source)
      : service_(service), source_(std::move(source)) {}

  platform::Status addDevice(const std::shared_ptr<platform::Device>& device) override;

  [[nodiscard]] std::vector<std::shared_ptr<EmbeddedDevice>> devices() const EXCLUDES(mutex_);
  platform::Status connect(const std::shared_ptr<const platform::Client>& client);
  void disconnect(const std::shared_ptr<const platform::Client>& client);
  [[nodiscard]] platform::PropertySet availableProperties();
  platform::Result<platform::ProviderProperties> getProperties(const platform::PropertySet& names);
  platform::Status setProperties(const platform::ProviderProperties& properties);

 private:
  EmbeddedCameraService& service_;
  const std::weak_ptr<platform::ProviderSource> source_;
  mutable platform::Mutex mutex_;
  std::vector<std::shared_ptr<EmbeddedDevice>> devices_ GUARDED_BY(mutex_);
};

}  // namespace flowmere::embedded
