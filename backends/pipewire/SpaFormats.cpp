#include "SpaFormats.h"

#include <spa/param/video/format-utils.h>

#include <cmath>

#include "platform/ConstantString.h"
#include "platform/FormatDescription.h"

namespace flowmere::pipewire {

namespace {

std::optional<std::uint32_t> transferForFormat(const platform::FormatDescription& description) {
  const auto& extensions = description.extensions();
  if (!extensions) {
    return std::nullopt;
  }
  const std::optional<platform::ConstantString> transfer =
      extensions->find(platform::kCMFormatDescriptionExtension_TransferFunction);
  if (!transfer) {
    return std::nullopt;
  }
  if (*transfer == platform::kCMFormatDescriptionTransferFunction_SMPTE_ST_2084_PQ) {
    return kSpaTransferSmpteSt2084;
  }
  if (*transfer == platform::kCMFormatDescriptionTransferFunction_ITU_R_2100_HLG) {
    return kSpaTransferAribStdB67;
  }
  return std::nullopt;
}

// Frames per second for a frame duration such as 1/30 s, as a fraction PipeWire can carry.
spa_fraction framerateFor(platform::MediaTime frameDuration) {
  if (!frameDuration.isNumeric() || frameDuration.value <= 0) {
    return spa_fraction{0, 1};
  }
  return spa_fraction{static_cast<std::uint32_t>(frameDuration.timescale),
                      static_cast<std::uint32_t>(frameDuration.value)};
}

}  // namespace

std::optional<platform::FourCharCode> pixelFormatForSpaFormat(std::uint32_t spaFormat) {
  switch (spaFormat) {
    case SPA_VIDEO_FORMAT_BGRA:
      return platform::kCVPixelFormatType_32BGRA;
    case SPA_VIDEO_FORMAT_P010_10LE:
      return platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange;
    default:
      return std::nullopt;
  }
}

std::string describeVideoInfo(const spa_video_info_raw& info) {
  return std::to_string(info.size.width) + "x" + std::to_string(info.size.height) +
         (info.format == SPA_VIDEO_FORMAT_BGRA ? " BGRA" : " P010");
}

std::optional<spa_video_info_raw> videoInfoForFormat(const platform::StreamFormat& format) {
  const platform::FormatDescription& description = format.formatDescription;
  const platform::VideoDimensions dimensions = description.dimensions();
  spa_video_info_raw info{};
  info.size = spa_rectangle{static_cast<std::uint32_t>(dimensions.width),
                            static_cast<std::uint32_t>(dimensions.height)};
  info.framerate = framerateFor(format.minFrameDuration);
  if (description.codecType() == platform::kCVPixelFormatType_32BGRA) {
    info.format = SPA_VIDEO_FORMAT_BGRA;
    return info;
  }
  if (description.codecType() == platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange) {
    info.format = SPA_VIDEO_FORMAT_P010_10LE;
    info.color_range = SPA_VIDEO_COLOR_RANGE_16_235;
    info.color_matrix = SPA_VIDEO_COLOR_MATRIX_BT2020;
    info.color_primaries = SPA_VIDEO_COLOR_PRIMARIES_BT2020;
    if (const auto transfer = transferForFormat(description)) {
      info.transfer_function = static_cast<spa_video_transfer_function>(*transfer);
    }
    return info;
  }
  return std::nullopt;
}

std::optional<std::int64_t> catalogueIndexForVideoInfo(const platform::StreamFormatList& formats,
                                                       const spa_video_info_raw& info) {
  for (std::size_t index = 0; index < formats.size(); ++index) {
    const std::optional<spa_video_info_raw> candidate = videoInfoForFormat(formats[index]);
    if (!candidate || candidate->format != info.format ||
        candidate->size.width != info.size.width || candidate->size.height != info.size.height) {
      continue;
    }
    // HDR entries differ only in their transfer function. A peer that names none gets the
    // first entry of that size.
    if (candidate->transfer_function != 0 && info.transfer_function != 0 &&
        candidate->transfer_function != info.transfer_function) {
      continue;
    }
    return static_cast<std::int64_t>(index);
  }
  return std::nullopt;
}

spa_pod* buildVideoFormat(spa_pod_builder& builder, std::uint32_t paramId,
                          const spa_video_info_raw& info) {
  spa_video_info_raw copy = info;
  return spa_format_video_raw_build(&builder, paramId, &copy);
}

std::optional<FrameLayout> frameLayoutFor(const spa_video_info_raw& info, std::uint32_t stride) {
  const std::optional<platform::FourCharCode> pixelFormat = pixelFormatForSpaFormat(info.format);
  if (!pixelFormat || info.size.width == 0 || info.size.height == 0) {
    return std::nullopt;
  }
  FrameLayout layout;
  layout.pixelFormat = *pixelFormat;
  layout.width = info.size.width;
  layout.height = info.size.height;
  // Both formats use 4 (BGRA) or 2 (P010, per 10-bit sample) bytes per sample of the luma row;
  // P010's chroma row holds width/2 pairs of 2-byte samples, the same byte count.
  const std::uint32_t bytesPerPixel = info.format == SPA_VIDEO_FORMAT_BGRA ? 4 : 2;
  const std::uint32_t packed = info.size.width * bytesPerPixel;
  layout.stride = stride >= packed ? stride : packed;
  layout.rowBytes = packed;
  layout.planeCount = info.format == SPA_VIDEO_FORMAT_BGRA ? 1 : 2;
  layout.frameSize = static_cast<std::size_t>(layout.stride) * layout.height;
  if (layout.planeCount == 2) {
    layout.frameSize += static_cast<std::size_t>(layout.stride) * (layout.height / 2);
  }
  return layout;
}

}  // namespace flowmere::pipewire
