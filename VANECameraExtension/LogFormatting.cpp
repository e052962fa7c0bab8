#include "LogFormatting.h"

#include <array>
#include <charconv>

namespace flowmere {

void logStreamEvent(platform::Log& log, std::string_view message) {
  std::string line;
  line.reserve(kLogTag.size() + message.size());
  line.append(kLogTag).append(message);
  log.write(line);
}

std::string describeOptional(const std::optional<std::int64_t>& value) {
  if (!value) {
    return "nil";
  }
  return "Optional(" + std::to_string(*value) + ")";
}

std::string describeOptionalClient(const std::shared_ptr<const platform::Client>& client) {
  if (!client) {
    return "nil";
  }
  return "Optional(" + client->description() + ")";
}

std::string describeClients(const std::vector<std::shared_ptr<const platform::Client>>& clients) {
  std::string text = "[";
  for (std::size_t i = 0; i < clients.size(); ++i) {
    if (i > 0) {
      text += ", ";
    }
    text += clients[i]->description();
  }
  text += "]";
  return text;
}

std::string makeClientSummary(const platform::Stream& stream) {
  const auto clients = stream.streamingClients();
  return "count=" + std::to_string(clients.size()) + " clients=" + describeClients(clients);
}

std::string shortestDecimal(double value) {
  std::array<char, 64> buffer{};
  const auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  if (error != std::errc()) {
    return "nan";
  }
  std::string text(buffer.data(), end);
  if (text.find_first_of(".en") == std::string::npos) {  // "inf" and "nan" contain 'n'
    text += ".0";
  }
  return text;
}

}  // namespace flowmere
