#pragma once

// The `v4l2` check: whether PipeWire's V4L2 layer (pw-v4l2) is installed, which /dev/video*
// devices exist (a kernel loopback device shows up as a second camera in device lists), and the
// command line that starts a V4L2 program on this camera.
//
// Reads directories only. Pure functions of directory roots and of what was found: any thread.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "DoctorCheck.h"

namespace flowmere::status {

struct VideoDevice {
  std::string path;  // "/dev/video0"
  std::string name;  // the driver's card name from sysfs; empty when unknown
  bool loopback = false;
};

// The video4linux devices in `devDirectory` (video0, video1, ...), named from `sysfsClass`
// (/sys/class/video4linux/videoN/name), in number order.
std::vector<VideoDevice> scanVideoDevices(const std::filesystem::path& devDirectory,
                                          const std::filesystem::path& sysfsClass);

// Whether a card name (and driver name, when known) is a kernel loopback device's.
bool isLoopbackDevice(const std::string& cardName, const std::string& driverName);

// The path of `program` in the directories of `searchPath` (PATH's form); empty when absent.
std::filesystem::path findProgram(const std::string& program, const std::string& searchPath);

// `sourceSerial` is the camera source node's object.serial, when the service runs.
Check v4l2Check(const std::filesystem::path& pwV4l2, const std::vector<VideoDevice>& devices,
                std::optional<std::uint64_t> sourceSerial);

}  // namespace flowmere::status
