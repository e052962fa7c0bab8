#include "ChromiumProfiles.h"

#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

namespace flowmere::status {

namespace {

struct Location {
  const char* browser;
  bool underConfig;       // relative to XDG_CONFIG_HOME, else to HOME
  const char* directory;  // the user data directory
  const char* flagsFile;  // relative to the same root; empty for none
};

constexpr Location kLocations[] = {
    {"Chromium", true, "chromium", "chromium-flags.conf"},
    {"Google Chrome", true, "google-chrome", "chrome-flags.conf"},
    {"Google Chrome Beta", true, "google-chrome-beta", "chrome-beta-flags.conf"},
    {"Google Chrome Dev", true, "google-chrome-unstable", "chrome-dev-flags.conf"},
    {"Brave", true, "BraveSoftware/Brave-Browser", "brave-flags.conf"},
    {"Microsoft Edge", true, "microsoft-edge", "microsoft-edge-stable-flags.conf"},
    {"Microsoft Edge Beta", true, "microsoft-edge-beta", "microsoft-edge-beta-flags.conf"},
    {"Chromium (Flatpak)", false, ".var/app/org.chromium.Chromium/config/chromium",
     ".var/app/org.chromium.Chromium/config/chromium-flags.conf"},
    {"Google Chrome (Flatpak)", false, ".var/app/com.google.Chrome/config/google-chrome",
     ".var/app/com.google.Chrome/config/chrome-flags.conf"},
    {"Brave (Flatpak)", false, ".var/app/com.brave.Browser/config/BraveSoftware/Brave-Browser",
     ".var/app/com.brave.Browser/config/brave-flags.conf"},
    {"Microsoft Edge (Flatpak)", false, ".var/app/com.microsoft.Edge/config/microsoft-edge",
     ".var/app/com.microsoft.Edge/config/microsoft-edge-stable-flags.conf"},
    {"Chromium (Snap)", false, "snap/chromium/common/chromium", ""},
};

bool isSeparator(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '"' || c == '\'';
}

}  // namespace

ChromiumFlag pipeWireCameraFlag(std::string_view localStateText) {
  const nlohmann::json state = nlohmann::json::parse(localStateText, nullptr, false);
  if (state.is_discarded() || !state.is_object()) {
    return ChromiumFlag::kUnreadable;
  }
  const auto browser = state.find("browser");
  if (browser == state.end()) {
    return ChromiumFlag::kDefault;
  }
  if (!browser->is_object()) {
    return ChromiumFlag::kUnreadable;
  }
  const auto experiments = browser->find("enabled_labs_experiments");
  if (experiments == browser->end()) {
    return ChromiumFlag::kDefault;
  }
  if (!experiments->is_array()) {
    return ChromiumFlag::kUnreadable;
  }
  ChromiumFlag flag = ChromiumFlag::kDefault;
  for (const nlohmann::json& entry : *experiments) {
    if (!entry.is_string()) {
      return ChromiumFlag::kUnreadable;
    }
    const std::string& text = entry.get_ref<const std::string&>();
    if (text.rfind(kChromiumCameraFlag, 0) != 0) {
      continue;
    }
    const std::string_view option = std::string_view(text).substr(kChromiumCameraFlag.size());
    // A feature flag's options: @0 default, @1 enabled, @2 disabled.
    if (option == "@1" || option.empty()) {
      flag = ChromiumFlag::kEnabled;
    } else if (option == "@2") {
      flag = ChromiumFlag::kDisabled;
    }
  }
  return flag;
}

bool flagsFileEnablesPipeWireCamera(std::string_view text) {
  std::istringstream lines{std::string(text)};
  std::string line;
  while (std::getline(lines, line)) {
    if (const auto hash = line.find('#'); hash != std::string::npos) {
      line.erase(hash);
    }
    std::size_t start = 0;
    while (start < line.size()) {
      while (start < line.size() && isSeparator(line[start])) {
        ++start;
      }
      std::size_t end = start;
      while (end < line.size() && !isSeparator(line[end])) {
        ++end;
      }
      const std::string_view word = std::string_view(line).substr(start, end - start);
      start = end;
      if (word == "--enable-webrtc-pipewire-camera") {
        return true;
      }
      constexpr std::string_view kEnable = "--enable-features=";
      if (word.rfind(kEnable, 0) == 0) {
        std::string_view features = word.substr(kEnable.size());
        while (!features.empty()) {
          const auto comma = features.find(',');
          if (features.substr(0, comma) == kChromiumCameraFeature) {
            return true;
          }
          features =
              comma == std::string_view::npos ? std::string_view{} : features.substr(comma + 1);
        }
      }
    }
  }
  return false;
}

std::vector<ChromiumProfile> findChromiumProfiles(const HomeDirectories& directories) {
  std::vector<ChromiumProfile> profiles;
  for (const Location& location : kLocations) {
    const std::filesystem::path& root =
        location.underConfig ? directories.configHome : directories.home;
    if (root.empty()) {
      continue;
    }
    const std::filesystem::path localState = root / location.directory / "Local State";
    std::error_code error;
    if (!std::filesystem::exists(localState, error)) {
      continue;
    }
    ChromiumProfile profile;
    profile.browser = location.browser;
    profile.localState = localState;
    if (*location.flagsFile != '\0') {
      profile.flagsFile = root / location.flagsFile;
    }
    profiles.push_back(std::move(profile));
  }
  return profiles;
}

Check chromiumCheck(const HomeDirectories& directories) {
  Check check;
  check.id = "chromium";
  const std::vector<ChromiumProfile> profiles = findChromiumProfiles(directories);
  if (profiles.empty()) {
    check.found = "no Chromium, Google Chrome, Brave or Edge profile found (nothing to check)";
    return check;
  }
  std::vector<std::string> found;
  std::vector<std::string> fixes;
  for (const ChromiumProfile& profile : profiles) {
    const std::optional<std::string> text = readTextFile(profile.localState);
    const ChromiumFlag flag = text ? pipeWireCameraFlag(*text) : ChromiumFlag::kUnreadable;
    const std::optional<std::string> flags =
        profile.flagsFile.empty() ? std::nullopt : readTextFile(profile.flagsFile);
    const bool byFlagsFile = flags && flagsFileEnablesPipeWireCamera(*flags);
    if (flag == ChromiumFlag::kUnreadable) {
      check.result = worse(check.result, CheckResult::kWarn);
      found.push_back(profile.browser + ": cannot parse " + profile.localState.string());
      fixes.push_back("check " + profile.localState.string() +
                      " (the browser rewrites it when it starts and quits)");
      continue;
    }
    if (flag == ChromiumFlag::kEnabled || byFlagsFile) {
      found.push_back(profile.browser + ": PipeWire camera on" +
                      (flag == ChromiumFlag::kEnabled ? " (chrome://flags)"
                                                      : " (" + profile.flagsFile.string() + ")"));
      continue;
    }
    check.result = worse(check.result, CheckResult::kWarn);
    found.push_back(
        profile.browser + ": PipeWire camera " +
        (flag == ChromiumFlag::kDisabled ? "disabled in chrome://flags" : "off (the default)") +
        ", so it lists no PipeWire camera");
    fixes.push_back("in " + profile.browser + " open chrome://flags/#" +
                    std::string(kChromiumCameraFlag) +
                    ", set \"PipeWire Camera support\" to Enabled and restart it (or start it "
                    "with --enable-features=" +
                    std::string(kChromiumCameraFeature) + ")");
  }
  check.found += joinFindings(found);
  check.fix += joinFindings(fixes);
  return check;
}

}  // namespace flowmere::status
