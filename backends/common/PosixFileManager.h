#pragma once

// The file layer on POSIX: application-group containers as directories under one parent
// directory, directory creation, and atomic whole-file writes (a uniquely named file in the same
// directory, then a rename over the target).
//
// It works on paths held as text (TextFileManager supplies the path forms): the state files are
// written on every frame, and an existing directory costs one stat and no allocation.
//
// Threading: any thread. Every member is const after construction; the only mutable state is the
// atomic write's per-thread buffer for the auxiliary name. Concurrent writes of the same file
// each replace it whole.

#include <filesystem>
#include <optional>

#include "TextFileManager.h"

namespace flowmere::common {

class PosixFileManager final : public TextFileManager {
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

  // containerParent / groupIdentifier, created with its parents when missing; false without a
  // container parent, for an empty identifier, or when it cannot be made a directory. No path
  // object or allocation (beyond `path` growing) when the directory exists already.
  bool containerPathForSecurityApplicationGroupIdentifier(std::string_view groupIdentifier,
                                                          std::string& path) override;
  bool createDirectoryAtPath(const std::string& directory) override;
  // The final file has mode 0644 whatever the umask. False (and the target untouched) on any
  // failure.
  bool writeStringAtomicallyToPath(const std::string& file, std::string_view text) override;
  void temporaryDirectoryPath(std::string& path) override;

 private:
  // A container parent is set and the identifier is one path component.
  [[nodiscard]] bool isUsableGroupIdentifier(std::string_view groupIdentifier) const;

  const std::optional<std::filesystem::path> containerParent_;
  const std::filesystem::path temporaryDirectory_;
};

}  // namespace flowmere::common
