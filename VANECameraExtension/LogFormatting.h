#pragma once

// How the streams write values into their log lines, and the line format itself. Any thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/CameraExtension.h"
#include "platform/Services.h"

namespace flowmere {

// The tag of every stream log line.
inline constexpr std::string_view kLogTag = "[VANE-EXT] ";

// Writes "[VANE-EXT] " + message to the log.
void logStreamEvent(platform::Log& log, std::string_view message);

// An optional integer as log lines show it: "Optional(2)" or "nil".
std::string describeOptional(const std::optional<std::int64_t>& value);
// An optional client as log lines show it: "Optional(<description>)" or "nil".
std::string describeOptionalClient(const std::shared_ptr<const platform::Client>& client);
// A client list as the platform describes it: "[a, b]".
std::string describeClients(const std::vector<std::shared_ptr<const platform::Client>>& clients);
// "count=" + the number of streaming clients + " clients=" + their list.
std::string makeClientSummary(const platform::Stream& stream);
// The shortest decimal text that reads back as the same double, always with a fractional part or
// an exponent ("3.0", "12.345", "1e-05"); "nan", "inf" and "-inf" for non-finite values.
std::string shortestDecimal(double value);

}  // namespace flowmere
