#pragma once

// The actions of a simulator script, as the parser hands them to the runner: one plain struct per
// verb, every field checked and converted, so that running a script never reads JSON again.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/FourCharCode.h"
#include "platform/MediaTime.h"

namespace flowmere::sim {

enum class StreamSide { kSink, kSource };
// What `get` and `available` read properties from.
enum class PropertyTarget { kSink, kSource, kDevice, kProvider };

struct DefineClient {
  std::string id;
  std::int32_t pid = 0;
  std::string description;  // the id when the script gives none
};
struct SetStreamingClients {
  StreamSide stream = StreamSide::kSink;
  std::vector<std::string> clients;
};
struct Connect {
  std::string client;
};
struct Disconnect {
  std::string client;
};
struct Authorize {
  StreamSide stream = StreamSide::kSink;
  std::string client;
};
struct Start {
  StreamSide stream = StreamSide::kSink;
};
struct Stop {
  StreamSide stream = StreamSide::kSink;
};
struct ListFormats {
  StreamSide stream = StreamSide::kSink;
};
struct SetProperties {
  StreamSide stream = StreamSide::kSink;
  std::optional<std::int64_t> activeFormatIndex;
  std::optional<platform::MediaTime> frameDuration;
};
struct GetProperties {
  PropertyTarget target = PropertyTarget::kSink;
  std::vector<std::string> names;
};
struct ListAvailable {
  PropertyTarget target = PropertyTarget::kSink;
};
// The pixel buffer a push carries; none pushes a sample buffer without an image.
struct PushedImage {
  std::vector<std::pair<std::string, std::string>> attachments;
};
struct Push {
  std::string client;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  platform::FourCharCode pixelFormat = platform::kCVPixelFormatType_32BGRA;
  platform::MediaTime pts;
  std::uint64_t seq = 0;
  std::optional<PushedImage> image;
};
// `count` pushes, `1/fps` apart from the action's time, stamped startPts + k/fps.
struct Feed {
  std::string client;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  platform::FourCharCode pixelFormat = platform::kCVPixelFormatType_32BGRA;
  std::int64_t count = 0;
  double fps = 0;
  platform::MediaTime startPts;
  std::int64_t seqStart = 1;
};
struct FailConsumeRequests {
  std::int64_t count = 0;
  std::string description;
};
// Only advances the clock to the action's time.
struct Wait {};

using ActionKind = std::variant<DefineClient, SetStreamingClients, Connect, Disconnect, Authorize,
                                Start, Stop, ListFormats, SetProperties, GetProperties,
                                ListAvailable, Push, Feed, FailConsumeRequests, Wait>;

struct Action {
  std::size_t line = 0;  // in the script, for messages
  double at = 0.0;       // script seconds
  std::string verb;      // as written after "do", echoed in result events
  ActionKind kind;
};

}  // namespace flowmere::sim
