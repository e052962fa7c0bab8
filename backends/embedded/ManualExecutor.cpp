#include "ManualExecutor.h"

#include <algorithm>

namespace flowmere::embedded {

std::int64_t ManualExecutor::nowNanoseconds() const {
  const platform::Locker lock(mutex_);
  return now_;
}

void ManualExecutor::schedule(std::int64_t deadlineNanoseconds, platform::Work&& work) {
  const platform::Locker lock(mutex_);
  items_.push(deadlineNanoseconds, std::move(work));
}

void ManualExecutor::advanceTo(std::int64_t timeNanoseconds) {
  while (true) {
    platform::Work work;
    {
      const platform::Locker lock(mutex_);
      if (items_.empty() || items_.nextDeadline() > timeNanoseconds) {
        if (timeNanoseconds > now_) {
          now_ = timeNanoseconds;
        }
        return;
      }
      now_ = std::max(now_, items_.nextDeadline());
      work = items_.pop();
    }
    work();
  }
}

void ManualExecutor::runAllUntil(std::int64_t limitNanoseconds) {
  while (true) {
    const std::optional<std::int64_t> next = nextDeadline();
    if (!next || *next > limitNanoseconds) {
      advanceTo(limitNanoseconds);
      return;
    }
    advanceTo(*next);
  }
}

std::optional<std::int64_t> ManualExecutor::nextDeadline() const {
  const platform::Locker lock(mutex_);
  if (items_.empty()) {
    return std::nullopt;
  }
  return items_.nextDeadline();
}

std::size_t ManualExecutor::pendingCount() const {
  const platform::Locker lock(mutex_);
  return items_.size();
}

}  // namespace flowmere::embedded
