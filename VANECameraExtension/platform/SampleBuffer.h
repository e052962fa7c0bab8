#pragma once

// Sample buffers: one video frame (a pixel buffer, or none), its format description and one
// timing record. Immutable once made; shared ownership; any thread.

#include <memory>
#include <optional>

#include "platform/FormatDescription.h"
#include "platform/MediaTime.h"
#include "platform/PixelBuffer.h"

namespace flowmere::platform {

struct SampleTimingInfo {
  MediaTime duration;
  MediaTime presentationTimeStamp;
  MediaTime decodeTimeStamp;
};

class SampleBuffer {
 public:
  // A ready sample buffer around `imageBuffer` (which may be null for a buffer that carries no
  // image, as a misbehaving producer can send).
  static std::shared_ptr<SampleBuffer> createReadyWithImageBuffer(
      std::shared_ptr<PixelBuffer> imageBuffer, std::optional<FormatDescription> formatDescription,
      const SampleTimingInfo& timing);

  SampleBuffer(std::shared_ptr<PixelBuffer> imageBuffer,
               std::optional<FormatDescription> formatDescription, const SampleTimingInfo& timing)
      : imageBuffer_(std::move(imageBuffer)),
        formatDescription_(formatDescription),
        timing_(timing) {}

  // The pixel buffer inside, or null.
  [[nodiscard]] const std::shared_ptr<PixelBuffer>& imageBuffer() const { return imageBuffer_; }
  [[nodiscard]] const std::optional<FormatDescription>& formatDescription() const {
    return formatDescription_;
  }
  [[nodiscard]] const SampleTimingInfo& timing() const { return timing_; }
  [[nodiscard]] MediaTime presentationTimeStamp() const { return timing_.presentationTimeStamp; }
  [[nodiscard]] MediaTime duration() const { return timing_.duration; }
  [[nodiscard]] MediaTime decodeTimeStamp() const { return timing_.decodeTimeStamp; }

 private:
  std::shared_ptr<PixelBuffer> imageBuffer_;
  std::optional<FormatDescription> formatDescription_;
  SampleTimingInfo timing_;
};

}  // namespace flowmere::platform
