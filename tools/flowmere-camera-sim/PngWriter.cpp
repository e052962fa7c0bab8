#include "PngWriter.h"

#include <array>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace flowmere::sim {

namespace {

std::uint32_t crc32(const std::uint8_t* data, std::size_t size, std::uint32_t crc = 0) {
  static const std::array<std::uint32_t, 256> table = [] {
    std::array<std::uint32_t, 256> entries{};
    for (std::uint32_t n = 0; n < 256; ++n) {
      std::uint32_t c = n;
      for (int k = 0; k < 8; ++k) {
        c = (c & 1U) != 0 ? 0xEDB88320U ^ (c >> 1) : c >> 1;
      }
      entries[n] = c;
    }
    return entries;
  }();
  crc = ~crc;
  for (std::size_t i = 0; i < size; ++i) {
    crc = table[(crc ^ data[i]) & 0xFFU] ^ (crc >> 8);
  }
  return ~crc;
}

void appendBigEndian(std::vector<std::uint8_t>& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

void appendChunk(std::vector<std::uint8_t>& out, const char* type,
                 const std::vector<std::uint8_t>& data) {
  appendBigEndian(out, static_cast<std::uint32_t>(data.size()));
  const std::size_t typeStart = out.size();
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), data.begin(), data.end());
  appendBigEndian(out, crc32(out.data() + typeStart, out.size() - typeStart));
}

// A zlib stream of stored (uncompressed) deflate blocks.
std::vector<std::uint8_t> zlibStored(const std::vector<std::uint8_t>& raw) {
  std::vector<std::uint8_t> out{0x78, 0x01};
  std::size_t offset = 0;
  do {
    const std::size_t length = std::min<std::size_t>(65535, raw.size() - offset);
    const bool last = offset + length == raw.size();
    out.push_back(last ? 1 : 0);
    out.push_back(static_cast<std::uint8_t>(length & 0xFF));
    out.push_back(static_cast<std::uint8_t>(length >> 8));
    out.push_back(static_cast<std::uint8_t>(~length & 0xFF));
    out.push_back(static_cast<std::uint8_t>((~length >> 8) & 0xFF));
    out.insert(out.end(), raw.begin() + static_cast<std::ptrdiff_t>(offset),
               raw.begin() + static_cast<std::ptrdiff_t>(offset + length));
    offset += length;
  } while (offset < raw.size());
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  for (std::uint8_t byte : raw) {
    a = (a + byte) % 65521;
    b = (b + a) % 65521;
  }
  appendBigEndian(out, (b << 16) | a);
  return out;
}

}  // namespace

bool writePng(const platform::PixelBuffer& buffer, const std::filesystem::path& file) {
  const std::uint32_t width = buffer.width();
  const std::uint32_t height = buffer.height();
  const bool colour = buffer.pixelFormat() == platform::kCVPixelFormatType_32BGRA;
  if (!colour &&
      buffer.pixelFormat() != platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange) {
    return false;
  }
  const std::size_t channels = colour ? 3 : 1;
  std::vector<std::uint8_t> raw;
  raw.reserve((width * channels + 1) * height);
  const platform::PixelBufferPlane& plane = buffer.plane(0);
  for (std::uint32_t y = 0; y < height; ++y) {
    raw.push_back(0);  // no filter
    const std::byte* row = plane.data + y * plane.bytesPerRow;
    for (std::uint32_t x = 0; x < width; ++x) {
      if (colour) {
        const auto* pixel = reinterpret_cast<const std::uint8_t*>(row) + std::size_t{x} * 4;
        raw.push_back(pixel[2]);
        raw.push_back(pixel[1]);
        raw.push_back(pixel[0]);
      } else {
        // 10-bit luma in the high bits of a 16-bit sample.
        const auto* sample = reinterpret_cast<const std::uint16_t*>(row) + x;
        raw.push_back(static_cast<std::uint8_t>(*sample >> 8));
      }
    }
  }

  std::vector<std::uint8_t> png{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  std::vector<std::uint8_t> header;
  appendBigEndian(header, width);
  appendBigEndian(header, height);
  header.push_back(8);               // bits per sample
  header.push_back(colour ? 2 : 0);  // truecolour or greyscale
  header.insert(header.end(), {0, 0, 0});
  appendChunk(png, "IHDR", header);
  appendChunk(png, "IDAT", zlibStored(raw));
  appendChunk(png, "IEND", {});

  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
  return static_cast<bool>(out);
}

}  // namespace flowmere::sim
