#include "ScriptRunner.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <istream>
#include <map>
#include <ostream>
#include <tuple>
#include <vector>

#include "EventJson.h"
#include "ScriptParser.h"
#include "VANEProbeExtensionProvider.h"
#include "common/PosixFileManager.h"
#include "embedded/EmbeddedCameraService.h"

namespace flowmere::sim {

namespace {

using Json = EventJson;
using platform::MediaTime;

constexpr std::int64_t kScriptEpoch = 100'000'000'000;  // virtual host time at script time 0

// A script that names a client the service does not know; the parser refuses most of these
// before anything runs.
struct RunError {
  std::string message;
};

const char* streamName(StreamSide side) {
  return side == StreamSide::kSink ? "sink" : "source";
}

const char* targetName(PropertyTarget target) {
  switch (target) {
    case PropertyTarget::kSink:
      return "sink";
    case PropertyTarget::kSource:
      return "source";
    case PropertyTarget::kDevice:
      return "device";
    case PropertyTarget::kProvider:
      return "provider";
  }
  return "";
}

// Plays typed actions on the embedded service in virtual time and prints every event. Lives on
// the caller's thread: the executor runs all work there, so no field needs a lock.
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
      current_ = &action;
      std::visit([this](const auto& kind) { perform(kind); }, action.kind);
      current_ = nullptr;
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
          const bool sink =
              stream.direction() == platform::StreamDirection::CMIOExtensionStreamDirectionSink;
          emit("propertiesChanged",
               Json{{"stream", sink ? "sink" : "source"}, {"values", propertiesJson(changes)}});
        });
    service_->onSettingsWrite([this](std::string_view key, const platform::PropertyValue& value) {
      emit("suite", Json{{"key", std::string(key)},
                         {"value", propertyValueJson(platform::PropertyState{value, {}})}});
    });
    service_->onFileWrite([this](const std::filesystem::path& path, std::string_view text) {
      emit("file", Json{{"name", path.filename().string()}, {"text", std::string(text)}});
    });
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

  std::shared_ptr<embedded::EmbeddedStream> stream(StreamSide side) {
    return side == StreamSide::kSink ? service_->sinkStream() : service_->sourceStream();
  }

  std::shared_ptr<const platform::Client> client(const std::string& id) {
    auto found = clients_.find(id);
    if (found == clients_.end()) {
      throw RunError{"no client \"" + id + "\" was defined"};
    }
    return found->second;
  }

  // The outcome of the action being performed, with the stream it acted on.
  void result(const platform::Status& status, std::optional<StreamSide> side = std::nullopt) {
    Json fields{{"do", current_->verb}};
    if (side) {
      fields["stream"] = streamName(*side);
    }
    fields["ok"] = status.ok();
    if (!status.ok()) {
      fields["error"] = errorJson(status.error());
    }
    emit("result", std::move(fields));
  }

  // --- One overload per verb -----------------------------------------------------------------

  void perform(const DefineClient& action) {
    clients_[action.id] = service_->makeClient(action.pid, action.description);
  }

  void perform(const SetStreamingClients& action) {
    std::vector<std::shared_ptr<const platform::Client>> list;
    for (const auto& id : action.clients) {
      list.push_back(client(id));
    }
    stream(action.stream)->setStreamingClients(std::move(list));
  }

  void perform(const Connect& action) {
    result(service_->publishedProvider()->connect(client(action.client)));
  }

  void perform(const Disconnect& action) {
    service_->publishedProvider()->disconnect(client(action.client));
    result(platform::Status::success());
  }

  void perform(const Authorize& action) {
    const bool granted = stream(action.stream)->authorize(client(action.client));
    result(granted ? platform::Status::success()
                   : platform::Status(platform::Error{"authorization", 0, "refused"}),
           action.stream);
  }

  void perform(const Start& action) { result(stream(action.stream)->start(), action.stream); }

  void perform(const Stop& action) { result(stream(action.stream)->stop(), action.stream); }

  void perform(const SetProperties& action) {
    platform::StreamProperties properties;
    if (action.activeFormatIndex) {
      properties.setActiveFormatIndex(*action.activeFormatIndex);
    }
    if (action.frameDuration) {
      properties.setFrameDuration(*action.frameDuration);
    }
    result(stream(action.stream)->setProperties(properties), action.stream);
  }

  void perform(const GetProperties& action) {
    const platform::PropertySet names(action.names.begin(), action.names.end());
    Json values;
    switch (action.target) {
      case PropertyTarget::kProvider:
        values = propertiesJson(
            service_->publishedProvider()->getProperties(names).value().propertiesDictionary());
        break;
      case PropertyTarget::kDevice:
        values = propertiesJson(service_->publishedProvider()
                                    ->devices()
                                    .front()
                                    ->getProperties(names)
                                    .value()
                                    .propertiesDictionary());
        break;
      case PropertyTarget::kSink:
      case PropertyTarget::kSource:
        values = propertiesJson(
            stream(action.target == PropertyTarget::kSink ? StreamSide::kSink : StreamSide::kSource)
                ->getProperties(names)
                .value()
                .propertiesDictionary());
        break;
    }
    emit("properties", Json{{"target", targetName(action.target)}, {"values", values}});
  }

  void perform(const ListAvailable& action) {
    platform::PropertySet names;
    switch (action.target) {
      case PropertyTarget::kProvider:
        names = service_->publishedProvider()->availableProperties();
        break;
      case PropertyTarget::kDevice:
        names = service_->publishedProvider()->devices().front()->availableProperties();
        break;
      case PropertyTarget::kSink:
        names = service_->sinkStream()->availableProperties();
        break;
      case PropertyTarget::kSource:
        names = service_->sourceStream()->availableProperties();
        break;
    }
    emit("available", Json{{"target", targetName(action.target)}, {"names", Json(names)}});
  }

  void perform(const ListFormats& action) {
    Json list = Json::array();
    for (const auto& format : *stream(action.stream)->formats()) {
      list.push_back(formatJson(format));
    }
    emit("formats", Json{{"stream", streamName(action.stream)}, {"formats", list}});
  }

  void perform(const Push& action) {
    auto producer = client(action.client);
    std::shared_ptr<platform::PixelBuffer> pixels;
    if (action.image) {
      pixels = takePooled(action.width, action.height, action.pixelFormat);
      for (const auto& [key, value] : action.image->attachments) {
        pixels->setAttachment(platform::internString(key), platform::internString(value),
                              platform::AttachmentMode::kCVAttachmentMode_ShouldPropagate);
      }
      sequenceOf_[pixels.get()] = action.seq;
    }
    std::optional<platform::FormatDescription> description;
    if (pixels) {
      description = platform::createVideoFormatDescriptionForImageBuffer(*pixels);
    }
    auto frame = platform::SampleBuffer::createReadyWithImageBuffer(
        pixels, description, platform::SampleTimingInfo{MediaTime::make(1, 30), action.pts, {}});
    const bool accepted = service_->sinkStream()->push(producer, std::move(frame), action.seq);
    emit(accepted ? "pushed" : "refused", Json{{"client", action.client}, {"seq", action.seq}});
  }

  void perform(const Feed& action) {
    client(action.client);  // defined before the first push is due
    const std::int64_t base = kScriptEpoch + std::llround(current_->at * 1e9);
    const MediaTime start = action.startPts;
    for (std::int64_t k = 0; k < action.count; ++k) {
      // pts = startPts + k/fps, in the start's own timescale.
      Push push;
      push.client = action.client;
      push.width = action.width;
      push.height = action.height;
      push.pixelFormat = action.pixelFormat;
      push.pts = start;
      push.seq = static_cast<std::uint64_t>(action.seqStart + k);
      push.image = PushedImage{};
      if (start.isNumeric()) {
        push.pts.value =
            start.value + std::llround(static_cast<double>(k) * start.timescale / action.fps);
      }
      const std::int64_t due = base + std::llround(static_cast<double>(k) * 1e9 / action.fps);
      service_->executor()->schedule(due, [this, push = std::move(push)] { perform(push); });
    }
  }

  void perform(const FailConsumeRequests& action) {
    service_->failNextConsumeRequests(static_cast<int>(action.count), action.description);
  }

  void perform(const Wait& /*action*/) {}

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
  const Action* current_ = nullptr;  // the action being performed, for its result event
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

int runScript(std::istream& script, const std::string& scriptName, const ScriptOptions& options,
              std::ostream& out, std::ostream& errors) {
  const ParsedScript parsed = parseScript(script);
  if (!parsed.ok()) {
    errors << "flowmere-camera-sim: " << scriptName << ": " << parsed.error << '\n';
    return 2;
  }
  try {
    Runner runner(options, out);
    runner.run(parsed.actions, options.checkInvariants);
  } catch (const RunError& error) {
    out.flush();
    errors << "flowmere-camera-sim: " << scriptName << ": " << error.message << '\n';
    return 2;
  }
  out.flush();
  return 0;
}

}  // namespace flowmere::sim
