#include "DeviceIdentity.h"

#include <cstdlib>

#include "VendorIdentifiers.h"

namespace flowmere {

namespace {

platform::Uuid fixedUuid(std::string_view text) {
  // The texts below are constants in canonical form; a typo is a build defect.
  const std::optional<platform::Uuid> uuid = platform::Uuid::fromString(text);
  if (!uuid) {
    std::abort();
  }
  return *uuid;
}

}  // namespace

const FlowmereCameraDeviceDescriptor& defaultDescriptor() {
  // Function-local statics are initialised exactly once, even when several threads race here.
  static const FlowmereCameraDeviceDescriptor descriptor{
      FlowmereCameraRole::compatibility,
      "Flowmere Camera",
      fixedUuid("0C4F2A7E-3B19-5D62-9A41-7E2B5C8D1F03"),
      "Flowmere AV Camera Source",
      fixedUuid("A83D6E15-C2F0-5B47-8E19-24D6B0F3A9C5"),
      "Flowmere AV Camera Sink",
      fixedUuid("6E91B2D4-0F7A-5C38-B2E6-D45A8C1E7B20"),
      std::string(kDeviceModel),
      std::string(kLinkedAudioDeviceUID),
      "bridge",
  };
  return descriptor;
}

const std::vector<FlowmereCameraDeviceDescriptor>& allDescriptors() {
  static const std::vector<FlowmereCameraDeviceDescriptor> descriptors{defaultDescriptor()};
  return descriptors;
}

std::optional<VANEAudioDestination> VANEAudioDestination::fromRawValue(int rawValue) {
  if (rawValue == compatibility) {
    return VANEAudioDestination(compatibility);
  }
  return std::nullopt;
}

const std::vector<VANEAudioDestination>& VANEAudioDestination::allCases() {
  static const std::vector<VANEAudioDestination> cases{compatibility};
  return cases;
}

std::string_view VANEAudioDestination::deviceUID() const {
  return kLinkedAudioDeviceUID;
}

std::string_view VANEAudioDestination::displayName() const {
  return "Flowmere Audio";
}

}  // namespace flowmere
