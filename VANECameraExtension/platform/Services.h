#pragma once

// The platform services that the extension's logic uses besides the camera-extension objects:
// clocks, serial queues, the settings suite, the application-group container and files, and the
// log. Every implementation is safe to call from any thread unless its comment says otherwise.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/InlineFunction.h"
#include "platform/MediaTime.h"

namespace flowmere::platform {

// The host clock and the system-uptime clock.
class Clock {
 public:
  virtual ~Clock() = default;
  // The host clock's current time, at nanosecond timescale.
  [[nodiscard]] virtual MediaTime hostTime() const = 0;
  // Seconds the system has been awake since it started; never goes backwards.
  [[nodiscard]] virtual double systemUptime() const = 0;

  [[nodiscard]] double hostSeconds() const { return hostTime().seconds(); }
};

// Large enough to carry a consume answer (its completion, buffer and sequence number) to the
// platform queue without a heap allocation: a sink polls several hundred times a second.
using Work = InlineFunction<void(), 128>;

enum class QualityOfService { kUserInteractive, kUserInitiated, kDefault, kUtility, kBackground };

struct QueueAttributes {
  std::string label;
  QualityOfService qualityOfService = QualityOfService::kDefault;
};

// A serial queue: work items run one at a time, in the order of their deadlines (equal deadlines
// in submission order), never on the submitting caller's stack.
class SerialQueue {
 public:
  virtual ~SerialQueue() = default;
  [[nodiscard]] virtual const std::string& label() const = 0;
  // Runs `work` as soon as the queue is free.
  virtual void async(Work work) = 0;
  // Runs `work` once the host clock has reached now + delay (a delay of zero or less: at once).
  virtual void asyncAfter(std::chrono::nanoseconds delay, Work work) = 0;
};

// A named settings suite shared by the processes of an application group. Writes return at once
// and are visible to the writer immediately.
class SettingsSuite {
 public:
  virtual ~SettingsSuite() = default;
  virtual void setInteger(std::string_view key, std::int64_t value) = 0;
  virtual void setDouble(std::string_view key, double value) = 0;
  virtual void setObject(std::string_view key, std::string_view value) = 0;
};

// The application-group container and file operations.
class FileManager {
 public:
  virtual ~FileManager() = default;
  // The shared container of an application group, or none when the process may not use it.
  virtual std::optional<std::filesystem::path> containerURLForSecurityApplicationGroupIdentifier(
      std::string_view groupIdentifier) = 0;
  // Creates the directory and any missing parents; true when it exists afterwards.
  virtual bool createDirectory(const std::filesystem::path& directory) = 0;
  // Replaces the file's whole content with `text` atomically (auxiliary file, then rename), so
  // that a reader sees either the old or the new content. True on success.
  virtual bool writeStringAtomically(const std::filesystem::path& file, std::string_view text) = 0;
  // The system's temporary directory, which the fixed fallback state directory lives in.
  virtual std::filesystem::path temporaryDirectory() = 0;

  // The same four operations on paths held as text, for callers that reach the file layer on
  // every frame: the caller keeps its path text in buffers that retain their capacity from call
  // to call, so a call builds no path object and allocates nothing. Same results as the path
  // forms. The defaults convert to paths and call the path forms; a file layer overrides them
  // to work on the text directly.
  //
  // Sets `path` to the application group's container; false (and `path` unspecified) when the
  // process may not use it.
  virtual bool containerPathForSecurityApplicationGroupIdentifier(std::string_view groupIdentifier,
                                                                  std::string& path) {
    std::optional<std::filesystem::path> container =
        containerURLForSecurityApplicationGroupIdentifier(groupIdentifier);
    if (!container) {
      return false;
    }
    path.assign(container->native());
    return true;
  }
  virtual bool createDirectoryAtPath(const std::string& directory) {
    return createDirectory(std::filesystem::path(directory));
  }
  virtual bool writeStringAtomicallyToPath(const std::string& file, std::string_view text) {
    return writeStringAtomically(std::filesystem::path(file), text);
  }
  // Sets `path` to the system's temporary directory.
  virtual void temporaryDirectoryPath(std::string& path) {
    path.assign(temporaryDirectory().native());
  }
};

// The unified system log, default log object, default level, arguments public.
class Log {
 public:
  virtual ~Log() = default;
  virtual void write(std::string_view message) = 0;
};

}  // namespace flowmere::platform
