#pragma once

// The camera services' log: each line goes whole to the owner's sink, or to standard error with a
// newline when there is none. Any thread; `mutex_` keeps lines from interleaving.

#include <functional>
#include <mutex>
#include <string_view>

#include "platform/Services.h"

namespace flowmere::common {

class LineLog final : public platform::Log {
 public:
  explicit LineLog(std::function<void(std::string_view)> sink) : sink_(std::move(sink)) {}
  void write(std::string_view message) override;

 private:
  std::mutex mutex_;
  const std::function<void(std::string_view)> sink_;  // set once; calls under mutex_
};

}  // namespace flowmere::common
