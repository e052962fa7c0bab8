#include "metrics/StateFiles.h"

namespace flowmere {

StateFiles::StateFiles(platform::FileManager& fileManager, std::string applicationGroupIdentifier,
                       std::string stateDirectoryName)
    : fileManager_(fileManager),
      applicationGroupIdentifier_(std::move(applicationGroupIdentifier)),
      stateDirectoryName_(std::move(stateDirectoryName)) {}

std::optional<std::filesystem::path> StateFiles::stateDirectoryURL() {
  if (auto container = fileManager_.containerURLForSecurityApplicationGroupIdentifier(
          applicationGroupIdentifier_)) {
    std::filesystem::path candidate = *container / stateDirectoryName_;
    if (createStateDirectory(candidate)) {
      return candidate;
    }
  }
  std::filesystem::path fallback = fileManager_.temporaryDirectory() / stateDirectoryName_;
  if (createStateDirectory(fallback)) {
    return fallback;
  }
  return std::nullopt;
}

bool StateFiles::createStateDirectory(const std::filesystem::path& directory) {
  return fileManager_.createDirectory(directory);
}

void StateFiles::writeStateFile(std::string_view text, std::string_view name) {
  // Resolved for every write: the container may come and go while the process runs.
  const std::optional<std::filesystem::path> directory = stateDirectoryURL();
  if (!directory) {
    return;
  }
  // A failed write leaves the old file as it was; nothing is logged or retried.
  (void)fileManager_.writeStringAtomically(*directory / name, text);
}

}  // namespace flowmere
