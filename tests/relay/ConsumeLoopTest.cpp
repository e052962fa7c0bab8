#include <gtest/gtest.h>

#include <cmath>

#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

using platform::MediaTime;
using testing::ExtensionHarness;

constexpr std::int64_t kSecond = 1'000'000'000;

MediaTime seconds(double value) {
  return MediaTime::make(std::llround(value * 1e6), 1'000'000);
}

// A started sink without any client: its chain ends at the first request, so deliveries can be
// scheduled directly and observed one by one.
class PacingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(harness.sinkPlatformStream().start().ok());
    harness.runUntilIdle();
    generation = harness.sink().snapshot().chainGeneration;
  }
  // Schedules a buffer at virtual host time `host` and returns its delivery time.
  std::int64_t deliver(double host, MediaTime pts, std::uint64_t seq) {
    harness.advanceTo(host);
    const std::size_t before = harness.scheduledOutputs.size();
    harness.sink().scheduleDelivery(generation, ExtensionHarness::makeFrameForFormat(0, pts), seq);
    auto& executor = *harness.service().executor();
    while (harness.scheduledOutputs.size() == before && executor.nextDeadline()) {
      executor.advanceTo(*executor.nextDeadline());
    }
    EXPECT_EQ(harness.scheduledOutputs.back().sequenceNumber, seq);
    return harness.scheduledOutputTimes.back();
  }

  ExtensionHarness harness;
  std::uint64_t generation = 0;
};

TEST_F(PacingTest, WorkedSequenceKeepsAndRenewsTheAnchor) {
  // host, pts, expected delivery
  EXPECT_EQ(deliver(100.000, seconds(5.0), 1), 100 * kSecond);
  EXPECT_NEAR(deliver(100.010, seconds(5.0333), 2), 100'033'300'000, 1000);
  EXPECT_EQ(deliver(100.120, seconds(5.0667), 3), 100'120'000'000);  // late but within 0.1 s
  EXPECT_EQ(harness.sink().snapshot().timelineAnchorHostSeconds, 100.0);
  EXPECT_EQ(deliver(100.300, seconds(5.1), 4), 100'300'000'000);  // too late: new anchor
  EXPECT_EQ(harness.sink().snapshot().timelineAnchorPTS, 5.1);
  EXPECT_EQ(deliver(100.310, seconds(5.8), 5), 100'310'000'000);  // a 0.7 s step: new anchor
  EXPECT_EQ(harness.sink().snapshot().timelineAnchorPTS, 5.8);
}

TEST_F(PacingTest, BuffersAThirtiethApartLeaveAThirtiethApart) {
  harness.advanceTo(100.0);
  harness.sink().scheduleDelivery(generation, ExtensionHarness::makeFrameForFormat(0, seconds(1.0)),
                                  1);
  harness.sink().scheduleDelivery(
      generation, ExtensionHarness::makeFrameForFormat(0, MediaTime::make(31, 30)), 2);
  harness.advanceBy(1.0);
  ASSERT_EQ(harness.scheduledOutputTimes.size(), 2U);
  EXPECT_NEAR(harness.scheduledOutputTimes[1] - harness.scheduledOutputTimes[0],
              static_cast<double>(kSecond) / 30, 1);
}

TEST_F(PacingTest, BackwardAndUnusableStampsDeliverAtOnce) {
  deliver(100.0, seconds(5.0), 1);
  EXPECT_EQ(deliver(100.5, seconds(5.0), 2), 100'500'000'000);  // repeated: new anchor
  EXPECT_EQ(deliver(101.0, seconds(4.0), 3), 101 * kSecond);    // backwards: new anchor
  const auto anchors = harness.sink().snapshot();
  for (MediaTime unusable : {seconds(-1.0), MediaTime::invalid(), MediaTime::positiveInfinity(),
                             MediaTime::negativeInfinity()}) {
    const std::int64_t now = harness.nowNanoseconds();
    EXPECT_EQ(deliver(static_cast<double>(now) / 1e9, unusable, 9), now);
  }
  const auto after = harness.sink().snapshot();
  EXPECT_EQ(after.timelineAnchorPTS, anchors.timelineAnchorPTS);
  EXPECT_EQ(after.timelineAnchorHostSeconds, anchors.timelineAnchorHostSeconds);
  EXPECT_EQ(after.lastProducerPTS, anchors.lastProducerPTS);
  // Without a selected producer the timeline carries -1.
  EXPECT_NE(harness.source().snapshot().timelineValue.find("\"producerPID\":-1"),
            std::string::npos);
}

class ConsumeLoopTest : public ::testing::Test {
 protected:
  void SetUp() override { producer = harness.makeClient(4242, "producer"); }
  ExtensionHarness harness;
  std::shared_ptr<const platform::Client> producer;
};

TEST_F(ConsumeLoopTest, EmptyPollsLogAtOneAndEveryFiveHundredth) {
  ASSERT_TRUE(harness.startProducer(producer).ok());
  harness.advanceBy(2.0);  // about a thousand polls, 2 ms apart
  const auto waiting = harness.logsStartingWith("sink waiting polls=");
  ASSERT_EQ(waiting.size(), 3U);
  EXPECT_EQ(waiting[0], "[VANE-EXT] sink waiting polls=1 clients=count=0 clients=[]");
  EXPECT_EQ(waiting[1].rfind("[VANE-EXT] sink waiting polls=500 ", 0), 0U);
  EXPECT_EQ(waiting[2].rfind("[VANE-EXT] sink waiting polls=1000 ", 0), 0U);
  EXPECT_EQ(harness.sink().snapshot().emptyPolls, 1001);
  EXPECT_EQ(harness.lastSetting("bridge_extension_status"),
            platform::PropertyValue(std::string("sink waiting for buffers polls=1000")));
}

TEST_F(ConsumeLoopTest, ErrorsAreRetriedAtOnceAndWrongSizesKeepThePollCount) {
  ASSERT_TRUE(harness.startProducer(producer).ok());
  harness.advanceBy(0.01);
  const std::int64_t polls = harness.sink().snapshot().emptyPolls;
  harness.service().failNextConsumeRequests(5, "producer went away");
  harness.push(producer,
               ExtensionHarness::makeFrame(640, 480, platform::kCVPixelFormatType_32BGRA,
                                           MediaTime::make(0, 1)),
               1);
  const std::int64_t before = harness.nowNanoseconds();
  harness.advanceBy(0.002);
  // All five errors and the wrong-size drop happened within one poll interval.
  EXPECT_EQ(harness
                .logsStartingWith("sink consumeSampleBuffer result=error error=producer went "
                                  "away clients=")
                .size(),
            5U);
  EXPECT_LE(harness.nowNanoseconds() - before, 2'000'000);
  EXPECT_GE(harness.sink().snapshot().emptyPolls, polls);
  EXPECT_EQ(harness.sink().snapshot().receivedFrames, 0U);
  EXPECT_TRUE(harness.sent.empty());
}

// The received-frame count belongs to the sink, not to one run of it.
TEST_F(ConsumeLoopTest, ReceivedCadenceContinuesAcrossStopAndStart) {
  int pushed = 0;
  const auto pixels = ExtensionHarness::makeFrameForFormat(0, {})->imageBuffer();
  auto feed = [&](int count) {
    for (int k = 0; k < count; ++k, ++pushed) {
      harness.advanceBy(1.0 / 30);
      harness.push(producer,
                   std::make_shared<platform::SampleBuffer>(
                       pixels, std::nullopt,
                       platform::SampleTimingInfo{{}, MediaTime::make(pushed, 30), {}}),
                   static_cast<std::uint64_t>(pushed) + 1);
    }
    harness.advanceBy(0.1);
  };
  ASSERT_TRUE(harness.startProducer(producer).ok());
  feed(200);
  ASSERT_TRUE(harness.sinkPlatformStream().stop().ok());
  ASSERT_TRUE(harness.startProducer(producer).ok());
  feed(100);
  const auto received = harness.logsStartingWith("sink received frame=");
  ASSERT_EQ(received.size(), 2U);
  EXPECT_EQ(received[1].rfind("[VANE-EXT] sink received frame=300 sequence=300 ", 0), 0U);
  EXPECT_EQ(harness.sink().snapshot().receivedFrames, 300U);
  // The recorder, reset by the second start, counts only that run.
  EXPECT_EQ(harness.readStateFile("bridge_frames_received"), "100");
}

TEST_F(ConsumeLoopTest, StopWithAPendingDeliveryDropsIt) {
  ASSERT_TRUE(harness.startProducer(producer).ok());
  harness.push(producer, ExtensionHarness::makeFrameForFormat(0, seconds(0.0)), 1);
  harness.push(producer, ExtensionHarness::makeFrameForFormat(0, seconds(0.2)), 2);
  harness.advanceBy(0.05);  // the first is delivered, the second waits for 100.2
  ASSERT_EQ(harness.scheduledOutputs.size(), 1U);
  ASSERT_TRUE(harness.sinkPlatformStream().stop().ok());
  harness.advanceBy(1.0);
  EXPECT_EQ(harness.scheduledOutputs.size(), 1U);
  EXPECT_EQ(harness.sent.size(), 1U);
  EXPECT_EQ(harness.sink().snapshot().receivedFrames, 2U);  // counted when answered
}

// A quick stop and start must leave one chain, not two polling side by side.
TEST_F(ConsumeLoopTest, FastStopAndStartLeavesOneChain) {
  ASSERT_TRUE(harness.startProducer(producer).ok());
  harness.advanceBy(0.1);
  ASSERT_TRUE(harness.sinkPlatformStream().stop().ok());
  ASSERT_TRUE(harness.startProducer(producer).ok());
  const std::int64_t polls = harness.sink().snapshot().emptyPolls;
  harness.advanceBy(0.1);
  EXPECT_LE(harness.sink().snapshot().emptyPolls - polls, 52);
}

TEST_F(ConsumeLoopTest, StartWithoutAnyClientNeverRequests) {
  ASSERT_TRUE(harness.sinkPlatformStream().start().ok());
  harness.advanceBy(0.1);
  EXPECT_EQ(harness.sink().snapshot().emptyPolls, 0);
  EXPECT_EQ(harness.logsStartingWith("sink started clients=0 hasClient=false", false).size(), 1U);
  EXPECT_EQ(harness
                .logsStartingWith("sink startStream started=true clients=count=0 clients=[] "
                                  "selectedClient=nil")
                .size(),
            1U);
  // A later authorisation does not start the loop.
  harness.sinkPlatformStream().authorize(producer);
  harness.advanceBy(0.1);
  EXPECT_EQ(harness.sink().snapshot().emptyPolls, 0);
}

TEST_F(ConsumeLoopTest, StartSelectsTheAuthorisedClientThenTheFirstStreamingOne) {
  auto other = harness.makeClient(1, "other");
  harness.sinkPlatformStream().setStreamingClients({other, producer});
  ASSERT_TRUE(harness.startProducer(producer).ok());
  EXPECT_EQ(harness.sink().snapshot().client, producer);
  ASSERT_TRUE(harness.sinkPlatformStream().stop().ok());
  EXPECT_EQ(harness.sink().snapshot().client, nullptr);
  ASSERT_TRUE(harness.sinkPlatformStream().start().ok());
  EXPECT_EQ(harness.sink().snapshot().client, other);
  EXPECT_EQ(harness.lastSetting("bridge_extension_status"),
            platform::PropertyValue(std::string("sink started clients=2 hasClient=true")));
}

TEST_F(ConsumeLoopTest, SinkFormatRulesAndPinHandOver) {
  auto& sink = harness.sinkPlatformStream();
  platform::StreamProperties two;
  two.setActiveFormatIndex(2);
  platform::StreamProperties three;
  three.setActiveFormatIndex(3);
  platform::StreamProperties outside;
  outside.setActiveFormatIndex(10);
  EXPECT_EQ(sink.setProperties(outside).error().code,
            platform::kCMIOHardwareUnsupportedOperationError);
  ASSERT_TRUE(sink.setProperties(two).ok());
  ASSERT_TRUE(harness.startProducer(producer).ok());
  EXPECT_EQ(harness.source().snapshot().producerFormatIndex, 2);
  EXPECT_TRUE(sink.setProperties(two).ok());
  const platform::Status refused = sink.setProperties(three);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().localizedDescription,
            "Stop capture before changing camera orientation.");
  ASSERT_TRUE(sink.stop().ok());
  EXPECT_FALSE(harness.source().snapshot().producerFormatIndex.has_value());
  EXPECT_EQ(harness.lastSetting("bridge_extension_status"),
            platform::PropertyValue(std::string("sink stopped")));

  auto all = sink.getProperties(sink.availableProperties());
  EXPECT_EQ(all.value().propertiesDictionary().size(), 6U);
  EXPECT_EQ(all.value().activeFormatIndex(), 2);
}

}  // namespace
}  // namespace flowmere
