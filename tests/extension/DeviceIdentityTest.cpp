#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "DeviceIdentity.h"

namespace flowmere {
namespace {

TEST(DeviceIdentityTest, DefaultDescriptorHoldsThePublishedIdentity) {
  const FlowmereCameraDeviceDescriptor& descriptor = defaultDescriptor();
  EXPECT_EQ(descriptor.role, FlowmereCameraRole::compatibility);
  EXPECT_EQ(descriptor.localizedName, "Flowmere Camera");
  EXPECT_EQ(descriptor.deviceID.toString(), "0C4F2A7E-3B19-5D62-9A41-7E2B5C8D1F03");
  EXPECT_EQ(descriptor.sourceStreamName, "Flowmere AV Camera Source");
  EXPECT_EQ(descriptor.sourceStreamID.toString(), "A83D6E15-C2F0-5B47-8E19-24D6B0F3A9C5");
  EXPECT_EQ(descriptor.sinkStreamName, "Flowmere AV Camera Sink");
  EXPECT_EQ(descriptor.sinkStreamID.toString(), "6E91B2D4-0F7A-5C38-B2E6-D45A8C1E7B20");
  EXPECT_EQ(descriptor.model, "com.flowmere.av.camera.model");
  EXPECT_EQ(descriptor.linkedCoreAudioDeviceUID, "com.flowmere.av.audio.input");
  EXPECT_EQ(descriptor.metricsNamespace, "bridge");
  // The three identifiers are distinct.
  EXPECT_EQ((std::set<platform::Uuid>{descriptor.deviceID, descriptor.sourceStreamID,
                                      descriptor.sinkStreamID})
                .size(),
            3U);
}

TEST(DeviceIdentityTest, DescriptorListIsOneCopyOfTheDefault) {
  ASSERT_EQ(allDescriptors().size(), 1U);
  EXPECT_EQ(allDescriptors().front(), defaultDescriptor());
  EXPECT_NE(&allDescriptors().front(), &defaultDescriptor());
}

// Racing first uses must all see the one value built once.
TEST(DeviceIdentityTest, SharedValuesAreBuiltOnceUnderConcurrentFirstUse) {
  std::vector<const FlowmereCameraDeviceDescriptor*> seenDefault(8);
  std::vector<const std::vector<FlowmereCameraDeviceDescriptor>*> seenList(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seenDefault.size(); ++i) {
    threads.emplace_back([&, i] {
      seenList[i] = &allDescriptors();
      seenDefault[i] = &defaultDescriptor();
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(std::set(seenDefault.begin(), seenDefault.end()).size(), 1U);
  EXPECT_EQ(std::set(seenList.begin(), seenList.end()).size(), 1U);
}

TEST(AudioDestinationTest, OnlyRawValueZeroIsACase) {
  ASSERT_TRUE(VANEAudioDestination::fromRawValue(0).has_value());
  EXPECT_EQ(*VANEAudioDestination::fromRawValue(0), VANEAudioDestination::compatibility);
  EXPECT_FALSE(VANEAudioDestination::fromRawValue(1).has_value());
  EXPECT_FALSE(VANEAudioDestination::fromRawValue(-1).has_value());
  ASSERT_EQ(VANEAudioDestination::allCases().size(), 1U);
  const VANEAudioDestination destination = VANEAudioDestination::compatibility;
  EXPECT_EQ(destination.deviceUID(), defaultDescriptor().linkedCoreAudioDeviceUID);
  EXPECT_EQ(destination.displayName(), "Flowmere Audio");
}

}  // namespace
}  // namespace flowmere
