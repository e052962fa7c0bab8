#include <gtest/gtest.h>

#include <chrono>

#include "common/MonotonicClock.h"
#include "common/MonotonicTime.h"

namespace flowmere::common {
namespace {

std::int64_t steadyNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The serial queue takes deadlines from monotonicNanoseconds and waits on steady_clock: the two
// must be one clock, or a queue would wake too early or too late.
TEST(MonotonicTimeTest, ReadsTheClockThatSteadyClockReads) {
  const std::int64_t before = steadyNanoseconds();
  const std::int64_t now = monotonicNanoseconds();
  const std::int64_t after = steadyNanoseconds();
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

TEST(MonotonicTimeTest, SleepToAPastDeadlineReturnsAtOnce) {
  const std::atomic<bool> cancelled{false};
  sleepUntil(monotonicNanoseconds() - 1'000'000'000);
  sleepUntil(0);
  sleepUntil(-1, cancelled);  // not a valid time: refused, not waited for
  SUCCEED();
}

TEST(MonotonicClockTest, HostTimeAndUptimeAreTheMonotonicClockInNanoseconds) {
  const MonotonicClock clock;
  const std::int64_t before = monotonicNanoseconds();
  const platform::MediaTime host = clock.hostTime();
  const double uptime = clock.systemUptime();
  const std::int64_t after = monotonicNanoseconds();
  EXPECT_EQ(host.timescale, platform::MediaTime::kNanosecondTimescale);
  EXPECT_GE(host.value, before);
  EXPECT_LE(host.value, after);
  EXPECT_GE(uptime, static_cast<double>(before) / 1e9);
  EXPECT_LE(uptime, static_cast<double>(after) / 1e9);
}

}  // namespace
}  // namespace flowmere::common
