#include "MonotonicTime.h"

#include <cerrno>
#include <ctime>

namespace flowmere::common {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// True when the sleep was cut short by a signal.
bool sleepOnce(std::int64_t deadlineNanoseconds) {
  const timespec deadline{static_cast<time_t>(deadlineNanoseconds / kNanosecondsPerSecond),
                          static_cast<long>(deadlineNanoseconds % kNanosecondsPerSecond)};
  return clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR;
}

}  // namespace

std::int64_t monotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * kNanosecondsPerSecond + now.tv_nsec;
}

void sleepUntil(std::int64_t deadlineNanoseconds) {
  while (sleepOnce(deadlineNanoseconds)) {
  }
}

void sleepUntil(std::int64_t deadlineNanoseconds, const std::atomic<bool>& cancelled) {
  while (sleepOnce(deadlineNanoseconds) && !cancelled.load()) {
  }
}

}  // namespace flowmere::common
