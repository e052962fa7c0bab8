#include "platform/Properties.h"

namespace flowmere::platform {

std::string describePropertySet(const PropertySet& properties) {
  std::string text = "[";
  bool first = true;
  for (const PropertyName& name : properties) {
    if (!first) {
      text += ", ";
    }
    first = false;
    text += name;
  }
  text += "]";
  return text;
}

void PropertyBag::setPropertyState(std::string_view name, PropertyState state) {
  auto found = states_.find(name);
  if (found != states_.end()) {
    found->second = std::move(state);
  } else {
    states_.emplace(PropertyName(name), std::move(state));
  }
}

const PropertyState* PropertyBag::propertyState(std::string_view name) const {
  auto found = states_.find(name);
  return found == states_.end() ? nullptr : &found->second;
}

std::optional<std::int64_t> PropertyBag::integerValue(std::string_view name) const {
  const PropertyState* state = propertyState(name);
  if (state == nullptr) {
    return std::nullopt;
  }
  if (const auto* value = std::get_if<std::int64_t>(&state->value)) {
    return *value;
  }
  return std::nullopt;
}

std::optional<std::string> PropertyBag::stringValue(std::string_view name) const {
  const PropertyState* state = propertyState(name);
  if (state == nullptr) {
    return std::nullopt;
  }
  if (const auto* value = std::get_if<std::string>(&state->value)) {
    return *value;
  }
  return std::nullopt;
}

void ProviderProperties::setManufacturer(std::string manufacturer) {
  setPropertyState(CMIOExtensionPropertyProviderManufacturer, {std::move(manufacturer), {}});
}
std::optional<std::string> ProviderProperties::manufacturer() const {
  return stringValue(CMIOExtensionPropertyProviderManufacturer);
}

void DeviceProperties::setTransportType(std::int64_t transportType) {
  setPropertyState(CMIOExtensionPropertyDeviceTransportType, {transportType, {}});
}
void DeviceProperties::setModel(std::string model) {
  setPropertyState(CMIOExtensionPropertyDeviceModel, {std::move(model), {}});
}
void DeviceProperties::setLinkedCoreAudioDeviceUID(std::string uid) {
  setPropertyState(CMIOExtensionPropertyDeviceLinkedCoreAudioDeviceUID, {std::move(uid), {}});
}
std::optional<std::int64_t> DeviceProperties::transportType() const {
  return integerValue(CMIOExtensionPropertyDeviceTransportType);
}
std::optional<std::string> DeviceProperties::model() const {
  return stringValue(CMIOExtensionPropertyDeviceModel);
}
std::optional<std::string> DeviceProperties::linkedCoreAudioDeviceUID() const {
  return stringValue(CMIOExtensionPropertyDeviceLinkedCoreAudioDeviceUID);
}

void StreamProperties::setActiveFormatIndex(std::int64_t index) {
  setPropertyState(CMIOExtensionPropertyStreamActiveFormatIndex, {index, {}});
}
void StreamProperties::setFrameDuration(MediaTime duration) {
  setPropertyState(CMIOExtensionPropertyStreamFrameDuration, {duration, {}});
}
void StreamProperties::setSinkBufferQueueSize(std::int64_t size) {
  setPropertyState(CMIOExtensionPropertyStreamSinkBufferQueueSize, {size, {}});
}
void StreamProperties::setSinkBuffersRequiredForStartup(std::int64_t count) {
  setPropertyState(CMIOExtensionPropertyStreamSinkBuffersRequiredForStartup, {count, {}});
}
void StreamProperties::setSinkBufferUnderrunCount(std::int64_t count) {
  setPropertyState(CMIOExtensionPropertyStreamSinkBufferUnderrunCount, {count, {}});
}
void StreamProperties::setSinkEndOfData(std::int64_t endOfData) {
  setPropertyState(CMIOExtensionPropertyStreamSinkEndOfData, {endOfData, {}});
}
std::optional<std::int64_t> StreamProperties::activeFormatIndex() const {
  return integerValue(CMIOExtensionPropertyStreamActiveFormatIndex);
}
std::optional<MediaTime> StreamProperties::frameDuration() const {
  const PropertyState* state = propertyState(CMIOExtensionPropertyStreamFrameDuration);
  if (state == nullptr) {
    return std::nullopt;
  }
  if (const auto* value = std::get_if<MediaTime>(&state->value)) {
    return *value;
  }
  return std::nullopt;
}

}  // namespace flowmere::platform
