#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FramePattern.h"
#include "PngReader.h"
#include "PngWriter.h"
#include "metrics/ScratchDirectory.h"
#include "platform/PixelBuffer.h"

namespace flowmere::producer {
namespace {

using namespace flowmere::pattern;  // NOLINT(google-build-using-namespace): the unit under test

// A BGRA frame of the pattern, written as PNG and read back, is the pattern pixel for pixel
// and names its own frame number: what the capture check relies on.
TEST(FramePatternTest, APatternFrameSurvivesAPngRoundTrip) {
  metrics_test::ScratchDirectory scratch;
  constexpr std::uint32_t kWidth = 320;
  constexpr std::uint32_t kHeight = 40;
  for (const std::uint64_t frame : {0ULL, 1ULL, 0x8000'0001ULL, 0xFFFF'FFFFULL}) {
    auto pixels =
        platform::PixelBuffer::create(kWidth, kHeight, platform::kCVPixelFormatType_32BGRA);
    const auto& plane = pixels->plane(0);
    fillBgra(reinterpret_cast<std::uint8_t*>(plane.data), plane.bytesPerRow, kWidth, kHeight,
             frame);
    const auto file = scratch.path() / ("frame-" + std::to_string(frame) + ".png");
    ASSERT_TRUE(sim::writePng(*pixels, file));

    std::string error;
    const RgbImage image = readPng(file, error);
    ASSERT_TRUE(error.empty()) << error;
    ASSERT_EQ(image.width, kWidth);
    ASSERT_EQ(image.height, kHeight);
    const auto counter = readCounter(
        kWidth, kHeight, [&](std::uint32_t x, std::uint32_t y) { return image.at(x, y); });
    ASSERT_TRUE(counter.has_value());
    EXPECT_EQ(*counter, static_cast<std::uint32_t>(frame));
    std::uint64_t differing = 0;
    for (std::uint32_t y = kCounterRows; y < kHeight; ++y) {
      for (std::uint32_t x = 0; x < kWidth; ++x) {
        differing += image.at(x, y) == patternPixel(x, y, kWidth, frame) ? 0 : 1;
      }
    }
    EXPECT_EQ(differing, 0U) << "frame " << frame;
  }
}

// The receiver reads P010 frames through their luma: the counter that fillP010 writes comes back
// for any bit pattern, with rows padded beyond the picture; video-range black and white and the
// values outside the range read as black and white, and a mid-grey luma as no counter.
TEST(FramePatternTest, AP010FrameNamesItsFrameNumberThroughItsLuma) {
  constexpr std::uint32_t kWidth = 320;
  constexpr std::uint32_t kHeight = 40;
  constexpr std::size_t kStride = kWidth * 2 + 64;
  std::vector<std::uint8_t> frame(kStride * kHeight * 3 / 2);
  const auto lumaAt = [&](std::uint32_t x, std::uint32_t y) {
    const std::uint8_t* sample = frame.data() + y * kStride + static_cast<std::size_t>(x) * 2;
    return p010LumaGrey(static_cast<std::uint16_t>(sample[0] | (sample[1] << 8U)));
  };
  for (const std::uint64_t number : {0ULL, 1ULL, 0x8000'0001ULL, 0x5555'AAAAULL, 0xFFFF'FFFFULL}) {
    fillP010(frame.data(), kStride, kWidth, kHeight, number);
    const auto counter = readCounter(kWidth, kHeight, lumaAt);
    ASSERT_TRUE(counter.has_value()) << "frame " << number;
    EXPECT_EQ(*counter, static_cast<std::uint32_t>(number));
  }

  EXPECT_EQ(p010LumaGrey(64U << 6U), (Rgb{0, 0, 0}));
  EXPECT_EQ(p010LumaGrey(940U << 6U), (Rgb{255, 255, 255}));
  EXPECT_EQ(p010LumaGrey(0), (Rgb{0, 0, 0}));
  EXPECT_EQ(p010LumaGrey(0xFFC0), (Rgb{255, 255, 255}));
  EXPECT_FALSE(readCounter(kWidth, kHeight, [](std::uint32_t, std::uint32_t) {
                 return p010LumaGrey(502U << 6U);
               }).has_value());
}

TEST(FramePatternTest, ForeignPicturesAndBrokenFilesAreRejected) {
  // Mid-grey where the counter blocks should be: not our pattern.
  EXPECT_FALSE(readCounter(320, 40, [](std::uint32_t, std::uint32_t) {
                 return Rgb{128, 128, 128};
               }).has_value());
  // Too small to hold the counter.
  EXPECT_FALSE(readCounter(16, 40, [](std::uint32_t, std::uint32_t) { return Rgb{}; }).has_value());

  metrics_test::ScratchDirectory scratch;
  std::string error;
  EXPECT_TRUE(readPng(scratch.path() / "missing.png", error).pixels.empty());
  EXPECT_FALSE(error.empty());

  // A real PNG cut short in its image data.
  auto pixels = platform::PixelBuffer::create(64, 32, platform::kCVPixelFormatType_32BGRA);
  const auto whole = scratch.path() / "whole.png";
  ASSERT_TRUE(sim::writePng(*pixels, whole));
  std::ifstream in(whole, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto cut = scratch.path() / "cut.png";
  std::ofstream(cut, std::ios::binary)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size() / 2));
  error.clear();
  EXPECT_TRUE(readPng(cut, error).pixels.empty());
  EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace flowmere::producer
