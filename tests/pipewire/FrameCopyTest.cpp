#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "pipewire/FrameCopy.h"
#include "pipewire/ParallelCopy.h"
#include "platform/FourCharCode.h"

namespace flowmere::pipewire {
namespace {

constexpr std::byte kGuard{0xEE};

std::vector<std::byte> pattern(std::size_t size, std::uint32_t seed) {
  std::vector<std::byte> bytes(size);
  for (std::size_t index = 0; index < size; ++index) {
    bytes[index] = static_cast<std::byte>((index * 131 + seed) % 251);
  }
  return bytes;
}

// Both paths (memcpy below the threshold, streaming stores from it on), every head a 16-byte
// aligned store loop can leave (target offsets 1-15), and tails that are not whole 64-byte
// blocks: the copy must be exact and must not write one byte outside the target range.
TEST(FrameCopyTest, CopyBytesIsExactAtEveryAlignmentAndLength) {
  constexpr std::array<std::size_t, 8> kSizes{0,
                                              1,
                                              63,
                                              200,
                                              kStreamingCopyThreshold - 1,
                                              kStreamingCopyThreshold,
                                              kStreamingCopyThreshold + 1,
                                              kStreamingCopyThreshold + 77};
  constexpr std::array<std::size_t, 6> kOffsets{0, 1, 7, 15, 16, 33};
  constexpr std::size_t kSlack = 64;
  for (const std::size_t size : kSizes) {
    const std::vector<std::byte> source = pattern(size + kSlack, static_cast<std::uint32_t>(size));
    for (const std::size_t targetOffset : kOffsets) {
      for (const std::size_t sourceOffset : {std::size_t{0}, std::size_t{5}}) {
        std::vector<std::byte> target(size + 2 * kSlack, kGuard);
        copyBytes(target.data() + targetOffset, source.data() + sourceOffset, size);
        SCOPED_TRACE(testing::Message() << "size " << size << ", target offset " << targetOffset
                                        << ", source offset " << sourceOffset);
        for (std::size_t index = 0; index < target.size(); ++index) {
          const bool inside = index >= targetOffset && index < targetOffset + size;
          const std::byte expected = inside ? source[sourceOffset + index - targetOffset] : kGuard;
          ASSERT_EQ(target[index], expected) << "at byte " << index;
        }
      }
    }
  }
}

struct Plane {
  std::vector<std::byte> bytes;
  std::size_t bytesPerRow;
};

// Copies `planes` (BGRA or P010 of `width` x `height`) into a block with `targetStride` and
// checks every row of every plane, and that a wider target's row padding is left alone.
using Copier =
    std::function<void(const platform::PixelBuffer&, const FrameLayout&, std::byte* target)>;

void expectFrameCopied(std::uint32_t width, std::uint32_t height, spa_video_format format,
                       std::span<Plane> planes, std::uint32_t targetStride,
                       const Copier& copier = copyFrame) {
  spa_video_info_raw info{};
  info.format = format;
  info.size = spa_rectangle{width, height};
  const std::optional<FrameLayout> layout = frameLayoutFor(info, targetStride);
  ASSERT_TRUE(layout.has_value());
  ASSERT_EQ(layout->stride, targetStride);
  ASSERT_EQ(layout->planeCount, planes.size());

  std::array<platform::PixelBufferPlane, 2> wrapped{};
  for (std::size_t index = 0; index < planes.size(); ++index) {
    wrapped[index] = {planes[index].bytes.data(), planes[index].bytesPerRow, width,
                      layout->planeHeight(index)};
  }
  const auto pixels = platform::PixelBuffer::wrap(
      width, height, layout->pixelFormat,
      std::span<const platform::PixelBufferPlane>(wrapped.data(), planes.size()), [] {});
  ASSERT_NE(pixels, nullptr);

  std::vector<std::byte> target(layout->frameSize, kGuard);
  copier(*pixels, *layout, target.data());

  const std::size_t rowBytes =
      static_cast<std::size_t>(width) * (format == SPA_VIDEO_FORMAT_BGRA ? 4 : 2);
  for (std::size_t index = 0; index < planes.size(); ++index) {
    const std::byte* rows = target.data() + layout->planeOffset(index);
    for (std::uint32_t y = 0; y < layout->planeHeight(index); ++y) {
      const std::byte* row = rows + static_cast<std::size_t>(y) * targetStride;
      const std::byte* expected = planes[index].bytes.data() + y * planes[index].bytesPerRow;
      ASSERT_TRUE(std::equal(row, row + rowBytes, expected))
          << "plane " << index << ", row " << y << " of " << width << "x" << height;
      ASSERT_TRUE(std::all_of(row + rowBytes, row + targetStride,
                              [](std::byte value) { return value == kGuard; }))
          << "the padding of plane " << index << ", row " << y << " was written";
    }
  }
}

// A small frame (memcpy) and a large one (streaming stores), each with the client's stride equal
// to the producer's (one copy per plane), wider than it (padded rows in the client's buffer) and
// narrower (the producer's padding is not copied).
TEST(FrameCopyTest, CopyFrameFollowsBothStridesForBgra) {
  for (const auto& [width, height] : {std::pair<std::uint32_t, std::uint32_t>{16, 8}, {640, 480}}) {
    const std::uint32_t packed = width * 4;
    for (const std::uint32_t sourceStride : {packed, packed + 64}) {
      for (const std::uint32_t targetStride : {packed, packed + 32}) {
        SCOPED_TRACE(testing::Message() << width << "x" << height << ", source stride "
                                        << sourceStride << ", target stride " << targetStride);
        std::array<Plane, 1> planes{
            Plane{pattern(static_cast<std::size_t>(sourceStride) * height, width), sourceStride}};
        expectFrameCopied(width, height, SPA_VIDEO_FORMAT_BGRA, planes, targetStride);
      }
    }
  }
}

// P010 has a luma plane and a half-height chroma plane, each in memory of its own at the
// producer and one after the other in the client's buffer.
TEST(FrameCopyTest, CopyFrameCopiesBothPlanesOfP010) {
  constexpr std::uint32_t kWidth = 1280;
  constexpr std::uint32_t kHeight = 720;
  constexpr std::size_t kRowBytes = std::size_t{kWidth} * 2;
  for (const std::uint32_t targetStride : {kWidth * 2, kWidth * 2 + 128}) {
    std::array<Plane, 2> planes{Plane{pattern(kRowBytes * kHeight, 1), kRowBytes},
                                Plane{pattern(kRowBytes * (kHeight / 2), 2), kRowBytes}};
    expectFrameCopied(kWidth, kHeight, SPA_VIDEO_FORMAT_P010_10LE, planes, targetStride);
  }
}

// Frames large enough to share, in every shape the chunks must cut right: rows padded on either
// side (one chunk holds whole rows, never a row split across threads), a chunk size that does
// not divide the rows (the last chunk is short), and the two planes of P010 (chunks numbered
// across both). Each copier copies many frames in turn, as the relay does, so a helper thread
// that touched one frame's plan after the caller moved on to the next would show here, and
// under ThreadSanitizer as a race.
// With no idle time allowed, the helper ends after nearly every copy, so the next copy joins it
// and starts another while the frames keep coming.
TEST(FrameCopyTest, ParallelCopyCopiesEveryRowOfLargeFramesAndOnlyThem) {
  struct Case {
    const char* name;
    bool share;
    std::chrono::nanoseconds idleExit;
  };
  for (const Case& setup : {Case{"shared with the helper", true, ParallelCopy::kIdleExit},
                            Case{"shared with a helper that ends at once", true, {}},
                            Case{"on the calling thread", false, ParallelCopy::kIdleExit}}) {
    SCOPED_TRACE(setup.name);
    const bool share = setup.share;
    ParallelCopy parallel(share, setup.idleExit);
    const Copier copier = [&parallel](const platform::PixelBuffer& pixels,
                                      const FrameLayout& layout, std::byte* target) {
      parallel.copyFrame(pixels, layout, target);
    };
    constexpr std::uint32_t kWidth = 1000;  // 4000-byte rows: 65 to a chunk, 17 chunks
    constexpr std::uint32_t kHeight = 1080;
    constexpr std::uint32_t kPacked = kWidth * 4;
    for (std::uint32_t frame = 0; frame < 6; ++frame) {
      const std::uint32_t sourceStride = frame % 2 == 0 ? kPacked : kPacked + 64;
      const std::uint32_t targetStride = frame % 3 == 0 ? kPacked : kPacked + 32;
      SCOPED_TRACE(testing::Message() << "frame " << frame << ", source stride " << sourceStride
                                      << ", target stride " << targetStride);
      std::array<Plane, 1> planes{
          Plane{pattern(static_cast<std::size_t>(sourceStride) * kHeight, frame), sourceStride}};
      expectFrameCopied(kWidth, kHeight, SPA_VIDEO_FORMAT_BGRA, planes, targetStride, copier);
    }
    constexpr std::uint32_t kP010Width = 1920;
    constexpr std::size_t kRowBytes = std::size_t{kP010Width} * 2;
    for (std::uint32_t frame = 0; frame < 4; ++frame) {
      std::array<Plane, 2> planes{Plane{pattern(kRowBytes * kHeight, frame), kRowBytes},
                                  Plane{pattern(kRowBytes * (kHeight / 2), frame + 7), kRowBytes}};
      expectFrameCopied(kP010Width, kHeight, SPA_VIDEO_FORMAT_P010_10LE, planes,
                        frame % 2 == 0 ? kP010Width * 2 : kP010Width * 2 + 128, copier);
    }
    if (!share) {
      EXPECT_EQ(parallel.helperChunks(), 0U);
    }
  }
}

// Small frames stay on the calling thread (waking the helper would cost more than it saves), and
// a copier whose helper never started ends without one.
TEST(FrameCopyTest, ParallelCopyKeepsSmallFramesOnTheCallingThread) {
  { ParallelCopy unused; }
  ParallelCopy small;
  std::array<Plane, 1> planes{Plane{pattern(std::size_t{64} * 4 * 64, 3), std::size_t{64} * 4}};
  expectFrameCopied(64, 64, SPA_VIDEO_FORMAT_BGRA, planes, 64 * 4,
                    [&small](const platform::PixelBuffer& pixels, const FrameLayout& layout,
                             std::byte* target) { small.copyFrame(pixels, layout, target); });
  EXPECT_EQ(small.helperChunks(), 0U) << "a frame below the threshold was shared";
}

}  // namespace
}  // namespace flowmere::pipewire
