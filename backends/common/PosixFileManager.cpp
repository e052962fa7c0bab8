#include "common/PosixFileManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace flowmere::common {

PosixFileManager::PosixFileManager(std::optional<std::filesystem::path> containerParent,
                                   std::filesystem::path temporaryDirectory)
    : containerParent_(std::move(containerParent)),
      temporaryDirectory_(std::move(temporaryDirectory)) {}

std::optional<std::filesystem::path> PosixFileManager::defaultContainerParent() {
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  const char* home = std::getenv("HOME");
  if (dataHome != nullptr && *dataHome != '\0') {
    return std::filesystem::path(dataHome);
  }
  if (home != nullptr && *home != '\0') {
    return std::filesystem::path(home) / ".local" / "share";
  }
  return std::nullopt;
}

PosixFileManager PosixFileManager::fromEnvironment() {
  return PosixFileManager(defaultContainerParent(), "/tmp");
}

std::optional<std::filesystem::path>
PosixFileManager::containerURLForSecurityApplicationGroupIdentifier(
    std::string_view groupIdentifier) {
  if (!containerParent_ || groupIdentifier.empty()) {
    return std::nullopt;
  }
  std::filesystem::path container = *containerParent_ / std::string(groupIdentifier);
  if (!createDirectory(container)) {
    return std::nullopt;
  }
  return container;
}

bool PosixFileManager::createDirectory(const std::filesystem::path& directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  return std::filesystem::is_directory(directory, error);
}

bool PosixFileManager::writeStringAtomically(const std::filesystem::path& file,
                                             std::string_view text) {
  // The auxiliary file lives beside the target so that the rename stays within one file system.
  std::string temporary = (file.parent_path() / ("." + file.filename().string() + ".XXXXXX"));
  const int descriptor = ::mkstemp(temporary.data());
  if (descriptor < 0) {
    return false;
  }
  bool written = ::fchmod(descriptor, 0644) == 0;
  std::size_t offset = 0;
  while (written && offset < text.size()) {
    const ssize_t count = ::write(descriptor, text.data() + offset, text.size() - offset);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      written = false;
      break;
    }
    offset += static_cast<std::size_t>(count);
  }
  // No fsync: readers need an atomic replacement, not durability across a power cut, and the
  // files are rewritten on every frame.
  written = ::close(descriptor) == 0 && written;
  if (written && ::rename(temporary.c_str(), file.c_str()) == 0) {
    return true;
  }
  ::unlink(temporary.c_str());
  return false;
}

}  // namespace flowmere::common
