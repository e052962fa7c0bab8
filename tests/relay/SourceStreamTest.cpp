#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>

#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

using platform::MediaTime;
using testing::ExtensionHarness;

platform::StreamProperties indexProperties(std::int64_t index) {
  platform::StreamProperties properties;
  properties.setActiveFormatIndex(index);
  return properties;
}

// One row of the set rules: pinned or not, started or not, same or different index.
struct SetCase {
  bool pinned;
  bool started;
  bool sameIndex;
  const char* refusal;  // null: accepted
};

class SourceSetRulesTest : public ::testing::TestWithParam<SetCase> {};

TEST_P(SourceSetRulesTest, FollowsThePinAndStartedRules) {
  const SetCase& c = GetParam();
  ExtensionHarness harness;
  auto& source = harness.source();
  ASSERT_TRUE(harness.sourcePlatformStream().setProperties(indexProperties(2)).ok());
  if (c.pinned) {
    ASSERT_TRUE(source.adoptProducerFormatIndex(2).ok());
  }
  if (c.started) {
    ASSERT_TRUE(harness.sourcePlatformStream().start().ok());
  }
  const std::size_t noticesBefore = harness.propertyChanges.size();
  const platform::Status status =
      harness.sourcePlatformStream().setProperties(indexProperties(c.sameIndex ? 2 : 3));
  if (c.refusal == nullptr) {
    EXPECT_TRUE(status.ok());
    EXPECT_EQ(source.snapshot().storedFormatIndex, c.sameIndex ? 2 : 3);
  } else {
    ASSERT_FALSE(status.ok());
    EXPECT_EQ(status.error().code, platform::kCMIOHardwareIllegalOperationError);
    EXPECT_EQ(status.error().localizedDescription, c.refusal);
    EXPECT_EQ(source.snapshot().storedFormatIndex, 2);
  }
  // A client's change is never announced.
  EXPECT_EQ(harness.propertyChanges.size(), noticesBefore);
}

constexpr const char* kPinned = "The producer selected this session's camera format.";
constexpr const char* kStarted = "Stop capture before changing camera orientation.";
INSTANTIATE_TEST_SUITE_P(
    AllStates, SourceSetRulesTest,
    ::testing::Values(SetCase{false, false, false, nullptr}, SetCase{false, false, true, nullptr},
                      SetCase{false, true, false, kStarted}, SetCase{false, true, true, nullptr},
                      SetCase{true, false, false, kPinned}, SetCase{true, false, true, nullptr},
                      SetCase{true, true, false, kPinned}, SetCase{true, true, true, nullptr}));

TEST(SourceStreamTest, OutOfRangeAndAbsentIndicesAreHandledAndLogged) {
  ExtensionHarness harness;
  auto& stream = harness.sourcePlatformStream();
  for (std::int64_t index : {-1, 10}) {
    const platform::Status status = stream.setProperties(indexProperties(index));
    ASSERT_FALSE(status.ok());
    EXPECT_EQ(status.error().code, platform::kCMIOHardwareUnsupportedOperationError);
    EXPECT_FALSE(status.error().localizedDescription.has_value());
  }
  platform::StreamProperties durationOnly;
  durationOnly.setFrameDuration(MediaTime::make(1, 60));
  EXPECT_TRUE(stream.setProperties(durationOnly).ok());
  EXPECT_EQ(harness.logsStartingWith("source setStreamProperties activeFormatIndex=").size(), 3U);
  EXPECT_EQ(harness
                .logsStartingWith("source setStreamProperties activeFormatIndex=nil clients="
                                  "count=0 clients=[]")
                .size(),
            1U);
  EXPECT_EQ(harness.source().snapshot().storedFormatIndex, 0);
}

TEST(SourceStreamTest, AdoptAnnouncesOnlyChangesAndClearKeepsTheIndex) {
  ExtensionHarness harness;
  auto& source = harness.source();
  EXPECT_FALSE(source.adoptProducerFormatIndex(10).ok());
  EXPECT_TRUE(harness.propertyChanges.empty());

  ASSERT_TRUE(source.adoptProducerFormatIndex(4).ok());
  ASSERT_TRUE(source.adoptProducerFormatIndex(4).ok());
  ASSERT_EQ(harness.propertyChanges.size(), 1U);
  const auto& notice = harness.propertyChanges.front().second;
  ASSERT_EQ(notice.size(), 2U);
  EXPECT_EQ(notice.at(std::string(platform::CMIOExtensionPropertyStreamActiveFormatIndex)).value,
            platform::PropertyValue(std::int64_t{4}));
  EXPECT_EQ(notice.at(std::string(platform::CMIOExtensionPropertyStreamFrameDuration)).value,
            platform::PropertyValue(platform::MediaTimeDictionary{MediaTime::make(1, 30)}));

  source.clearProducerFormatIndex();
  EXPECT_EQ(source.snapshot().storedFormatIndex, 4);
  EXPECT_FALSE(source.snapshot().producerFormatIndex.has_value());
  ASSERT_TRUE(source.adoptProducerFormatIndex(4).ok());
  EXPECT_EQ(harness.propertyChanges.size(), 2U);  // after a clear, the pin is announced again
}

TEST(SourceStreamTest, TimelineOnlyReadsAreQuietAndReadOnly) {
  ExtensionHarness harness;
  auto& stream = harness.sourcePlatformStream();
  auto timeline = stream.getProperties({timelineMetadataProperty()});
  EXPECT_TRUE(harness.logsStartingWith("source streamProperties").empty());
  const platform::PropertyState* state = timeline.value().propertyState(timelineMetadataProperty());
  ASSERT_NE(state, nullptr);
  EXPECT_EQ(state->value, platform::PropertyValue(std::string("{}")));
  EXPECT_EQ(state->attributes, platform::PropertyAttributes::readOnlyPropertyAttribute());

  auto both =
      stream.getProperties({timelineMetadataProperty(), "Unknown",
                            std::string(platform::CMIOExtensionPropertyStreamFrameDuration)});
  EXPECT_EQ(harness.logsStartingWith("source streamProperties").size(), 1U);
  EXPECT_EQ(both.value().frameDuration(), MediaTime::make(1, 30));
  EXPECT_EQ(both.value().propertiesDictionary().size(), 2U);
}

TEST(SourceStreamTest, StartLogsOnceAndEveryStopLogs) {
  ExtensionHarness harness;
  auto& stream = harness.sourcePlatformStream();
  ASSERT_TRUE(stream.stop().ok());
  ASSERT_TRUE(stream.start().ok());
  ASSERT_TRUE(stream.start().ok());
  ASSERT_TRUE(stream.stop().ok());
  EXPECT_EQ(harness.logsStartingWith("source startStream started=true clients=").size(), 1U);
  EXPECT_EQ(harness.logsStartingWith("source stopStream started=false clients=").size(), 2U);
  EXPECT_EQ(harness.logsStartingWith("source started", false).size(), 1U);
  EXPECT_EQ(harness.lastSetting("bridge_extension_status"),
            platform::PropertyValue(std::string("source stopped")));
}

TEST(TimelineTest, ThrottlesOnUptimeAndSkipsUnusableTimeStamps) {
  ExtensionHarness harness;
  auto& source = harness.source();
  source.publishTimelineMetadata(MediaTime::make(900, 600), 77);
  const auto first = nlohmann::json::parse(source.snapshot().timelineValue);
  EXPECT_EQ(first, (nlohmann::json{{"version", 1},
                                   {"value", 900},
                                   {"scale", 600},
                                   {"hostSeconds", 100.0},
                                   {"producerPID", 77}}));

  harness.advanceBy(0.05);
  source.publishTimelineMetadata(MediaTime::make(1, 1), 77);
  EXPECT_EQ(nlohmann::json::parse(source.snapshot().timelineValue)["value"], 900);

  // Unusable stamps neither publish nor take the throttle slot.
  harness.advanceBy(0.04);
  for (MediaTime unusable : {MediaTime::invalid(), MediaTime::indefinite(),
                             MediaTime::positiveInfinity(), MediaTime::make(5, 0)}) {
    source.publishTimelineMetadata(unusable, 77);
  }
  EXPECT_EQ(source.snapshot().lastTimelineMetadataTime, 100.0);
  source.publishTimelineMetadata(MediaTime::make(2, 1), -1);
  const auto third = nlohmann::json::parse(source.snapshot().timelineValue);
  EXPECT_EQ(third["value"], 2);
  EXPECT_EQ(third["producerPID"], -1);
  EXPECT_EQ(harness.propertyChanges.size(), 2U);

  source.resetTimelineMetadata();
  EXPECT_EQ(source.snapshot().timelineValue, "{}");
  EXPECT_EQ(harness.propertyChanges.size(), 2U);  // a reset is not announced
}

// 100.091 - 100.001 is 0.08999999999999 in doubles; a frame exactly 90 ms after the last
// publication must still publish, whatever the uptime it happens at.
TEST(TimelineTest, PublishesAgainExactlyNinetyMillisecondsLater) {
  for (const double start : {100.001, 100.003, 123.456, 4000.017}) {
    ExtensionHarness harness;
    auto& source = harness.source();
    harness.advanceTo(start);
    source.publishTimelineMetadata(MediaTime::make(1, 30), 77);
    harness.advanceTo(start + 0.09);
    source.publishTimelineMetadata(MediaTime::make(2, 30), 77);
    EXPECT_EQ(harness.propertyChanges.size(), 2U) << "start " << start;
  }
}

// The text is built by hand on the frame path; it must stay byte for byte what the JSON library
// writes for the same object, for every uptime and the extremes of the integers.
TEST(TimelineTest, TextIsTheLibrarysOwnSerialisation) {
  struct Case {
    double uptime = 0;
    MediaTime time;
    std::int32_t pid = 0;
  };
  for (const Case& c : {Case{100.001, MediaTime::make(1, 30), 77},
                        Case{123.456789, MediaTime::make(INT64_MAX, 1), INT32_MAX},
                        Case{4000.017, MediaTime::make(INT64_MIN + 1, INT32_MAX), INT32_MIN},
                        Case{1e9 + 0.1, MediaTime::make(-5, 7), -1}}) {
    ExtensionHarness harness;
    harness.advanceTo(c.uptime);
    harness.source().publishTimelineMetadata(c.time, c.pid);
    const std::string text = harness.source().snapshot().timelineValue;
    const auto parsed = nlohmann::json::parse(text);
    EXPECT_EQ(parsed.dump(), text);
    EXPECT_EQ(parsed["value"], c.time.value);
    EXPECT_EQ(parsed["scale"], c.time.timescale);
    EXPECT_EQ(parsed["producerPID"], c.pid);
    EXPECT_EQ(parsed["hostSeconds"].get<double>(),
              harness.source().snapshot().lastTimelineMetadataTime);
  }
}

TEST(ForwardingTest, DropsWrongSizesAndImagelessBuffersSilently) {
  ExtensionHarness harness;
  auto& source = harness.source();
  source.forwardSampleBuffer(
      ExtensionHarness::makeFrame(1280, 720, platform::kCVPixelFormatType_32BGRA, {}));
  source.forwardSampleBuffer(std::make_shared<platform::SampleBuffer>(
      nullptr, std::nullopt, platform::SampleTimingInfo{}));
  EXPECT_TRUE(harness.sent.empty());
  EXPECT_EQ(source.snapshot().sentFrameCount, 0U);
  EXPECT_TRUE(harness.logsStartingWith("source send").empty());
}

TEST(ForwardingTest, SdrKeepsProducerAttachmentsAndSendLogsFollowTheCadence) {
  ExtensionHarness harness;
  auto& source = harness.source();
  auto frame = ExtensionHarness::makeFrameForFormat(0, MediaTime::make(5, 1));
  frame->imageBuffer()->setAttachment("ProducerNote", "kept",
                                      platform::AttachmentMode::kCVAttachmentMode_ShouldPropagate);
  for (int i = 0; i < 600; ++i) {
    source.forwardSampleBuffer(frame);
    harness.advanceBy(0.001);
  }
  ASSERT_EQ(harness.sent.size(), 600U);
  EXPECT_EQ(frame->imageBuffer()->attachments().size(), 1U);
  const auto logs = harness.logsStartingWith("source send frame=");
  ASSERT_EQ(logs.size(), 3U);
  EXPECT_EQ(logs[0].rfind("[VANE-EXT] source send frame=1 pts=100.0 hostTime=100000000000 "
                          "clients=count=0 clients=[]",
                          0),
            0U);
  EXPECT_EQ(logs[1].rfind("[VANE-EXT] source send frame=300 ", 0), 0U);
  EXPECT_EQ(logs[2].rfind("[VANE-EXT] source send frame=600 ", 0), 0U);
}

}  // namespace
}  // namespace flowmere
