#include "FramePattern.h"

#include <algorithm>
#include <cstring>

namespace flowmere::pattern {

Rgb patternPixel(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint64_t frame) {
  if (y < kCounterRows) {
    const std::uint32_t block = width / kCounterBits;
    const std::uint32_t bit = block == 0 ? kCounterBits : x / block;
    if (bit >= kCounterBits) {
      return Rgb{40, 40, 40};
    }
    const bool set = ((frame >> (kCounterBits - 1 - bit)) & 1U) != 0;
    return set ? Rgb{255, 255, 255} : Rgb{0, 0, 0};
  }
  // A diagonal ramp that moves four pixels a frame, over vertical and horizontal gradients.
  const auto moving = static_cast<std::uint32_t>(x + y + frame * 4);
  return Rgb{static_cast<std::uint8_t>(moving & 0xFFU), static_cast<std::uint8_t>(y & 0xFFU),
             static_cast<std::uint8_t>((x / 2) & 0xFFU)};
}

void fillBgra(std::uint8_t* data, std::size_t stride, std::uint32_t width, std::uint32_t height,
              std::uint64_t frame) {
  const std::uint32_t counterRows = height < kCounterRows ? height : kCounterRows;
  for (std::uint32_t y = 0; y < counterRows; ++y) {
    std::uint8_t* row = data + y * stride;
    for (std::uint32_t x = 0; x < width; ++x) {
      const Rgb colour = patternPixel(x, y, width, frame);
      row[x * 4 + 0] = colour.b;
      row[x * 4 + 1] = colour.g;
      row[x * 4 + 2] = colour.r;
      row[x * 4 + 3] = 0xFF;
    }
  }
  // Below the counter the pattern is patternPixel's ramp, written a whole pixel at a time so
  // that a 4K frame takes a few milliseconds: the producer must keep up with 30 fps at 4K for
  // the relay's own cost to be what a measurement sees.
  const auto shift = static_cast<std::uint32_t>(frame * 4);
  for (std::uint32_t y = counterRows; y < height; ++y) {
    std::uint8_t* row = data + y * stride;
    const std::uint32_t green = (y & 0xFFU) << 8U;
    const std::uint32_t start = y + shift;
    for (std::uint32_t x = 0; x < width; ++x) {
      // Bytes B, G, R, A: blue is x / 2, green y, red the moving ramp.
      const std::uint32_t pixel =
          ((x / 2) & 0xFFU) | green | (((x + start) & 0xFFU) << 16U) | 0xFF000000U;
      std::memcpy(row + static_cast<std::size_t>(x) * 4, &pixel, sizeof(pixel));
    }
  }
}

void fillP010(std::uint8_t* luma, std::size_t lumaStride, std::uint8_t* chroma,
              std::size_t chromaStride, std::uint32_t width, std::uint32_t height,
              std::uint64_t frame) {
  auto put = [](std::uint8_t* at, std::uint32_t tenBit) {
    const auto sample = static_cast<std::uint16_t>(tenBit << 6U);  // P010: 10 bits, MSB aligned
    at[0] = static_cast<std::uint8_t>(sample & 0xFFU);
    at[1] = static_cast<std::uint8_t>(sample >> 8U);
  };
  for (std::uint32_t y = 0; y < height; ++y) {
    std::uint8_t* row = luma + y * lumaStride;
    for (std::uint32_t x = 0; x < width; ++x) {
      const Rgb colour = patternPixel(x, y, width, frame);
      const std::uint32_t level = (colour.r + colour.g + colour.b) / 3;
      put(row + static_cast<std::size_t>(x) * 2,
          64 + level * (940 - 64) / 255);  // video range luma
    }
  }
  for (std::uint32_t y = 0; y < height / 2; ++y) {
    std::uint8_t* row = chroma + y * chromaStride;
    for (std::uint32_t x = 0; x < width / 2; ++x) {
      put(row + static_cast<std::size_t>(x) * 4, 512);
      put(row + static_cast<std::size_t>(x) * 4 + 2, 512);
    }
  }
}

Rgb p010LumaGrey(std::uint16_t sample) {
  const int luma = sample >> 6U;
  const int level = std::clamp((luma - 64) * 255 / (940 - 64), 0, 255);
  const auto grey = static_cast<std::uint8_t>(level);
  return Rgb{grey, grey, grey};
}

}  // namespace flowmere::pattern
