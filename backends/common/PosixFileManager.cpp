#include "common/PosixFileManager.h"

#include <fcntl.h>
#include <stdio.h>   // renameat2, RENAME_EXCHANGE
#include <stdlib.h>  // mkostemp
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace flowmere::common {

namespace {

constexpr mode_t kFileMode = 0644;

// Writes all of `text`, resuming after partial writes and interrupted calls.
bool writeAll(int descriptor, std::string_view text) {
  std::size_t offset = 0;
  while (offset < text.size()) {
    const ssize_t count = ::write(descriptor, text.data() + offset, text.size() - offset);
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    if (count == 0) {
      return false;  // no progress and no error: give up rather than spin
    }
    offset += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

PosixFileManager::PosixFileManager(std::optional<std::filesystem::path> containerParent,
                                   std::filesystem::path temporaryDirectory)
    : containerParent_(std::move(containerParent)),
      temporaryDirectory_(std::move(temporaryDirectory)) {}

std::optional<std::filesystem::path> PosixFileManager::defaultContainerParent() {
  // Read once at start-up by the callers; getenv is not synchronised with setenv.
  const char* dataHome = std::getenv("XDG_DATA_HOME");  // NOLINT(concurrency-mt-unsafe)
  if (dataHome != nullptr && *dataHome != '\0') {
    return std::filesystem::path(dataHome);
  }
  const char* home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe)
  if (home != nullptr && *home != '\0') {
    return std::filesystem::path(home) / ".local" / "share";
  }
  return std::nullopt;
}

PosixFileManager PosixFileManager::fromEnvironment() {
  return PosixFileManager(defaultContainerParent(), "/tmp");
}

bool PosixFileManager::isUsableGroupIdentifier(std::string_view groupIdentifier) const {
  // An identifier is one path component; anything else could name a directory outside the
  // container parent.
  return containerParent_ && !groupIdentifier.empty() && groupIdentifier != "." &&
         groupIdentifier != ".." && groupIdentifier.find('/') == std::string_view::npos;
}

bool PosixFileManager::containerPathForSecurityApplicationGroupIdentifier(
    std::string_view groupIdentifier, std::string& path) {
  if (!isUsableGroupIdentifier(groupIdentifier)) {
    return false;
  }
  // containerParent / groupIdentifier, as std::filesystem::path's operator/ joins them: the
  // identifier is a relative component, so a separator goes between unless the parent is empty
  // or ends with one.
  path.assign(containerParent_->native());
  if (!path.empty() && path.back() != '/') {
    path.push_back('/');
  }
  path.append(groupIdentifier);
  return createDirectoryAtPath(path);
}

bool PosixFileManager::createDirectoryAtPath(const std::string& directory) {
  // The common case, an existing directory, is one stat and no path object. An existing entry of
  // another kind is failure, as below.
  struct stat status {};
  if (::stat(directory.c_str(), &status) == 0) {
    return S_ISDIR(status.st_mode);
  }
  // Missing (or not inspectable): create it with its parents. An existing directory is success;
  // an existing file of another kind is failure. The error codes keep the filesystem library
  // from throwing.
  const std::filesystem::path path(directory);
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return std::filesystem::is_directory(path, error);
}

bool PosixFileManager::writeStringAtomicallyToPath(const std::string& target,
                                                   std::string_view text) {
  // Split the target's text at its last slash instead of through path objects, and build the
  // auxiliary name in a buffer each thread keeps: state files are written on every frame.
  const std::size_t slash = target.rfind('/');
  const std::string_view name = slash == std::string::npos
                                    ? std::string_view(target)
                                    : std::string_view(target).substr(slash + 1);
  if (name.empty() || name == "." || name == "..") {
    return false;
  }
  // The auxiliary file lives beside the target, so that the rename stays within one file system
  // and replaces the target in one step. The leading dot keeps it out of plain listings.
  thread_local std::string temporary;
  temporary.assign(target, 0, slash == std::string::npos ? 0 : slash + 1);
  temporary.append(".").append(name).append(".XXXXXX");

  const int descriptor = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (descriptor < 0) {
    return false;
  }
  // mkostemp creates the file with mode 0600; readers in other processes need 0644.
  bool written = ::fchmod(descriptor, kFileMode) == 0 && writeAll(descriptor, text);
  // On Linux the descriptor is released even when close reports EINTR, so only other errors
  // (a deferred write error such as EIO) fail the write.
  if (::close(descriptor) != 0 && errno != EINTR) {
    written = false;
  }
  // No fsync: readers need an atomic replacement (all of the old or all of the new text), not
  // durability across a power cut, and the values are rewritten on every frame.
  if (!written) {
    ::unlink(temporary.c_str());
    return false;
  }
  // Swapping the two names replaces the target as atomically as a rename over it, but ext4
  // does not then force the new file's blocks to disk before the rename returns, as it does
  // for a rename that replaces an existing file: about 0.2 ms less per write there. The old
  // text, now under the auxiliary name, is removed. Where the target does not exist yet, or
  // the file system cannot swap, a plain rename does the replacement.
  if (::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0) {
    ::unlink(temporary.c_str());
    return true;
  }
  if (::rename(temporary.c_str(), target.c_str()) == 0) {
    return true;
  }
  ::unlink(temporary.c_str());
  return false;
}

void PosixFileManager::temporaryDirectoryPath(std::string& path) {
  path.assign(temporaryDirectory_.native());
}

}  // namespace flowmere::common
