#pragma once

// The embedded camera service's clock in virtual time (real time is common::MonotonicClock).

#include "ManualExecutor.h"
#include "platform/Services.h"

namespace flowmere::embedded {

// The host clock and system uptime, both read from the executor's virtual time.
class VirtualClock final : public platform::Clock {
 public:
  explicit VirtualClock(const ManualExecutor& executor) : executor_(executor) {}
  [[nodiscard]] platform::MediaTime hostTime() const override;
  [[nodiscard]] double systemUptime() const override;

 private:
  const ManualExecutor& executor_;
};

}  // namespace flowmere::embedded
