#pragma once

// A client of the camera service: a producer on a sink stream, or a camera client on a source
// stream. Immutable; shared ownership; any thread.

#include <cstdint>
#include <string>

#include "platform/Uuid.h"

namespace flowmere::platform {

class Client {
 public:
  Client(Uuid clientID, std::int32_t pid, std::string description)
      : clientID_(clientID), pid_(pid), description_(std::move(description)) {}

  [[nodiscard]] const Uuid& clientID() const { return clientID_; }
  // The client's process identifier.
  [[nodiscard]] std::int32_t pid() const { return pid_; }
  // How the service describes the client in log lines.
  [[nodiscard]] const std::string& description() const { return description_; }

 private:
  Uuid clientID_;
  std::int32_t pid_;
  std::string description_;
};

}  // namespace flowmere::platform
