#include "platform/PixelBuffer.h"

#include <algorithm>
#include <cstring>

namespace flowmere::platform {

std::shared_ptr<PixelBuffer> PixelBuffer::create(std::uint32_t width, std::uint32_t height,
                                                 FourCharCode pixelFormat) {
  std::shared_ptr<PixelBuffer> buffer(new PixelBuffer());
  buffer->width_ = width;
  buffer->height_ = height;
  buffer->pixelFormat_ = pixelFormat;
  if (pixelFormat == kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange) {
    const std::size_t stride = static_cast<std::size_t>(width) * 2;
    const std::uint32_t chromaRows = (height + 1) / 2;
    buffer->planeCount_ = 2;
    buffer->planes_[0] = PixelBufferPlane{nullptr, stride, width, height};
    buffer->planes_[1] = PixelBufferPlane{nullptr, stride, (width + 1) / 2, chromaRows};
  } else {
    // BGRA and any other packed format: one plane of 4 bytes per pixel.
    buffer->planeCount_ = 1;
    buffer->planes_[0] =
        PixelBufferPlane{nullptr, static_cast<std::size_t>(width) * 4, width, height};
  }
  const std::size_t total = buffer->dataSize();
  buffer->ownedMemory_ = std::make_unique<std::byte[]>(total);  // zeroed
  std::byte* next = buffer->ownedMemory_.get();
  for (std::size_t i = 0; i < buffer->planeCount_; ++i) {
    buffer->planes_[i].data = next;
    next += buffer->planes_[i].bytesPerRow * buffer->planes_[i].height;
  }
  return buffer;
}

std::shared_ptr<PixelBuffer> PixelBuffer::wrap(std::uint32_t width, std::uint32_t height,
                                               FourCharCode pixelFormat,
                                               std::span<const PixelBufferPlane> planes,
                                               ReleaseCallback onRelease,
                                               std::shared_ptr<ExternalMemory> memory) {
  std::shared_ptr<PixelBuffer> buffer(new PixelBuffer());
  buffer->width_ = width;
  buffer->height_ = height;
  buffer->pixelFormat_ = pixelFormat;
  buffer->planeCount_ = std::min(planes.size(), kMaxPlanes);
  std::copy_n(planes.begin(), buffer->planeCount_, buffer->planes_.begin());
  buffer->onRelease_ = std::move(onRelease);
  buffer->externalMemory_ = std::move(memory);
  return buffer;
}

PixelBuffer::~PixelBuffer() {
  if (onRelease_) {
    onRelease_();
  }
}

std::size_t PixelBuffer::dataSize() const {
  std::size_t total = 0;
  for (std::size_t i = 0; i < planeCount_; ++i) {
    total += planes_[i].bytesPerRow * planes_[i].height;
  }
  return total;
}

bool PixelBuffer::setAttachment(ConstantString key, ConstantString value, AttachmentMode mode) {
  for (std::size_t i = 0; i < attachmentCount_; ++i) {
    if (attachments_[i].key == key) {
      attachments_[i].value = value;
      attachments_[i].mode = mode;
      return true;
    }
  }
  if (attachmentCount_ == kMaxAttachments) {
    return false;
  }
  attachments_[attachmentCount_++] = Attachment{key, value, mode};
  return true;
}

std::optional<Attachment> PixelBuffer::attachment(ConstantString key) const {
  for (std::size_t i = 0; i < attachmentCount_; ++i) {
    if (attachments_[i].key == key) {
      return attachments_[i];
    }
  }
  return std::nullopt;
}

}  // namespace flowmere::platform
