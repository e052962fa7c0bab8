#include "StatusReport.h"

#include <cstdio>

namespace flowmere::status {

std::optional<double> frameRateBetween(const std::optional<FrameCount>& first,
                                       const std::optional<FrameCount>& second,
                                       double elapsedSeconds) {
  if (!first || !second || !(elapsedSeconds > 0.0)) {
    return std::nullopt;
  }
  const std::int64_t frames = second->frames - first->frames;
  if (frames == 0) {
    return 0.0;
  }
  if (frames < 0) {
    return static_cast<double>(second->frames) / elapsedSeconds;
  }
  const double span = second->writtenSeconds - first->writtenSeconds;
  // The write times are as fine as the file system keeps them; a span that is not plausible
  // for the interval (a clock step, a coarse time stamp) falls back to the interval itself.
  if (span > 0.0 && span <= elapsedSeconds + 0.05) {
    return static_cast<double>(frames) / span;
  }
  return static_cast<double>(frames) / elapsedSeconds;
}

namespace {

std::string relayingText(double fps, std::size_t clients) {
  char text[96];
  if (clients == 0) {
    std::snprintf(text, sizeof text, "relaying %.1f fps, no client capturing", fps);
  } else {
    std::snprintf(text, sizeof text, "relaying %.1f fps to %zu client%s", fps, clients,
                  clients == 1 ? "" : "s");
  }
  return text;
}

}  // namespace

StatusReport makeReport(CameraGraph graph, StoredStatus stored,
                        const std::optional<FrameCount>& first,
                        const std::optional<FrameCount>& second, double elapsedSeconds,
                        double nowSeconds) {
  StatusReport report;
  report.graph = std::move(graph);
  report.stored = std::move(stored);
  report.intervalSeconds = elapsedSeconds;
  if (second) {
    report.framesReceived = second->frames;
    // A count of 0 was written by a start; no frame has come since.
    if (second->frames > 0) {
      report.lastFrameAgeSeconds = std::max(0.0, nowSeconds - second->writtenSeconds);
    }
  }
  report.frameRate = frameRateBetween(first, second, elapsedSeconds);

  if (!report.graph.serviceRunning()) {
    report.verdict = Verdict::kServiceNotRunning;
    report.verdictText = "camera service not running";
  } else if (report.graph.idlePicture && !report.graph.clients.empty()) {
    // Clients see the camera's own card: say so rather than that they see nothing.
    const std::size_t clients = report.graph.clients.size();
    report.verdict = Verdict::kShowingIdlePicture;
    report.verdictText = "showing the idle picture to " + std::to_string(clients) + " client" +
                         (clients == 1 ? "" : "s");
  } else if (report.graph.producers.empty()) {
    report.verdict = Verdict::kWaitingForProducer;
    report.verdictText = "waiting for a producer";
  } else if (!report.frameRate || *report.frameRate <= 0.0) {
    report.verdict = Verdict::kNoFrames;
    report.verdictText = "a producer is linked, but no frames arrive";
  } else {
    report.verdict = Verdict::kRelaying;
    report.verdictText = relayingText(*report.frameRate, report.graph.clients.size());
  }
  return report;
}

}  // namespace flowmere::status
