#pragma once

// Translation between the catalogue's stream formats and PipeWire's raw-video format
// descriptions, and the memory layout of one frame in a PipeWire buffer. Pure functions: any
// thread.

#include <spa/param/video/raw.h>
#include <spa/pod/builder.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/FourCharCode.h"
#include "platform/StreamFormat.h"

namespace flowmere::pipewire {

// Transfer-function numbers that PipeWire 0.3.65 has no names for. Negotiation compares the raw
// values, and newer PipeWire versions use these same numbers for SMPTE ST 2084 (PQ) and
// ARIB STD-B67 (HLG), so peers of either version agree on them.
inline constexpr std::uint32_t kSpaTransferSmpteSt2084 = 14;
inline constexpr std::uint32_t kSpaTransferAribStdB67 = 15;

// The raw-video description of a catalogue format; nothing for a pixel format PipeWire cannot
// carry.
std::optional<spa_video_info_raw> videoInfoForFormat(const platform::StreamFormat& format);

// "1920x1080 BGRA" or "1920x1080 P010": how the log names a raw-video format.
std::string describeVideoInfo(const spa_video_info_raw& info);

// The catalogue index whose format matches `info` (pixel format, size and, for HDR formats,
// transfer function); nothing when no entry matches.
std::optional<std::int64_t> catalogueIndexForVideoInfo(const platform::StreamFormatList& formats,
                                                       const spa_video_info_raw& info);

// The catalogue's pixel format for a PipeWire video format; nothing for any other.
std::optional<platform::FourCharCode> pixelFormatForSpaFormat(std::uint32_t spaFormat);

// One EnumFormat (or Format) object for `info`, built into `builder`.
spa_pod* buildVideoFormat(spa_pod_builder& builder, std::uint32_t paramId,
                          const spa_video_info_raw& info);

// Where a frame's planes lie in one PipeWire data block: BGRA is one plane of width x 4 bytes
// per row; P010 puts a half-height plane of interleaved chroma right after the luma plane, both
// with the same stride.
struct FrameLayout {
  platform::FourCharCode pixelFormat = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t stride = 0;    // bytes per row, every plane
  std::uint32_t rowBytes = 0;  // bytes of pixels in a row, every plane (stride less padding)
  std::size_t planeCount = 0;
  std::size_t frameSize = 0;  // bytes of all planes together
  // Byte offset of plane `index` from the start of the frame.
  [[nodiscard]] std::size_t planeOffset(std::size_t index) const {
    return index == 0 ? 0 : static_cast<std::size_t>(stride) * height;
  }
  // Rows of plane `index`.
  [[nodiscard]] std::uint32_t planeHeight(std::size_t index) const {
    return index == 0 ? height : height / 2;
  }
};

// The tightly packed layout of `info`, or the layout with the peer's stride when `stride` is
// given and large enough. Nothing for formats other than BGRA and P010.
std::optional<FrameLayout> frameLayoutFor(const spa_video_info_raw& info, std::uint32_t stride = 0);

}  // namespace flowmere::pipewire
