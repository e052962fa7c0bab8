#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "platform/FormatDescription.h"
#include "platform/InlineFunction.h"
#include "platform/MediaTime.h"
#include "platform/PixelBuffer.h"
#include "platform/Properties.h"
#include "platform/Uuid.h"

namespace flowmere::platform {
namespace {

TEST(MediaTimeTest, SecondsAndNumericTestFollowTheFlags) {
  EXPECT_DOUBLE_EQ(MediaTime::make(900, 600).seconds(), 1.5);
  EXPECT_TRUE(MediaTime::make(900, 600).isNumeric());
  EXPECT_TRUE(std::isnan(MediaTime::invalid().seconds()));
  EXPECT_TRUE(std::isnan(MediaTime::indefinite().seconds()));
  EXPECT_EQ(MediaTime::positiveInfinity().seconds(), INFINITY);
  EXPECT_EQ(MediaTime::negativeInfinity().seconds(), -INFINITY);
  // Valid but with a zero timescale: no meaningful seconds value.
  EXPECT_TRUE(std::isnan(MediaTime::make(5, 0).seconds()));
  for (const MediaTime& time : {MediaTime::invalid(), MediaTime::indefinite(),
                                MediaTime::positiveInfinity(), MediaTime::negativeInfinity()}) {
    EXPECT_FALSE(time.isNumeric());
  }
}

TEST(UuidTest, RoundTripsCanonicalTextAndRejectsMalformedText) {
  const auto uuid = Uuid::fromString("0c4f2a7e-3b19-5d62-9a41-7e2b5c8d1f03");
  ASSERT_TRUE(uuid.has_value());
  EXPECT_EQ(uuid->toString(), "0C4F2A7E-3B19-5D62-9A41-7E2B5C8D1F03");
  EXPECT_FALSE(Uuid::fromString("0C4F2A7E-3B19-5D62-9A41-7E2B5C8D1F0").has_value());
  EXPECT_FALSE(Uuid::fromString("0C4F2A7E+3B19-5D62-9A41-7E2B5C8D1F03").has_value());
  EXPECT_FALSE(Uuid::fromString("0C4F2A7E-3B19-5D62-9A41-7E2B5C8D1FG3").has_value());
}

TEST(InlineFunctionTest, SmallClosuresStayInlineAndLargeOnesStillWork) {
  auto shared = std::make_shared<int>(7);
  InlineFunction<int(), 64> small = [shared] { return *shared; };
  InlineFunction<int(), 64> moved = std::move(small);
  EXPECT_FALSE(static_cast<bool>(small));  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(moved(), 7);
  EXPECT_EQ(shared.use_count(), 2);
  moved = nullptr;
  // Destroying the closure releases what it captured.
  EXPECT_EQ(shared.use_count(), 1);

  struct Big {
    char bytes[200] = {};
  };
  InlineFunction<int(), 64> big = [payload = Big{}, shared] { return payload.bytes[0] + *shared; };
  EXPECT_FALSE((InlineFunction<int(), 64>::fitsInline<Big>()));
  EXPECT_EQ(big(), 7);
}

TEST(PixelBufferTest, WrappedMemoryIsReleasedOnceWhenTheLastReferenceGoes) {
  std::byte memory[64] = {};
  int releases = 0;
  const PixelBufferPlane plane{memory, 16, 4, 4};
  auto buffer =
      PixelBuffer::wrap(4, 4, kCVPixelFormatType_32BGRA, {&plane, 1}, [&releases] { ++releases; });
  auto another = buffer;
  EXPECT_EQ(buffer->plane(0).data, memory);
  buffer.reset();
  EXPECT_EQ(releases, 0);
  another.reset();
  EXPECT_EQ(releases, 1);
}

TEST(PixelBufferTest, HdrLayoutHasLumaAndHalfHeightChroma) {
  auto buffer = PixelBuffer::create(3840, 2160, kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange);
  ASSERT_EQ(buffer->planeCount(), 2U);
  EXPECT_EQ(buffer->plane(0).bytesPerRow, 7680U);
  EXPECT_EQ(buffer->plane(1).height, 1080U);
  EXPECT_EQ(buffer->dataSize(), 7680U * 2160U * 3U / 2U);
}

TEST(FormatDescriptionTest, DerivedFromBufferCarriesOnlyPropagatingColourAttachments) {
  auto buffer = PixelBuffer::create(16, 8, kCVPixelFormatType_32BGRA);
  constexpr auto kPropagate = AttachmentMode::kCVAttachmentMode_ShouldPropagate;
  constexpr auto kKeep = AttachmentMode::kCVAttachmentMode_ShouldNotPropagate;
  buffer->setAttachment(kCVImageBufferTransferFunctionKey, "SMPTE_ST_2084_PQ", kPropagate);
  buffer->setAttachment(kCVImageBufferYCbCrMatrixKey, "ITU_R_2020", kKeep);
  buffer->setAttachment("Custom", "x", kPropagate);

  const auto description = createVideoFormatDescriptionForImageBuffer(*buffer);
  ASSERT_TRUE(description.has_value());
  EXPECT_EQ(description->dimensions(), (VideoDimensions{16, 8}));
  ASSERT_TRUE(description->extensions().has_value());
  EXPECT_EQ(description->extensions()->size(), 1U);
  EXPECT_EQ(description->extensions()->find(kCMFormatDescriptionExtension_TransferFunction),
            std::optional<ConstantString>("SMPTE_ST_2084_PQ"));

  // Setting an attachment again replaces it instead of adding a second entry.
  buffer->setAttachment(kCVImageBufferTransferFunctionKey, "ITU_R_2100_HLG", kPropagate);
  EXPECT_EQ(buffer->attachments().size(), 3U);
  EXPECT_FALSE(createVideoFormatDescriptionForImageBuffer(*PixelBuffer::create(16, 8, 0))
                   ->extensions()
                   .has_value());
}

TEST(PropertiesTest, TypedAccessorsReadOnlyMatchingValues) {
  StreamProperties properties;
  EXPECT_FALSE(properties.activeFormatIndex().has_value());
  properties.setFrameDuration(MediaTime::make(1, 30));
  EXPECT_FALSE(properties.activeFormatIndex().has_value());
  properties.setPropertyState(CMIOExtensionPropertyStreamActiveFormatIndex,
                              PropertyState{std::string("2"), std::nullopt});
  // A value of the wrong type is not an index.
  EXPECT_FALSE(properties.activeFormatIndex().has_value());
  properties.setActiveFormatIndex(2);
  EXPECT_EQ(properties.activeFormatIndex(), 2);
  EXPECT_EQ(describePropertySet({"b", "a"}), "[a, b]");
  EXPECT_EQ(describePropertySet({}), "[]");
}

}  // namespace
}  // namespace flowmere::platform
