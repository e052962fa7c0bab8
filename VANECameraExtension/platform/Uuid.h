#pragma once

// A 128-bit identifier, written in its canonical 8-4-4-4-12 upper-case hexadecimal form.
// Value type; any thread.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace flowmere::platform {

class Uuid {
 public:
  Uuid() = default;
  // Parses the canonical text form (either case); none for anything else.
  static std::optional<Uuid> fromString(std::string_view text);

  [[nodiscard]] std::string toString() const;
  [[nodiscard]] const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }

  friend bool operator==(const Uuid&, const Uuid&) = default;
  friend auto operator<=>(const Uuid&, const Uuid&) = default;  // NOLINT(modernize-use-nullptr)

 private:
  std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace flowmere::platform
