#include "EmbeddedFileManager.h"

namespace flowmere::embedded {

EmbeddedFileManager::EmbeddedFileManager(Options options, const FileWriteObservers& observers)
    : observers_(observers),
      posix_(std::move(options.containerParent), std::move(options.temporaryDirectory)),
      containerDirectory_(std::move(options.containerDirectory)),
      failWrites_(options.failWrites) {
  if (options.writeBehind) {
    behind_.emplace(posix_);
  }
}

bool EmbeddedFileManager::containerPathForSecurityApplicationGroupIdentifier(
    std::string_view groupIdentifier, std::string& path) {
  if (containerDirectory_) {
    path.assign(containerDirectory_->native());
    return posix_.createDirectoryAtPath(path);
  }
  return posix_.containerPathForSecurityApplicationGroupIdentifier(groupIdentifier, path);
}

bool EmbeddedFileManager::createDirectoryAtPath(const std::string& directory) {
  return posix_.createDirectoryAtPath(directory);
}

bool EmbeddedFileManager::writeStringAtomicallyToPath(const std::string& file,
                                                      std::string_view text) {
  if (failWrites_.load(std::memory_order_relaxed)) {
    return false;
  }
  const bool written = behind_ ? behind_->writeStringAtomicallyToPath(file, text)
                               : posix_.writeStringAtomicallyToPath(file, text);
  if (!written) {
    return false;
  }
  // The path object is built only for observers: without them a write allocates nothing.
  if (!observers_.empty()) {
    observers_.notify(std::filesystem::path(file), text);
  }
  return true;
}

void EmbeddedFileManager::temporaryDirectoryPath(std::string& path) {
  posix_.temporaryDirectoryPath(path);
}

void EmbeddedFileManager::flush() {
  if (behind_) {
    behind_->flush();
  }
}

}  // namespace flowmere::embedded
