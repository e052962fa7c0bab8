#include "formats/FormatCatalogue.h"

#include <array>
#include <cstdio>
#include <cstdlib>

#include "platform/FourCharCode.h"

namespace flowmere {

namespace {

using platform::FormatDescriptionExtensions;
using platform::MediaTime;
using platform::StreamFormat;

struct SdrSize {
  std::int32_t width;
  std::int32_t height;
};

struct HdrSize {
  std::int32_t width;
  std::int32_t height;
  bool usesPQ;
};

constexpr std::array<SdrSize, 6> kSdrSizes{{
    {1920, 1080},
    {1080, 1920},
    {1280, 720},
    {720, 1280},
    {3840, 2160},
    {2160, 3840},
}};

constexpr std::array<HdrSize, 4> kHdrSizes{{
    {3840, 2160, false},
    {3840, 2160, true},
    {1920, 1080, false},
    {1920, 1080, true},
}};

StreamFormat wrap(std::optional<platform::FormatDescription> description, MediaTime frameDuration) {
  if (!description) {
    // Unreachable with the constant sizes above; a shorter catalogue would shift every index.
    std::fputs("VANEProbeExtension: could not describe a catalogue format\n", stderr);
    std::abort();
  }
  return StreamFormat{*description, frameDuration, frameDuration, std::nullopt};
}

}  // namespace

std::shared_ptr<const platform::StreamFormatList> makeFormatCatalogue() {
  const MediaTime frameDuration = MediaTime::make(1, 30);

  platform::StreamFormatList sdr;
  sdr.reserve(kSdrSizes.size());
  for (const SdrSize& size : kSdrSizes) {
    sdr.push_back(
        wrap(platform::createVideoFormatDescription(platform::kCVPixelFormatType_32BGRA, size.width,
                                                    size.height, std::nullopt),
             frameDuration));
  }

  platform::StreamFormatList hdr;
  hdr.reserve(kHdrSizes.size());
  for (const HdrSize& size : kHdrSizes) {
    FormatDescriptionExtensions extensions;
    extensions.set(platform::kCMFormatDescriptionExtension_ColorPrimaries,
                   platform::kCMFormatDescriptionColorPrimaries_ITU_R_2020);
    extensions.set(platform::kCMFormatDescriptionExtension_TransferFunction,
                   size.usesPQ ? platform::kCMFormatDescriptionTransferFunction_SMPTE_ST_2084_PQ
                               : platform::kCMFormatDescriptionTransferFunction_ITU_R_2100_HLG);
    extensions.set(platform::kCMFormatDescriptionExtension_YCbCrMatrix,
                   platform::kCMFormatDescriptionYCbCrMatrix_ITU_R_2020);
    hdr.push_back(wrap(platform::createVideoFormatDescription(
                           platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange, size.width,
                           size.height, extensions),
                       frameDuration));
  }

  auto catalogue = std::make_shared<platform::StreamFormatList>(std::move(sdr));
  catalogue->insert(catalogue->end(), hdr.begin(), hdr.end());
  return catalogue;
}

}  // namespace flowmere
