#include <gtest/gtest.h>

#include "formats/FormatCatalogue.h"

namespace flowmere {
namespace {

using platform::kCVPixelFormatType_32BGRA;
using platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange;

struct Expected {
  std::int32_t width;
  std::int32_t height;
  platform::FourCharCode pixelFormat;
  const char* transfer;  // null for SDR
};

constexpr Expected kExpected[] = {
    {1920, 1080, kCVPixelFormatType_32BGRA, nullptr},
    {1080, 1920, kCVPixelFormatType_32BGRA, nullptr},
    {1280, 720, kCVPixelFormatType_32BGRA, nullptr},
    {720, 1280, kCVPixelFormatType_32BGRA, nullptr},
    {3840, 2160, kCVPixelFormatType_32BGRA, nullptr},
    {2160, 3840, kCVPixelFormatType_32BGRA, nullptr},
    {3840, 2160, kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange, "ITU_R_2100_HLG"},
    {3840, 2160, kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange, "SMPTE_ST_2084_PQ"},
    {1920, 1080, kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange, "ITU_R_2100_HLG"},
    {1920, 1080, kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange, "SMPTE_ST_2084_PQ"},
};

class FormatCatalogueTest : public ::testing::TestWithParam<std::size_t> {
 protected:
  static inline const std::shared_ptr<const platform::StreamFormatList> catalogue =
      makeFormatCatalogue();
};

TEST_P(FormatCatalogueTest, EntryHasItsSizeFormatColourAndThirtyFramesPerSecond) {
  const std::size_t index = GetParam();
  ASSERT_EQ(catalogue->size(), kFormatCatalogueSize);
  const Expected& expected = kExpected[index];
  const platform::StreamFormat& format = (*catalogue)[index];
  EXPECT_EQ(format.formatDescription.dimensions(),
            (platform::VideoDimensions{expected.width, expected.height}));
  EXPECT_EQ(format.formatDescription.codecType(), expected.pixelFormat);
  EXPECT_EQ(format.minFrameDuration, platform::MediaTime::make(1, 30));
  EXPECT_EQ(format.maxFrameDuration, platform::MediaTime::make(1, 30));
  EXPECT_FALSE(format.validFrameDurations.has_value());

  const auto& extensions = format.formatDescription.extensions();
  if (expected.transfer == nullptr) {
    EXPECT_FALSE(extensions.has_value());
    return;
  }
  ASSERT_TRUE(extensions.has_value());
  EXPECT_EQ(extensions->size(), 3U);
  EXPECT_EQ(extensions->find(platform::kCMFormatDescriptionExtension_ColorPrimaries),
            std::optional<platform::ConstantString>("ITU_R_2020"));
  EXPECT_EQ(extensions->find(platform::kCMFormatDescriptionExtension_TransferFunction),
            std::optional<platform::ConstantString>(expected.transfer));
  EXPECT_EQ(extensions->find(platform::kCMFormatDescriptionExtension_YCbCrMatrix),
            std::optional<platform::ConstantString>("ITU_R_2020"));
}

INSTANTIATE_TEST_SUITE_P(AllEntries, FormatCatalogueTest,
                         ::testing::Range<std::size_t>(0, kFormatCatalogueSize));

TEST(FormatIndexTest, OnlyPositionsOfTheListAreValid) {
  const auto catalogue = makeFormatCatalogue();
  EXPECT_TRUE(isValidFormatIndex(*catalogue, 0));
  EXPECT_TRUE(isValidFormatIndex(*catalogue, 9));
  EXPECT_FALSE(isValidFormatIndex(*catalogue, 10));
  EXPECT_FALSE(isValidFormatIndex(*catalogue, -1));
  EXPECT_FALSE(isValidFormatIndex(*catalogue, INT64_MIN));
}

}  // namespace
}  // namespace flowmere
