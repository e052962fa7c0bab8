#include "TextFileManager.h"

namespace flowmere::common {

std::optional<std::filesystem::path>
TextFileManager::containerURLForSecurityApplicationGroupIdentifier(
    std::string_view groupIdentifier) {
  std::string path;
  if (!containerPathForSecurityApplicationGroupIdentifier(groupIdentifier, path)) {
    return std::nullopt;
  }
  return std::filesystem::path(std::move(path));
}

bool TextFileManager::createDirectory(const std::filesystem::path& directory) {
  return createDirectoryAtPath(directory.native());
}

bool TextFileManager::writeStringAtomically(const std::filesystem::path& file,
                                            std::string_view text) {
  return writeStringAtomicallyToPath(file.native(), text);
}

std::filesystem::path TextFileManager::temporaryDirectory() {
  std::string path;
  temporaryDirectoryPath(path);
  return std::filesystem::path(std::move(path));
}

}  // namespace flowmere::common
