#pragma once

// The file layer on POSIX: application-group containers as directories under one parent
// directory, directory creation, and atomic whole-file writes (a uniquely named file in the same
// directory, then a rename over the target).
//
// Threading: any thread. Every member is const after construction; there is no mutable state, and
// concurrent writes of the same file each replace it whole.

#include <filesystem>
#include <optional>

#include "platform/Services.h"

namespace flowmere::common {

class PosixFileManager final : public platform::FileManager {
 public:
  // `containerParent`: the directory holding one container directory per application group
  // (none: the process is granted no container). `temporaryDirectory`: the system's temporary
  // directory, where the fallback state directory lives.
  PosixFileManager(std::optional<std::filesystem::path> containerParent,
                   std::filesystem::path temporaryDirectory);
  // Containers under `defaultContainerParent()`, temporary directory /tmp.
  static PosixFileManager fromEnvironment();
  // ${XDG_DATA_HOME:-$HOME/.local/share}; none when neither variable is set (or both are empty).
  static std::optional<std::filesystem::path> defaultContainerParent();

  // containerParent / groupIdentifier, created with its parents when missing; none without a
  // container parent, for an empty identifier, or when it cannot be made a directory.
  std::optional<std::filesystem::path> containerURLForSecurityApplicationGroupIdentifier(
      std::string_view groupIdentifier) override;
  bool createDirectory(const std::filesystem::path& directory) override;
  // The final file has mode 0644 whatever the umask. False (and the target untouched) on any
  // failure.
  bool writeStringAtomically(const std::filesystem::path& file, std::string_view text) override;
  std::filesystem::path temporaryDirectory() override { return temporaryDirectory_; }

 private:
  const std::optional<std::filesystem::path> containerParent_;
  const std::filesystem::path temporaryDirectory_;
};

}  // namespace flowmere::common
