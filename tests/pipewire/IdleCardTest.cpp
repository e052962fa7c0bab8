#include <cairo.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "FramePattern.h"
#include "metrics/ScratchDirectory.h"
#include "pipewire/HdrColor.h"
#include "pipewire/IdleCard.h"

namespace flowmere::pipewire {
namespace {

FrameLayout bgraLayout(std::uint32_t width, std::uint32_t height, std::uint32_t padding = 0) {
  spa_video_info_raw info{};
  info.format = SPA_VIDEO_FORMAT_BGRA;
  info.size = {width, height};
  return *frameLayoutFor(info, width * 4 + padding);
}

FrameLayout p010Layout(std::uint32_t width, std::uint32_t height) {
  spa_video_info_raw info{};
  info.format = SPA_VIDEO_FORMAT_P010_10LE;
  info.size = {width, height};
  return *frameLayoutFor(info);
}

std::uint16_t sample(const std::byte* at) {
  std::uint16_t stored = 0;
  std::memcpy(&stored, at, sizeof stored);
  return stored;
}

// What the test receiver reads from a frame's counter blocks.
std::optional<std::uint32_t> counterOf(const IdleCard& card) {
  const FrameLayout& layout = card.layout();
  const std::byte* base = card.pixels().data();
  const bool p010 = layout.pixelFormat != platform::kCVPixelFormatType_32BGRA;
  return pattern::readCounter(layout.width, layout.height, [&](std::uint32_t x, std::uint32_t y) {
    const std::byte* pixel =
        base + static_cast<std::size_t>(y) * layout.stride + std::size_t{x} * (p010 ? 2 : 4);
    if (p010) {
      return pattern::p010LumaGrey(sample(pixel));
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(pixel);
    return pattern::Rgb{bytes[2], bytes[1], bytes[0]};
  });
}

// sRGB white lands on each transfer's reference white, black on video black, and the
// chroma of a grey is neutral: an HDR client shows the card neither washed out nor glaring.
TEST(HdrColorTest, WhiteSitsAtReferenceWhiteAndGreysStayNeutral) {
  const HdrColor pq(HdrTransfer::kPq);
  const HdrColor hlg(HdrTransfer::kHlg);
  // PQ of 203 cd/m² is 0.5807 of the signal; HLG's reference white is 0.75.
  EXPECT_NEAR(pq.convert(255, 255, 255).y, 64 + 876 * 0.5807, 1.5);
  EXPECT_NEAR(hlg.convert(255, 255, 255).y, 64 + 876 * 0.75, 1.5);
  for (const HdrColor* colour : {&pq, &hlg}) {
    EXPECT_EQ(colour->convert(0, 0, 0), (YCbCr10{64, 512, 512}));
    const YCbCr10 grey = colour->convert(128, 128, 128);
    EXPECT_NEAR(grey.cb, 512, 1);
    EXPECT_NEAR(grey.cr, 512, 1);
    EXPECT_GT(grey.y, 64);
    EXPECT_LT(grey.y, colour->convert(255, 255, 255).y);
  }
  // Saturated colours keep their hue: red pulls Cr up and Cb down, blue pulls Cb up.
  const YCbCr10 red = pq.convert(255, 0, 0);
  EXPECT_GT(red.cr, 600);
  EXPECT_LT(red.cb, 512);
  EXPECT_GT(pq.convert(0, 0, 255).cb, 600);
}

// The card is a whole frame of the format, with the stride's padding, whose counter blocks
// read as the idle marker in BGRA and in P010 alike.
TEST(IdleCardTest, EveryFormatCarriesTheIdleMarker) {
  std::string problem;
  for (const auto& layout : {bgraLayout(1280, 720), bgraLayout(640, 480, 64),
                             p010Layout(1920, 1080), p010Layout(3840, 2160)}) {
    for (const auto transfer : {HdrTransfer::kPq, HdrTransfer::kHlg}) {
      const auto card = IdleCard::draw(layout, transfer, "Flowmere Camera", std::nullopt, problem);
      ASSERT_TRUE(card);
      EXPECT_EQ(card->pixels().size(), layout.frameSize);
      EXPECT_EQ(counterOf(*card), IdleCard::kIdleCounter) << layout.width << "x" << layout.height;
    }
  }
  EXPECT_TRUE(problem.empty());
}

TEST(IdleCardTest, TheBarMovesAndOnlyTheBarChanges) {
  std::string problem;
  const auto layout = bgraLayout(1280, 720);
  const auto card = IdleCard::draw(layout, std::nullopt, "Flowmere Camera", std::nullopt, problem);
  ASSERT_TRUE(card);
  auto first = card->pixels();
  auto later = card->pixels();
  card->drawBar(first.data(), 300'000'000);
  card->drawBar(later.data(), 900'000'000);
  std::size_t differing = 0;
  std::uint32_t top = layout.height;
  std::uint32_t bottom = 0;
  for (std::size_t offset = 0; offset < first.size(); ++offset) {
    if (first[offset] != later[offset]) {
      ++differing;
      const auto row = static_cast<std::uint32_t>(offset / layout.stride);
      top = std::min(top, row);
      bottom = std::max(bottom, row);
    }
  }
  EXPECT_GT(differing, 0U);
  EXPECT_LT(bottom - top, layout.height / 40) << "more than the bar's rows changed";
  // The same instant draws the same picture.
  auto again = card->pixels();
  card->drawBar(again.data(), 900'000'000 + IdleCard::kBarPeriodNanoseconds);
  EXPECT_EQ(again, later);
}

TEST(IdleCardTest, AUsersPictureReplacesTheCardAndABadOneFallsBackToIt) {
  metrics_test::ScratchDirectory scratch;
  // A 100x50 pure red PNG, shown scaled to fit a 16:9 frame: red in the middle, the background
  // beside it.
  const auto png = scratch.path() / "idle.png";
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, 100, 50);
  cairo_t* context = cairo_create(surface);
  cairo_set_source_rgb(context, 1, 0, 0);
  cairo_paint(context);
  cairo_destroy(context);
  ASSERT_EQ(cairo_surface_write_to_png(surface, png.c_str()), CAIRO_STATUS_SUCCESS);
  cairo_surface_destroy(surface);

  const auto layout = bgraLayout(1280, 720);
  std::string problem;
  const auto card = IdleCard::draw(layout, std::nullopt, "Flowmere Camera", png, problem);
  ASSERT_TRUE(card);
  EXPECT_TRUE(problem.empty()) << problem;
  const auto pixelAt = [&](std::uint32_t x, std::uint32_t y) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(card->pixels().data()) +
                        static_cast<std::size_t>(y) * layout.stride + std::size_t{x} * 4;
    return pattern::Rgb{bytes[2], bytes[1], bytes[0]};
  };
  EXPECT_EQ(pixelAt(640, 300), (pattern::Rgb{255, 0, 0}));
  EXPECT_NE(pixelAt(640, 20), (pattern::Rgb{255, 0, 0}));  // letterboxed: 1280x640 of red
  EXPECT_EQ(counterOf(*card), IdleCard::kIdleCounter);

  const auto bad = scratch.path() / "bad.png";
  std::ofstream(bad) << "not a PNG";
  const auto fallback = IdleCard::draw(layout, std::nullopt, "Flowmere Camera", bad, problem);
  ASSERT_TRUE(fallback);
  EXPECT_NE(problem.find("bad.png"), std::string::npos) << problem;
  const auto drawn = IdleCard::draw(layout, std::nullopt, "Flowmere Camera", std::nullopt, problem);
  EXPECT_EQ(fallback->pixels(), drawn->pixels());
}

}  // namespace
}  // namespace flowmere::pipewire
