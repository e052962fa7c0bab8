#pragma once

// The base of the backends' file layers. platform::FileManager offers each operation twice: on
// path objects, and on paths held as text for the callers that reach the file layer on every
// frame. A file layer derived from this class writes the text forms only; the path forms convert
// and call them, so each layer has one API to implement and its two forms cannot drift apart.
//
// Threading: as the derived layer's; this class holds no state.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Services.h"

namespace flowmere::common {

class TextFileManager : public platform::FileManager {
 public:
  std::optional<std::filesystem::path> containerURLForSecurityApplicationGroupIdentifier(
      std::string_view groupIdentifier) final;
  bool createDirectory(const std::filesystem::path& directory) final;
  bool writeStringAtomically(const std::filesystem::path& file, std::string_view text) final;
  std::filesystem::path temporaryDirectory() final;

  bool containerPathForSecurityApplicationGroupIdentifier(std::string_view groupIdentifier,
                                                          std::string& path) override = 0;
  bool createDirectoryAtPath(const std::string& directory) override = 0;
  bool writeStringAtomicallyToPath(const std::string& file, std::string_view text) override = 0;
  void temporaryDirectoryPath(std::string& path) override = 0;
};

}  // namespace flowmere::common
