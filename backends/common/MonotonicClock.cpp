#include "MonotonicClock.h"

#include "MonotonicTime.h"

namespace flowmere::common {

platform::MediaTime MonotonicClock::hostTime() const {
  return platform::MediaTime::make(monotonicNanoseconds(),
                                   platform::MediaTime::kNanosecondTimescale);
}

double MonotonicClock::systemUptime() const {
  return static_cast<double>(monotonicNanoseconds()) / 1e9;
}

}  // namespace flowmere::common
