#pragma once

// Four-character codes, as the platform uses them for pixel formats and status codes.

#include <cstdint>
#include <string>

namespace flowmere::platform {

using FourCharCode = std::uint32_t;

constexpr FourCharCode fourCharCode(const char (&code)[5]) {
  return (static_cast<FourCharCode>(static_cast<unsigned char>(code[0])) << 24) |
         (static_cast<FourCharCode>(static_cast<unsigned char>(code[1])) << 16) |
         (static_cast<FourCharCode>(static_cast<unsigned char>(code[2])) << 8) |
         static_cast<FourCharCode>(static_cast<unsigned char>(code[3]));
}

inline std::string fourCharCodeString(FourCharCode code) {
  return std::string{static_cast<char>((code >> 24) & 0xFF), static_cast<char>((code >> 16) & 0xFF),
                     static_cast<char>((code >> 8) & 0xFF), static_cast<char>(code & 0xFF)};
}

// 8 bits per channel, blue-green-red-alpha, one plane.
inline constexpr FourCharCode kCVPixelFormatType_32BGRA = fourCharCode("BGRA");
// 10-bit Y'CbCr 4:2:0, two planes, video range.
inline constexpr FourCharCode kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange =
    fourCharCode("x420");

static_assert(kCVPixelFormatType_32BGRA == 1111970369U);
static_assert(kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange == 2016686640U);

}  // namespace flowmere::platform
