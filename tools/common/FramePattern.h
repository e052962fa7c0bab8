#pragma once

// The test pattern that the producer and the simulator's demo push, built so that a captured
// frame can be checked exactly: every pixel is a function of its position and the frame number,
// and the frame number is written in the top rows as 32 black or white blocks (most significant
// bit first), which survive any lossless conversion between BGRA and RGB. Pure functions: any
// thread.

#include <cstddef>
#include <cstdint>
#include <optional>

namespace flowmere::pattern {

inline constexpr std::uint32_t kCounterBits = 32;
inline constexpr std::uint32_t kCounterRows = 16;

struct Rgb {
  std::uint8_t r = 0;
  std::uint8_t g = 0;
  std::uint8_t b = 0;
  friend bool operator==(const Rgb&, const Rgb&) = default;
};

// The colour of pixel (x, y) of frame `frame` in a `width` x `height` picture.
Rgb patternPixel(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint64_t frame);

// Fills a BGRA frame (`stride` bytes per row).
void fillBgra(std::uint8_t* data, std::size_t stride, std::uint32_t width, std::uint32_t height,
              std::uint64_t frame);

// Fills a 10-bit 4:2:0 frame, P010 layout (16-bit samples, 10 bits most significant bit
// aligned): the luma plane with a ramp and the counter blocks, video range; the interleaved
// chroma plane at half height with neutral grey.
void fillP010(std::uint8_t* luma, std::size_t lumaStride, std::uint8_t* chroma,
              std::size_t chromaStride, std::uint32_t width, std::uint32_t height,
              std::uint64_t frame);
// The same for one block holding the luma plane and, right after it, the chroma plane, both
// `stride` bytes per row.
inline void fillP010(std::uint8_t* data, std::size_t stride, std::uint32_t width,
                     std::uint32_t height, std::uint64_t frame) {
  fillP010(data, stride, data + static_cast<std::size_t>(height) * stride, stride, width, height,
           frame);
}

// The grey a P010 luma sample written by fillP010 stands for: the stored 16-bit value (10 bits,
// most significant bit aligned) from video range 64..940 back to 0..255, clamped. The counter
// blocks come back as black or white, so readCounter reads P010 frames through it.
Rgb p010LumaGrey(std::uint16_t sample);

// Reads the frame number back from an RGB picture given as a pixel accessor.
template <typename PixelAt>
std::optional<std::uint32_t> readCounter(std::uint32_t width, std::uint32_t height,
                                         PixelAt pixelAt) {
  const std::uint32_t block = width / kCounterBits;
  if (block == 0 || height < kCounterRows) {
    return std::nullopt;
  }
  std::uint32_t value = 0;
  for (std::uint32_t bit = 0; bit < kCounterBits; ++bit) {
    const Rgb centre = pixelAt(bit * block + block / 2, kCounterRows / 2);
    const int level = (centre.r + centre.g + centre.b) / 3;
    if (level > 64 && level < 192) {
      return std::nullopt;  // not a counter block: not our pattern
    }
    value = (value << 1U) | (level >= 192 ? 1U : 0U);
  }
  return value;
}

}  // namespace flowmere::pattern
