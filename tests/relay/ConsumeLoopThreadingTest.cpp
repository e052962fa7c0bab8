#include <gtest/gtest.h>

#include <latch>
#include <optional>
#include <thread>

#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

using platform::MediaTime;
using testing::ExtensionHarness;

std::shared_ptr<platform::SampleBuffer> frameAt(
    const std::shared_ptr<platform::PixelBuffer>& pixels, std::int64_t thirtieths) {
  return std::make_shared<platform::SampleBuffer>(
      pixels, std::nullopt,
      platform::SampleTimingInfo{MediaTime::make(1, 30), MediaTime::make(thirtieths, 30), {}});
}

// The platform may complete consume requests on any thread, and a completion of a chain that a
// stop and start replaced may run beside that start. Here two threads play such completions while
// this thread stops and starts the sink. Counted frames must not be lost, and under
// ThreadSanitizer no write of the counters or pacing anchors may race with start's clears.
TEST(ConsumeLoopThreadingTest, CompletionsOnOtherThreadsRaceStopAndStart) {
  ExtensionHarness harness;
  auto& sink = harness.sink();
  // No client: each start's own chain ends at its first request, so the only answers are these.
  ASSERT_TRUE(harness.sinkPlatformStream().start().ok());
  harness.runUntilIdle();

  constexpr std::int64_t kAnswersPerThread = 1500;
  std::latch ready(3);  // both answering threads and this one begin together
  auto answer = [&](std::int64_t offset) {
    const auto pixels = ExtensionHarness::makeFrameForFormat(0, {})->imageBuffer();
    ready.arrive_and_wait();
    for (std::int64_t k = 0; k < kAnswersPerThread; ++k) {
      const std::uint64_t generation = sink.snapshot().chainGeneration;
      sink.handleConsumeResult(
          generation, frameAt(pixels, 2 * k + offset), static_cast<std::uint64_t>(k) + 1,
          platform::CMIOExtensionStreamDiscontinuityFlagNone, false, std::nullopt);
    }
  };
  std::thread first(answer, 0);
  std::thread second(answer, 1);
  ready.arrive_and_wait();
  for (int i = 0; i < 200; ++i) {
    EXPECT_TRUE(harness.sinkPlatformStream().stop().ok());
    EXPECT_TRUE(harness.sinkPlatformStream().start().ok());
  }
  first.join();
  second.join();
  harness.runUntilIdle();

  constexpr auto kTotal = static_cast<std::uint64_t>(2 * kAnswersPerThread);
  EXPECT_EQ(sink.snapshot().receivedFrames, kTotal);
  // Every count from 1 to the total was handed out once: one line for the first and one for each
  // multiple of 300.
  EXPECT_EQ(harness.logsStartingWith("sink received frame=").size(), 1 + kTotal / 300);
}

}  // namespace
}  // namespace flowmere
