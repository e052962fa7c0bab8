#pragma once

// Build-time identifiers derived from the maker's reverse-DNS prefix, which the producer
// application shares.

#include <string_view>

namespace flowmere {

inline constexpr std::string_view kVendorIdentifierPrefix = "com.flowmere";

// "group." + prefix + ".av.shared": the application group, and the name of its settings suite.
inline constexpr std::string_view kApplicationGroupIdentifier = "group.com.flowmere.av.shared";
// prefix + ".av.state": the directory that holds one state file per published value.
inline constexpr std::string_view kStateDirectoryName = "com.flowmere.av.state";
// prefix + ".av.camera.model"
inline constexpr std::string_view kDeviceModel = "com.flowmere.av.camera.model";
// prefix + ".av.audio.input"
inline constexpr std::string_view kLinkedAudioDeviceUID = "com.flowmere.av.audio.input";
// prefix + ".vane-cmio-probe."; the consume-queue label continues with the metrics namespace
// and ".sink.consume".
inline constexpr std::string_view kConsumeQueueLabelPrefix = "com.flowmere.vane-cmio-probe.";

}  // namespace flowmere
