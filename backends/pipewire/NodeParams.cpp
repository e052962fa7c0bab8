#include "NodeParams.h"

#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/buffers.h>
#include <spa/pod/builder.h>

namespace flowmere::pipewire {

std::vector<const spa_pod*> buildFormatOffers(spa_pod_builder& builder,
                                              const platform::StreamFormatList& formats,
                                              std::optional<std::int64_t> preferredIndex) {
  std::vector<const spa_pod*> params;
  const bool preferredValid = preferredIndex && *preferredIndex >= 0 &&
                              static_cast<std::size_t>(*preferredIndex) < formats.size();
  std::optional<spa_video_info_raw> preferred;
  if (preferredValid) {
    preferred = videoInfoForFormat(formats[static_cast<std::size_t>(*preferredIndex)]);
  }
  if (preferred) {
    params.push_back(buildVideoFormat(builder, SPA_PARAM_EnumFormat, *preferred));
  }
  for (std::size_t index = 0; index < formats.size(); ++index) {
    if (preferred && static_cast<std::int64_t>(index) == *preferredIndex) {
      continue;
    }
    if (const auto info = videoInfoForFormat(formats[index])) {
      params.push_back(buildVideoFormat(builder, SPA_PARAM_EnumFormat, *info));
    }
  }
  return params;
}

std::array<const spa_pod*, 2> buildBufferParams(spa_pod_builder& builder, const FrameLayout& layout,
                                                BufferCount count) {
  const auto size = static_cast<int>(layout.frameSize);
  const auto stride = static_cast<int>(layout.stride);
  std::array<const spa_pod*, 2> params{};
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(count.preferred, count.minimum, count.maximum),
      SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size, SPA_POD_Int(size),
      SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride), SPA_PARAM_BUFFERS_dataType,
      SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd))));
  params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
      SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
  return params;
}

}  // namespace flowmere::pipewire
