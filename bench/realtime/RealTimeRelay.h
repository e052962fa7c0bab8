#pragma once

// One real-time run of the relay, shared by the pacing and the maximum-rate benchmarks: the
// embedded service on its real clock and threads, the extension published on it, and a producer
// on the caller's thread pushing frames of one catalogue format with time stamps 1/fps apart, at
// the times those stamps name. Every delivery is recorded as the camera's client and the producer
// see it: the send time of the relayed frame and the sequence number of the scheduled output.
//
// Threading: runRealTime() is called on one thread, which becomes the producer for the run. The
// service's subscribers fill the result on the consume queue under a mutex of their own; the
// caller reads the result only after the run has ended.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace flowmere::bench {

// Where the settings suite and the state files live.
enum class Persistence {
  // The SQLite settings store and the state files on disk (ext4 under /var/tmp).
  kDisk,
  // The in-memory settings suite, and the state files on tmpfs (/dev/shm).
  kMemory,
};

[[nodiscard]] const char* persistenceName(Persistence persistence);

struct RealTimeRunOptions {
  // Catalogue index of the pushed frames' format (the sink is set to it before the start).
  std::size_t formatIndex = 0;
  Persistence persistence = Persistence::kMemory;
  double fps = 30.0;
  double seconds = 3.0;
  // Timer slack of the consume queue's thread; 0: the kernel's default (50 us).
  std::uint64_t consumeTimerSlackNanoseconds = 1;
};

// One relayed frame.
struct Delivery {
  // The producer's sequence number: k + 1 for the frame stamped k / fps.
  std::uint64_t sequenceNumber = 0;
  // The host time the frame was sent to the camera's clients with, in nanoseconds.
  std::int64_t sendNanoseconds = 0;
};

struct RealTimeRunResult {
  std::int64_t pushed = 0;
  // Pushes refused because the producer queue already held three buffers.
  std::int64_t refused = 0;
  // In delivery order.
  std::vector<Delivery> deliveries;
  // The producer's wake-ups after the time each push was due: the largest, in microseconds.
  double producerLateMaxMicroseconds = 0.0;
  // Wall time from the first push to the last, and the process's CPU time meanwhile.
  double wallSeconds = 0.0;
  double cpuSeconds = 0.0;
  // The sink's pacing anchor once every accepted frame has been delivered. While the relay keeps
  // up it is the first frame's stamp, 0; the sink moves it to a later frame's stamp when it
  // re-anchors (a frame answered more than 0.1 s after its target). None when the accepted
  // frames were not all delivered within a second of the last push.
  std::optional<double> finalAnchorPTS;
};

// Runs one producer at `options.fps` for `options.seconds`, waits (at most one second) for the
// accepted frames to be delivered, stops the sink and tears everything down.
RealTimeRunResult runRealTime(const RealTimeRunOptions& options);

// Mirrors the sink's lateness rule over a run's deliveries: each one is compared with its target
// (the anchor's send time plus its stamp's offset from the anchor's stamp); one later than
// `lateLimitSeconds` is where the sink re-anchored, and becomes the new anchor. Send times
// follow the sink's answer to a frame, so this counts every re-anchor the sink made (and, at
// worst, a frame answered just inside the limit but sent just past it).
struct LatenessSummary {
  int reanchors = 0;
  // The largest lateness against the anchor in force, in milliseconds.
  double maxLatenessMilliseconds = 0.0;
};
[[nodiscard]] LatenessSummary summarizeLateness(const std::vector<Delivery>& deliveries, double fps,
                                                double lateLimitSeconds);

// The process's user + system CPU time in seconds.
[[nodiscard]] double processCpuSeconds();

}  // namespace flowmere::bench
