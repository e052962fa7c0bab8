#pragma once

// Reading the properties PipeWire attaches to its objects (registry globals, infos): a decimal
// id or pid, or a text. Any thread; pure functions.

#include <spa/utils/dict.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

namespace flowmere::pipewire {

// The property `key` as an unsigned 32-bit decimal number; none when it is missing, empty, not
// all digits, or too large.
inline std::optional<std::uint32_t> numberProperty(const spa_dict* props, const char* key) {
  const char* text = props ? spa_dict_lookup(props, key) : nullptr;
  if (!text || !*text) {
    return std::nullopt;
  }
  const char* end = text + std::strlen(text);
  std::uint32_t value = 0;
  const auto [stop, error] = std::from_chars(text, end, value);
  if (error != std::errc{} || stop != end) {
    return std::nullopt;
  }
  return value;
}

// The property `key` as text; empty when it is missing.
inline std::string textProperty(const spa_dict* props, const char* key) {
  const char* text = props ? spa_dict_lookup(props, key) : nullptr;
  return text ? text : "";
}

}  // namespace flowmere::pipewire
