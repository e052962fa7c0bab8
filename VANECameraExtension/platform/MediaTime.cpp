#include "platform/MediaTime.h"

#include <limits>

namespace flowmere::platform {

double MediaTime::seconds() const {
  if (!isValid() || (flags & kIndefinite) != 0) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  if ((flags & kPositiveInfinity) != 0) {
    return std::numeric_limits<double>::infinity();
  }
  if ((flags & kNegativeInfinity) != 0) {
    return -std::numeric_limits<double>::infinity();
  }
  if (timescale == 0) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  return static_cast<double>(value) / static_cast<double>(timescale);
}

}  // namespace flowmere::platform
