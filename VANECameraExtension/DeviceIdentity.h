#pragma once

// Who the virtual camera is: the names and identifiers under which the device and its two
// streams are published, the model and linked-audio identifiers, and the metrics namespace.
// Immutable values; any thread.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Uuid.h"

namespace flowmere {

// The camera's role. A single case, carrying no data; all roles compare equal.
enum class FlowmereCameraRole { compatibility };

// The immutable identity of one camera. Copied, never shared by reference.
struct FlowmereCameraDeviceDescriptor {
  FlowmereCameraRole role = FlowmereCameraRole::compatibility;
  std::string localizedName;
  platform::Uuid deviceID;
  std::string sourceStreamName;
  platform::Uuid sourceStreamID;
  std::string sinkStreamName;
  platform::Uuid sinkStreamID;
  std::string model;
  std::string linkedCoreAudioDeviceUID;
  std::string metricsNamespace;

  friend bool operator==(const FlowmereCameraDeviceDescriptor&,
                         const FlowmereCameraDeviceDescriptor&) = default;
};

// The descriptor with the default values; built once, on first use, thread-safely.
const FlowmereCameraDeviceDescriptor& defaultDescriptor();
// The descriptors the provider publishes: exactly one, a copy of `defaultDescriptor()`. Built
// once, on first use, thread-safely.
const std::vector<FlowmereCameraDeviceDescriptor>& allDescriptors();

// Where the camera's sound goes. Not used by the relay; shared with the producer application.
class VANEAudioDestination {
 public:
  enum Value : int { compatibility = 0 };

  constexpr VANEAudioDestination(Value value) : value_(value) {}  // NOLINT
  // None for every raw value but 0.
  static std::optional<VANEAudioDestination> fromRawValue(int rawValue);
  static const std::vector<VANEAudioDestination>& allCases();

  [[nodiscard]] constexpr int rawValue() const { return value_; }
  [[nodiscard]] std::string_view deviceUID() const;
  [[nodiscard]] std::string_view displayName() const;

  friend constexpr bool operator==(VANEAudioDestination, VANEAudioDestination) = default;

 private:
  Value value_;
};

}  // namespace flowmere

template <>
struct std::hash<flowmere::VANEAudioDestination> {
  std::size_t operator()(flowmere::VANEAudioDestination destination) const noexcept {
    return std::hash<int>()(destination.rawValue());
  }
};

template <>
struct std::hash<flowmere::FlowmereCameraRole> {
  std::size_t operator()(flowmere::FlowmereCameraRole /*role*/) const noexcept { return 0; }
};
