#pragma once

// The file layer on POSIX: application-group containers under a parent directory, directory
// creation, and atomic whole-file writes (a uniquely named file in the same directory, then a
// rename over the target). No mutable state; any thread.

#include <filesystem>
#include <optional>

#include "platform/Services.h"

namespace flowmere::common {

class PosixFileManager final : public platform::FileManager {
 public:
  // `containerParent`: where containers live, one directory per group (none: no container is
  // granted). `temporaryDirectory`: stands in for the system's temporary directory.
  PosixFileManager(std::optional<std::filesystem::path> containerParent,
                   std::filesystem::path temporaryDirectory);
  // Containers under `defaultContainerParent()`, temporary directory /tmp.
  static PosixFileManager fromEnvironment();
  // ${XDG_DATA_HOME:-$HOME/.local/share}; none when neither variable is set.
  static std::optional<std::filesystem::path> defaultContainerParent();

  std::optional<std::filesystem::path> containerURLForSecurityApplicationGroupIdentifier(
      std::string_view groupIdentifier) override;
  bool createDirectory(const std::filesystem::path& directory) override;
  bool writeStringAtomically(const std::filesystem::path& file, std::string_view text) override;
  std::filesystem::path temporaryDirectory() override { return temporaryDirectory_; }

 private:
  const std::optional<std::filesystem::path> containerParent_;
  const std::filesystem::path temporaryDirectory_;
};

}  // namespace flowmere::common
