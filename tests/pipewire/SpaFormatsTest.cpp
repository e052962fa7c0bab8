#include <gtest/gtest.h>
#include <spa/param/video/format-utils.h>

#include <array>
#include <cstddef>
#include <set>
#include <utility>

#include "formats/FormatCatalogue.h"
#include "pipewire/SpaFormats.h"

namespace flowmere::pipewire {
namespace {

// Every catalogue entry travels to PipeWire and back to the same index, through the pod that the
// nodes actually offer: a wrong field in the pod, a transfer that does not separate PQ from HLG
// or a size swapped would each land on another entry.
TEST(SpaFormatsTest, EveryCatalogueEntryRoundTripsThroughItsPod) {
  const auto formats = makeFormatCatalogue();
  ASSERT_EQ(formats->size(), kFormatCatalogueSize);
  std::set<std::pair<std::uint32_t, std::uint32_t>> hdrTransfers;
  for (std::size_t index = 0; index < formats->size(); ++index) {
    const auto info = videoInfoForFormat((*formats)[index]);
    ASSERT_TRUE(info.has_value()) << "entry " << index;

    std::array<std::byte, 1024> storage{};
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
    const spa_pod* pod = buildVideoFormat(builder, SPA_PARAM_EnumFormat, *info);
    ASSERT_NE(pod, nullptr);
    spa_video_info_raw parsed{};
    ASSERT_GE(spa_format_video_raw_parse(pod, &parsed), 0) << "entry " << index;

    EXPECT_EQ(parsed.format, info->format);
    EXPECT_EQ(parsed.size.width, info->size.width);
    EXPECT_EQ(parsed.size.height, info->size.height);
    EXPECT_EQ(parsed.framerate.num, 30U);
    EXPECT_EQ(parsed.framerate.denom, 1U);
    EXPECT_EQ(catalogueIndexForVideoInfo(*formats, parsed), static_cast<std::int64_t>(index));
    if (parsed.format == SPA_VIDEO_FORMAT_P010_10LE) {
      EXPECT_EQ(parsed.color_matrix, SPA_VIDEO_COLOR_MATRIX_BT2020);
      EXPECT_EQ(parsed.color_primaries, SPA_VIDEO_COLOR_PRIMARIES_BT2020);
      EXPECT_EQ(parsed.color_range, SPA_VIDEO_COLOR_RANGE_16_235);
      hdrTransfers.emplace(parsed.size.width, parsed.transfer_function);
    }
  }
  // Two sizes, each with PQ and HLG.
  EXPECT_EQ(hdrTransfers.size(), 4U);
}

TEST(SpaFormatsTest, FormatsOutsideTheCatalogueMatchNoEntry) {
  const auto formats = makeFormatCatalogue();
  spa_video_info_raw info = *videoInfoForFormat((*formats)[0]);
  info.size.width = 640;
  info.size.height = 480;
  EXPECT_FALSE(catalogueIndexForVideoInfo(*formats, info).has_value());

  info = *videoInfoForFormat((*formats)[0]);
  info.format = SPA_VIDEO_FORMAT_NV12;
  EXPECT_FALSE(catalogueIndexForVideoInfo(*formats, info).has_value());
  EXPECT_FALSE(frameLayoutFor(info).has_value());
  EXPECT_FALSE(pixelFormatForSpaFormat(SPA_VIDEO_FORMAT_NV12).has_value());

  // An HDR size with a transfer that is neither PQ nor HLG.
  for (const auto& format : *formats) {
    auto hdr = *videoInfoForFormat(format);
    if (hdr.format == SPA_VIDEO_FORMAT_P010_10LE) {
      hdr.transfer_function = SPA_VIDEO_TRANSFER_BT709;
      EXPECT_FALSE(catalogueIndexForVideoInfo(*formats, hdr).has_value());
    }
  }
}

TEST(SpaFormatsTest, LayoutsPackPlanesAndHonourAWiderPeerStride) {
  spa_video_info_raw bgra{};
  bgra.format = SPA_VIDEO_FORMAT_BGRA;
  bgra.size = SPA_RECTANGLE(1280, 720);
  const auto packed = frameLayoutFor(bgra);
  ASSERT_TRUE(packed.has_value());
  EXPECT_EQ(packed->stride, 1280U * 4);
  EXPECT_EQ(packed->planeCount, 1U);
  EXPECT_EQ(packed->frameSize, std::size_t{1280} * 4 * 720);

  spa_video_info_raw p010{};
  p010.format = SPA_VIDEO_FORMAT_P010_10LE;
  p010.size = SPA_RECTANGLE(1920, 1080);
  const auto wide = frameLayoutFor(p010, 4096);
  ASSERT_TRUE(wide.has_value());
  EXPECT_EQ(wide->stride, 4096U);
  EXPECT_EQ(wide->planeCount, 2U);
  EXPECT_EQ(wide->planeOffset(1), std::size_t{4096} * 1080);
  EXPECT_EQ(wide->planeHeight(1), 540U);
  EXPECT_EQ(wide->frameSize, std::size_t{4096} * (1080 + 540));
  // A stride too narrow for a row cannot be right; the packed stride is used instead.
  const auto narrow = frameLayoutFor(p010, 1000);
  ASSERT_TRUE(narrow.has_value());
  EXPECT_EQ(narrow->stride, 1920U * 2);
}

}  // namespace
}  // namespace flowmere::pipewire
