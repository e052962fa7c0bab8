#include "metrics/StateFiles.h"

namespace flowmere {

StateFiles::StateFiles(platform::FileManager& fileManager, std::string applicationGroupIdentifier,
                       std::string stateDirectoryName)
    : fileManager_(fileManager),
      applicationGroupIdentifier_(std::move(applicationGroupIdentifier)),
      stateDirectoryName_(std::move(stateDirectoryName)) {}

std::optional<std::filesystem::path> StateFiles::stateDirectoryURL() {
  // The container's state directory when the platform grants the container and the directory can
  // be made there; otherwise the fixed fallback in the temporary directory.
  if (std::optional<std::filesystem::path> candidate =
          fileManager_.containerURLForSecurityApplicationGroupIdentifier(
              applicationGroupIdentifier_)) {
    *candidate /= stateDirectoryName_;
    if (createStateDirectory(*candidate)) {
      return candidate;
    }
  }
  std::optional<std::filesystem::path> fallback = fileManager_.temporaryDirectory();
  *fallback /= stateDirectoryName_;
  if (createStateDirectory(*fallback)) {
    return fallback;
  }
  return std::nullopt;
}

bool StateFiles::createStateDirectory(const std::filesystem::path& directory) {
  return fileManager_.createDirectory(directory);
}

void StateFiles::writeStateFile(std::string_view text, std::string_view name) {
  // Resolved for every write: the container may be granted, revoked or removed while the process
  // runs, and each write should land wherever readers look at that moment.
  std::optional<std::filesystem::path> file = stateDirectoryURL();
  if (!file) {
    return;
  }
  *file /= name;
  // A failed write leaves the previous file as it was; nothing is logged or retried, the next
  // value published replaces it anyway.
  (void)fileManager_.writeStringAtomically(*file, text);
}

}  // namespace flowmere
