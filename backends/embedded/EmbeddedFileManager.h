#pragma once

// The embedded service's file layer: the POSIX one, with a failure switch for writes, a fixed
// container directory when the owner names one, and observers of successful writes.

#include <atomic>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "ObserverList.h"
#include "common/PosixFileManager.h"
#include "common/TextFileManager.h"
#include "common/WriteBehindFileManager.h"
#include "platform/Services.h"

namespace flowmere::embedded {

// Successful state-file writes: (path, text).
using FileWriteObservers = ObserverList<const std::filesystem::path&, std::string_view>;

// In real time the state files are written behind the caller, off the frame's path (the
// observers hear of a write when it is accepted); in virtual time in place, so that a file holds
// its text as soon as the step that wrote it returns.
//
// Threading: any thread. Every member is set at construction except the write-failure switch,
// an atomic; the write-behind layer and the observer list lock for themselves. `observers` is
// borrowed and must outlive this object.
class EmbeddedFileManager final : public common::TextFileManager {
 public:
  struct Options {
    std::optional<std::filesystem::path> containerParent;
    std::optional<std::filesystem::path> containerDirectory;
    std::filesystem::path temporaryDirectory;
    bool failWrites = false;
    bool writeBehind = false;
  };

  EmbeddedFileManager(Options options, const FileWriteObservers& observers);

  bool containerPathForSecurityApplicationGroupIdentifier(std::string_view groupIdentifier,
                                                          std::string& path) override;
  bool createDirectoryAtPath(const std::string& directory) override;
  bool writeStringAtomicallyToPath(const std::string& file, std::string_view text) override;
  void temporaryDirectoryPath(std::string& path) override;

  void setFailWrites(bool fail) { failWrites_.store(fail, std::memory_order_relaxed); }
  // Returns when every state file accepted so far is on disk.
  void flush();

 private:
  const FileWriteObservers& observers_;
  common::PosixFileManager posix_;
  const std::optional<std::filesystem::path> containerDirectory_;
  std::atomic<bool> failWrites_;
  std::optional<common::WriteBehindFileManager> behind_;  // real time only; last, goes first
};

}  // namespace flowmere::embedded
