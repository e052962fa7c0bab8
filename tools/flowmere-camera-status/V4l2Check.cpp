#include "V4l2Check.h"

#include <algorithm>
#include <cctype>
#include <system_error>

#include "HomeDirectories.h"

namespace flowmere::status {

namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string firstLine(const std::optional<std::string>& text) {
  if (!text) {
    return "";
  }
  return text->substr(0, text->find('\n'));
}

}  // namespace

bool isLoopbackDevice(const std::string& cardName, const std::string& driverName) {
  const std::string card = lower(cardName);
  return card.find("loopback") != std::string::npos ||
         card.find("dummy video device") != std::string::npos ||
         lower(driverName).find("v4l2loopback") != std::string::npos;
}

std::vector<VideoDevice> scanVideoDevices(const std::filesystem::path& devDirectory,
                                          const std::filesystem::path& sysfsClass) {
  std::vector<std::pair<int, VideoDevice>> found;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(devDirectory, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string file = entry->path().filename().string();
    if (file.rfind("video", 0) != 0 || file.size() == 5 ||
        !std::all_of(file.begin() + 5, file.end(),
                     [](unsigned char c) { return std::isdigit(c); })) {
      continue;
    }
    VideoDevice device;
    device.path = entry->path().string();
    device.name = firstLine(readTextFile(sysfsClass / file / "name"));
    std::error_code linkError;
    const std::filesystem::path driver =
        std::filesystem::read_symlink(sysfsClass / file / "device" / "driver", linkError);
    device.loopback = isLoopbackDevice(device.name, linkError ? "" : driver.filename().string());
    found.emplace_back(std::stoi(file.substr(5)), std::move(device));
  }
  std::sort(found.begin(), found.end(),
            [](const auto& left, const auto& right) { return left.first < right.first; });
  std::vector<VideoDevice> devices;
  devices.reserve(found.size());
  for (auto& [number, device] : found) {
    devices.push_back(std::move(device));
  }
  return devices;
}

std::filesystem::path findProgram(const std::string& program, const std::string& searchPath) {
  std::size_t start = 0;
  while (start <= searchPath.size()) {
    const auto colon = searchPath.find(':', start);
    const std::string directory =
        searchPath.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
    if (!directory.empty()) {
      std::filesystem::path candidate = std::filesystem::path(directory) / program;
      std::error_code error;
      if (std::filesystem::is_regular_file(candidate, error)) {
        return candidate;
      }
    }
    if (colon == std::string::npos) {
      break;
    }
    start = colon + 1;
  }
  return {};
}

Check v4l2Check(const std::filesystem::path& pwV4l2, const std::vector<VideoDevice>& devices,
                std::optional<std::uint64_t> sourceSerial) {
  Check check;
  check.id = "v4l2";
  std::string listed;
  std::vector<const VideoDevice*> loopbacks;
  for (const VideoDevice& device : devices) {
    listed += (listed.empty() ? "" : ", ") + device.path +
              (device.name.empty() ? "" : " \"" + device.name + "\"");
    if (device.loopback) {
      loopbacks.push_back(&device);
    }
  }
  const std::string target =
      sourceSerial ? "PIPEWIRE_V4L2_TARGET=" + std::to_string(*sourceSerial) + " " : "";
  const std::string command = target + "pw-v4l2 ffmpeg -f v4l2 -i /dev/video0 out.mkv";
  check.found = (devices.empty() ? std::string("no /dev/video* device") : "devices: " + listed) +
                "; V4L2 programs reach the camera only through pw-v4l2";
  if (pwV4l2.empty()) {
    check.result = CheckResult::kWarn;
    check.found += ", which is not installed";
    check.fix = "sudo apt install pipewire-v4l2, then start V4L2 programs as: " + command;
  } else {
    check.found += " (" + pwV4l2.string() + "): " + command;
  }
  if (!loopbacks.empty()) {
    check.result = CheckResult::kWarn;
    std::string names;
    for (const VideoDevice* device : loopbacks) {
      names += (names.empty() ? "" : ", ") + device->path;
    }
    check.found += "; " + names + (loopbacks.size() == 1 ? " is a" : " are") +
                   " kernel loopback device" + (loopbacks.size() == 1 ? "" : "s") +
                   ": it shows up as a second camera in device lists, next to \"Flowmere AV "
                   "Camera Source\"";
    check.fix += std::string(check.fix.empty() ? "" : "; ") +
                 "pick \"Flowmere AV Camera Source\" in the program, or unload the loopback "
                 "device if nothing uses it: sudo modprobe -r v4l2loopback";
  }
  return check;
}

}  // namespace flowmere::status
