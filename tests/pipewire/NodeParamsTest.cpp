#include <gtest/gtest.h>
#include <spa/buffer/meta.h>
#include <spa/param/buffers.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/parser.h>

#include <array>
#include <cstddef>
#include <vector>

#include "formats/FormatCatalogue.h"
#include "pipewire/NodeParams.h"

namespace flowmere::pipewire {
namespace {

std::vector<std::int64_t> offeredIndices(const std::vector<const spa_pod*>& offers,
                                         const platform::StreamFormatList& formats) {
  std::vector<std::int64_t> indices;
  for (const spa_pod* pod : offers) {
    spa_video_info_raw info{};
    EXPECT_GE(spa_format_video_raw_parse(pod, &info), 0);
    indices.push_back(catalogueIndexForVideoInfo(formats, info).value_or(-1));
  }
  return indices;
}

// The preferred format leads and appears once; the rest keep the catalogue's order. A client
// that takes the first offer then gets the active format, and none is offered twice.
TEST(NodeParamsTest, OffersThePreferredFormatFirstAndEveryOtherOnce) {
  const auto formats = makeFormatCatalogue();
  std::array<std::byte, 8192> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  EXPECT_EQ(offeredIndices(buildFormatOffers(builder, *formats, 7), *formats),
            (std::vector<std::int64_t>{7, 0, 1, 2, 3, 4, 5, 6, 8, 9}));

  for (const std::optional<std::int64_t> invalid : {std::optional<std::int64_t>{}, {-1}, {10}}) {
    builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
    EXPECT_EQ(offeredIndices(buildFormatOffers(builder, *formats, invalid), *formats),
              (std::vector<std::int64_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  }
}

// The buffers a node asks for: the count range bounds how deep frames can queue behind the
// relay, and size and stride must hold one whole frame of the negotiated layout.
TEST(NodeParamsTest, BufferParamsCarryCountSizeStrideAndHeader) {
  spa_video_info_raw info{};
  info.format = SPA_VIDEO_FORMAT_P010_10LE;
  info.size = spa_rectangle{1920, 1080};
  const FrameLayout layout = *frameLayoutFor(info);
  std::array<std::byte, 1024> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  const auto params = buildBufferParams(builder, layout, BufferCount{3, 2, 3});

  auto intProperty = [&params](std::uint32_t key) -> const spa_pod* {
    const spa_pod_prop* prop = spa_pod_find_prop(params[0], nullptr, key);
    return prop ? &prop->value : nullptr;
  };
  const spa_pod* countPod = intProperty(SPA_PARAM_BUFFERS_buffers);
  ASSERT_NE(countPod, nullptr);
  std::uint32_t choiceCount = 0;
  std::uint32_t choice = 0;
  const spa_pod* values = spa_pod_get_values(countPod, &choiceCount, &choice);
  ASSERT_EQ(choice, SPA_CHOICE_Range);
  ASSERT_EQ(choiceCount, 3U);
  const auto* counts = static_cast<const std::int32_t*>(SPA_POD_BODY_CONST(values));
  EXPECT_EQ(counts[0], 3);
  EXPECT_EQ(counts[1], 2);
  EXPECT_EQ(counts[2], 3);
  std::int32_t blocks = 0;
  std::int32_t size = 0;
  std::int32_t stride = 0;
  ASSERT_GE(spa_pod_get_int(intProperty(SPA_PARAM_BUFFERS_blocks), &blocks), 0);
  ASSERT_GE(spa_pod_get_int(intProperty(SPA_PARAM_BUFFERS_size), &size), 0);
  ASSERT_GE(spa_pod_get_int(intProperty(SPA_PARAM_BUFFERS_stride), &stride), 0);
  EXPECT_EQ(blocks, 1);
  EXPECT_EQ(size, 1920 * 2 * 1080 * 3 / 2);
  EXPECT_EQ(stride, 1920 * 2);

  std::uint32_t metaType = 0;
  ASSERT_GE(spa_pod_parse_object(params[1], SPA_TYPE_OBJECT_ParamMeta, nullptr, SPA_PARAM_META_type,
                                 SPA_POD_Id(&metaType)),
            0);
  EXPECT_EQ(metaType, SPA_META_Header);
}

}  // namespace
}  // namespace flowmere::pipewire
