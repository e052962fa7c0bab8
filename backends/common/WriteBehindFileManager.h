#pragma once

// The file layer with state-file writes taken off the caller's thread. A write records the newest
// text for its file and returns at once; a writer thread replaces the files, each atomically
// through the POSIX layer. The writer replaces every file written since its last round, with
// each file's newest text, in rounds at least `spacing` apart: a write after a quiet spell goes
// to disk at once, and a file written on every frame is replaced about 1/spacing times a second,
// always from one whole text to a later whole text, the last one accepted last. Failed writes
// are dropped as the POSIX layer's are (the old file stays). Container lookups and directory
// creation stay synchronous.
//
// The relay writes two or three of these files on every frame. On ext4 each replacement costs
// 0.1-0.3 ms of CPU (a new inode, a rename, the old inode freed); off the frame's path that no
// longer adds to its latency, and in rounds 100 ms apart it costs a third of the CPU it would at
// 30 frames/s. Readers see a value at most `spacing` old, as the settings store's are.
//
// Threading: the platform::FileManager operations from any thread. The writer thread starts in
// the constructor and ends in the destructor, after it has written everything accepted. `mutex_`
// guards the pending texts, the counters and the flush request; it is never held during file I/O.

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "PosixFileManager.h"
#include "TextFileManager.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::common {

class WriteBehindFileManager final : public TextFileManager {
 public:
  static constexpr std::chrono::milliseconds kDefaultSpacing{100};

  explicit WriteBehindFileManager(PosixFileManager files,
                                  std::chrono::milliseconds spacing = kDefaultSpacing);
  // Writes what is still pending, then joins the writer thread.
  ~WriteBehindFileManager() override;
  WriteBehindFileManager(const WriteBehindFileManager&) = delete;
  WriteBehindFileManager& operator=(const WriteBehindFileManager&) = delete;

  // Returns when every write accepted before the call has been done (or has failed), without
  // waiting for the next round.
  void flush() EXCLUDES(mutex_);

  bool containerPathForSecurityApplicationGroupIdentifier(std::string_view groupIdentifier,
                                                          std::string& path) override;
  bool createDirectoryAtPath(const std::string& directory) override;
  // Accepts the write: true unless the target has no file name. The file is replaced shortly
  // after, on the writer thread. Allocation-free once each file has been written once.
  bool writeStringAtomicallyToPath(const std::string& file, std::string_view text) override
      EXCLUDES(mutex_);
  void temporaryDirectoryPath(std::string& path) override;

 private:
  struct Pending {
    std::string text;
    bool dirty = false;
  };
  struct Batch {
    std::string file;
    std::string text;
  };

  void run() EXCLUDES(mutex_);

  PosixFileManager files_;  // const operations only; safe from any thread
  const std::chrono::milliseconds spacing_;
  platform::Mutex mutex_;
  platform::ConditionVariable wake_;  // the writer: work or stop
  platform::ConditionVariable done_;  // flush: a batch was written
  std::unordered_map<std::string, Pending> pending_ GUARDED_BY(mutex_);
  std::uint64_t accepted_ GUARDED_BY(mutex_) = 0;     // writes accepted so far
  std::uint64_t written_ GUARDED_BY(mutex_) = 0;      // accepted writes the writer has done
  std::uint64_t flushTarget_ GUARDED_BY(mutex_) = 0;  // a flush waits for `written_` to reach it
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::thread writer_;  // last: starts once everything above exists
};

}  // namespace flowmere::common
