#include "FramePool.h"

#include <cstring>

namespace flowmere::soak {

namespace {

// The plane layout a pixel buffer of the catalogue uses: BGRA one plane of 4 bytes per pixel;
// 10-bit 4:2:0 a luma plane and a half-height interleaved chroma plane, 2 bytes per sample.
std::vector<platform::PixelBufferPlane> planeLayout(std::uint32_t width, std::uint32_t height,
                                                    platform::FourCharCode pixelFormat) {
  if (pixelFormat == platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange) {
    const std::size_t stride = static_cast<std::size_t>(width) * 2;
    return {{nullptr, stride, width, height}, {nullptr, stride, (width + 1) / 2, (height + 1) / 2}};
  }
  return {{nullptr, static_cast<std::size_t>(width) * 4, width, height}};
}

}  // namespace

FramePool::FramePool(const platform::StreamFormatList& formats, std::size_t slotsPerFormat)
    : slotsPerFormat_(slotsPerFormat), state_(std::make_shared<State>()) {
  for (const platform::StreamFormat& format : formats) {
    const platform::VideoDimensions dimensions = format.formatDescription.dimensions();
    Format entry{static_cast<std::uint32_t>(dimensions.width),
                 static_cast<std::uint32_t>(dimensions.height),
                 format.formatDescription.codecType(), slots_.size()};
    for (std::size_t i = 0; i < slotsPerFormat; ++i) {
      Slot slot;
      slot.planes = planeLayout(entry.width, entry.height, entry.pixelFormat);
      std::size_t total = 0;
      for (const auto& plane : slot.planes) {
        total += plane.bytesPerRow * plane.height;
      }
      // Not value-initialised: untouched pages cost no resident memory.
      slot.memory.reset(new std::byte[total]);
      memoryBytes_ += total;
      std::byte* next = slot.memory.get();
      for (auto& plane : slot.planes) {
        plane.data = next;
        next += plane.bytesPerRow * plane.height;
      }
      slots_.push_back(std::move(slot));
    }
    formats_.push_back(entry);
  }
  state_->inUse.assign(slots_.size(), false);
}

std::shared_ptr<platform::PixelBuffer> FramePool::acquire(std::size_t formatIndex,
                                                          std::uint64_t frameNumber) {
  const Format& format = formats_.at(formatIndex);
  std::size_t index = 0;
  {
    const std::scoped_lock lock(state_->mutex);
    std::size_t candidate = format.firstSlot;
    const std::size_t end = format.firstSlot + slotsPerFormat_;
    while (candidate < end && state_->inUse[candidate]) {
      ++candidate;
    }
    if (candidate == end) {
      return nullptr;
    }
    state_->inUse[candidate] = true;
    index = candidate;
  }
  Slot& slot = slots_[index];
  std::memcpy(slot.planes.front().data, &frameNumber, sizeof frameNumber);
  return platform::PixelBuffer::wrap(format.width, format.height, format.pixelFormat, slot.planes,
                                     [state = state_, index] {
                                       const std::scoped_lock lock(state->mutex);
                                       state->inUse[index] = false;
                                     });
}

std::size_t FramePool::slotsInUse() const {
  const std::scoped_lock lock(state_->mutex);
  std::size_t count = 0;
  for (const bool used : state_->inUse) {
    count += used ? 1 : 0;
  }
  return count;
}

}  // namespace flowmere::soak
