#include "platform/FormatDescription.h"

#include <algorithm>
#include <limits>

#include "platform/PixelBuffer.h"

namespace flowmere::platform {

bool FormatDescriptionExtensions::set(ConstantString key, ConstantString value) {
  for (std::size_t i = 0; i < size_; ++i) {
    if (entries_[i].key == key) {
      entries_[i].value = value;
      return true;
    }
  }
  if (size_ == kCapacity) {
    return false;
  }
  entries_[size_++] = KeyValue{key, value};
  return true;
}

std::optional<ConstantString> FormatDescriptionExtensions::find(ConstantString key) const {
  for (std::size_t i = 0; i < size_; ++i) {
    if (entries_[i].key == key) {
      return entries_[i].value;
    }
  }
  return std::nullopt;
}

bool operator==(const FormatDescriptionExtensions& a, const FormatDescriptionExtensions& b) {
  if (a.size_ != b.size_) {
    return false;
  }
  // A dictionary: order does not matter.
  return std::all_of(a.begin(), a.end(), [&b](const KeyValue& entry) {
    return b.find(entry.key) == std::optional<ConstantString>(entry.value);
  });
}

std::optional<FormatDescription> createVideoFormatDescription(
    FourCharCode codecType, std::int32_t width, std::int32_t height,
    std::optional<FormatDescriptionExtensions> extensions) {
  if (width <= 0 || height <= 0) {
    return std::nullopt;
  }
  return FormatDescription(codecType, VideoDimensions{width, height}, extensions);
}

std::optional<FormatDescription> createVideoFormatDescriptionForImageBuffer(
    const PixelBuffer& buffer) {
  constexpr auto kMax = static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max());
  if (buffer.width() == 0 || buffer.height() == 0 || buffer.width() > kMax ||
      buffer.height() > kMax) {
    return std::nullopt;
  }
  std::optional<FormatDescriptionExtensions> extensions;
  for (const Attachment& attachment : buffer.attachments()) {
    if (attachment.mode != AttachmentMode::kCVAttachmentMode_ShouldPropagate) {
      continue;
    }
    if (attachment.key == kCVImageBufferColorPrimariesKey ||
        attachment.key == kCVImageBufferTransferFunctionKey ||
        attachment.key == kCVImageBufferYCbCrMatrixKey) {
      if (!extensions) {
        extensions.emplace();
      }
      extensions->set(attachment.key, attachment.value);
    }
  }
  return FormatDescription(buffer.pixelFormat(),
                           VideoDimensions{static_cast<std::int32_t>(buffer.width()),
                                           static_cast<std::int32_t>(buffer.height())},
                           extensions);
}

}  // namespace flowmere::platform
