#pragma once

// One answer to "is my camera working right now?": the PipeWire graph around the camera, what
// the extension recorded, the frame rate measured from two readings of the frame count, and the
// verdict drawn from them.
//
// Pure values and functions: any thread.

#include <optional>
#include <string>

#include "CameraGraph.h"
#include "StoredStatus.h"

namespace flowmere::status {

enum class Verdict {
  kServiceNotRunning,
  kWaitingForProducer,
  kNoFrames,
  kShowingIdlePicture,
  kRelaying,
};

struct StatusReport {
  CameraGraph graph;
  StoredStatus stored;
  // The frame count at the second reading, and how long ago it was written.
  std::optional<std::int64_t> framesReceived;
  std::optional<double> lastFrameAgeSeconds;
  // Frames per second between the two readings; none when there were not two readings.
  std::optional<double> frameRate;
  double intervalSeconds = 0.0;
  Verdict verdict = Verdict::kServiceNotRunning;
  // "relaying 30.0 fps to 2 clients", "waiting for a producer", ...
  std::string verdictText;
};

// Frames per second between two readings of the frame count taken `elapsedSeconds` apart. The
// extension rewrites the count with every frame, so while frames flow the span between the two
// files' write times is the exact time those frames took; a count that went down was reset by a
// new start and is measured over the whole interval.
std::optional<double> frameRateBetween(const std::optional<FrameCount>& first,
                                       const std::optional<FrameCount>& second,
                                       double elapsedSeconds);

// Builds the report. `first` and `second` are the frame count's readings, `elapsedSeconds` apart
// (`first` may be absent when only one reading was taken); `nowSeconds` is the real-time clock
// at the second reading.
StatusReport makeReport(CameraGraph graph, StoredStatus stored,
                        const std::optional<FrameCount>& first,
                        const std::optional<FrameCount>& second, double elapsedSeconds,
                        double nowSeconds);

}  // namespace flowmere::status
