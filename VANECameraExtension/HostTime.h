#pragma once

// Host time in nanoseconds, as frames and scheduled outputs carry it: seconds x 1e9, truncated
// toward zero to an unsigned 64-bit integer.

#include <cstdint>

namespace flowmere {

// 0 for a value that does not fit (not finite, below -1 ns, or from 2^64 ns on); the host clock
// never gives one.
inline std::uint64_t hostTimeInNanoseconds(double seconds) {
  constexpr double kTwoToThe64 = 18446744073709551616.0;
  const double nanoseconds = seconds * 1000000000.0;
  if (!(nanoseconds > -1.0 && nanoseconds < kTwoToThe64)) {
    return 0;
  }
  return static_cast<std::uint64_t>(nanoseconds);
}

}  // namespace flowmere
