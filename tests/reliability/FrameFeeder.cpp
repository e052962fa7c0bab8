#include "reliability/FrameFeeder.h"

#include <cmath>

#include "platform/SampleBuffer.h"
#include "support/ExtensionHarness.h"

namespace flowmere::reliability {

namespace {

// One more than the producer queue holds, so that no buffer is pushed again while an earlier
// push of it still waits.
constexpr std::size_t kPoolSize = embedded::EmbeddedStream::kProducerQueueCapacity + 2;

}  // namespace

FrameFeeder::FrameFeeder(embedded::EmbeddedCameraService& service,
                         std::shared_ptr<const platform::Client> producer, std::size_t formatIndex,
                         std::int32_t fps)
    : service_(service),
      producer_(std::move(producer)),
      fps_(fps),
      start_(service.executor()->nowNanoseconds()) {
  for (std::size_t i = 0; i < kPoolSize; ++i) {
    pool_.push_back(testing::ExtensionHarness::makeFrameForFormat(formatIndex, {})->imageBuffer());
  }
}

std::int64_t FrameFeeder::frameTime(std::int64_t index) const {
  return start_ + index * 1'000'000'000 / fps_;
}

void FrameFeeder::feedFor(double seconds) {
  embedded::ManualExecutor& executor = *service_.executor();
  const std::int64_t end = executor.nowNanoseconds() + std::llround(seconds * 1e9);
  while (frameTime(next_) < executor.nowNanoseconds()) {
    ++next_;  // not produced: the producer was paused
  }
  for (; frameTime(next_) < end; ++next_) {
    executor.advanceTo(frameTime(next_));
    auto frame = std::make_shared<platform::SampleBuffer>(
        pool_[static_cast<std::size_t>(next_) % pool_.size()], std::nullopt,
        platform::SampleTimingInfo{platform::MediaTime::make(1, fps_),
                                   platform::MediaTime::make(next_, fps_),
                                   platform::MediaTime::invalid()});
    const auto sequenceNumber = static_cast<std::uint64_t>(next_ + 1);
    if (service_.sinkStream()->push(producer_, std::move(frame), sequenceNumber)) {
      ++pushed_;
      accepted_.push_back(sequenceNumber);
    } else {
      ++refused_;
    }
  }
  executor.advanceTo(end);
}

void FrameFeeder::idleFor(double seconds) {
  service_.executor()->advanceBy(std::llround(seconds * 1e9));
}

}  // namespace flowmere::reliability
