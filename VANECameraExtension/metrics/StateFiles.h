#pragma once

// The state files: one small UTF-8 text file per published value, in the state directory, so that
// any process able to read the directory sees the extension's counters and status.
//
// The directory is the application group's container + "com.flowmere.av.state" when the platform
// grants the container, else the fixed fallback in the system's temporary directory. It is
// resolved afresh for every write; nothing is cached. Paths are built as text, in a buffer each
// thread keeps, through the file layer's text forms, so a write on the frame path allocates
// nothing once the buffer has grown.
//
// Threading: no lock and no shared mutable state (the path buffer is per thread); any thread.
// Two writes of the same file may overlap; each replaces the file by rename, so a reader always
// sees one writer's whole text.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Services.h"

namespace flowmere {

class StateFiles {
 public:
  // `fileManager` is borrowed for the life of this object (the platform outlives the extension).
  StateFiles(platform::FileManager& fileManager, std::string applicationGroupIdentifier,
             std::string stateDirectoryName);

  // The directory to write into: the container's state directory, else the fallback; none when
  // neither can be created.
  std::optional<std::filesystem::path> stateDirectoryURL();
  // Writes `text` as the whole content of the file `name` in the state directory, atomically.
  // Failures are dropped silently.
  void writeStateFile(std::string_view text, std::string_view name);

 private:
  // stateDirectoryURL() in text form: sets `directory`; false when neither directory can be
  // created.
  bool resolveStateDirectory(std::string& directory);

  platform::FileManager& fileManager_;
  const std::string applicationGroupIdentifier_;
  const std::string stateDirectoryName_;
};

}  // namespace flowmere
