#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <latch>
#include <optional>
#include <thread>

#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

using platform::MediaTime;
using testing::ExtensionHarness;

// Runs `body` on a thread of its own and waits for it. A body that hangs cannot be stopped or
// joined, so instead of stalling the whole binary the process ends at once as a failure. The limit
// only matters for a hang; a passing body returns in milliseconds of virtual-time work.
void runOrFailWithin(std::chrono::seconds limit, const std::function<void()>& body) {
  std::packaged_task<void()> task(body);
  std::future<void> finished = task.get_future();
  std::thread runner(std::move(task));
  if (finished.wait_for(limit) != std::future_status::ready) {
    std::fprintf(stderr, "FAILED: %s did not return within %lld s (hung)\n",
                 ::testing::UnitTest::GetInstance()->current_test_info()->name(),
                 static_cast<long long>(limit.count()));
    std::fflush(stderr);
    std::_Exit(EXIT_FAILURE);
  }
  runner.join();
  finished.get();
}

std::shared_ptr<platform::SampleBuffer> frameAt(
    const std::shared_ptr<platform::PixelBuffer>& pixels, std::int64_t thirtieths) {
  return std::make_shared<platform::SampleBuffer>(
      pixels, std::nullopt,
      platform::SampleTimingInfo{MediaTime::make(1, 30), MediaTime::make(thirtieths, 30), {}});
}

// A camera service may call back into the extension from within a send, on the consume queue. A
// stop issued there must return (the delivery that runs it is its caller), and the delivery then
// finishes its own steps without asking for another buffer.
TEST(ConsumeLoopThreadingTest, StopFromInsideADeliveryReturnsAndTheDeliveryFinishes) {
  runOrFailWithin(std::chrono::seconds(60), [] {
    ExtensionHarness harness;
    auto producer = harness.makeClient(4242, "producer");
    std::optional<platform::Status> stopResult;
    std::size_t logsBeforeStop = 0;
    harness.service().onSend([&](const embedded::EmbeddedStream& /*stream*/,
                                 const std::shared_ptr<platform::SampleBuffer>& /*buffer*/,
                                 platform::StreamDiscontinuityFlags /*discontinuity*/,
                                 std::uint64_t /*hostTime*/) {
      if (!stopResult) {
        {
          const std::scoped_lock lock(harness.mutex);
          logsBeforeStop = harness.logs.size();
        }
        stopResult = harness.sinkPlatformStream().stop();
      }
    });
    ASSERT_TRUE(harness.startProducer(producer).ok());
    const auto pixels = ExtensionHarness::makeFrameForFormat(0, {})->imageBuffer();
    harness.push(producer, frameAt(pixels, 0), 1);
    harness.push(producer, frameAt(pixels, 1), 2);
    harness.advanceBy(1.0);

    ASSERT_TRUE(stopResult.has_value());
    EXPECT_TRUE(stopResult->ok());
    // The delivery went on after the stop returned: its scheduled output still went out.
    EXPECT_EQ(harness.sent.size(), 1U);
    ASSERT_EQ(harness.scheduledOutputs.size(), 1U);
    EXPECT_EQ(harness.scheduledOutputs[0].sequenceNumber, 1U);
    // The stop ran all its steps, in order, from within the send.
    const std::vector<std::string> stopLines(
        harness.logs.begin() + static_cast<std::ptrdiff_t>(logsBeforeStop), harness.logs.end());
    ASSERT_GE(stopLines.size(), 2U);
    EXPECT_EQ(stopLines[0].rfind("[VANE-EXT] sink stopStream started=false clients=", 0), 0U);
    EXPECT_EQ(harness.lastSetting("bridge_extension_status"),
              platform::PropertyValue(std::string("sink stopped")));
    EXPECT_FALSE(harness.source().snapshot().producerFormatIndex.has_value());
    const auto stopped = harness.sink().snapshot();
    EXPECT_FALSE(stopped.isConsuming);
    EXPECT_EQ(stopped.client, nullptr);
    // Nothing asked for the second buffer; a new start takes it and delivers it.
    EXPECT_EQ(stopped.receivedFrames, 1U);
    ASSERT_TRUE(harness.startProducer(producer).ok());
    harness.advanceBy(1.0);
    ASSERT_EQ(harness.scheduledOutputs.size(), 2U);
    EXPECT_EQ(harness.scheduledOutputs[1].sequenceNumber, 2U);
    EXPECT_EQ(harness.sink().snapshot().receivedFrames, 2U);
  });
}

// A stop on a platform thread while a delivery runs on the consume queue waits for it, without
// holding the sink's format lock, and only then runs its steps: the delivery's frame is fully out
// before "sink stopped", and nothing of the stopped chain follows the stop.
TEST(ConsumeLoopThreadingTest, StopWaitsForARunningDeliveryWithoutHoldingTheFormatLock) {
  runOrFailWithin(std::chrono::seconds(60), [] {
    testing::HarnessOptions options;
    options.mode = embedded::TimeMode::kReal;
    ExtensionHarness harness(options);
    auto producer = harness.makeClient(4242, "producer");
    std::promise<void> sending;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> first{true};
    // Holds the first delivery inside its send, on the consume queue, until released.
    harness.service().onSend([&](const embedded::EmbeddedStream& /*stream*/,
                                 const std::shared_ptr<platform::SampleBuffer>& /*buffer*/,
                                 platform::StreamDiscontinuityFlags /*discontinuity*/,
                                 std::uint64_t /*hostTime*/) {
      if (first.exchange(false)) {
        sending.set_value();
        released.wait();
      }
    });
    ASSERT_TRUE(harness.startProducer(producer).ok());
    const auto pixels = ExtensionHarness::makeFrameForFormat(0, {})->imageBuffer();
    harness.push(producer, frameAt(pixels, 0), 1);
    harness.push(producer, frameAt(pixels, 1), 2);
    sending.get_future().wait();

    // On the platform thread, as the service calls it.
    auto stopped =
        std::async(std::launch::async, [&] { return harness.sinkPlatformStream().stop(); });
    auto stopHasReturned = [&] {
      return stopped.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    while (harness.sink().snapshot().stopsWaitingForDelivery == 0 && !stopHasReturned()) {
      std::this_thread::yield();
    }
    if (stopHasReturned()) {
      release.set_value();
      FAIL() << "stop returned while a delivery was still running";
    }
    // The format lock is free while stop waits: a property query is answered meanwhile.
    const auto answered = harness.sink().streamPropertiesForProperties(
        {std::string(platform::CMIOExtensionPropertyStreamActiveFormatIndex)});
    EXPECT_TRUE(answered.ok());
    EXPECT_TRUE(harness.logsStartingWith("sink stopStream").empty());
    release.set_value();
    EXPECT_TRUE(stopped.get().ok());

    // Stop has returned; drain what is still queued (it can only drop its buffer), then look.
    std::promise<void> drained;
    harness.sink().queue()->async([&drained] { drained.set_value(); });
    drained.get_future().wait();
    const std::scoped_lock lock(harness.mutex);
    ASSERT_EQ(harness.scheduledOutputs.size(), 1U);
    EXPECT_EQ(harness.scheduledOutputs[0].sequenceNumber, 1U);
    EXPECT_EQ(harness.sent.size(), 1U);
    // The last status is the stop's; the running frame's statuses all came before it.
    std::vector<std::string> statuses;
    for (const auto& [name, text] : harness.fileWrites) {
      if (name == "bridge_extension_status") {
        statuses.push_back(text);
      }
    }
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.back(), "sink stopped");
  });
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
