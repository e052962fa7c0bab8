#include "PngReader.h"

#include <zlib.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace flowmere::producer {

namespace {

std::uint32_t bigEndian(const std::uint8_t* bytes) {
  return (static_cast<std::uint32_t>(bytes[0]) << 24U) |
         (static_cast<std::uint32_t>(bytes[1]) << 16U) |
         (static_cast<std::uint32_t>(bytes[2]) << 8U) | bytes[3];
}

std::uint8_t paeth(int left, int up, int upLeft) {
  const int estimate = left + up - upLeft;
  const int toLeft = std::abs(estimate - left);
  const int toUp = std::abs(estimate - up);
  const int toUpLeft = std::abs(estimate - upLeft);
  if (toLeft <= toUp && toLeft <= toUpLeft) {
    return static_cast<std::uint8_t>(left);
  }
  return static_cast<std::uint8_t>(toUp <= toUpLeft ? up : upLeft);
}

}  // namespace

RgbImage readPng(const std::filesystem::path& file, std::string& error) {
  std::ifstream stream(file, std::ios::binary);
  const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(stream)),
                                        std::istreambuf_iterator<char>());
  constexpr std::array<std::uint8_t, 8> kSignature{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (bytes.size() < 8 || std::memcmp(bytes.data(), kSignature.data(), 8) != 0) {
    error = "not a PNG file";
    return {};
  }
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t channels = 0;
  std::vector<std::uint8_t> compressed;
  for (std::size_t at = 8; at + 12 <= bytes.size();) {
    const std::uint32_t length = bigEndian(&bytes[at]);
    if (at + 12 + length > bytes.size()) {
      error = "truncated chunk";
      return {};
    }
    const std::string type(reinterpret_cast<const char*>(&bytes[at + 4]), 4);
    const std::uint8_t* body = &bytes[at + 8];
    if (type == "IHDR" && length >= 13) {
      width = bigEndian(body);
      height = bigEndian(body + 4);
      const std::uint8_t depth = body[8];
      const std::uint8_t colourType = body[9];
      if (depth != 8 || (colourType != 2 && colourType != 6) || body[12] != 0) {
        error = "only 8-bit RGB or RGBA, not interlaced, is supported";
        return {};
      }
      channels = colourType == 2 ? 3 : 4;
    } else if (type == "IDAT") {
      compressed.insert(compressed.end(), body, body + length);
    } else if (type == "IEND") {
      break;
    }
    at += 12 + length;
  }
  if (channels == 0 || width == 0 || height == 0) {
    error = "no image header";
    return {};
  }
  const std::size_t rowBytes = static_cast<std::size_t>(width) * channels;
  std::vector<std::uint8_t> raw((rowBytes + 1) * height);
  uLongf rawSize = raw.size();
  if (uncompress(raw.data(), &rawSize, compressed.data(), compressed.size()) != Z_OK ||
      rawSize != raw.size()) {
    error = "image data does not inflate to the expected size";
    return {};
  }
  RgbImage image{width, height,
                 std::vector<pattern::Rgb>(static_cast<std::size_t>(width) * height)};
  std::vector<std::uint8_t> previous(rowBytes, 0);
  std::vector<std::uint8_t> current(rowBytes, 0);
  for (std::uint32_t y = 0; y < height; ++y) {
    const std::uint8_t* in = &raw[y * (rowBytes + 1)];
    const std::uint8_t filter = in[0];
    for (std::size_t i = 0; i < rowBytes; ++i) {
      const int left = i >= channels ? current[i - channels] : 0;
      const int up = previous[i];
      const int upLeft = i >= channels ? previous[i - channels] : 0;
      int predicted = 0;
      switch (filter) {
        case 0:
          predicted = 0;
          break;
        case 1:
          predicted = left;
          break;
        case 2:
          predicted = up;
          break;
        case 3:
          predicted = (left + up) / 2;
          break;
        case 4:
          predicted = paeth(left, up, upLeft);
          break;
        default:
          error = "unknown row filter";
          return {};
      }
      current[i] = static_cast<std::uint8_t>(in[1 + i] + predicted);
    }
    for (std::uint32_t x = 0; x < width; ++x) {
      const std::uint8_t* pixel = &current[static_cast<std::size_t>(x) * channels];
      image.pixels[static_cast<std::size_t>(y) * width + x] =
          pattern::Rgb{pixel[0], pixel[1], pixel[2]};
    }
    previous.swap(current);
  }
  return image;
}

}  // namespace flowmere::producer
