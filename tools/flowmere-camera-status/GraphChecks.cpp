#include "GraphChecks.h"

#include <algorithm>
#include <cstdio>

namespace flowmere::status {

namespace {

constexpr const char* kStartPipeWire =
    "systemctl --user enable --now pipewire.socket pipewire.service (Debian: sudo apt install "
    "pipewire pipewire-bin)";

std::string describeFormat(const GraphVideoFormat& format) {
  char rate[32];
  std::snprintf(rate, sizeof rate, "%.2g", format.fps);
  std::string text =
      std::to_string(format.width) + "x" + std::to_string(format.height) + " " + format.pixelFormat;
  if (format.fps > 0) {
    text += " at " + std::string(rate) + " fps";
  }
  if (!format.transfer.empty()) {
    text += " " + format.transfer;
  }
  return text;
}

std::string describePeer(const GraphPeer& peer) {
  std::string text = peer.nodeName.empty() ? "node " + std::to_string(peer.nodeId) : peer.nodeName;
  if (!peer.application.empty() && peer.application != peer.nodeName) {
    text += " (" + peer.application + ")";
  }
  if (peer.pid > 0) {
    text += " pid " + std::to_string(peer.pid);
  }
  return text;
}

}  // namespace

Check pipeWireCheck(const CameraGraph& graph) {
  Check check;
  check.id = "pipewire";
  if (!graph.problem.empty()) {
    check.result = CheckResult::kFail;
    check.found = graph.problem;
    check.fix = kStartPipeWire;
    return check;
  }
  check.found = "PipeWire answers on this user's socket (" +
                std::to_string(graph.clientApplications.size()) + " clients connected)";
  return check;
}

Check wirePlumberCheck(const CameraGraph& graph) {
  Check check;
  check.id = "wireplumber";
  if (!graph.problem.empty()) {
    check.result = CheckResult::kFail;
    check.found = "cannot tell: " + graph.problem;
    check.fix = "start PipeWire first, then: systemctl --user enable --now wireplumber.service";
    return check;
  }
  const auto& apps = graph.clientApplications;
  for (const char* manager : {"WirePlumber", "pipewire-media-session"}) {
    if (std::find(apps.begin(), apps.end(), manager) != apps.end()) {
      check.found = std::string(manager) + " is connected to PipeWire";
      return check;
    }
  }
  check.result = CheckResult::kFail;
  check.found =
      "no session manager (WirePlumber) is connected to PipeWire: nothing links a "
      "client to the camera";
  check.fix =
      "systemctl --user enable --now wireplumber.service (Debian: sudo apt install "
      "wireplumber)";
  return check;
}

Check serviceCheck(const CameraGraph& graph) {
  Check check;
  check.id = "service";
  constexpr const char* kStart =
      "systemctl --user enable --now flowmere-camera-extension (its log: journalctl --user -u "
      "flowmere-camera-extension)";
  if (!graph.problem.empty()) {
    check.result = CheckResult::kFail;
    check.found = "cannot ask PipeWire: " + graph.problem;
    check.fix = std::string("start PipeWire (see the pipewire check), then ") + kStart;
    return check;
  }
  if (!graph.sourceNode || !graph.sinkNode) {
    check.result = CheckResult::kFail;
    std::string missing = graph.sourceNode ? "" : sourceNodeName();
    if (!graph.sinkNode) {
      missing += (missing.empty() ? "" : " and ") + sinkNodeName();
    }
    const bool both = !graph.sourceNode && !graph.sinkNode;
    check.found = "the camera service is not running: " + missing + (both ? " are" : " is") +
                  " not on PipeWire";
    check.fix = kStart;
    return check;
  }
  check.found = sourceNodeName() + " (node " + std::to_string(*graph.sourceNode) + ") and " +
                sinkNodeName() + " (node " + std::to_string(*graph.sinkNode) +
                ") are on PipeWire; the source is " +
                (graph.sourceMediaClass.empty() ? "of no media class" : graph.sourceMediaClass) +
                ", role " + (graph.sourceMediaRole.empty() ? "none" : graph.sourceMediaRole);
  if (graph.sourceMediaClass != "Video/Source" || graph.sourceMediaRole != "Camera") {
    check.result = CheckResult::kFail;
    check.found += ": the camera portal counts only a Video/Source with role Camera";
    check.fix =
        "the service is not Flowmere's (or is damaged): reinstall flowmere-camera and "
        "systemctl --user restart flowmere-camera-extension";
  }
  return check;
}

Check producerCheck(const CameraGraph& graph) {
  Check check;
  check.id = "producer";
  if (!graph.serviceRunning()) {
    check.result = CheckResult::kWarn;
    check.found = "no camera service, so no producer";
    check.fix = "see the service check";
    return check;
  }
  std::string clients;
  for (const GraphPeer& client : graph.clients) {
    clients += (clients.empty() ? "" : ", ") + describePeer(client);
  }
  const std::string capturing =
      graph.clients.empty() ? "no client captures now"
                            : std::to_string(graph.clients.size()) + " capturing now: " + clients;
  if (graph.producers.empty()) {
    check.result = CheckResult::kWarn;
    check.found = "no producer is linked into " + sinkNodeName() +
                  " (clients get frames once one starts); " + capturing;
    check.fix =
        "start the Flowmere producer application, or a test pattern: "
        "flowmere-camera-producer --size 1280x720 --fps 30";
    return check;
  }
  std::string producers;
  for (const GraphPeer& producer : graph.producers) {
    producers += (producers.empty() ? "" : ", ") + describePeer(producer);
  }
  check.found = "producer " + producers + " linked at " +
                (graph.sinkFormat ? describeFormat(*graph.sinkFormat) : "no format yet") + "; " +
                capturing;
  if (graph.sinkFormat && graph.sinkFormat->pixelFormat.rfind("P010", 0) == 0) {
    check.result = CheckResult::kWarn;
    check.found += "; browsers and V4L2 programs cannot take this HDR format";
    check.fix = "for browsers, run the producer with --format bgra";
  }
  return check;
}

}  // namespace flowmere::status
