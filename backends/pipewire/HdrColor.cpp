#include "HdrColor.h"

#include <algorithm>
#include <cmath>

namespace flowmere::pipewire {

namespace {

// Reference white on a PQ display, in cd/m², and the code's absolute scale.
constexpr double kPqReferenceWhite = 203.0;
constexpr double kPqPeak = 10000.0;
// Scene light that the HLG curve maps to 75 % signal (reference white).
constexpr double kHlgReferenceScene = 0.26496;

double srgbToLinear(double value) {
  return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

double pqEncode(double relative) {
  constexpr double m1 = 0.1593017578125;
  constexpr double m2 = 78.84375;
  constexpr double c1 = 0.8359375;
  constexpr double c2 = 18.8515625;
  constexpr double c3 = 18.6875;
  const double y = std::pow(std::max(relative, 0.0) * kPqReferenceWhite / kPqPeak, m1);
  return std::pow((c1 + c2 * y) / (1 + c3 * y), m2);
}

double hlgEncode(double relative) {
  constexpr double a = 0.17883277;
  constexpr double b = 0.28466892;
  constexpr double c = 0.55991073;
  const double e = std::max(relative, 0.0) * kHlgReferenceScene;
  return e <= 1.0 / 12.0 ? std::sqrt(3 * e) : a * std::log(12 * e - b) + c;
}

std::uint16_t quantise(double value, double offset, double scale, int low, int high) {
  return static_cast<std::uint16_t>(
      std::clamp(static_cast<int>(std::lround(offset + scale * value)), low, high));
}

}  // namespace

HdrColor::HdrColor(HdrTransfer transfer) : transfer_(transfer) {
  for (int code = 0; code < 256; ++code) {
    linear_[static_cast<std::size_t>(code)] = srgbToLinear(code / 255.0);
  }
  for (int index = 0; index <= kTableSize; ++index) {
    const double relative = static_cast<double>(index) / kTableSize;
    encoded_[static_cast<std::size_t>(index)] =
        transfer_ == HdrTransfer::kPq ? pqEncode(relative) : hlgEncode(relative);
  }
}

Rgb10 HdrColor::encode(std::uint8_t r, std::uint8_t g, std::uint8_t b) const {
  const double lr = linear_[r];
  const double lg = linear_[g];
  const double lb = linear_[b];
  // BT.709 primaries (sRGB's) into BT.2020's, in linear light (ITU-R BT.2087).
  const double r2020 = 0.6274 * lr + 0.3293 * lg + 0.0433 * lb;
  const double g2020 = 0.0691 * lr + 0.9195 * lg + 0.0114 * lb;
  const double b2020 = 0.0164 * lr + 0.0880 * lg + 0.8956 * lb;
  const auto lookUp = [this](double value) {
    const double position = std::clamp(value, 0.0, 1.0) * kTableSize;
    const auto index = static_cast<std::size_t>(position);
    if (index >= static_cast<std::size_t>(kTableSize)) {
      return encoded_[kTableSize];
    }
    const double fraction = position - static_cast<double>(index);
    return encoded_[index] + fraction * (encoded_[index + 1] - encoded_[index]);
  };
  return Rgb10{lookUp(r2020), lookUp(g2020), lookUp(b2020)};
}

YCbCr10 HdrColor::toYCbCr(const Rgb10& rgb) {
  // BT.2020 non-constant luminance.
  const double y = 0.2627 * rgb.r + 0.6780 * rgb.g + 0.0593 * rgb.b;
  const double cb = (rgb.b - y) / 1.8814;
  const double cr = (rgb.r - y) / 1.4746;
  return YCbCr10{quantise(y, 64, 876, 64, 940), quantise(cb, 512, 896, 64, 960),
                 quantise(cr, 512, 896, 64, 960)};
}

}  // namespace flowmere::pipewire
