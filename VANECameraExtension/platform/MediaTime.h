#pragma once

// Media time: a rational time value with validity flags, as the platform's media services
// define it. Value type; any thread.

#include <cstdint>

namespace flowmere::platform {

struct MediaTime {
  enum Flag : std::uint32_t {
    kValid = 1U << 0,
    kHasBeenRounded = 1U << 1,
    kPositiveInfinity = 1U << 2,
    kNegativeInfinity = 1U << 3,
    kIndefinite = 1U << 4,
  };
  static constexpr std::uint32_t kImpliedValueFlagsMask =
      kPositiveInfinity | kNegativeInfinity | kIndefinite;
  // Host-clock times are counted in nanoseconds.
  static constexpr std::int32_t kNanosecondTimescale = 1'000'000'000;

  std::int64_t value = 0;
  std::int32_t timescale = 0;
  std::uint32_t flags = 0;
  std::int64_t epoch = 0;

  static constexpr MediaTime make(std::int64_t value, std::int32_t timescale) {
    return MediaTime{value, timescale, kValid, 0};
  }
  static constexpr MediaTime invalid() { return MediaTime{}; }
  static constexpr MediaTime indefinite() { return MediaTime{0, 0, kValid | kIndefinite, 0}; }
  static constexpr MediaTime positiveInfinity() {
    return MediaTime{0, 0, kValid | kPositiveInfinity, 0};
  }
  static constexpr MediaTime negativeInfinity() {
    return MediaTime{0, 0, kValid | kNegativeInfinity, 0};
  }

  [[nodiscard]] constexpr bool isValid() const { return (flags & kValid) != 0; }
  // Valid and neither infinite nor indefinite.
  [[nodiscard]] constexpr bool isNumeric() const {
    return (flags & (kValid | kImpliedValueFlagsMask)) == kValid;
  }
  // Seconds as a double: NaN for invalid or indefinite times (and a zero timescale), the
  // matching infinity for infinite times.
  [[nodiscard]] double seconds() const;

  friend constexpr bool operator==(const MediaTime&, const MediaTime&) = default;
};

}  // namespace flowmere::platform
