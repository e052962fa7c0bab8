#pragma once

// Camera-extension property names, values, states and the property objects that the provider,
// device and stream calls exchange. Value types; any thread.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>

#include "platform/MediaTime.h"

namespace flowmere::platform {

using PropertyName = std::string;
using PropertySet = std::set<PropertyName, std::less<>>;

// Provider properties.
inline constexpr std::string_view CMIOExtensionPropertyProviderManufacturer =
    "CMIOExtensionPropertyProviderManufacturer";
// Device properties.
inline constexpr std::string_view CMIOExtensionPropertyDeviceTransportType =
    "CMIOExtensionPropertyDeviceTransportType";
inline constexpr std::string_view CMIOExtensionPropertyDeviceModel =
    "CMIOExtensionPropertyDeviceModel";
inline constexpr std::string_view CMIOExtensionPropertyDeviceLinkedCoreAudioDeviceUID =
    "CMIOExtensionPropertyDeviceLinkedCoreAudioDeviceUID";
// Stream properties.
inline constexpr std::string_view CMIOExtensionPropertyStreamActiveFormatIndex =
    "CMIOExtensionPropertyStreamActiveFormatIndex";
inline constexpr std::string_view CMIOExtensionPropertyStreamFrameDuration =
    "CMIOExtensionPropertyStreamFrameDuration";
inline constexpr std::string_view CMIOExtensionPropertyStreamSinkBufferQueueSize =
    "CMIOExtensionPropertyStreamSinkBufferQueueSize";
inline constexpr std::string_view CMIOExtensionPropertyStreamSinkBuffersRequiredForStartup =
    "CMIOExtensionPropertyStreamSinkBuffersRequiredForStartup";
inline constexpr std::string_view CMIOExtensionPropertyStreamSinkBufferUnderrunCount =
    "CMIOExtensionPropertyStreamSinkBufferUnderrunCount";
inline constexpr std::string_view CMIOExtensionPropertyStreamSinkEndOfData =
    "CMIOExtensionPropertyStreamSinkEndOfData";

// The audio transport type of a virtual device, 'virt'.
inline constexpr std::int64_t kAudioDeviceTransportTypeVirtual = 1986622068;

// A media time written out as a dictionary (value, timescale, flags, epoch), as property-change
// notices carry durations.
struct MediaTimeDictionary {
  MediaTime time;
  friend bool operator==(const MediaTimeDictionary&, const MediaTimeDictionary&) = default;
};
inline MediaTimeDictionary copyMediaTimeAsDictionary(MediaTime time) {
  return MediaTimeDictionary{time};
}

using PropertyValue =
    std::variant<std::monostate, std::int64_t, double, std::string, MediaTime, MediaTimeDictionary>;

struct PropertyAttributes {
  bool readOnly = false;
  static PropertyAttributes readOnlyPropertyAttribute() { return PropertyAttributes{true}; }
  friend bool operator==(const PropertyAttributes&, const PropertyAttributes&) = default;
};

// A property value with optional attributes.
struct PropertyState {
  PropertyValue value;
  std::optional<PropertyAttributes> attributes;
  friend bool operator==(const PropertyState&, const PropertyState&) = default;
};

using PropertyStateMap = std::map<PropertyName, PropertyState, std::less<>>;

// The platform's description of a set of property names: "[a, b]", in name order.
std::string describePropertySet(const PropertySet& properties);

// A dictionary of property states, with typed accessors on the subclasses.
class PropertyBag {
 public:
  void setPropertyState(std::string_view name, PropertyState state);
  [[nodiscard]] const PropertyState* propertyState(std::string_view name) const;
  [[nodiscard]] const PropertyStateMap& propertiesDictionary() const { return states_; }

 protected:
  [[nodiscard]] std::optional<std::int64_t> integerValue(std::string_view name) const;
  [[nodiscard]] std::optional<std::string> stringValue(std::string_view name) const;

 private:
  PropertyStateMap states_;
};

class ProviderProperties : public PropertyBag {
 public:
  void setManufacturer(std::string manufacturer);
  [[nodiscard]] std::optional<std::string> manufacturer() const;
};

class DeviceProperties : public PropertyBag {
 public:
  void setTransportType(std::int64_t transportType);
  void setModel(std::string model);
  void setLinkedCoreAudioDeviceUID(std::string uid);
  [[nodiscard]] std::optional<std::int64_t> transportType() const;
  [[nodiscard]] std::optional<std::string> model() const;
  [[nodiscard]] std::optional<std::string> linkedCoreAudioDeviceUID() const;
};

class StreamProperties : public PropertyBag {
 public:
  void setActiveFormatIndex(std::int64_t index);
  void setFrameDuration(MediaTime duration);
  void setSinkBufferQueueSize(std::int64_t size);
  void setSinkBuffersRequiredForStartup(std::int64_t count);
  void setSinkBufferUnderrunCount(std::int64_t count);
  void setSinkEndOfData(std::int64_t endOfData);
  // The active format index, when the properties carry one.
  [[nodiscard]] std::optional<std::int64_t> activeFormatIndex() const;
  [[nodiscard]] std::optional<MediaTime> frameDuration() const;
};

}  // namespace flowmere::platform
