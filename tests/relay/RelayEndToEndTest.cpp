#include <gtest/gtest.h>

#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

using platform::MediaTime;
using testing::ExtensionHarness;
using testing::HarnessOptions;

class RelayEndToEndTest : public ::testing::TestWithParam<std::size_t> {};

// 90 frames at 30 fps of one catalogue format reach the camera client unchanged and in time.
TEST_P(RelayEndToEndTest, ProducerFramesReachTheClientWithoutCopies) {
  const std::size_t format = GetParam();
  HarnessOptions options;
  options.settings = embedded::EmbeddedOptions::Settings::kSqlite;
  ExtensionHarness harness(options);
  auto producer = harness.makeClient(4242, "producer");
  auto viewer = harness.makeClient(7, "viewer");
  harness.sourcePlatformStream().setStreamingClients({viewer});
  ASSERT_TRUE(harness.sourcePlatformStream().start().ok());
  ASSERT_TRUE(harness.startProducer(producer, static_cast<std::int64_t>(format)).ok());

  // The producer cycles through a small pool of pixel buffers, as a real one would.
  std::vector<std::shared_ptr<platform::PixelBuffer>> pool;
  pool.reserve(4);
  for (int i = 0; i < 4; ++i) {
    pool.push_back(ExtensionHarness::makeFrameForFormat(format, {})->imageBuffer());
  }
  std::vector<const platform::PixelBuffer*> pushed;
  for (int k = 0; k < 90; ++k) {
    harness.advanceTo(100.0 + k / 30.0);
    auto frame = std::make_shared<platform::SampleBuffer>(
        pool[static_cast<std::size_t>(k) % pool.size()], std::nullopt,
        platform::SampleTimingInfo{MediaTime::make(1, 30), MediaTime::make(k, 30), {}});
    pushed.push_back(frame->imageBuffer().get());
    ASSERT_TRUE(harness.push(producer, frame, static_cast<std::uint64_t>(k + 1)));
  }
  harness.advanceBy(0.5);

  ASSERT_EQ(harness.sent.size(), 90U);
  ASSERT_EQ(harness.scheduledOutputs.size(), 90U);
  for (std::size_t k = 0; k < 90; ++k) {
    const auto& sent = harness.sent[k];
    EXPECT_EQ(sent.buffer->imageBuffer().get(), pushed[k]);  // the producer's own memory
    EXPECT_EQ(sent.buffer->presentationTimeStamp().value, sent.sentAtNanoseconds);
    EXPECT_EQ(sent.buffer->duration(), MediaTime::make(1, 30));
    EXPECT_FALSE(sent.buffer->decodeTimeStamp().isValid());
    EXPECT_EQ(harness.scheduledOutputs[k].sequenceNumber, k + 1);
    const auto& extensions = sent.buffer->formatDescription()->extensions();
    if (format >= 6) {
      ASSERT_TRUE(extensions.has_value());
      EXPECT_EQ(extensions->find(platform::kCMFormatDescriptionExtension_TransferFunction),
                std::optional<platform::ConstantString>(format % 2 == 1 ? "SMPTE_ST_2084_PQ"
                                                                        : "ITU_R_2100_HLG"));
      EXPECT_EQ(extensions->size(), 3U);
    } else {
      EXPECT_FALSE(extensions.has_value());
    }
  }
  // Frames leave spaced as their time stamps are.
  EXPECT_NEAR(harness.sent[89].sentAtNanoseconds - harness.sent[0].sentAtNanoseconds,
              89'000'000'000.0 / 30, 2'000'000);
  EXPECT_EQ(harness.readStateFile("bridge_frames_received"), "90");
  // The 90th frame published "received 90"; the empty poll after it took the status over.
  EXPECT_EQ(harness.logsStartingWith("received 90", false).size(), 0U);
  EXPECT_EQ(harness.readStateFile("bridge_extension_status"), "sink waiting for buffers polls=1");
  const auto statuses = [&] {
    std::vector<std::string> texts;
    for (const auto& [name, text] : harness.fileWrites) {
      if (name == "bridge_extension_status" && text.rfind("received", 0) == 0) {
        texts.push_back(text);
      }
    }
    return texts;
  }();
  EXPECT_EQ(statuses,
            (std::vector<std::string>{"received 1", "received 30", "received 60", "received 90"}));
  EXPECT_EQ(harness.lastSetting("bridge_frames_received"),
            platform::PropertyValue(std::int64_t{90}));
  EXPECT_EQ(harness.logsStartingWith("sink received frame=1 sequence=1 pts=0.0 clients=").size(),
            1U);
}

INSTANTIATE_TEST_SUITE_P(AllFormats, RelayEndToEndTest, ::testing::Range<std::size_t>(0, 10));

}  // namespace
}  // namespace flowmere
