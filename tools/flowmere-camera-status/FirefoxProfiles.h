#pragma once

// The `firefox` check: whether each Firefox profile (regular and ESR; native, XDG, Flatpak and
// Snap locations; listed by profiles.ini) has media.webrtc.camera.allow-pipewire set to true.
// Without it Firefox lists only /dev/video* cameras, never a PipeWire one. user.js wins over
// prefs.js, as it does when Firefox starts.
//
// Reads files only. Pure functions of file contents and directory roots: any thread.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "DoctorCheck.h"
#include "HomeDirectories.h"

namespace flowmere::status {

inline constexpr std::string_view kFirefoxCameraPref = "media.webrtc.camera.allow-pipewire";

struct FirefoxProfileEntry {
  std::string name;            // profiles.ini's Name=
  std::filesystem::path path;  // the profile directory (relative paths resolved)
};

// The profiles a profiles.ini lists; none when the text is not an INI file (a line that is
// neither a [section], a key=value nor a comment).
std::optional<std::vector<FirefoxProfileEntry>> parseProfilesIni(
    std::string_view text, const std::filesystem::path& iniDirectory);

enum class FirefoxPref { kUnset, kTrue, kFalse, kUnreadable };

// The value of `name` in the text of a prefs.js or user.js (the last setting wins);
// kUnreadable when a statement is not a well-formed user_pref(...) / pref(...) call.
FirefoxPref firefoxPref(std::string_view prefsText, std::string_view name);

// Every directory under `directories` that holds a Firefox profiles.ini.
std::vector<std::filesystem::path> findFirefoxRoots(const HomeDirectories& directories);

Check firefoxCheck(const HomeDirectories& directories);

}  // namespace flowmere::status
