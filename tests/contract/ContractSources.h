#pragma once

// The extension's side of the contract, faked: stream, device and provider sources that answer
// the platform plainly and record each call in ContractEvents, so that a test sees exactly what
// a backend asked of the extension, in which order and on which thread.
//
// Threading: the platform calls them on its threads; tests read them from the test thread.
// `mutex_` guards each stream source's started flag, format index, last client and the thread
// of its last start; everything else is immutable after construction.

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "contract/ContractEvents.h"
#include "platform/CameraExtension.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::contract {

class ContractStreamSource final : public platform::StreamSource {
 public:
  // `name` prefixes the recorded events ("sink", "source").
  ContractStreamSource(std::string name, std::shared_ptr<ContractEvents> events);

  [[nodiscard]] std::shared_ptr<const platform::StreamFormatList> formats() const override;
  [[nodiscard]] platform::PropertySet availableProperties() const override;
  platform::Result<platform::StreamProperties> streamPropertiesForProperties(
      const platform::PropertySet& properties) override;
  platform::Status setStreamProperties(const platform::StreamProperties& properties) override;
  bool authorizedToStartStreamForClient(
      const std::shared_ptr<const platform::Client>& client) override;
  platform::Status startStream() override;
  platform::Status stopStream() override;

  [[nodiscard]] bool isStarted() const;
  // The thread of the last startStream: the platform queue.
  [[nodiscard]] std::optional<std::thread::id> startThread() const;
  // The client last authorised, or a stand-in when none was.
  [[nodiscard]] std::shared_ptr<const platform::Client> lastClient() const;

 private:
  const std::string name_;
  const std::shared_ptr<ContractEvents> events_;
  const std::shared_ptr<const platform::StreamFormatList> formats_;
  mutable platform::Mutex mutex_;
  bool started_ GUARDED_BY(mutex_) = false;
  std::int64_t formatIndex_ GUARDED_BY(mutex_) = 0;
  std::shared_ptr<const platform::Client> client_ GUARDED_BY(mutex_);
  std::optional<std::thread::id> startThread_ GUARDED_BY(mutex_);
};

class ContractDeviceSource final : public platform::DeviceSource {
 public:
  [[nodiscard]] platform::PropertySet availableProperties() const override { return {}; }
  platform::Result<platform::DeviceProperties> devicePropertiesForProperties(
      const platform::PropertySet& /*properties*/) override {
    return platform::DeviceProperties{};
  }
  platform::Status setDeviceProperties(const platform::DeviceProperties& /*properties*/) override {
    return platform::Status::success();
  }
};

class ContractProviderSource final : public platform::ProviderSource {
 public:
  platform::Status connectClient(
      const std::shared_ptr<const platform::Client>& /*client*/) override {
    return platform::Status::success();
  }
  void disconnectClient(const std::shared_ptr<const platform::Client>& /*client*/) override {}
  [[nodiscard]] platform::PropertySet availableProperties() const override { return {}; }
  platform::Result<platform::ProviderProperties> providerPropertiesForProperties(
      const platform::PropertySet& /*properties*/) override {
    return platform::ProviderProperties{};
  }
  platform::Status setProviderProperties(
      const platform::ProviderProperties& /*properties*/) override {
    return platform::Status::success();
  }
};

}  // namespace flowmere::contract
