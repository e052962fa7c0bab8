#pragma once

// Writes a frame as a PNG file: BGRA frames in colour, 10-bit 4:2:0 frames as their luma plane
// in grey. Uncompressed (stored) deflate blocks keep the writer free of a compression library.

#include <filesystem>

#include "platform/PixelBuffer.h"

namespace flowmere::sim {

// False when the file cannot be written or the pixel format is unknown.
bool writePng(const platform::PixelBuffer& buffer, const std::filesystem::path& file);

}  // namespace flowmere::sim
