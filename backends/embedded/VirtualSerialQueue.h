#pragma once

// A serial queue on the manual executor's virtual time, for the embedded camera service in
// virtual time (the real-time queue is common::ThreadSerialQueue).

#include <string>

#include "VirtualClock.h"
#include "platform/Services.h"

namespace flowmere::embedded {

// Work runs when the executor is advanced past its deadline; since the executor runs everything
// on one thread, the queue is serial by construction. Any thread may submit; the executor's
// mutex guards the pending work, and the queue holds no state of its own beyond its label.
class VirtualSerialQueue final : public platform::SerialQueue {
 public:
  VirtualSerialQueue(std::string label, ManualExecutor& executor)
      : label_(std::move(label)), executor_(executor) {}

  [[nodiscard]] const std::string& label() const override { return label_; }
  void async(platform::Work work) override;
  void asyncAfter(std::chrono::nanoseconds delay, platform::Work work) override;

 private:
  const std::string label_;
  ManualExecutor& executor_;
};

}  // namespace flowmere::embedded
