#include <gtest/gtest.h>

#include "VendorIdentifiers.h"
#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

using platform::PropertySet;
using testing::ExtensionHarness;
using testing::HarnessOptions;

PropertySet names(std::initializer_list<std::string_view> list) {
  PropertySet set;
  for (auto name : list) {
    set.emplace(name);
  }
  return set;
}

TEST(ProviderSourceTest, PublishesOnlyTheManufacturerAndAcceptsEveryone) {
  ExtensionHarness harness;
  auto& provider = *harness.service().publishedProvider();
  EXPECT_EQ(provider.availableProperties(),
            names({platform::CMIOExtensionPropertyProviderManufacturer}));

  auto none = provider.getProperties(names({"SomethingElse"}));
  ASSERT_TRUE(none.ok());
  EXPECT_TRUE(none.value().propertiesDictionary().empty());
  EXPECT_TRUE(provider.getProperties({}).value().propertiesDictionary().empty());

  auto client = harness.makeClient(1, "c");
  for (int i = 0; i < 3; ++i) {
    provider.disconnect(client);  // disconnect before any connect is fine too
    EXPECT_TRUE(provider.connect(client).ok());
  }
  platform::ProviderProperties attempt;
  attempt.setManufacturer("Someone Else");
  EXPECT_TRUE(provider.setProperties(attempt).ok());

  auto answer = provider.getProperties(
      names({platform::CMIOExtensionPropertyProviderManufacturer, "SomethingElse"}));
  EXPECT_EQ(answer.value().manufacturer(), "Flowmere");
  EXPECT_EQ(answer.value().propertiesDictionary().size(), 1U);
}

TEST(DeviceSourceTest, AnswersOnlyTheRequestedDeviceProperties) {
  ExtensionHarness harness;
  auto& device = *harness.service().publishedProvider()->devices().front();
  EXPECT_EQ(device.availableProperties().size(), 3U);
  EXPECT_TRUE(device.getProperties({}).value().propertiesDictionary().empty());

  auto transport =
      device.getProperties(names({platform::CMIOExtensionPropertyDeviceTransportType}));
  EXPECT_EQ(transport.value().propertiesDictionary().size(), 1U);
  EXPECT_EQ(transport.value().transportType(), 1986622068);

  EXPECT_TRUE(device.setProperties(platform::DeviceProperties{}).ok());
  auto all = device.getProperties(device.availableProperties());
  EXPECT_EQ(all.value().model(), "com.flowmere.av.camera.model");
  EXPECT_EQ(all.value().linkedCoreAudioDeviceUID(), "com.flowmere.av.audio.input");
}

TEST(DeviceSourceTest, BuildsOneDeviceWithSourceThenSinkSharingOneCatalogue) {
  ExtensionHarness harness;
  ASSERT_EQ(harness.provider()->devices().size(), 1U);
  auto& deviceSource = harness.device();
  const auto published = harness.service().publishedProvider()->devices();
  ASSERT_EQ(published.size(), 1U);
  EXPECT_EQ(published.front(), deviceSource.platformDevice());
  EXPECT_EQ(published.front()->localizedName(), "Flowmere Camera");

  const auto streams = published.front()->streams();
  ASSERT_EQ(streams.size(), 2U);
  EXPECT_EQ(streams[0]->localizedName(), "Flowmere AV Camera Source");
  EXPECT_EQ(streams[0]->direction(), platform::StreamDirection::CMIOExtensionStreamDirectionSource);
  EXPECT_EQ(streams[1]->localizedName(), "Flowmere AV Camera Sink");
  EXPECT_EQ(streams[1]->direction(), platform::StreamDirection::CMIOExtensionStreamDirectionSink);

  EXPECT_EQ(deviceSource.sink()->linkedSourceStream(), deviceSource.source());
  EXPECT_EQ(deviceSource.sink()->formats(), deviceSource.source()->formats());
  EXPECT_EQ(deviceSource.sink()->formats()->size(), 10U);
  EXPECT_EQ(deviceSource.source()->snapshot().storedFormatIndex, 0);
  EXPECT_EQ(deviceSource.sink()->snapshot().storedFormatIndex, 0);

  const auto& sinkRecorder = deviceSource.sink()->metricsRecorder();
  const auto& sourceRecorder = deviceSource.source()->metricsRecorder();
  EXPECT_NE(sinkRecorder, sourceRecorder);
  EXPECT_EQ(sinkRecorder->snapshot().namespaceName, sourceRecorder->snapshot().namespaceName);
  EXPECT_TRUE(sinkRecorder->snapshot().hasDefaults);
}

TEST(DeviceSourceTest, ConsumeQueueLabelJoinsPrefixNamespaceAndSuffix) {
  EXPECT_EQ(VANEProbeExtensionDeviceSource::consumeQueueLabel(defaultDescriptor()),
            "com.flowmere.vane-cmio-probe.bridge.sink.consume");
  ExtensionHarness harness;
  EXPECT_EQ(harness.sink().queue()->label(), "com.flowmere.vane-cmio-probe.bridge.sink.consume");
}

TEST(DeviceSourceTest, RefusedSettingsSuiteLeavesRecordersWithoutOne) {
  embedded::EmbeddedFaults faults;
  faults.refuseSettingsSuite = true;
  ExtensionHarness harness(HarnessOptions{.faults = faults});
  EXPECT_FALSE(harness.sink().metricsRecorder()->snapshot().hasDefaults);
  EXPECT_FALSE(harness.source().metricsRecorder()->snapshot().hasDefaults);
}

using StartupDeathTest = ::testing::Test;

TEST(StartupDeathTest, RefusedSourceStreamIsFatal) {
  embedded::EmbeddedFaults faults;
  faults.refuseStreamNumber = 0;
  EXPECT_EXIT(ExtensionHarness(HarnessOptions{.faults = faults}), ::testing::ExitedWithCode(1),
              "^VANEProbeExtension: failed to add stream: Error Domain=NSOSStatusErrorDomain "
              "Code=1852797029 \"The camera service refused the stream.\"\n$");
}

TEST(StartupDeathTest, RefusedSinkStreamIsFatal) {
  embedded::EmbeddedFaults faults;
  faults.refuseStreamNumber = 1;
  EXPECT_EXIT(ExtensionHarness(HarnessOptions{.faults = faults}), ::testing::ExitedWithCode(1),
              "VANEProbeExtension: failed to add stream: ");
}

TEST(StartupDeathTest, RefusedDeviceIsFatal) {
  embedded::EmbeddedFaults faults;
  faults.refuseDevice = true;
  EXPECT_EXIT(ExtensionHarness(HarnessOptions{.faults = faults}), ::testing::ExitedWithCode(1),
              "VANEProbeExtension: failed to add device: ");
}

}  // namespace
}  // namespace flowmere
