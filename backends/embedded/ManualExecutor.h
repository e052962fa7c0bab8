#pragma once

// The embedded camera service's virtual time: work scheduled against a clock that moves only
// when its owner advances it (tests and the scripted simulator).

#include <cstdint>
#include <optional>

#include "common/DeadlineQueue.h"
#include "platform/Services.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::embedded {

// Virtual time and the work scheduled against it. Advancing time runs every work item that falls
// due, in deadline order (equal deadlines in submission order), on the calling thread; the clock
// reads each item's deadline while it runs. Work may schedule more work; whatever falls due
// within the same advance runs in that advance.
//
// Threading: scheduling is allowed from any thread (`mutex_` guards `now_` and `items_`); advancing
// must happen on one thread at a time, normally the test's or the simulator's only thread.
class ManualExecutor {
 public:
  explicit ManualExecutor(std::int64_t startNanoseconds) : now_(startNanoseconds) {}

  [[nodiscard]] std::int64_t nowNanoseconds() const EXCLUDES(mutex_);
  // Runs `work` once virtual time reaches `deadline` (at once, on the next advance, if earlier).
  void schedule(std::int64_t deadlineNanoseconds, platform::Work&& work) EXCLUDES(mutex_);
  // Runs everything due up to and including `time`, then sets the clock to `time` (never back).
  void advanceTo(std::int64_t timeNanoseconds) EXCLUDES(mutex_);
  void advanceBy(std::int64_t nanoseconds) { advanceTo(nowNanoseconds() + nanoseconds); }
  // Runs everything due now, including work that it schedules for now.
  void runUntilIdle() { advanceTo(nowNanoseconds()); }
  // Keeps advancing to the next deadline until nothing is pending or `limit` is reached.
  void runAllUntil(std::int64_t limitNanoseconds);
  [[nodiscard]] std::optional<std::int64_t> nextDeadline() const EXCLUDES(mutex_);
  [[nodiscard]] std::size_t pendingCount() const EXCLUDES(mutex_);

 private:
  mutable platform::Mutex mutex_;
  std::int64_t now_ GUARDED_BY(mutex_);
  common::DeadlineQueue items_ GUARDED_BY(mutex_);
};

}  // namespace flowmere::embedded
