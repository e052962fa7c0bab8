#pragma once

// CLOCK_MONOTONIC in nanoseconds, and sleeps to an absolute point on it: the time base of the
// real-time serial queue, the real-time clock and the programs that pace frames. Any thread.

#include <atomic>
#include <cstdint>

namespace flowmere::common {

// Nanoseconds on CLOCK_MONOTONIC (std::chrono::steady_clock reads the same clock on Linux).
[[nodiscard]] std::int64_t monotonicNanoseconds();

// Sleeps until CLOCK_MONOTONIC reaches `deadlineNanoseconds`; returns at once for a deadline in
// the past. An absolute deadline keeps a paced loop from drifting by the time each step takes.
// A signal does not end the sleep early.
void sleepUntil(std::int64_t deadlineNanoseconds);

// As above, but a signal ends the sleep early once its handler has set `cancelled` (Ctrl-C in a
// program that paces frames).
void sleepUntil(std::int64_t deadlineNanoseconds, const std::atomic<bool>& cancelled);

}  // namespace flowmere::common
