#pragma once

// What the camera extension last recorded for this user: the application group's settings store
// and the state files (one value per file), read the way any other process of the group reads
// them. Read-only: nothing is created.
//
// Single-threaded: the status program's main thread.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "common/SqliteSettingsSuite.h"

namespace flowmere::status {

struct StateFile {
  std::string text;
  // Since the file was last written; none when that cannot be read.
  std::optional<double> ageSeconds;
};

struct StoredStatus {
  // The settings store's file; empty without a container (no XDG_DATA_HOME and no HOME).
  std::filesystem::path database;
  std::map<std::string, common::SqliteSettingsSuite::Value> stored;
  // The container's state directory when it holds files, else the temporary-directory fallback.
  std::filesystem::path stateDirectory;
  std::map<std::string, StateFile> files;
};

// Reads the store and the state files now.
StoredStatus readStoredStatus();

// The state file of the frame count, read now: the count and when it was written (seconds of
// the real-time clock). Both come from the same version of the file, which the extension
// replaces on every frame.
struct FrameCount {
  std::int64_t frames = 0;
  double writtenSeconds = 0.0;
};
std::optional<FrameCount> readFrameCount(const std::filesystem::path& stateDirectory);

// The published name of a value ("frames_received" -> "bridge_frames_received").
std::string publishedKey(std::string_view baseName);

// How a stored value reads: integers as they are, doubles with three decimals, texts as they are.
std::string describeStoredValue(const common::SqliteSettingsSuite::Value& value);

}  // namespace flowmere::status
