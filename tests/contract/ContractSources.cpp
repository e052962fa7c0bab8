#include "contract/ContractSources.h"

#include "formats/FormatCatalogue.h"

namespace flowmere::contract {

ContractStreamSource::ContractStreamSource(std::string name, std::shared_ptr<ContractEvents> events)
    : name_(std::move(name)), events_(std::move(events)), formats_(makeFormatCatalogue()) {}

std::shared_ptr<const platform::StreamFormatList> ContractStreamSource::formats() const {
  return formats_;
}

platform::PropertySet ContractStreamSource::availableProperties() const {
  return {std::string(platform::CMIOExtensionPropertyStreamActiveFormatIndex)};
}

platform::Result<platform::StreamProperties> ContractStreamSource::streamPropertiesForProperties(
    const platform::PropertySet& /*properties*/) {
  platform::StreamProperties properties;
  const platform::Locker lock(mutex_);
  properties.setActiveFormatIndex(formatIndex_);
  return properties;
}

platform::Status ContractStreamSource::setStreamProperties(
    const platform::StreamProperties& properties) {
  if (const auto index = properties.activeFormatIndex()) {
    {
      const platform::Locker lock(mutex_);
      formatIndex_ = *index;
    }
    events_->record(name_ + " set " + std::to_string(*index));
  }
  return platform::Status::success();
}

bool ContractStreamSource::authorizedToStartStreamForClient(
    const std::shared_ptr<const platform::Client>& client) {
  {
    const platform::Locker lock(mutex_);
    client_ = client;
  }
  events_->record(name_ + " authorize");
  return true;
}

platform::Status ContractStreamSource::startStream() {
  {
    const platform::Locker lock(mutex_);
    started_ = true;
    startThread_ = std::this_thread::get_id();
  }
  events_->record(name_ + " start");
  return platform::Status::success();
}

platform::Status ContractStreamSource::stopStream() {
  {
    const platform::Locker lock(mutex_);
    started_ = false;
  }
  events_->record(name_ + " stop");
  return platform::Status::success();
}

bool ContractStreamSource::isStarted() const {
  const platform::Locker lock(mutex_);
  return started_;
}

std::optional<std::thread::id> ContractStreamSource::startThread() const {
  const platform::Locker lock(mutex_);
  return startThread_;
}

std::shared_ptr<const platform::Client> ContractStreamSource::lastClient() const {
  {
    const platform::Locker lock(mutex_);
    if (client_) {
      return client_;
    }
  }
  return std::make_shared<const platform::Client>(platform::Uuid{}, -1, "contract stand-in");
}

}  // namespace flowmere::contract
