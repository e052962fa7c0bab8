#pragma once

// Standard-range colours (8-bit sRGB) as 10-bit BT.2020 video-range samples for the camera's
// HDR formats, with sRGB white at the usual reference white: 203 cd/m² for PQ (SMPTE ST 2084,
// about 58 % of the signal) and 75 % of the signal for HLG (ARIB STD-B67), as ITU-R BT.2408
// places graphics white. Pictures drawn for a standard display keep their look instead of
// coming out dim or glaring. Pure functions and an immutable table: any thread.

#include <array>
#include <cstdint>

namespace flowmere::pipewire {

enum class HdrTransfer { kPq, kHlg };

// One 10-bit video-range Y'CbCr triple (Y 64..940, Cb and Cr 64..960).
struct YCbCr10 {
  std::uint16_t y = 64;
  std::uint16_t cb = 512;
  std::uint16_t cr = 512;
  friend bool operator==(const YCbCr10&, const YCbCr10&) = default;
};

// Non-linear BT.2020 R'G'B' (0..1) of an sRGB colour.
struct Rgb10 {
  double r = 0;
  double g = 0;
  double b = 0;
};

class HdrColor {
 public:
  explicit HdrColor(HdrTransfer transfer);

  // The encoded BT.2020 R'G'B' of an 8-bit sRGB colour.
  [[nodiscard]] Rgb10 encode(std::uint8_t r, std::uint8_t g, std::uint8_t b) const;
  // Y'CbCr of an encoded colour, or of the mean of several (the chroma of a 2x2 block).
  [[nodiscard]] static YCbCr10 toYCbCr(const Rgb10& rgb);
  [[nodiscard]] YCbCr10 convert(std::uint8_t r, std::uint8_t g, std::uint8_t b) const {
    return toYCbCr(encode(r, g, b));
  }

 private:
  static constexpr int kTableSize = 4096;
  std::array<double, 256> linear_{};  // sRGB code -> linear light, 1.0 = reference white
  std::array<double, kTableSize + 1> encoded_{};  // linear BT.2020 (0..1, reference white 1.0)
  HdrTransfer transfer_;                          //   -> signal, sampled evenly
};

}  // namespace flowmere::pipewire
