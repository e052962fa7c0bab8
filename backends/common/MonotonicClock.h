#pragma once

// The real-time clock of the camera services: CLOCK_MONOTONIC for both the host clock and the
// system uptime. Stateless; any thread.

#include "platform/Services.h"

namespace flowmere::common {

class MonotonicClock final : public platform::Clock {
 public:
  [[nodiscard]] platform::MediaTime hostTime() const override;
  [[nodiscard]] double systemUptime() const override;
};

}  // namespace flowmere::common
