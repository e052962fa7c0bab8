// flowmere-camera-status: is the camera working right now?
//
//   flowmere-camera-status [--watch] [--json] [--interval S]
//   flowmere-camera-status doctor [--json]
//
// Asks PipeWire whether the camera service's nodes are there, which producer is linked into the
// sink at which format and how many clients capture the source; measures the frame rate from
// two readings of the frame count state file; and adds what the extension recorded in the
// settings store and the state files. Prints a one-line verdict first. Exit status 0 while the
// camera relays frames, 1 otherwise, 2 for a command line it cannot accept.
//
// `doctor` runs the checks of Doctor.h (why a program does not see the camera) and exits 0 when
// none failed, 1 otherwise.
//
// Single-threaded: PipeWire's main loop runs on the main thread for each query; SIGINT and
// SIGTERM only set a flag that --watch checks between refreshes.

#include <pipewire/pipewire.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "CameraGraph.h"
#include "CommandLine.h"
#include "Doctor.h"
#include "StatusOutput.h"
#include "StatusReport.h"
#include "StoredStatus.h"

namespace {

using flowmere::status::FrameCount;
using flowmere::status::StatusReport;

constexpr std::string_view kProgram = "flowmere-camera-status";
constexpr std::string_view kUsage =
    "usage: flowmere-camera-status [--watch] [--json] [--interval S]\n"
    "       flowmere-camera-status doctor [--json]\n"
    "       flowmere-camera-status --help | --version\n"
    "\n"
    "Tells whether the Flowmere camera works right now: whether the camera service runs on\n"
    "PipeWire, which producer is linked and at which format, how many clients capture, the\n"
    "frame rate over the last S seconds (default 1) and the age of the last frame, followed by\n"
    "what the extension recorded in the settings store and the state files.\n"
    "\n"
    "  --watch        refresh every S seconds until Ctrl-C\n"
    "  --json         print one JSON object (with --watch: one per line and refresh)\n"
    "  --interval S   measure the frame rate over S seconds (0.1 to 60)\n"
    "\n"
    "\n"
    "doctor checks, one line each (ok, warn or fail, with the fix for each problem), why a\n"
    "program may not see the camera: the service and its nodes, PipeWire, WirePlumber, the\n"
    "camera portal and its permission store, Chromium-family and Firefox profiles, V4L2\n"
    "programs, and the producer. It changes nothing. --json prints {\"checks\": [...]}.\n"
    "\n"
    "Exit status: 0 while frames are relayed (doctor: when no check failed), 1 otherwise, 2 for a\n"
    "bad command line.\n";

constexpr std::chrono::milliseconds kPipeWireTimeout{2000};

std::atomic<bool> interrupted{false};

void onSignal(int /*signal*/) {
  interrupted.store(true);
}

struct Options {
  bool watch = false;
  bool json = false;
  double intervalSeconds = 1.0;
};

double monotonicSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double realTimeSeconds() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Sleeps until the monotonic clock reads `deadline`, or until a signal asks to stop.
void sleepUntil(double deadline) {
  const auto seconds = static_cast<time_t>(deadline);
  timespec target{seconds, static_cast<long>((deadline - static_cast<double>(seconds)) * 1e9)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &target, nullptr) == EINTR &&
         !interrupted.load()) {
  }
}

// One reading of the frame count, with the monotonic time it was taken.
struct Reading {
  std::optional<FrameCount> count;
  double taken = 0.0;
};

Reading readNow() {
  const flowmere::status::StoredStatus stored = flowmere::status::readStoredStatus();
  return {flowmere::status::readFrameCount(stored.stateDirectory), monotonicSeconds()};
}

// Queries the graph and, when a producer is linked and `previous` is younger than the interval,
// waits out the rest of the interval, so the rate covers it whole; then reads everything again.
StatusReport takeReport(const Options& options, const Reading& previous) {
  flowmere::status::CameraGraph graph = flowmere::status::queryCameraGraph(kPipeWireTimeout);
  if (graph.serviceRunning() && !graph.producers.empty()) {
    sleepUntil(previous.taken + options.intervalSeconds);
  }
  flowmere::status::StoredStatus stored = flowmere::status::readStoredStatus();
  const std::optional<FrameCount> count = flowmere::status::readFrameCount(stored.stateDirectory);
  const double elapsed = monotonicSeconds() - previous.taken;
  // Without a producer there is nothing to wait for; a rate over a moment would say nothing.
  const bool measured = elapsed >= options.intervalSeconds * 0.99;
  return flowmere::status::makeReport(std::move(graph), std::move(stored),
                                      measured ? previous.count : std::nullopt, count, elapsed,
                                      realTimeSeconds());
}

void show(const Options& options, const StatusReport& report, bool refresh) {
  if (options.json) {
    const nlohmann::json json = flowmere::status::reportJson(report);
    // Compact, one object per line, when several follow each other.
    const std::string text =
        json.dump(options.watch ? -1 : 2, ' ', false, nlohmann::json::error_handler_t::replace);
    std::printf("%s\n", text.c_str());
  } else {
    if (refresh) {
      // Home the cursor and clear the screen, so the report stands in place.
      std::fputs("\033[H\033[2J", stdout);
    }
    flowmere::status::printReport(report, stdout);
    if (refresh) {
      std::printf("\n  (every %.1f s; Ctrl-C ends)\n", options.intervalSeconds);
    }
  }
  std::fflush(stdout);
}

int exitStatus(const StatusReport& report) {
  return report.verdict == flowmere::status::Verdict::kRelaying ? 0 : 1;
}

// Reports once, or every interval until a signal with `watch`; returns the exit status.
int run(const Options& options) {
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
  pw_init(nullptr, nullptr);
  Reading previous = readNow();
  StatusReport report = takeReport(options, previous);
  if (options.watch) {
    const bool refresh = !options.json && isatty(STDOUT_FILENO) == 1;
    // Each refresh measures the rate since the one before.
    while (!interrupted.load()) {
      show(options, report, refresh);
      previous = readNow();
      sleepUntil(previous.taken + options.intervalSeconds);
      if (interrupted.load()) {
        break;
      }
      report = takeReport(options, previous);
    }
  } else {
    show(options, report, false);
  }
  pw_deinit();
  return exitStatus(report);
}

// `doctor [--json]`: the arguments after "doctor".
int runDoctorCommand(int argc, char** argv) {
  bool json = false;
  for (int index = 2; index < argc; ++index) {
    const std::string_view argument = argv[index];
    if (argument == "--json") {
      json = true;
    } else if (argument == "--help" || argument == "-h") {
      return flowmere::tools::printUsage(kUsage);
    } else {
      return flowmere::tools::badUsage(kProgram,
                                       "doctor: unknown option '" + std::string(argument) + "'");
    }
  }
  try {
    pw_init(nullptr, nullptr);
    const std::vector<flowmere::status::Check> checks =
        flowmere::status::runDoctor(kPipeWireTimeout);
    pw_deinit();
    if (json) {
      const std::string text = flowmere::status::doctorJson(checks).dump(
          2, ' ', false, nlohmann::json::error_handler_t::replace);
      std::printf("%s\n", text.c_str());
    } else {
      flowmere::status::printDoctor(checks, stdout);
    }
    std::fflush(stdout);
    return flowmere::status::doctorExitStatus(checks);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "flowmere-camera-status doctor: %s\n", error.what());
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::string_view(argv[1]) == "doctor") {
    return runDoctorCommand(argc, argv);
  }
  Options options;
  for (int index = 1; index < argc; ++index) {
    const std::string_view argument = argv[index];
    if (argument == "--help" || argument == "-h") {
      return flowmere::tools::printUsage(kUsage);
    }
    if (argument == "--version") {
      return flowmere::tools::printVersion(kProgram);
    }
    if (argument == "--watch") {
      options.watch = true;
    } else if (argument == "--json") {
      options.json = true;
    } else if (argument == "--interval") {
      if (index + 1 >= argc) {
        return flowmere::tools::badUsage(kProgram, "--interval needs a value");
      }
      const std::string_view value = argv[++index];
      if (!flowmere::tools::parseNumber(value, options.intervalSeconds) ||
          options.intervalSeconds < 0.1 || options.intervalSeconds > 60) {
        return flowmere::tools::badUsage(
            kProgram, "--interval takes seconds from 0.1 to 60, not '" + std::string(value) + "'");
      }
    } else {
      return flowmere::tools::badUsage(kProgram, "unknown option '" + std::string(argument) + "'");
    }
  }

  // A file system or PipeWire surprise ends the program with its message, never with abort().
  try {
    return run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "flowmere-camera-status: %s\n", error.what());
    return 1;
  }
}
