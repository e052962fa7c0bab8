#include "StoredStatus.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <variant>

#include "DeviceIdentity.h"
#include "VendorIdentifiers.h"
#include "common/PosixFileManager.h"

namespace flowmere::status {

namespace {

// The state files of one directory, by name; empty when it does not exist.
std::map<std::string, StateFile> readStateFiles(const std::filesystem::path& directory) {
  std::map<std::string, StateFile> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    // The writers' auxiliary files start with a dot and are replaced by rename.
    const std::string name = entry.path().filename().string();
    if (name.empty() || name.front() == '.' || !entry.is_regular_file(error)) {
      continue;
    }
    std::ifstream in(entry.path(), std::ios::binary);
    StateFile file;
    file.text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    const auto written = std::filesystem::last_write_time(entry.path(), error);
    if (!error) {
      file.ageSeconds =
          std::chrono::duration<double>(std::filesystem::file_time_type::clock::now() - written)
              .count();
    }
    files.emplace(name, std::move(file));
  }
  return files;
}

}  // namespace

StoredStatus readStoredStatus() {
  StoredStatus status;
  std::optional<std::filesystem::path> container;
  if (const auto parent = common::PosixFileManager::defaultContainerParent()) {
    container = *parent / std::string(kApplicationGroupIdentifier);
  }
  const std::string stateName(kStateDirectoryName);
  if (container) {
    status.database = common::SqliteSettingsSuite::defaultDatabaseFile(*container);
    std::error_code error;
    if (std::filesystem::exists(status.database, error)) {
      status.stored = common::SqliteSettingsSuite::readAll(status.database);
    }
    status.stateDirectory = *container / stateName;
    status.files = readStateFiles(status.stateDirectory);
  }
  // The extension writes to the fallback when it has no container.
  if (status.files.empty()) {
    std::error_code error;
    status.stateDirectory = std::filesystem::temp_directory_path(error) / stateName;
    status.files = readStateFiles(status.stateDirectory);
  }
  return status;
}

std::optional<FrameCount> readFrameCount(const std::filesystem::path& stateDirectory) {
  const std::filesystem::path file = stateDirectory / publishedKey("frames_received");
  // One open file gives the text and the time of the same version, whatever renames follow.
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return std::nullopt;
  }
  struct stat info {};
  char text[32];
  ssize_t length = -1;
  if (::fstat(descriptor, &info) == 0) {
    length = ::read(descriptor, text, sizeof text);
  }
  ::close(descriptor);
  FrameCount count;
  if (length <= 0) {
    return std::nullopt;
  }
  const auto [end, failure] = std::from_chars(text, text + length, count.frames);
  if (failure != std::errc() || end != text + length) {
    return std::nullopt;
  }
  count.writtenSeconds =
      static_cast<double>(info.st_mtim.tv_sec) + static_cast<double>(info.st_mtim.tv_nsec) / 1e9;
  return count;
}

std::string publishedKey(std::string_view baseName) {
  // The recorders' rule: the namespace "camera" publishes bare names, any other prefixes its own.
  const std::string& space = defaultDescriptor().metricsNamespace;
  return space == "camera" ? std::string(baseName) : space + "_" + std::string(baseName);
}

std::string describeStoredValue(const common::SqliteSettingsSuite::Value& value) {
  if (const auto* integer = std::get_if<std::int64_t>(&value)) {
    return std::to_string(*integer);
  }
  if (const auto* real = std::get_if<double>(&value)) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", *real);
    return text;
  }
  return std::get<std::string>(value);
}

}  // namespace flowmere::status
