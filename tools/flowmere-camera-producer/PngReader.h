#pragma once

// Reads the PNG files that GStreamer's pngenc writes (8-bit RGB or RGBA, not interlaced), to
// check captured frames against the test pattern. Any thread.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FramePattern.h"

namespace flowmere::producer {

struct RgbImage {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<pattern::Rgb> pixels;  // row by row
  [[nodiscard]] const pattern::Rgb& at(std::uint32_t x, std::uint32_t y) const {
    return pixels[static_cast<std::size_t>(y) * width + x];
  }
};

// The picture in `file`; on failure, `error` says why and the result is empty.
RgbImage readPng(const std::filesystem::path& file, std::string& error);

}  // namespace flowmere::producer
