#pragma once

// The `chromium` check: whether each Chromium-family browser (Chromium, Google Chrome, Brave,
// Microsoft Edge; native, Flatpak and Snap) has its PipeWire camera feature on. Without it these
// browsers list only /dev/video* cameras, never a PipeWire one. The feature is chrome://flags'
// "enable-webrtc-pipewire-camera" (stored in the profile's `Local State` as
// browser.enabled_labs_experiments "enable-webrtc-pipewire-camera@1") or the command line's
// --enable-features=WebRtcPipeWireCamera (which a <browser>-flags.conf file can carry).
//
// Reads files only. Pure functions of file contents and directory roots: any thread.

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "DoctorCheck.h"
#include "HomeDirectories.h"

namespace flowmere::status {

inline constexpr std::string_view kChromiumCameraFlag = "enable-webrtc-pipewire-camera";
inline constexpr std::string_view kChromiumCameraFeature = "WebRtcPipeWireCamera";

enum class ChromiumFlag {
  kDefault,   // not set: off
  kEnabled,   // "enable-webrtc-pipewire-camera@1"
  kDisabled,  // "enable-webrtc-pipewire-camera@2"
  kUnreadable,
};

// The flag's state in the text of a `Local State` file; kUnreadable when it is not JSON or its
// browser.enabled_labs_experiments is not a list of strings.
ChromiumFlag pipeWireCameraFlag(std::string_view localStateText);

// Whether the text of a flags file (one or more command-line arguments, `#` comments) turns the
// feature on: --enable-features=...WebRtcPipeWireCamera... or --enable-webrtc-pipewire-camera.
bool flagsFileEnablesPipeWireCamera(std::string_view text);

struct ChromiumProfile {
  std::string browser;               // "Chromium", "Google Chrome (Flatpak)", ...
  std::filesystem::path localState;  // the profile directory's `Local State`
  std::filesystem::path flagsFile;   // its <browser>-flags.conf (may not exist)
};

// Every Chromium-family user data directory under `directories` that has a `Local State`.
std::vector<ChromiumProfile> findChromiumProfiles(const HomeDirectories& directories);

Check chromiumCheck(const HomeDirectories& directories);

}  // namespace flowmere::status
