#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ExtensionHarness.h"

namespace flowmere::embedded {
namespace {

using platform::MediaTime;
using testing::ExtensionHarness;

// --- Answering from the producer queue --------------------------------------------------------

TEST(EmbeddedStreamTest, ProducerQueueRefusesTheFourthBufferAndAnswersInOrder) {
  ExtensionHarness harness;
  auto producer = harness.makeClient(42, "producer");
  auto other = harness.makeClient(43, "other");
  const auto pts = MediaTime::make(0, 30);
  for (std::uint64_t seq = 1; seq <= 3; ++seq) {
    EXPECT_TRUE(harness.push(producer, harness.makeFrameForFormat(0, pts), seq));
  }
  EXPECT_FALSE(harness.push(producer, harness.makeFrameForFormat(0, pts), 4));
  // Each producer has a queue of its own.
  EXPECT_TRUE(harness.push(other, harness.makeFrameForFormat(0, pts), 1));

  std::vector<std::uint64_t> answered;
  for (int i = 0; i < 4; ++i) {
    harness.sinkPlatformStream().consumeSampleBufferFromClient(
        producer,
        [&](const std::shared_ptr<platform::SampleBuffer>& buffer, std::uint64_t seq,
            platform::StreamDiscontinuityFlags, bool,
            const std::optional<platform::Error>&) { answered.push_back(buffer ? seq : 0); });
  }
  EXPECT_TRUE(answered.empty());  // completions arrive later, on the platform queue
  harness.runUntilIdle();
  EXPECT_EQ(answered, (std::vector<std::uint64_t>{1, 2, 3, 0}));
}

TEST(EmbeddedStreamTest, ADisconnectingProducerTakesItsQueuedBuffersWithIt) {
  ExtensionHarness harness;
  auto leaving = harness.makeClient(42, "producer before its restart");
  auto staying = harness.makeClient(43, "other producer");
  auto frame = harness.makeFrameForFormat(0, MediaTime::make(0, 30));
  const std::weak_ptr<platform::SampleBuffer> watched = frame;
  ASSERT_TRUE(harness.push(leaving, std::move(frame), 1));
  ASSERT_TRUE(harness.push(leaving, harness.makeFrameForFormat(0, MediaTime::make(1, 30)), 2));
  ASSERT_TRUE(harness.push(staying, harness.makeFrameForFormat(0, MediaTime::make(0, 30)), 1));

  harness.service().publishedProvider()->disconnect(leaving);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(harness.sinkPlatformStream().queuedBufferCount(), 1U);
}

TEST(EmbeddedStreamTest, InjectedConsumeFaultsAnswerWithErrorsThenRecover) {
  ExtensionHarness harness;
  auto producer = harness.makeClient(42, "producer");
  harness.service().failNextConsumeRequests(2, "disk on fire");
  std::vector<std::string> answers;
  for (int i = 0; i < 3; ++i) {
    harness.sinkPlatformStream().consumeSampleBufferFromClient(
        producer,
        [&](const std::shared_ptr<platform::SampleBuffer>&, std::uint64_t,
            platform::StreamDiscontinuityFlags, bool, const std::optional<platform::Error>& error) {
          answers.push_back(error ? error->localizedDescriptionOrDefault() : "none");
        });
  }
  harness.runUntilIdle();
  EXPECT_EQ(answers, (std::vector<std::string>{"disk on fire", "disk on fire", "none"}));
}

}  // namespace
}  // namespace flowmere::embedded
