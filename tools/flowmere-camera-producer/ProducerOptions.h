#pragma once

// The producer's command line: its options, their parsing and the usage text that --help prints.
// Main thread only.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace flowmere::producer {

inline constexpr std::string_view kProgram = "flowmere-camera-producer";

struct ProducerOptions {
  std::string target = "flowmere-camera-sink";
  std::string format = "bgra";  // "bgra" or "p010"
  std::uint32_t width = 1280;
  std::uint32_t height = 720;
  std::uint32_t fps = 30;
  std::string transfer = "pq";
  double seconds = 0;  // 0: until interrupted (or, with --file -, until the input ends)
  // --pause: no frame is queued from `pauseAt` seconds after the first frame for
  // `pauseSeconds`, while the link stays up (a producer that stalls).
  double pauseAt = 0;
  double pauseSeconds = 0;
  std::string file;   // a raw file to loop, "-" for standard input, empty for the test pattern
  bool live = false;  // --live: standard input is a live source
  std::string timestamps;

  [[nodiscard]] bool readsStandardInput() const { return file == "-"; }
};

// The whole usage text, as --help prints it.
std::string_view producerUsage();

// Parses the producer's own command line (argv[1] on; not the subcommands). Nothing when the
// producer should run with `options`; otherwise the exit status to end with at once: 0 after
// --help or --version, 2 after a one-line complaint on stderr.
std::optional<int> parseProducerOptions(int argc, char** argv, ProducerOptions& options);

// "1280x720" and the like; false for anything else, or a zero side.
bool parseSize(std::string_view text, std::uint32_t& width, std::uint32_t& height);

}  // namespace flowmere::producer
