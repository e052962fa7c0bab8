#pragma once

// `flowmere-camera-sim demo`: the whole extension on the embedded camera service in real time,
// with a producer pushing a moving test pattern and a camera client receiving the relayed frames.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace flowmere::sim {

struct DemoOptions {
  double seconds = 5.0;
  std::int64_t formatIndex = 0;
  double fps = 30.0;
  double jitterMilliseconds = 0.0;
  // Where to write the last received frame as a PNG, if anywhere.
  std::optional<std::filesystem::path> snapshot;
  // The application-group container; none with `noContainer`, the user's default otherwise.
  std::optional<std::filesystem::path> container;
  bool noContainer = false;
  std::filesystem::path temporaryDirectory = "/tmp";
  // Where the extension's log lines go (created or emptied); none: they are dropped.
  std::optional<std::filesystem::path> logFile;
  // Also copy the log lines to stderr.
  bool verbose = false;
};

// Runs the demo and prints its progress and summary to stdout; the extension's log goes to the
// log file (and to stderr with `verbose`). Returns the exit code.
int runDemo(const DemoOptions& options);

}  // namespace flowmere::sim
