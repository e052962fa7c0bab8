#include "platform/SampleBuffer.h"

namespace flowmere::platform {

std::shared_ptr<SampleBuffer> SampleBuffer::createReadyWithImageBuffer(
    std::shared_ptr<PixelBuffer> imageBuffer, std::optional<FormatDescription> formatDescription,
    const SampleTimingInfo& timing) {
  return std::make_shared<SampleBuffer>(std::move(imageBuffer), formatDescription, timing);
}

}  // namespace flowmere::platform
