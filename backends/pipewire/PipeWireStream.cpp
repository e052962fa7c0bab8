#include "PipeWireStream.h"

#include <spa/node/command.h>
#include <spa/param/video/format-utils.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "PipeWireCameraService.h"

namespace flowmere::pipewire {

namespace {

constexpr std::size_t kPodBufferSize = 8192;
// How long a sink link that streams may wait for the registry to name its producer before the
// stream starts with a stand-in client. The registry normally answers within milliseconds.
constexpr std::int64_t kPeerWaitNanoseconds = 1'000'000'000;

std::string describeStatus(const platform::Status& status) {
  return status.ok() ? "ok" : status.error().localizedDescriptionOrDefault();
}

}  // namespace

PipeWireStream::PipeWireStream(PipeWireCameraService& service, std::shared_ptr<PipeWireLoop> loop,
                               std::string localizedName, platform::Uuid streamID,
                               platform::StreamDirection direction,
                               std::weak_ptr<platform::StreamSource> source)
    : service_(service),
      loop_(std::move(loop)),
      loopLock_(loop_->lock()),
      source_(std::move(source)),
      nodeName_(service.options().nodeNamePrefix +
                (direction == platform::StreamDirection::CMIOExtensionStreamDirectionSink
                     ? "-sink"
                     : "-source")),
      localizedName_(std::move(localizedName)),
      streamID_(streamID),
      direction_(direction) {}

PipeWireStream::~PipeWireStream() = default;

std::vector<std::shared_ptr<const platform::Client>> PipeWireStream::streamingClients() const {
  const platform::Locker lock(clientsMutex_);
  return streamingClients_;
}

void PipeWireStream::notifyPropertiesChanged(const platform::PropertyStateMap& changes) {
  // Called with the extension's locks held: never take the loop lock here.
  for (const auto& [name, state] : changes) {
    if (const auto* text = std::get_if<std::string>(&state.value)) {
      // Read-only values (the timeline) become node properties that any client can read.
      loop_->post([weak = weak_from_this(), key = name, value = *text] {
        if (auto self = weak.lock()) {
          self->loopLock_.assertHeld();
          if (self->stream_) {
            const spa_dict_item item = SPA_DICT_ITEM_INIT(key.c_str(), value.c_str());
            const spa_dict dict = SPA_DICT_INIT(&item, 1);
            pw_stream_update_properties(self->stream_, &dict);
          }
        }
      });
    }
  }
}

void PipeWireStream::consumeSampleBufferFromClient(
    const std::shared_ptr<const platform::Client>& /*client*/,
    platform::ConsumeCompletion completion) {
  // Only sinks have buffers to consume; a source answers that nothing is there.
  postToPlatform([completion = std::move(completion)]() mutable {
    completion(nullptr, 0, platform::CMIOExtensionStreamDiscontinuityFlagNone, false, std::nullopt);
  });
}

void PipeWireStream::notifyScheduledOutputChanged(const platform::ScheduledOutput& /*output*/) {
  // PipeWire has no counterpart: the producer learns nothing about when its frames went out.
}

void PipeWireStream::sendSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& /*buffer*/,
                                      platform::StreamDiscontinuityFlags /*discontinuity*/,
                                      std::uint64_t /*hostTimeInNanoseconds*/) {
  // Only sources send.
}

std::shared_ptr<const platform::StreamFormatList> PipeWireStream::catalogue() const {
  auto source = source_.lock();
  return source ? source->formats() : nullptr;
}

void PipeWireStream::writeLog(std::string_view line) {
  service_.writeLog(line);
}

void PipeWireStream::postToPlatform(platform::Work work) {
  service_.postToPlatform(std::move(work));
}

BufferSlot* PipeWireStream::slotFor(pw_buffer* buffer) const {
  const auto found = std::find_if(slots_.begin(), slots_.end(),
                                  [buffer](const auto& slot) { return slot->buffer() == buffer; });
  return found == slots_.end() ? nullptr : found->get();
}

bool PipeWireStream::connectNode(const std::map<std::string, std::string>& identity) {
  loopLock_.assertHeld();
  pw_properties* props = pw_properties_new(
      PW_KEY_MEDIA_TYPE, "Video", PW_KEY_NODE_NAME, nodeName_.c_str(), PW_KEY_NODE_DESCRIPTION,
      localizedName_.c_str(), PW_KEY_NODE_NICK, localizedName_.c_str(), nullptr);
  addNodeProperties(props);
  pw_properties_set(props, "flowmere.stream.id", streamID_.toString().c_str());
  for (const auto& [key, value] : identity) {
    pw_properties_set(props, key.c_str(), value.c_str());
  }
  loop_->lock().assertHeld();  // the same lock, under the loop's name
  stream_ = pw_stream_new(loop_->core(), nodeName_.c_str(), props);
  if (!stream_) {
    writeLog("[pipewire] could not create node " + nodeName_ + ": " +
             std::generic_category().message(errno));
    return false;
  }
  static const pw_stream_events events = [] {
    pw_stream_events result{};
    result.version = PW_VERSION_STREAM_EVENTS;
    result.state_changed = &PipeWireStream::onStateChanged;
    result.param_changed = &PipeWireStream::onParamChanged;
    result.add_buffer = &PipeWireStream::onAddBuffer;
    result.remove_buffer = &PipeWireStream::onRemoveBuffer;
    result.process = &PipeWireStream::onProcess;
    result.command = &PipeWireStream::onCommand;
    return result;
  }();
  pw_stream_add_listener(stream_, &listener_, &events, this);
  peerTimer_ = pw_loop_add_timer(loop_->loop(), &PipeWireStream::onPeerTimeout, this);
  createTimers();

  std::array<std::byte, kPodBufferSize> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  const auto formats = catalogue();
  std::vector<const spa_pod*> params;
  if (formats) {
    params = formatOffers(builder, *formats);
  }
  const int result =
      pw_stream_connect(stream_, isSink() ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT, PW_ID_ANY,
                        connectFlags(), params.data(), static_cast<std::uint32_t>(params.size()));
  if (result < 0) {
    writeLog("[pipewire] could not connect node " + nodeName_ + ": " + spa_strerror(result));
    return false;
  }
  return true;
}

void PipeWireStream::stopStreaming() {
  loopLock_.assertHeld();
  if (started_) {
    endStreaming();
  }
}

void PipeWireStream::destroyNode() {
  loopLock_.assertHeld();
  // Whoever still reads or writes one of the node's buffers finishes first; nobody starts again.
  for (const auto& slot : slots_) {
    slot->revoke();
  }
  slots_.clear();
  nodeDestroying();
  if (peerTimer_) {
    pw_loop_destroy_source(loop_->loop(), peerTimer_);
    peerTimer_ = nullptr;
  }
  if (stream_) {
    spa_hook_remove(&listener_);
    // Work PipeWire queued for the stopped loop thread names the stream: it runs first.
    loop_->lock().assertHeld();  // the same lock, under the loop's name
    loop_->runPending();
    pw_stream_destroy(stream_);
    stream_ = nullptr;
  }
  state_ = PW_STREAM_STATE_UNCONNECTED;
  layout_.reset();
  formatIndex_.reset();
}

void PipeWireStream::onStateChanged(void* data, pw_stream_state old, pw_stream_state state,
                                    const char* error) {
  auto* self = static_cast<PipeWireStream*>(data);
  self->loopLock_.assertHeld();
  self->handleStateChanged(old, state, error);
}

void PipeWireStream::onParamChanged(void* data, std::uint32_t id, const spa_pod* param) {
  auto* self = static_cast<PipeWireStream*>(data);
  self->loopLock_.assertHeld();
  if (id == SPA_PARAM_Format) {
    self->handleFormat(param);
  }
}

void PipeWireStream::onAddBuffer(void* data, pw_buffer* buffer) {
  auto* self = static_cast<PipeWireStream*>(data);
  self->loopLock_.assertHeld();
  auto slot = std::make_shared<BufferSlot>(buffer);
  self->slots_.push_back(slot);
  self->bufferAdded(slot);
}

void PipeWireStream::onRemoveBuffer(void* data, pw_buffer* buffer) {
  auto* self = static_cast<PipeWireStream*>(data);
  self->loopLock_.assertHeld();
  const auto found = std::find_if(self->slots_.begin(), self->slots_.end(),
                                  [buffer](const auto& slot) { return slot->buffer() == buffer; });
  if (found != self->slots_.end()) {
    (*found)->revoke();  // waits for a copy from or into it to end
    self->slots_.erase(found);
  }
}

void PipeWireStream::onProcess(void* data) {
  auto* self = static_cast<PipeWireStream*>(data);
  self->loopLock_.assertHeld();
  self->handleProcess();
}

void PipeWireStream::onCommand(void* data, const spa_command* command) {
  auto* self = static_cast<PipeWireStream*>(data);
  self->loopLock_.assertHeld();
  if (SPA_NODE_COMMAND_ID(command) == SPA_NODE_COMMAND_RequestProcess) {
    self->handleProcessRequest();
  }
}

void PipeWireStream::onPeerTimeout(void* data, std::uint64_t /*expirations*/) {
  auto* self = static_cast<PipeWireStream*>(data);
  self->loopLock_.assertHeld();
  if (!self->waitingForPeer_) {
    return;
  }
  self->waitingForPeer_ = false;
  self->writeLog("[pipewire] " + self->nodeName_ +
                 " streams but its peer is not known yet: starting with a stand-in client");
  const std::uint32_t node = self->stream_ ? pw_stream_get_node_id(self->stream_) : 0;
  self->postStart(std::make_shared<const platform::Client>(
      platform::Uuid{}, -1, "pipewire peer of node " + std::to_string(node)));
}

void PipeWireStream::handleStateChanged(pw_stream_state old, pw_stream_state state,
                                        const char* error) {
  state_ = state;
  writeLog("[pipewire] " + nodeName_ + " " + pw_stream_state_as_string(old) + " -> " +
           pw_stream_state_as_string(state) + (error ? std::string(": ") + error : ""));
  const bool streaming = state == PW_STREAM_STATE_STREAMING;
  if (streaming) {
    writeLog("[pipewire] " + nodeName_ + " streams with " + std::to_string(slots_.size()) +
             " buffers");
  }
  if (streaming && !started_) {
    started_ = true;
    updateStreamingClients();
    if (isSink() && streamingClients().empty()) {
      waitingForPeer_ = true;
      timespec wait{kPeerWaitNanoseconds / 1'000'000'000, kPeerWaitNanoseconds % 1'000'000'000};
      pw_loop_update_timer(loop_->loop(), peerTimer_, &wait, nullptr, false);
    } else {
      postStart(nullptr);
    }
  } else if (!streaming && started_) {
    endStreaming();
    return;
  }
  if (streaming) {
    streamingChanged(true);
  }
}

void PipeWireStream::endStreaming() {
  started_ = false;
  waitingForPeer_ = false;
  // A request still waiting is answered before the stop (both go to the platform queue, in this
  // order), so that its chain reports its wait before the stop, whose status is the last one the
  // sink writes.
  streamingChanged(false);
  postToPlatform([weak = weak_from_this()] {
    auto self = weak.lock();
    auto source = self ? self->source_.lock() : nullptr;
    if (source) {
      (void)source->stopStream();
    }
  });
  updateStreamingClients();
}

void PipeWireStream::postStart(std::shared_ptr<const platform::Client> standIn) {
  postToPlatform([weak = weak_from_this(), standIn = std::move(standIn)] {
    auto self = weak.lock();
    auto source = self ? self->source_.lock() : nullptr;
    if (!source) {
      return;
    }
    auto clients = self->streamingClients();
    if (clients.empty() && standIn) {
      clients.push_back(standIn);
    }
    bool authorized = clients.empty();
    for (const auto& client : clients) {
      authorized = source->authorizedToStartStreamForClient(client) || authorized;
    }
    if (!authorized) {
      self->writeLog("[pipewire] " + self->nodeName_ + " start not authorised");
      return;
    }
    const platform::Status status = source->startStream();
    if (!status.ok()) {
      self->writeLog("[pipewire] " + self->nodeName_ + " start refused: " + describeStatus(status));
    }
  });
}

void PipeWireStream::postRestart(std::int64_t index) {
  postToPlatform([weak = weak_from_this(), index] {
    auto self = weak.lock();
    auto source = self ? self->source_.lock() : nullptr;
    if (!source) {
      return;
    }
    (void)source->stopStream();
    platform::StreamProperties properties;
    properties.setActiveFormatIndex(index);
    const platform::Status status = source->setStreamProperties(properties);
    if (!status.ok()) {
      self->writeLog("[pipewire] " + self->nodeName_ + " format index " + std::to_string(index) +
                     " refused again: " + describeStatus(status));
    }
  });
  postStart(nullptr);
}

void PipeWireStream::peersChanged() {
  loopLock_.assertHeld();
  updateStreamingClients();
  linksChanged();
  if (waitingForPeer_ && !streamingClients().empty()) {
    waitingForPeer_ = false;
    pw_loop_update_timer(loop_->loop(), peerTimer_, nullptr, nullptr, false);
    postStart(nullptr);
  }
}

void PipeWireStream::updateStreamingClients() {
  std::vector<std::shared_ptr<const platform::Client>> clients;
  if (started_ && stream_) {
    loop_->lock().assertHeld();
    clients = loop_->peers().peersOf(pw_stream_get_node_id(stream_));
  }
  const platform::Locker lock(clientsMutex_);
  streamingClients_ = std::move(clients);
}

void PipeWireStream::handleFormat(const spa_pod* param) {
  if (!param) {
    layout_.reset();
    formatIndex_.reset();
    return;
  }
  spa_video_info_raw info{};
  std::uint32_t mediaType = 0;
  std::uint32_t mediaSubtype = 0;
  if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video ||
      mediaSubtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(param, &info) < 0) {
    pw_stream_set_error(stream_, -EINVAL, "not a raw video format");
    return;
  }
  const auto formats = catalogue();
  const std::optional<std::int64_t> index =
      formats ? catalogueIndexForVideoInfo(*formats, info) : std::nullopt;
  const std::optional<FrameLayout> layout = frameLayoutFor(info);
  if (!index || !layout) {
    pw_stream_set_error(stream_, -EINVAL, "format not in the catalogue");
    return;
  }
  const std::int64_t chosen = index.value_or(0);
  layout_ = layout;
  videoInfo_ = info;
  formatIndex_ = chosen;
  std::array<std::byte, 1024> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  auto params = buildBufferParams(builder, *layout, bufferCount());
  pw_stream_update_params(stream_, params.data(), static_cast<std::uint32_t>(params.size()));
  writeLog("[pipewire] " + nodeName_ + " format " + describeVideoInfo(info) + " index " +
           std::to_string(chosen));
  // The choice goes through the stream's own set rules, in order with starts and stops.
  postToPlatform([weak = weak_from_this(), value = chosen] {
    auto self = weak.lock();
    auto stream = self ? self->source_.lock() : nullptr;
    if (!stream) {
      return;
    }
    platform::StreamProperties properties;
    properties.setActiveFormatIndex(value);
    const platform::Status status = stream->setStreamProperties(properties);
    if (status.ok()) {
      return;
    }
    const std::string message = describeStatus(status);
    self->writeLog("[pipewire] " + self->nodeName_ + " format index " + std::to_string(value) +
                   " refused: " + message);
    self->loop_->post([weak = self->weak_from_this(), value, message] {
      if (auto again = weak.lock()) {
        again->loopLock_.assertHeld();
        if (again->stream_ && again->formatIndex_ == value) {
          again->formatRefused(value, message);
        }
      }
    });
  });
}

}  // namespace flowmere::pipewire
