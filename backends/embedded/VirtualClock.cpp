#include "VirtualClock.h"

namespace flowmere::embedded {

platform::MediaTime VirtualClock::hostTime() const {
  return platform::MediaTime::make(executor_.nowNanoseconds(),
                                   platform::MediaTime::kNanosecondTimescale);
}

double VirtualClock::systemUptime() const {
  return static_cast<double>(executor_.nowNanoseconds()) / 1e9;
}

}  // namespace flowmere::embedded
