#include "FramePattern.h"

namespace flowmere::producer {

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
  for (std::uint32_t y = 0; y < height; ++y) {
    std::uint8_t* row = data + y * stride;
    for (std::uint32_t x = 0; x < width; ++x) {
      const Rgb colour = patternPixel(x, y, width, frame);
      row[x * 4 + 0] = colour.b;
      row[x * 4 + 1] = colour.g;
      row[x * 4 + 2] = colour.r;
      row[x * 4 + 3] = 0xFF;
    }
  }
}

void fillP010(std::uint8_t* data, std::size_t stride, std::uint32_t width, std::uint32_t height,
              std::uint64_t frame) {
  auto put = [](std::uint8_t* at, std::uint32_t tenBit) {
    const auto sample = static_cast<std::uint16_t>(tenBit << 6U);  // P010: 10 bits, MSB aligned
    at[0] = static_cast<std::uint8_t>(sample & 0xFFU);
    at[1] = static_cast<std::uint8_t>(sample >> 8U);
  };
  for (std::uint32_t y = 0; y < height; ++y) {
    std::uint8_t* row = data + y * stride;
    for (std::uint32_t x = 0; x < width; ++x) {
      const Rgb colour = patternPixel(x, y, width, frame);
      const std::uint32_t level = (colour.r + colour.g + colour.b) / 3;
      put(row + x * 2, 64 + level * (940 - 64) / 255);  // video range luma
    }
  }
  std::uint8_t* chroma = data + static_cast<std::size_t>(height) * stride;
  for (std::uint32_t y = 0; y < height / 2; ++y) {
    std::uint8_t* row = chroma + y * stride;
    for (std::uint32_t x = 0; x < width / 2; ++x) {
      put(row + x * 4, 512);
      put(row + x * 4 + 2, 512);
    }
  }
}

}  // namespace flowmere::producer
