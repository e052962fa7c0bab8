#pragma once

// Video format descriptions: codec type, dimensions and colour extensions. Value type; any
// thread. Made by `createVideoFormatDescription` from parts, or by
// `createVideoFormatDescriptionForImageBuffer` from a pixel buffer and its propagating colour
// attachments.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/ConstantString.h"
#include "platform/FourCharCode.h"

namespace flowmere::platform {

class PixelBuffer;

// Extension keys of a format description (the same texts as the matching attachment keys).
inline constexpr ConstantString kCMFormatDescriptionExtension_ColorPrimaries =
    "CVImageBufferColorPrimaries";
inline constexpr ConstantString kCMFormatDescriptionExtension_TransferFunction =
    "CVImageBufferTransferFunction";
inline constexpr ConstantString kCMFormatDescriptionExtension_YCbCrMatrix =
    "CVImageBufferYCbCrMatrix";

inline constexpr ConstantString kCMFormatDescriptionColorPrimaries_ITU_R_2020 = "ITU_R_2020";
inline constexpr ConstantString kCMFormatDescriptionTransferFunction_ITU_R_2100_HLG =
    "ITU_R_2100_HLG";
inline constexpr ConstantString kCMFormatDescriptionTransferFunction_SMPTE_ST_2084_PQ =
    "SMPTE_ST_2084_PQ";
inline constexpr ConstantString kCMFormatDescriptionYCbCrMatrix_ITU_R_2020 = "ITU_R_2020";

struct KeyValue {
  ConstantString key;
  ConstantString value;
  friend bool operator==(const KeyValue&, const KeyValue&) = default;
};

// A small string-keyed dictionary stored inline. Setting an existing key replaces its value.
class FormatDescriptionExtensions {
 public:
  static constexpr std::size_t kCapacity = 8;

  // Returns false (and stores nothing) when the dictionary is full.
  bool set(ConstantString key, ConstantString value);
  [[nodiscard]] std::optional<ConstantString> find(ConstantString key) const;
  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] const KeyValue* begin() const { return entries_.data(); }
  [[nodiscard]] const KeyValue* end() const { return entries_.data() + size_; }

  friend bool operator==(const FormatDescriptionExtensions& a,
                         const FormatDescriptionExtensions& b);

 private:
  std::array<KeyValue, kCapacity> entries_{};
  std::size_t size_ = 0;
};

struct VideoDimensions {
  std::int32_t width = 0;
  std::int32_t height = 0;
  friend bool operator==(const VideoDimensions&, const VideoDimensions&) = default;
};

class FormatDescription {
 public:
  FormatDescription() = default;
  FormatDescription(FourCharCode codecType, VideoDimensions dimensions,
                    std::optional<FormatDescriptionExtensions> extensions)
      : codecType_(codecType), dimensions_(dimensions), extensions_(extensions) {}

  [[nodiscard]] FourCharCode codecType() const { return codecType_; }
  [[nodiscard]] VideoDimensions dimensions() const { return dimensions_; }
  // None when the description carries no extensions at all.
  [[nodiscard]] const std::optional<FormatDescriptionExtensions>& extensions() const {
    return extensions_;
  }

  friend bool operator==(const FormatDescription&, const FormatDescription&) = default;

 private:
  FourCharCode codecType_ = 0;
  VideoDimensions dimensions_;
  std::optional<FormatDescriptionExtensions> extensions_;
};

// Makes a video format description; none when the dimensions are not positive.
std::optional<FormatDescription> createVideoFormatDescription(
    FourCharCode codecType, std::int32_t width, std::int32_t height,
    std::optional<FormatDescriptionExtensions> extensions);

// Makes a description of a pixel buffer: its pixel format and dimensions, with the buffer's
// propagating colour attachments as extensions. None for a buffer too large to describe.
std::optional<FormatDescription> createVideoFormatDescriptionForImageBuffer(
    const PixelBuffer& buffer);

}  // namespace flowmere::platform
