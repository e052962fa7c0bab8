#include "metrics/StateFiles.h"

namespace flowmere {

namespace {

// Appends one path component to a path held as text, with the result that
// std::filesystem::path's `/=` gives: a separator first unless the text is empty or already ends
// with one; an absolute component replaces the whole path.
void appendComponent(std::string& path, std::string_view component) {
  if (!component.empty() && component.front() == '/') {
    path.assign(component);
    return;
  }
  if (!path.empty() && path.back() != '/') {
    path.push_back('/');
  }
  path.append(component);
}

}  // namespace

StateFiles::StateFiles(platform::FileManager& fileManager, std::string applicationGroupIdentifier,
                       std::string stateDirectoryName)
    : fileManager_(fileManager),
      applicationGroupIdentifier_(std::move(applicationGroupIdentifier)),
      stateDirectoryName_(std::move(stateDirectoryName)) {}

bool StateFiles::resolveStateDirectory(std::string& directory) {
  // The container's state directory when the platform grants the container and the directory can
  // be made there; otherwise the fixed fallback in the temporary directory.
  if (fileManager_.containerPathForSecurityApplicationGroupIdentifier(applicationGroupIdentifier_,
                                                                      directory)) {
    appendComponent(directory, stateDirectoryName_);
    if (fileManager_.createDirectoryAtPath(directory)) {
      return true;
    }
  }
  fileManager_.temporaryDirectoryPath(directory);
  appendComponent(directory, stateDirectoryName_);
  return fileManager_.createDirectoryAtPath(directory);
}

std::optional<std::filesystem::path> StateFiles::stateDirectoryURL() {
  std::string directory;
  if (!resolveStateDirectory(directory)) {
    return std::nullopt;
  }
  return std::filesystem::path(std::move(directory));
}

void StateFiles::writeStateFile(std::string_view text, std::string_view name) {
  // Resolved for every write: the container may be granted, revoked or removed while the process
  // runs, and each write should land wherever readers look at that moment. The path is built in
  // a buffer each thread keeps, so that once it has grown a write allocates nothing; two values
  // are written on every frame.
  thread_local std::string file;
  if (!resolveStateDirectory(file)) {
    return;
  }
  appendComponent(file, name);
  // A failed write leaves the previous file as it was; nothing is logged or retried, the next
  // value published replaces it anyway.
  (void)fileManager_.writeStringAtomicallyToPath(file, text);
}

}  // namespace flowmere
