#include "ScriptRunner.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <istream>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>
#include <vector>

#include "VANEProbeExtensionProvider.h"
#include "common/PosixFileManager.h"
#include "embedded/EmbeddedCameraService.h"

namespace flowmere::sim {

namespace {

using Json = nlohmann::ordered_json;
using platform::MediaTime;

constexpr std::int64_t kScriptEpoch = 100'000'000'000;  // virtual host time at script time 0

struct ScriptError {
  std::string message;
};

struct Action {
  std::size_t line = 0;
  double at = 0.0;
  std::string verb;
  nlohmann::json fields;
};

// --- Reading the script ----------------------------------------------------------------------

const nlohmann::json& field(const nlohmann::json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end()) {
    throw ScriptError{std::string("missing \"") + key + "\""};
  }
  return *found;
}

std::string stringField(const nlohmann::json& object, const char* key) {
  const auto& value = field(object, key);
  if (!value.is_string()) {
    throw ScriptError{std::string("\"") + key + "\" must be a string"};
  }
  return value.get<std::string>();
}

std::int64_t integerField(const nlohmann::json& object, const char* key) {
  const auto& value = field(object, key);
  if (!value.is_number_integer()) {
    throw ScriptError{std::string("\"") + key + "\" must be an integer"};
  }
  return value.get<std::int64_t>();
}

double numberField(const nlohmann::json& object, const char* key) {
  const auto& value = field(object, key);
  if (!value.is_number()) {
    throw ScriptError{std::string("\"") + key + "\" must be a number"};
  }
  return value.get<double>();
}

MediaTime mediaTime(const nlohmann::json& value, const char* key) {
  if (value.is_string()) {
    const auto text = value.get<std::string>();
    if (text == "invalid") {
      return MediaTime::invalid();
    }
    if (text == "indefinite") {
      return MediaTime::indefinite();
    }
    if (text == "+infinity") {
      return MediaTime::positiveInfinity();
    }
    if (text == "-infinity") {
      return MediaTime::negativeInfinity();
    }
    throw ScriptError{std::string("\"") + key + "\" has an unknown time \"" + text + "\""};
  }
  if (!value.is_object()) {
    throw ScriptError{std::string("\"") + key + "\" must be {\"value\", \"timescale\"}"};
  }
  const std::int64_t timescale = integerField(value, "timescale");
  if (timescale < INT32_MIN || timescale > INT32_MAX) {
    throw ScriptError{std::string("\"") + key + "\" has a timescale out of range"};
  }
  return MediaTime::make(integerField(value, "value"), static_cast<std::int32_t>(timescale));
}

platform::FourCharCode pixelFormatField(const nlohmann::json& object) {
  if (!object.contains("pixelFormat")) {
    return platform::kCVPixelFormatType_32BGRA;
  }
  const std::string name = stringField(object, "pixelFormat");
  if (name == "BGRA") {
    return platform::kCVPixelFormatType_32BGRA;
  }
  if (name == "x420") {
    return platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange;
  }
  throw ScriptError{"\"pixelFormat\" must be \"BGRA\" or \"x420\""};
}

void requireDimensions(const nlohmann::json& object) {
  for (const char* key : {"width", "height"}) {
    const std::int64_t value = integerField(object, key);
    if (value < 1 || value > 16384) {
      throw ScriptError{std::string("\"") + key + "\" must be between 1 and 16384"};
    }
  }
}

void validate(const Action& action, std::set<std::string>& clients) {
  const auto& f = action.fields;
  auto known = [&](const std::string& id) {
    if (!clients.contains(id)) {
      throw ScriptError{"no client \"" + id + "\" is defined before this line"};
    }
  };
  const std::string& verb = action.verb;
  auto stream = [&] {
    const std::string name = stringField(f, "stream");
    if (name != "sink" && name != "source") {
      throw ScriptError{"\"stream\" must be \"sink\" or \"source\""};
    }
  };
  if (verb == "client") {
    clients.insert(stringField(f, "id"));
    integerField(f, "pid");
    if (f.contains("description")) {
      stringField(f, "description");
    }
  } else if (verb == "streaming") {
    stream();
    const auto& list = field(f, "clients");
    if (!list.is_array()) {
      throw ScriptError{"\"clients\" must be a list of client ids"};
    }
    for (const auto& id : list) {
      if (!id.is_string()) {
        throw ScriptError{"\"clients\" must be a list of client ids"};
      }
      known(id.get<std::string>());
    }
  } else if (verb == "connect" || verb == "disconnect") {
    known(stringField(f, "client"));
  } else if (verb == "authorize") {
    stream();
    known(stringField(f, "client"));
  } else if (verb == "start" || verb == "stop" || verb == "formats") {
    stream();
  } else if (verb == "set") {
    stream();
    if (f.contains("activeFormatIndex")) {
      integerField(f, "activeFormatIndex");
    }
    if (f.contains("frameDuration")) {
      mediaTime(f["frameDuration"], "frameDuration");
    }
  } else if (verb == "get" || verb == "available") {
    const std::string target = stringField(f, "target");
    if (target != "sink" && target != "source" && target != "device" && target != "provider") {
      throw ScriptError{"\"target\" must be sink, source, device or provider"};
    }
    if (verb == "get") {
      const auto& names = field(f, "properties");
      if (!names.is_array() ||
          !std::all_of(names.begin(), names.end(), [](const auto& n) { return n.is_string(); })) {
        throw ScriptError{"\"properties\" must be a list of property names"};
      }
    }
  } else if (verb == "push") {
    known(stringField(f, "client"));
    requireDimensions(f);
    mediaTime(field(f, "pts"), "pts");
    integerField(f, "seq");
    pixelFormatField(f);
    if (f.contains("image") && !f["image"].is_boolean()) {
      throw ScriptError{"\"image\" must be true or false"};
    }
    if (f.contains("attachments")) {
      const auto& attachments = f["attachments"];
      if (!attachments.is_object() ||
          !std::all_of(attachments.begin(), attachments.end(),
                       [](const auto& value) { return value.is_string(); })) {
        throw ScriptError{"\"attachments\" must be an object of strings"};
      }
    }
  } else if (verb == "feed") {
    known(stringField(f, "client"));
    requireDimensions(f);
    if (integerField(f, "count") < 0 || integerField(f, "count") > 10'000'000) {
      throw ScriptError{"\"count\" must be between 0 and 10000000"};
    }
    const double fps = numberField(f, "fps");
    if (!(fps > 0 && fps <= 10'000)) {
      throw ScriptError{"\"fps\" must be above 0 and at most 10000"};
    }
    mediaTime(field(f, "startPts"), "startPts");
    if (f.contains("seqStart")) {
      integerField(f, "seqStart");
    }
    pixelFormatField(f);
  } else if (verb == "fail") {
    integerField(f, "count");
    stringField(f, "description");
  } else if (verb != "wait") {
    throw ScriptError{"unknown action \"" + verb + "\""};
  }
}

std::vector<Action> readScript(std::istream& script) {
  std::vector<Action> actions;
  std::string text;
  std::size_t line = 0;
  double lastAt = 0.0;
  std::set<std::string> clients;
  while (std::getline(script, text)) {
    ++line;
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos || text[first] == '#') {
      continue;
    }
    Action action;
    action.line = line;
    try {
      action.fields = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& error) {
      // Syntax errors, and numbers too large for a double (out of range) alike.
      throw ScriptError{"line " + std::to_string(line) + ": not JSON: " + error.what()};
    }
    try {
      if (!action.fields.is_object()) {
        throw ScriptError{"each line must be a JSON object"};
      }
      action.verb = stringField(action.fields, "do");
      if (action.fields.contains("at")) {
        action.at = numberField(action.fields, "at");
        if (!std::isfinite(action.at) || action.at < lastAt) {
          throw ScriptError{"\"at\" must be a finite number, not earlier than the line before"};
        }
      } else {
        action.at = lastAt;
      }
      lastAt = action.at;
      validate(action, clients);
    } catch (const ScriptError& error) {
      throw ScriptError{"line " + std::to_string(line) + ": " + error.message};
    }
    actions.push_back(std::move(action));
  }
  return actions;
}

// --- Writing events --------------------------------------------------------------------------

Json mediaTimeJson(const MediaTime& time) {
  if (!time.isValid()) {
    return "invalid";
  }
  if ((time.flags & MediaTime::kIndefinite) != 0) {
    return "indefinite";
  }
  if ((time.flags & MediaTime::kPositiveInfinity) != 0) {
    return "+infinity";
  }
  if ((time.flags & MediaTime::kNegativeInfinity) != 0) {
    return "-infinity";
  }
  return Json{{"value", time.value}, {"timescale", time.timescale}};
}

Json propertyValueJson(const platform::PropertyState& state) {
  Json value = std::visit(
      [](const auto& v) -> Json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          return nullptr;
        } else if constexpr (std::is_same_v<T, MediaTime>) {
          return mediaTimeJson(v);
        } else if constexpr (std::is_same_v<T, platform::MediaTimeDictionary>) {
          return Json{{"value", v.time.value},
                      {"timescale", v.time.timescale},
                      {"flags", v.time.flags},
                      {"epoch", v.time.epoch}};
        } else {
          return v;
        }
      },
      state.value);
  if (state.attributes && state.attributes->readOnly) {
    return Json{{"value", value}, {"readOnly", true}};
  }
  return value;
}

Json propertiesJson(const platform::PropertyStateMap& states) {
  Json values = Json::object();
  for (const auto& [name, state] : states) {
    values[name] = propertyValueJson(state);
  }
  return values;
}

Json errorJson(const platform::Error& error) {
  Json json{{"domain", error.domain}, {"code", error.code}};
  if (error.localizedDescription) {
    json["description"] = *error.localizedDescription;
  }
  return json;
}

std::string formatName(platform::FourCharCode code) {
  return platform::fourCharCodeString(code);
}

// --- Running ---------------------------------------------------------------------------------

class Runner {
 public:
  Runner(const ScriptOptions& options, std::ostream& out) : out_(out) {
    embedded::EmbeddedOptions serviceOptions;
    serviceOptions.mode = embedded::TimeMode::kVirtual;
    serviceOptions.virtualStartNanoseconds = kScriptEpoch;
    serviceOptions.temporaryDirectory = options.temporaryDirectory;
    if (options.container) {
      serviceOptions.containerDirectory = options.container;
    } else if (!options.noContainer) {
      serviceOptions.containerParent = common::PosixFileManager::defaultContainerParent();
    }
    serviceOptions.logSink = [this](std::string_view line) {
      emit("log", Json{{"text", std::string(line)}});
    };
    service_ = embedded::EmbeddedCameraService::create(std::move(serviceOptions));
    observe();
    provider_ = VANEProbeExtensionProviderSource::create(service_, nullptr);
    service_->startService(provider_->platformProvider());
  }

  void run(const std::vector<Action>& actions, bool checkInvariants) {
    for (const Action& action : actions) {
      advanceTo(action.at);
      perform(action);
      if (checkInvariants) {
        checkRelayInvariants(action);
      }
    }
    // Work due at exactly the last action's time runs before the end.
    service_->executor()->runUntilIdle();
  }

 private:
  void observe() {
    service_->onSend([this](const embedded::EmbeddedStream&,
                            const std::shared_ptr<platform::SampleBuffer>& buffer,
                            platform::StreamDiscontinuityFlags, std::uint64_t hostTime) {
      const auto& pixels = buffer->imageBuffer();
      Json attachments = Json::object();
      for (const auto& attachment : pixels->attachments()) {
        attachments[std::string(attachment.key)] = std::string(attachment.value);
      }
      auto seq = sequenceOf_.find(pixels.get());
      emit("send", Json{{"stream", "source"},
                        {"seq", seq != sequenceOf_.end() ? Json(seq->second) : Json(nullptr)},
                        {"hostTimeNs", hostTime},
                        {"pts", mediaTimeJson(buffer->presentationTimeStamp())},
                        {"duration", mediaTimeJson(buffer->duration())},
                        {"width", pixels->width()},
                        {"height", pixels->height()},
                        {"attachments", attachments}});
    });
    service_->onScheduledOutput(
        [this](const embedded::EmbeddedStream&, const platform::ScheduledOutput& output) {
          emit("scheduledOutput", Json{{"stream", "sink"},
                                       {"seq", output.sequenceNumber},
                                       {"hostTimeNs", output.hostTimeInNanoseconds}});
        });
    service_->onPropertiesChanged(
        [this](const embedded::EmbeddedStream& stream, const platform::PropertyStateMap& changes) {
          emit("propertiesChanged",
               Json{{"stream", streamName(stream)}, {"values", propertiesJson(changes)}});
        });
    service_->onSettingsWrite([this](std::string_view key, const platform::PropertyValue& value) {
      emit("suite", Json{{"key", std::string(key)},
                         {"value", propertyValueJson(platform::PropertyState{value, {}})}});
    });
    service_->onFileWrite([this](const std::filesystem::path& path, std::string_view text) {
      emit("file", Json{{"name", path.filename().string()}, {"text", std::string(text)}});
    });
  }

  static std::string streamName(const embedded::EmbeddedStream& stream) {
    return stream.direction() == platform::StreamDirection::CMIOExtensionStreamDirectionSink
               ? "sink"
               : "source";
  }

  void emit(const char* event, Json fields) {
    Json line{{"t", scriptSeconds()}, {"event", event}};
    for (auto& [key, value] : fields.items()) {
      line[key] = std::move(value);
    }
    out_ << line.dump() << '\n';
  }

  double scriptSeconds() {
    return static_cast<double>(service_->clock().hostTime().value - kScriptEpoch) / 1e9;
  }

  void advanceTo(double at) {
    service_->executor()->advanceTo(kScriptEpoch + std::llround(at * 1e9));
  }

  std::shared_ptr<embedded::EmbeddedStream> stream(const nlohmann::json& fields) {
    return stringField(fields, "stream") == "sink" ? service_->sinkStream()
                                                   : service_->sourceStream();
  }

  std::shared_ptr<const platform::Client> client(const std::string& id) {
    auto found = clients_.find(id);
    if (found == clients_.end()) {
      throw ScriptError{"no client \"" + id + "\" was defined"};
    }
    return found->second;
  }

  void result(const Action& action, const platform::Status& status) {
    Json fields{{"do", action.verb}};
    if (action.fields.contains("stream")) {
      fields["stream"] = action.fields["stream"];
    }
    fields["ok"] = status.ok();
    if (!status.ok()) {
      fields["error"] = errorJson(status.error());
    }
    emit("result", std::move(fields));
  }

  void push(const std::string& clientID, std::int64_t width, std::int64_t height,
            platform::FourCharCode format, MediaTime pts, std::uint64_t seq, bool image,
            const nlohmann::json* attachments) {
    auto producer = client(clientID);
    std::shared_ptr<platform::PixelBuffer> pixels;
    if (image) {
      pixels =
          takePooled(static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), format);
      if (attachments != nullptr) {
        for (const auto& [key, value] : attachments->items()) {
          pixels->setAttachment(platform::internString(key),
                                platform::internString(value.get<std::string>()),
                                platform::AttachmentMode::kCVAttachmentMode_ShouldPropagate);
        }
      }
      sequenceOf_[pixels.get()] = seq;
    }
    std::optional<platform::FormatDescription> description;
    if (pixels) {
      description = platform::createVideoFormatDescriptionForImageBuffer(*pixels);
    }
    auto frame = platform::SampleBuffer::createReadyWithImageBuffer(
        pixels, description, platform::SampleTimingInfo{MediaTime::make(1, 30), pts, {}});
    const bool accepted = service_->sinkStream()->push(producer, std::move(frame), seq);
    emit(accepted ? "pushed" : "refused", Json{{"client", clientID}, {"seq", seq}});
  }

  std::shared_ptr<platform::PixelBuffer> takePooled(std::uint32_t width, std::uint32_t height,
                                                    platform::FourCharCode format) {
    // Buffers are zero-filled once and then reused: a long script must not spend its time
    // clearing fresh memory for every frame.
    auto& pool = pools_[std::make_tuple(width, height, format)];
    if (!pool) {
      pool = std::make_shared<std::vector<std::shared_ptr<platform::PixelBuffer>>>();
    }
    std::shared_ptr<platform::PixelBuffer> memory;
    if (!pool->empty()) {
      memory = std::move(pool->back());
      pool->pop_back();
    } else {
      memory = platform::PixelBuffer::create(width, height, format);
    }
    std::vector<platform::PixelBufferPlane> planes;
    for (std::size_t i = 0; i < memory->planeCount(); ++i) {
      planes.push_back(memory->plane(i));
    }
    return platform::PixelBuffer::wrap(
        width, height, format, planes,
        [weakPool = std::weak_ptr<std::vector<std::shared_ptr<platform::PixelBuffer>>>(pool),
         memory]() mutable {
          if (auto owner = weakPool.lock()) {
            owner->push_back(std::move(memory));
          }
        });
  }

  void perform(const Action& action) {
    const auto& f = action.fields;
    const std::string& verb = action.verb;
    if (verb == "client") {
      clients_[stringField(f, "id")] = service_->makeClient(
          static_cast<std::int32_t>(integerField(f, "pid")),
          f.contains("description") ? stringField(f, "description") : stringField(f, "id"));
    } else if (verb == "streaming") {
      std::vector<std::shared_ptr<const platform::Client>> list;
      for (const auto& id : f["clients"]) {
        list.push_back(client(id.get<std::string>()));
      }
      stream(f)->setStreamingClients(std::move(list));
    } else if (verb == "connect") {
      result(action, service_->publishedProvider()->connect(client(stringField(f, "client"))));
    } else if (verb == "disconnect") {
      service_->publishedProvider()->disconnect(client(stringField(f, "client")));
      result(action, platform::Status::success());
    } else if (verb == "authorize") {
      const bool granted = stream(f)->authorize(client(stringField(f, "client")));
      result(action, granted ? platform::Status::success()
                             : platform::Status(platform::Error{"authorization", 0, "refused"}));
    } else if (verb == "start") {
      result(action, stream(f)->start());
    } else if (verb == "stop") {
      result(action, stream(f)->stop());
    } else if (verb == "set") {
      platform::StreamProperties properties;
      if (f.contains("activeFormatIndex")) {
        properties.setActiveFormatIndex(integerField(f, "activeFormatIndex"));
      }
      if (f.contains("frameDuration")) {
        properties.setFrameDuration(mediaTime(f["frameDuration"], "frameDuration"));
      }
      result(action, stream(f)->setProperties(properties));
    } else if (verb == "get") {
      platform::PropertySet names;
      for (const auto& name : f["properties"]) {
        names.insert(name.get<std::string>());
      }
      get(stringField(f, "target"), names);
    } else if (verb == "available") {
      available(stringField(f, "target"));
    } else if (verb == "formats") {
      Json list = Json::array();
      for (const auto& format : *stream(f)->formats()) {
        const auto& description = format.formatDescription;
        Json extensions = nullptr;
        if (description.extensions()) {
          extensions = Json::object();
          for (const auto& entry : *description.extensions()) {
            extensions[std::string(entry.key)] = std::string(entry.value);
          }
        }
        list.push_back(Json{{"width", description.dimensions().width},
                            {"height", description.dimensions().height},
                            {"pixelFormat", formatName(description.codecType())},
                            {"extensions", extensions},
                            {"minFrameDuration", mediaTimeJson(format.minFrameDuration)},
                            {"maxFrameDuration", mediaTimeJson(format.maxFrameDuration)}});
      }
      emit("formats", Json{{"stream", f["stream"]}, {"formats", list}});
    } else if (verb == "push") {
      push(stringField(f, "client"), integerField(f, "width"), integerField(f, "height"),
           pixelFormatField(f), mediaTime(f["pts"], "pts"),
           static_cast<std::uint64_t>(integerField(f, "seq")), f.value("image", true),
           f.contains("attachments") ? &f["attachments"] : nullptr);
    } else if (verb == "feed") {
      feed(action);
    } else if (verb == "fail") {
      service_->failNextConsumeRequests(static_cast<int>(integerField(f, "count")),
                                        stringField(f, "description"));
    }
  }

  void feed(const Action& action) {
    const auto& f = action.fields;
    const std::int64_t count = integerField(f, "count");
    const double fps = numberField(f, "fps");
    const MediaTime start = mediaTime(f["startPts"], "startPts");
    const std::int64_t seqStart = f.contains("seqStart") ? integerField(f, "seqStart") : 1;
    const std::string clientID = stringField(f, "client");
    client(clientID);  // defined before the first push is due
    const std::int64_t width = integerField(f, "width");
    const std::int64_t height = integerField(f, "height");
    const platform::FourCharCode format = pixelFormatField(f);
    const std::int64_t base = kScriptEpoch + std::llround(action.at * 1e9);
    for (std::int64_t k = 0; k < count; ++k) {
      // pts = startPts + k/fps, in the start's own timescale.
      MediaTime pts = start;
      if (start.isNumeric()) {
        pts.value = start.value + std::llround(static_cast<double>(k) * start.timescale / fps);
      }
      const std::int64_t due = base + std::llround(static_cast<double>(k) * 1e9 / fps);
      service_->executor()->schedule(due, [this, clientID, width, height, format, pts,
                                           seq = static_cast<std::uint64_t>(seqStart + k)] {
        push(clientID, width, height, format, pts, seq, true, nullptr);
      });
    }
  }

  void get(const std::string& target, const platform::PropertySet& names) {
    Json values;
    if (target == "provider") {
      values = propertiesJson(
          service_->publishedProvider()->getProperties(names).value().propertiesDictionary());
    } else if (target == "device") {
      values = propertiesJson(service_->publishedProvider()
                                  ->devices()
                                  .front()
                                  ->getProperties(names)
                                  .value()
                                  .propertiesDictionary());
    } else {
      auto platformStream = target == "sink" ? service_->sinkStream() : service_->sourceStream();
      values = propertiesJson(platformStream->getProperties(names).value().propertiesDictionary());
    }
    emit("properties", Json{{"target", target}, {"values", values}});
  }

  void available(const std::string& target) {
    platform::PropertySet names;
    if (target == "provider") {
      names = service_->publishedProvider()->availableProperties();
    } else if (target == "device") {
      names = service_->publishedProvider()->devices().front()->availableProperties();
    } else {
      names = (target == "sink" ? service_->sinkStream() : service_->sourceStream())
                  ->availableProperties();
    }
    emit("available", Json{{"target", target}, {"names", Json(names)}});
  }

  void checkRelayInvariants(const Action& action) {
    auto& device = *provider_->devices().front();
    const auto source = device.source()->snapshot();
    const auto sink = device.sink()->snapshot();
    const char* broken = nullptr;
    if (source.storedFormatIndex < 0 || source.storedFormatIndex >= 10 ||
        sink.storedFormatIndex < 0 || sink.storedFormatIndex >= 10) {
      broken = "a stored format index is outside the catalogue";
    } else if (source.producerFormatIndex &&
               *source.producerFormatIndex != source.storedFormatIndex) {
      broken = "the source's index differs from the producer's pin";
    } else if (sink.receivedFrames < lastReceived_ || source.sentFrameCount < lastSent_) {
      broken = "a frame count went back";
    } else if (service_->sinkStream()->pendingConsumeRequests() > 1) {
      broken = "more than one consume request is outstanding";
    }
    if (broken != nullptr) {
      std::fprintf(stderr, "invariant broken after line %zu (%s): %s\n", action.line,
                   action.verb.c_str(), broken);
      std::abort();
    }
    lastReceived_ = sink.receivedFrames;
    lastSent_ = source.sentFrameCount;
  }

  std::ostream& out_;
  std::uint64_t lastReceived_ = 0;
  std::uint64_t lastSent_ = 0;
  std::shared_ptr<embedded::EmbeddedCameraService> service_;
  std::shared_ptr<VANEProbeExtensionProviderSource> provider_;
  std::map<std::string, std::shared_ptr<const platform::Client>> clients_;
  std::map<const platform::PixelBuffer*, std::uint64_t> sequenceOf_;
  std::map<std::tuple<std::uint32_t, std::uint32_t, platform::FourCharCode>,
           std::shared_ptr<std::vector<std::shared_ptr<platform::PixelBuffer>>>>
      pools_;
};

}  // namespace

std::optional<std::string> validateScript(std::istream& script) {
  try {
    readScript(script);
  } catch (const ScriptError& error) {
    return error.message;
  }
  return std::nullopt;
}

int runScript(std::istream& script, const std::string& scriptName, const ScriptOptions& options,
              std::ostream& out, std::ostream& errors) {
  std::vector<Action> actions;
  try {
    actions = readScript(script);
  } catch (const ScriptError& error) {
    errors << "flowmere-camera-sim: " << scriptName << ": " << error.message << '\n';
    return 2;
  }
  try {
    Runner runner(options, out);
    runner.run(actions, options.checkInvariants);
  } catch (const ScriptError& error) {
    out.flush();
    errors << "flowmere-camera-sim: " << scriptName << ": " << error.message << '\n';
    return 2;
  }
  out.flush();
  return 0;
}

}  // namespace flowmere::sim
