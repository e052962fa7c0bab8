#include "FrameCopy.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace flowmere::pipewire {

namespace {

#if defined(__SSE2__)
constexpr bool kHasStreamingStores = true;

// Copies with 16-byte streaming stores: the head up to the first 16-byte boundary of the target
// and the tail after the last whole 64-byte block go through memcpy. The caller fences.
void streamBytes(std::byte* target, const std::byte* source, std::size_t size) {
  const auto misalignment = reinterpret_cast<std::uintptr_t>(target) % 16;
  const std::size_t head = std::min(size, misalignment == 0 ? 0 : 16 - misalignment);
  std::memcpy(target, source, head);
  target += head;
  source += head;
  size -= head;
  const std::size_t blocks = size / 64;
  auto* out = reinterpret_cast<__m128i*>(target);
  const auto* in = reinterpret_cast<const __m128i*>(source);
  for (std::size_t block = 0; block < blocks; ++block, out += 4, in += 4) {
    const __m128i first = _mm_loadu_si128(in);
    const __m128i second = _mm_loadu_si128(in + 1);
    const __m128i third = _mm_loadu_si128(in + 2);
    const __m128i fourth = _mm_loadu_si128(in + 3);
    _mm_stream_si128(out, first);
    _mm_stream_si128(out + 1, second);
    _mm_stream_si128(out + 2, third);
    _mm_stream_si128(out + 3, fourth);
  }
  const std::size_t done = blocks * 64;
  std::memcpy(target + done, source + done, size - done);
}

// Streaming stores are weakly ordered: this makes them visible before any later store, such as
// the one that hands the buffer to the client.
void fenceStreamingStores() {
  _mm_sfence();
}
#else
constexpr bool kHasStreamingStores = false;

void streamBytes(std::byte* target, const std::byte* source, std::size_t size) {
  std::memcpy(target, source, size);
}

void fenceStreamingStores() {}
#endif

void plainBytes(std::byte* target, const std::byte* source, std::size_t size) {
  std::memcpy(target, source, size);
}

}  // namespace

void copyBytes(std::byte* target, const std::byte* source, std::size_t size) {
  if (!kHasStreamingStores || size < kStreamingCopyThreshold) {
    std::memcpy(target, source, size);
    return;
  }
  streamBytes(target, source, size);
  fenceStreamingStores();
}

FrameCopyPlan planFrameCopy(const platform::PixelBuffer& pixels, const FrameLayout& layout,
                            std::byte* target) {
  FrameCopyPlan plan;
  plan.streaming = kHasStreamingStores && layout.frameSize >= kStreamingCopyThreshold;
  plan.planeCount = std::min(layout.planeCount, plan.planes.size());
  for (std::size_t index = 0; index < plan.planeCount; ++index) {
    const platform::PixelBufferPlane& plane = pixels.plane(index);
    PlaneRows& rows = plan.planes[index];
    rows.target = target + layout.planeOffset(index);
    rows.source = plane.data;
    rows.sourceStride = plane.bytesPerRow;
    rows.targetStride = layout.stride;
    rows.rows = layout.planeHeight(index);
    // Equal strides: the padding goes along, so that the rows stay one run of memory.
    rows.rowBytes = plane.bytesPerRow == layout.stride
                        ? layout.stride
                        : std::min<std::size_t>(plane.bytesPerRow, layout.rowBytes);
  }
  return plan;
}

void copyPlaneRows(const PlaneRows& plane, std::uint32_t first, std::uint32_t count,
                   bool streaming) {
  const auto copy = streaming ? &streamBytes : &plainBytes;
  std::byte* target = plane.target + static_cast<std::size_t>(first) * plane.targetStride;
  const std::byte* source = plane.source + static_cast<std::size_t>(first) * plane.sourceStride;
  if (plane.rowBytes == plane.sourceStride && plane.rowBytes == plane.targetStride) {
    copy(target, source, plane.rowBytes * count);
    return;
  }
  for (std::uint32_t row = 0; row < count; ++row) {
    copy(target + static_cast<std::size_t>(row) * plane.targetStride,
         source + static_cast<std::size_t>(row) * plane.sourceStride, plane.rowBytes);
  }
}

void fenceFrameCopy(bool streaming) {
  if (streaming) {
    fenceStreamingStores();
  }
}

void copyFrame(const platform::PixelBuffer& pixels, const FrameLayout& layout, std::byte* target) {
  const FrameCopyPlan plan = planFrameCopy(pixels, layout, target);
  for (std::size_t index = 0; index < plan.planeCount; ++index) {
    copyPlaneRows(plan.planes[index], 0, plan.planes[index].rows, plan.streaming);
  }
  fenceFrameCopy(plan.streaming);
}

}  // namespace flowmere::pipewire
