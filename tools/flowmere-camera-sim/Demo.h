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
};

// Runs the demo and prints its summary to stdout; log lines go to stderr. Returns the exit code.
int runDemo(const DemoOptions& options);

}  // namespace flowmere::sim
