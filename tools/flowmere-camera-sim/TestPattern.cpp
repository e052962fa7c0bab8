#include "TestPattern.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

namespace flowmere::sim {

namespace {

// 3x5 digit glyphs, one bit per cell, rows top to bottom.
constexpr std::array<std::array<std::uint8_t, 5>, 10> kDigits{{
    {7, 5, 5, 5, 7},
    {2, 6, 2, 2, 7},
    {7, 1, 7, 4, 7},
    {7, 1, 7, 1, 7},
    {5, 5, 7, 1, 1},
    {7, 4, 7, 1, 7},
    {7, 4, 7, 5, 7},
    {7, 1, 1, 1, 1},
    {7, 5, 7, 5, 7},
    {7, 5, 7, 1, 7},
}};

// True where the counter text covers pixel (x, y).
bool counterCovers(const std::string& digits, std::uint32_t x, std::uint32_t y,
                   std::uint32_t cell) {
  const std::uint32_t left = cell * 2;
  const std::uint32_t top = cell * 2;
  if (x < left || y < top) {
    return false;
  }
  const std::uint32_t column = (x - left) / cell;
  const std::uint32_t row = (y - top) / cell;
  if (row >= 5) {
    return false;
  }
  const std::uint32_t glyph = column / 4;
  const std::uint32_t within = column % 4;
  if (glyph >= digits.size() || within == 3) {
    return false;
  }
  const auto& rows = kDigits[static_cast<std::size_t>(digits[glyph] - '0')];
  return ((rows[row] >> (2 - within)) & 1U) != 0;
}

}  // namespace

void drawTestPattern(platform::PixelBuffer& buffer, std::uint64_t frameNumber) {
  const std::uint32_t width = buffer.width();
  const std::uint32_t height = buffer.height();
  const std::string digits = std::to_string(frameNumber);
  const std::uint32_t cell = std::max<std::uint32_t>(4, std::min(width, height) / 40);
  const std::uint32_t barWidth = std::max<std::uint32_t>(8, width / 32);
  const std::uint32_t barLeft = static_cast<std::uint32_t>((frameNumber * (width / 120 + 1)) %
                                                           std::max<std::uint32_t>(width, 1));

  if (buffer.pixelFormat() == platform::kCVPixelFormatType_32BGRA) {
    const platform::PixelBufferPlane& plane = buffer.plane(0);
    for (std::uint32_t y = 0; y < height; ++y) {
      auto* row = reinterpret_cast<std::uint8_t*>(plane.data + y * plane.bytesPerRow);
      for (std::uint32_t x = 0; x < width; ++x) {
        std::uint8_t* pixel = row + static_cast<std::size_t>(x) * 4;
        const bool bar = x >= barLeft && x < barLeft + barWidth;
        const bool text = counterCovers(digits, x, y, cell);
        pixel[0] = text ? 255 : static_cast<std::uint8_t>(bar ? 255 : (x * 255) / width);   // B
        pixel[1] = text ? 255 : static_cast<std::uint8_t>(bar ? 255 : (y * 255) / height);  // G
        pixel[2] = text ? 255 : static_cast<std::uint8_t>(bar ? 255 : 96);                  // R
        pixel[3] = 255;
      }
    }
    return;
  }

  // 10-bit luma in the high bits of 16-bit samples (video range 64..940); neutral chroma.
  const platform::PixelBufferPlane& luma = buffer.plane(0);
  for (std::uint32_t y = 0; y < height; ++y) {
    auto* row = reinterpret_cast<std::uint16_t*>(luma.data + y * luma.bytesPerRow);
    for (std::uint32_t x = 0; x < width; ++x) {
      const bool bar = x >= barLeft && x < barLeft + barWidth;
      const bool text = counterCovers(digits, x, y, cell);
      const std::uint32_t level = text || bar ? 940 : 64 + (x * 876) / width;
      row[x] = static_cast<std::uint16_t>(level << 6);
    }
  }
  if (buffer.planeCount() > 1) {
    const platform::PixelBufferPlane& chroma = buffer.plane(1);
    for (std::uint32_t y = 0; y < chroma.height; ++y) {
      auto* row = reinterpret_cast<std::uint16_t*>(chroma.data + y * chroma.bytesPerRow);
      std::fill(row, row + chroma.bytesPerRow / 2, static_cast<std::uint16_t>(512 << 6));
    }
  }
}

}  // namespace flowmere::sim
