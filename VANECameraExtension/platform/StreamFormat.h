#pragma once

// A stream format: a video format description and its frame-duration limits. Immutable value;
// any thread.

#include <memory>
#include <optional>
#include <vector>

#include "platform/FormatDescription.h"
#include "platform/MediaTime.h"

namespace flowmere::platform {

struct StreamFormat {
  FormatDescription formatDescription;
  MediaTime maxFrameDuration;
  MediaTime minFrameDuration;
  std::optional<std::vector<MediaTime>> validFrameDurations;
};

// An ordered list of formats; streams share one list object and address entries by index.
using StreamFormatList = std::vector<StreamFormat>;

}  // namespace flowmere::platform
