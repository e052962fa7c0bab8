#pragma once

// Platform errors: a domain, a code and an optional localized description, as the camera
// service reports them to its clients. Value type; any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace flowmere::platform {

inline constexpr const char* NSOSStatusErrorDomain = "NSOSStatusErrorDomain";

// Four-character status codes of the camera hardware layer.
inline constexpr std::int64_t kCMIOHardwareUnsupportedOperationError = 1970171760;  // 'unop'
inline constexpr std::int64_t kCMIOHardwareIllegalOperationError = 1852797029;      // 'nope'

struct Error {
  std::string domain;
  std::int64_t code = 0;
  // The one user-information entry (NSLocalizedDescriptionKey), when the error carries it.
  std::optional<std::string> localizedDescription;

  // What a user is shown: the localized description, or a generic text built from domain and
  // code when the error carries none.
  [[nodiscard]] std::string localizedDescriptionOrDefault() const;
  // A one-line description for logs and fatal messages.
  [[nodiscard]] std::string description() const;

  friend bool operator==(const Error&, const Error&) = default;
};

// The outcome of an operation that may fail: success, or the platform error.
class [[nodiscard]] Status {
 public:
  Status() = default;
  Status(Error error) : error_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  static Status success() { return {}; }

  [[nodiscard]] bool ok() const { return !error_.has_value(); }
  explicit operator bool() const { return ok(); }
  [[nodiscard]] const Error& error() const { return *error_; }
  [[nodiscard]] const std::optional<Error>& optionalError() const { return error_; }

 private:
  std::optional<Error> error_;
};

// A value or the platform error that prevented it.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)) {}      // NOLINT(google-explicit-constructor)
  Result(Error error) : error_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  [[nodiscard]] bool ok() const { return value_.has_value(); }
  [[nodiscard]] const T& value() const& { return *value_; }
  [[nodiscard]] T&& value() && { return std::move(*value_); }
  [[nodiscard]] const Error& error() const { return *error_; }

 private:
  std::optional<T> value_;
  std::optional<Error> error_;
};

}  // namespace flowmere::platform
