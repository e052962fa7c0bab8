#pragma once

// The camera as the user's PipeWire graph shows it right now: whether the camera service's two
// nodes are there, which nodes are linked into the sink (producers) and out of the source
// (camera clients), the format the sink negotiated with its producer, and the source node's
// timeline property. One query is one connection and a few round trips to PipeWire.
//
// Single-threaded: `queryCameraGraph` runs PipeWire's main loop on the calling thread until the
// answers are in. pw_init must have been called.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace flowmere::status {

// A node at the other end of one of the camera's links.
struct GraphPeer {
  std::uint32_t nodeId = 0;
  std::string nodeName;
  std::string application;
  std::int32_t pid = -1;
};

// A negotiated raw-video format.
struct GraphVideoFormat {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::string pixelFormat;  // PipeWire's short name: "BGRA", "P010_10LE"
  double fps = 0.0;         // 0 when the format names no rate
  std::string transfer;     // "PQ", "HLG", or empty for the default
  // Its position in the camera's format catalogue; none when it is not one of them.
  std::optional<std::int64_t> catalogueIndex;
};

struct CameraGraph {
  // Why PipeWire could not be asked; empty when it answered.
  std::string problem;
  std::optional<std::uint32_t> sourceNode;
  std::optional<std::uint32_t> sinkNode;
  // The source node's media class and role (the camera portal counts only Video/Source with
  // role Camera) and its object serial (what PIPEWIRE_V4L2_TARGET names).
  std::string sourceMediaClass;
  std::string sourceMediaRole;
  std::optional<std::uint64_t> sourceSerial;
  // The application names of every client connected to PipeWire ("WirePlumber", ...).
  std::vector<std::string> clientApplications;
  // The source node's timeline property ("4cc_fwtc_glob_0000"), when it carries one.
  std::optional<std::string> timeline;
  // The source node sends its idle picture (no producer frame for half a second, or none yet).
  bool idlePicture = false;
  // The format the sink negotiated with its producer.
  std::optional<GraphVideoFormat> sinkFormat;
  // Nodes with a working link into the sink, and nodes the source has a working link to (links
  // in the error state are left out), each once.
  std::vector<GraphPeer> producers;
  std::vector<GraphPeer> clients;

  [[nodiscard]] bool serviceRunning() const {
    return problem.empty() && sourceNode.has_value() && sinkNode.has_value();
  }
};

// The node names the camera service publishes.
std::string sourceNodeName();
std::string sinkNodeName();
// The source node's timeline property.
inline constexpr const char* kTimelineProperty = "4cc_fwtc_glob_0000";

// Asks PipeWire; gives up after `timeout` with `problem` set.
CameraGraph queryCameraGraph(std::chrono::milliseconds timeout);

}  // namespace flowmere::status
