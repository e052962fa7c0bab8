#pragma once

// A real-time soak of the whole relay on the embedded camera service: a producer pushing frames at
// a fixed rate, stopping and starting the sink every few seconds and changing its format every
// second restart, while camera clients start, stop, reconfigure and query the source stream. The
// settings suite is the SQLite store and the state files are real files, in a work directory of
// the run's own. Resident memory and live heap are sampled throughout; at the end everything is
// torn down, so that LeakSanitizer (in AddressSanitizer builds) sees what the run left behind.
//
// Checks made while it runs and at the end; each failed one is reported, and makes the run fail:
// - every answer of the extension is one its rules allow (producer sets and starts succeed while
//   the sink is stopped; a different format while it runs is refused with "Stop capture before
//   changing camera orientation."; client sets succeed or are refused with one of the two
//   messages, or 'unop' for an index outside the catalogue; property values are in range);
// - after each producer start the source is pinned to the producer's format;
// - after each producer stop the state file of the frame count holds the frames relayed since
//   that start, and after teardown the settings database holds the last run's count;
// - scheduled outputs carry strictly increasing sequence numbers; the source's sent-frame count
//   never goes back; something was relayed; no consume error was logged;
// - every producer buffer is released once the extension is gone;
// - resident memory and live heap stay within their tolerances of the warm-up sample.
//
// Threading: `runSoak` is called on one thread (the main thread), which samples memory and prints
// progress; the run adds a producer thread and a camera-client thread of its own.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace flowmere::tools {
class LogFile;
}

namespace flowmere::soak {

struct SoakOptions {
  double seconds = 600.0;
  double fps = 60.0;
  // The producer stops and starts the sink this often; every second restart changes the format.
  double restartEverySeconds = 2.0;
  // Mean time between two camera-client actions on the source stream.
  double clientActionEverySeconds = 0.2;
  double rssEverySeconds = 5.0;
  // Memory samples as CSV (seconds,rss_kib,heap_kib: resident memory and live heap without the
  // producer's pixel pool); none: not written.
  std::optional<std::filesystem::path> rssOut;
  // Memory is compared with the first sample at or after this time. Negative: a third of the
  // run, at most 60 s.
  double warmupSeconds = -1.0;
  // Allowed growth over the warm-up sample, of the largest later sample. Resident memory moves
  // with allocator caches and (under AddressSanitizer) the quarantine; the live heap does not.
  double rssToleranceMiB = 8.0;
  double heapToleranceMiB = 1.0;
  // A progress line this often (0: none).
  double progressEverySeconds = 30.0;
  std::uint64_t seed = 1;
  // Where the container, the settings database and the state files go; none: a fresh directory
  // under /var/tmp, removed at the end unless `keepFiles`.
  std::optional<std::filesystem::path> directory;
  bool keepFiles = false;
  // Copy the extension's log lines to stderr.
  bool verbose = false;
};

struct MemorySample {
  double seconds = 0.0;
  std::uint64_t residentBytes = 0;
  // Live heap, without the producer's pixel pool.
  std::uint64_t heapBytes = 0;
};

struct SoakReport {
  double wallSeconds = 0.0;
  std::uint64_t pushed = 0;
  // Pushes refused because the producer queue already held three buffers.
  std::uint64_t refused = 0;
  // Frames not pushed because every pool buffer of the format was still held.
  std::uint64_t poolExhausted = 0;
  // Deliveries (scheduled outputs) and frames sent to camera clients.
  std::uint64_t relayed = 0;
  std::uint64_t sent = 0;
  // Accepted by the sink over the run, from its own counter.
  std::uint64_t sinkReceivedFrames = 0;
  std::uint64_t producerRestarts = 0;
  std::uint64_t formatChanges = 0;
  std::uint64_t clientActions = 0;
  // Client sets that the source refused, as its rules require while pinned or started.
  std::uint64_t clientRefusals = 0;
  std::uint64_t logLines = 0;
  std::uint64_t consumeErrors = 0;

  std::vector<MemorySample> samples;
  double warmupSeconds = 0.0;
  std::optional<MemorySample> warmup;
  std::optional<MemorySample> end;
  std::uint64_t maxResidentBytes = 0;
  std::uint64_t maxResidentAfterWarmupBytes = 0;
  std::uint64_t maxHeapAfterWarmupBytes = 0;
  std::string heapSource;

  std::uint64_t failureCount = 0;
  // The first failures, in the order they happened.
  std::vector<std::string> failures;
};

// Runs the soak; progress lines go to `progress`, the extension's log lines to `log` (none: they
// are only counted) and, with `verbose`, to stderr.
SoakReport runSoak(const SoakOptions& options, std::FILE* progress,
                   std::shared_ptr<tools::LogFile> log);

}  // namespace flowmere::soak
