#include "PipeWireCameraService.h"

#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "PeerDirectory.h"
#include "common/PosixFileManager.h"
#include "common/SqliteSettingsSuite.h"
#include "embedded/EmbeddedQueues.h"
#include "embedded/VirtualClock.h"

namespace flowmere::pipewire {

namespace {

constexpr std::uint32_t kSourceBufferCount = 4;
constexpr std::size_t kPodBufferSize = 8192;

std::string describeStatus(const platform::Status& status) {
  if (status.ok()) {
    return "ok";
  }
  return status.error().localizedDescriptionOrDefault();
}

}  // namespace

// Writes log lines to the owner's sink, or to standard error. Any thread; `mutex_` keeps lines
// whole.
class PipeWireCameraService::ServiceLog final : public platform::Log {
 public:
  explicit ServiceLog(std::function<void(std::string_view)> sink) : sink_(std::move(sink)) {}
  void write(std::string_view message) override {
    const std::scoped_lock lock(mutex_);
    if (sink_) {
      sink_(message);
    } else {
      std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
    }
  }

 private:
  std::mutex mutex_;
  const std::function<void(std::string_view)> sink_;
};

// ---------------------------------------------------------------------------------------------
// PipeWireStream

PipeWireStream::PipeWireStream(PipeWireCameraService& service, std::string localizedName,
                               platform::Uuid streamID, platform::StreamDirection direction,
                               std::weak_ptr<platform::StreamSource> source)
    : service_(service),
      localizedName_(std::move(localizedName)),
      streamID_(streamID),
      direction_(direction),
      source_(std::move(source)),
      nodeName_(service.options().nodeNamePrefix +
                (direction == platform::StreamDirection::CMIOExtensionStreamDirectionSink
                     ? "-sink"
                     : "-source")),
      loopLock_(service.loopLock()) {}

PipeWireStream::~PipeWireStream() {
  const LoopLocker lock(loopLock_);
  destroyNode();
}

std::vector<std::shared_ptr<const platform::Client>> PipeWireStream::streamingClients() const {
  const std::scoped_lock lock(clientsMutex_);
  return streamingClients_;
}

void PipeWireStream::notifyPropertiesChanged(const platform::PropertyStateMap& changes) {
  // Called with the extension's locks held: never take the loop lock here.
  for (const auto& [name, state] : changes) {
    if (name == platform::CMIOExtensionPropertyStreamActiveFormatIndex) {
      if (const auto* index = std::get_if<std::int64_t>(&state.value)) {
        service_.postToLoop([weak = weak_from_this(), value = *index] {
          if (auto self = weak.lock()) {
            self->loopLock_.assertHeld();
            self->offerFormats(value);
          }
        });
      }
    } else if (const auto* text = std::get_if<std::string>(&state.value)) {
      // Read-only values (the timeline) become node properties that any client can read.
      service_.postToLoop([weak = weak_from_this(), key = name, value = *text] {
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

void PipeWireStream::notifyScheduledOutputChanged(const platform::ScheduledOutput& /*output*/) {
  // PipeWire has no counterpart: the producer learns nothing about when its frames went out.
}

bool PipeWireStream::connectNode(const std::map<std::string, std::string>& identity) {
  loopLock_.assertHeld();
  identity_ = identity;
  pw_properties* props = pw_properties_new(
      PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, isSink() ? "Playback" : "Capture",
      PW_KEY_MEDIA_CLASS, isSink() ? "Video/Sink" : "Video/Source", PW_KEY_NODE_NAME,
      nodeName_.c_str(), PW_KEY_NODE_DESCRIPTION, localizedName_.c_str(), PW_KEY_NODE_NICK,
      localizedName_.c_str(), nullptr);
  if (!isSink()) {
    pw_properties_set(props, PW_KEY_MEDIA_ROLE, "Camera");
  }
  pw_properties_set(props, "flowmere.stream.id", streamID_.toString().c_str());
  for (const auto& [key, value] : identity_) {
    pw_properties_set(props, key.c_str(), value.c_str());
  }
  service_.loopLock().assertHeld();
  stream_ = pw_stream_new(service_.core(), nodeName_.c_str(), props);
  if (!stream_) {
    service_.writeLog("[pipewire] could not create node " + nodeName_ + ": " +
                      std::strerror(errno));
    return false;
  }
  static const pw_stream_events events = [] {
    pw_stream_events result{};
    result.version = PW_VERSION_STREAM_EVENTS;
    result.state_changed = &PipeWireStream::onStateChanged;
    result.param_changed = &PipeWireStream::onParamChanged;
    result.remove_buffer = &PipeWireStream::onRemoveBuffer;
    result.process = &PipeWireStream::onProcess;
    return result;
  }();
  pw_stream_add_listener(stream_, &listener_, &events, this);

  // A node made again after a refusal keeps offering the source's active format first.
  std::array<std::byte, kPodBufferSize> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  std::vector<const spa_pod*> params =
      buildFormatOffers(builder, isSink() ? std::nullopt : offeredFirst_);
  // Both nodes drive their own graph: the source paces its consumers with each sent frame, and
  // the sink pulls the producer one graph cycle at a time when a poll finds nothing queued.
  const auto flags =
      static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS);
  const int result =
      pw_stream_connect(stream_, isSink() ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT, PW_ID_ANY,
                        flags, params.data(), static_cast<std::uint32_t>(params.size()));
  if (result < 0) {
    service_.writeLog("[pipewire] could not connect node " + nodeName_ + ": " +
                      spa_strerror(result));
    return false;
  }
  return true;
}

void PipeWireStream::destroyNode() {
  loopLock_.assertHeld();
  for (const auto& held : held_) {
    held->revoked = true;
  }
  if (stream_) {
    spa_hook_remove(&listener_);
    pw_stream_destroy(stream_);
    stream_ = nullptr;
  }
  state_ = PW_STREAM_STATE_UNCONNECTED;
  layout_.reset();
}

std::uint32_t PipeWireStream::nodeID() const {
  const_cast<LoopLock&>(loopLock_).assertHeld();
  return stream_ ? pw_stream_get_node_id(stream_) : SPA_ID_INVALID;
}

void PipeWireStream::onStateChanged(void* data, pw_stream_state old, pw_stream_state state,
                                    const char* error) {
  static_cast<PipeWireStream*>(data)->handleStateChanged(old, state, error);
}

void PipeWireStream::onParamChanged(void* data, std::uint32_t id, const spa_pod* param) {
  if (id == SPA_PARAM_Format) {
    static_cast<PipeWireStream*>(data)->handleFormat(param);
  }
}

void PipeWireStream::onRemoveBuffer(void* data, pw_buffer* buffer) {
  auto* self = static_cast<PipeWireStream*>(data);
  self->loopLock_.assertHeld();
  for (const auto& held : self->held_) {
    if (held->buffer == buffer) {
      held->revoked = true;
    }
  }
}

void PipeWireStream::onProcess(void* /*data*/) {
  // Nothing happens per graph cycle: the sink's buffers are taken by consume requests and the
  // source's are filled by sends, both from the extension's queues.
}

void PipeWireStream::handleStateChanged(pw_stream_state old, pw_stream_state state,
                                        const char* error) {
  loopLock_.assertHeld();
  state_ = state;
  service_.writeLog("[pipewire] " + nodeName_ + " " + pw_stream_state_as_string(old) + " -> " +
                    pw_stream_state_as_string(state) + (error ? std::string(": ") + error : ""));
  const bool streaming = state == PW_STREAM_STATE_STREAMING;
  if (streaming && !started_) {
    started_ = true;
    updateStreamingClients();
    service_.postToPlatform([weak = weak_from_this()] {
      auto self = weak.lock();
      auto source = self ? self->source_.lock() : nullptr;
      if (!source) {
        return;
      }
      const auto clients = self->streamingClients();
      bool authorized = clients.empty();
      for (const auto& client : clients) {
        authorized = source->authorizedToStartStreamForClient(client) || authorized;
      }
      if (!authorized) {
        self->service_.writeLog("[pipewire] " + self->nodeName_ + " start not authorised");
        return;
      }
      const platform::Status status = source->startStream();
      if (!status.ok()) {
        self->service_.writeLog("[pipewire] " + self->nodeName_ +
                                " start refused: " + describeStatus(status));
      }
    });
  } else if (!streaming && started_) {
    started_ = false;
    service_.postToPlatform([weak = weak_from_this()] {
      auto self = weak.lock();
      auto source = self ? self->source_.lock() : nullptr;
      if (source) {
        (void)source->stopStream();
      }
    });
    updateStreamingClients();
  }
}

void PipeWireStream::peersChanged() {
  loopLock_.assertHeld();
  updateStreamingClients();
}

void PipeWireStream::updateStreamingClients() {
  loopLock_.assertHeld();
  std::vector<std::shared_ptr<const platform::Client>> clients;
  if (started_ && stream_) {
    clients = service_.peers().peersOf(pw_stream_get_node_id(stream_));
  }
  const std::scoped_lock lock(clientsMutex_);
  streamingClients_ = std::move(clients);
}

void PipeWireStream::handleFormat(const spa_pod* param) {
  loopLock_.assertHeld();
  if (!param) {
    layout_.reset();
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
  auto source = source_.lock();
  const auto formats = source ? source->formats() : nullptr;
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
  answerBuffers(*layout);
  service_.writeLog("[pipewire] " + nodeName_ + " format " + describeVideoInfo(info) + " index " +
                    std::to_string(chosen));
  // The choice goes through the stream's own set rules, in order with starts and stops.
  service_.postToPlatform([weak = weak_from_this(), value = chosen] {
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
    self->service_.writeLog("[pipewire] " + self->nodeName_ + " format index " +
                            std::to_string(value) + " refused: " + message);
    self->service_.postToLoop([weak = self->weak_from_this(), message] {
      if (auto again = weak.lock()) {
        again->loopLock_.assertHeld();
        again->reconnectAfterRefusal(message);
      }
    });
  });
}

void PipeWireStream::reconnectAfterRefusal(const std::string& message) {
  loopLock_.assertHeld();
  if (!stream_) {
    return;
  }
  // Failing the node ends the negotiation for the peer that asked; a fresh node with the same
  // name then waits for the next consumer.
  pw_stream_set_error(stream_, -EPERM, "%s", message.c_str());
  destroyNode();
  connectNode(identity_);
}

void PipeWireStream::answerBuffers(const FrameLayout& layout) {
  loopLock_.assertHeld();
  std::array<std::byte, 1024> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  const int count =
      isSink() ? service_.options().sinkBufferCount : static_cast<int>(kSourceBufferCount);
  const auto size = static_cast<int>(layout.frameSize);
  const auto stride = static_cast<int>(layout.stride);
  std::array<const spa_pod*, 2> params{};
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(count, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
      SPA_PARAM_BUFFERS_size, SPA_POD_Int(size), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride),
      SPA_PARAM_BUFFERS_dataType,
      SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd))));
  params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
      SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
  pw_stream_update_params(stream_, params.data(), static_cast<std::uint32_t>(params.size()));
}

std::vector<const spa_pod*> PipeWireStream::buildFormatOffers(
    spa_pod_builder& builder, std::optional<std::int64_t> preferredIndex) const {
  auto source = source_.lock();
  const auto formats = source ? source->formats() : nullptr;
  std::vector<const spa_pod*> params;
  if (!formats) {
    return params;
  }
  // The preferred (active) format first: a consumer that accepts anything takes the first offer.
  const auto preferred = preferredIndex ? offeredFormatInfo(*preferredIndex) : std::nullopt;
  if (preferred) {
    params.push_back(buildVideoFormat(builder, SPA_PARAM_EnumFormat, *preferred));
  }
  for (std::size_t index = 0; index < formats->size(); ++index) {
    if (preferred && static_cast<std::int64_t>(index) == *preferredIndex) {
      continue;
    }
    if (const auto info = videoInfoForFormat((*formats)[index])) {
      params.push_back(buildVideoFormat(builder, SPA_PARAM_EnumFormat, *info));
    }
  }
  return params;
}

std::optional<spa_video_info_raw> PipeWireStream::offeredFormatInfo(std::int64_t index) const {
  auto source = source_.lock();
  const auto formats = source ? source->formats() : nullptr;
  if (!formats || index < 0 || static_cast<std::size_t>(index) >= formats->size()) {
    return std::nullopt;
  }
  return videoInfoForFormat((*formats)[static_cast<std::size_t>(index)]);
}

void PipeWireStream::offerFormats(std::optional<std::int64_t> preferredIndex) {
  loopLock_.assertHeld();
  if (!stream_ || isSink()) {
    return;
  }
  std::array<std::byte, kPodBufferSize> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  std::vector<const spa_pod*> params = buildFormatOffers(builder, preferredIndex);
  if (params.empty()) {
    return;
  }
  offeredFirst_ = preferredIndex;
  if (const auto first = preferredIndex ? offeredFormatInfo(*preferredIndex) : std::nullopt) {
    // Clients that link from now on see this format first; the log says when that begins.
    service_.writeLog("[pipewire] " + nodeName_ + " offers " + describeVideoInfo(*first) +
                      " first");
  }
  // A streaming link keeps its format unless the node is paused around the new offers.
  const bool renegotiate = layout_.has_value() && preferredIndex.has_value();
  if (renegotiate) {
    pw_stream_set_active(stream_, false);
  }
  pw_stream_update_params(stream_, params.data(), static_cast<std::uint32_t>(params.size()));
  if (renegotiate) {
    pw_stream_set_active(stream_, true);
  }
}

// --- The frame path -------------------------------------------------------------------------

std::shared_ptr<platform::SampleBuffer> PipeWireStream::wrapSinkBuffer(
    pw_buffer* buffer, std::uint64_t& sequenceNumber) {
  loopLock_.assertHeld();
  spa_buffer* spa = buffer->buffer;
  if (!layout_ || spa->n_datas < 1 || !spa->datas[0].data || !spa->datas[0].chunk) {
    return nullptr;
  }
  const spa_data& data = spa->datas[0];
  // Some producers leave the stride at 0: the rows are then packed.
  const std::optional<FrameLayout> layout = frameLayoutFor(
      videoInfo_, data.chunk->stride > 0 ? static_cast<std::uint32_t>(data.chunk->stride) : 0);
  const std::uint32_t offset = data.chunk->offset % std::max<std::uint32_t>(data.maxsize, 1);
  if (!layout || data.chunk->size < layout->frameSize ||
      offset + layout->frameSize > data.maxsize) {
    return nullptr;
  }
  auto* base = static_cast<std::byte*>(data.data) + offset;
  std::array<platform::PixelBufferPlane, 2> planes{};
  for (std::size_t index = 0; index < layout->planeCount; ++index) {
    planes[index] = platform::PixelBufferPlane{base + layout->planeOffset(index), layout->stride,
                                               index == 0 ? layout->width : layout->width / 2,
                                               layout->planeHeight(index)};
  }
  platform::MediaTime presentation = platform::MediaTime::invalid();
  sequenceNumber = 0;
  if (auto* header = static_cast<spa_meta_header*>(
          spa_buffer_find_meta_data(spa, SPA_META_Header, sizeof(spa_meta_header)))) {
    if (header->pts >= 0) {
      presentation = platform::MediaTime::make(header->pts, 1'000'000'000);
    }
    sequenceNumber = header->seq;
  }
  auto held = std::make_shared<HeldBuffer>(HeldBuffer{buffer, base, false});
  held_.push_back(held);
  auto pixelBuffer = platform::PixelBuffer::wrap(
      layout->width, layout->height, layout->pixelFormat,
      std::span<const platform::PixelBufferPlane>(planes.data(), layout->planeCount),
      [weak = weak_from_this(), held] {
        if (auto self = weak.lock()) {
          self->releaseHeldBuffer(held);
        }
      });
  if (!pixelBuffer) {
    return nullptr;
  }
  const auto description = platform::createVideoFormatDescriptionForImageBuffer(*pixelBuffer);
  const platform::SampleTimingInfo timing{platform::MediaTime::invalid(), presentation,
                                          platform::MediaTime::invalid()};
  return platform::SampleBuffer::createReadyWithImageBuffer(std::move(pixelBuffer), description,
                                                            timing);
}

bool PipeWireStream::holdsRevoked(const std::byte* data) const {
  const_cast<LoopLock&>(loopLock_).assertHeld();
  return std::any_of(held_.begin(), held_.end(),
                     [data](const auto& held) { return held->revoked && held->data == data; });
}

void PipeWireStream::releaseHeldBuffer(const std::shared_ptr<HeldBuffer>& held) {
  const LoopLocker lock(loopLock_);
  std::erase(held_, held);
  if (!held->revoked && stream_) {
    pw_stream_queue_buffer(stream_, held->buffer);
  }
}

void PipeWireStream::consumeSampleBufferFromClient(
    const std::shared_ptr<const platform::Client>& /*client*/,
    platform::ConsumeCompletion completion) {
  std::shared_ptr<platform::SampleBuffer> sample;
  std::uint64_t sequenceNumber = 0;
  {
    const LoopLocker lock(loopLock_);
    if (stream_ && state_ == PW_STREAM_STATE_STREAMING) {
      // Several malformed buffers in a row are given back at once; the first usable one
      // answers the request.
      while (pw_buffer* buffer = pw_stream_dequeue_buffer(stream_)) {
        sample = wrapSinkBuffer(buffer, sequenceNumber);
        if (sample) {
          break;
        }
        pw_stream_queue_buffer(stream_, buffer);
      }
      if (!sample && pw_stream_is_driving(stream_)) {
        // One graph cycle lets the producer queue at most one new frame for the next poll.
        pw_stream_trigger_process(stream_);
      }
    }
  }
  auto answer = [completion = std::move(completion), sample = std::move(sample),
                 sequenceNumber]() mutable {
    completion(std::move(sample), sequenceNumber,
               platform::CMIOExtensionStreamDiscontinuityFlagNone, false, std::nullopt);
  };
  static_assert(platform::Work::fitsInline<decltype(answer)>(),
                "every poll's answer must reach the platform queue without a heap allocation");
  service_.postToPlatform(std::move(answer));
}

void PipeWireStream::sendSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& buffer,
                                      platform::StreamDiscontinuityFlags /*discontinuity*/,
                                      std::uint64_t hostTimeInNanoseconds) {
  const std::shared_ptr<platform::PixelBuffer>& pixels = buffer ? buffer->imageBuffer() : nullptr;
  if (!pixels) {
    return;
  }
  const LoopLocker lock(loopLock_);
  service_.loopLock().assertHeld();  // the same lock, under the service's name
  if (!stream_ || state_ != PW_STREAM_STATE_STREAMING || !layout_ ||
      pixels->width() != layout_->width || pixels->height() != layout_->height ||
      pixels->pixelFormat() != layout_->pixelFormat ||
      pixels->planeCount() != layout_->planeCount || service_.isRevoked(pixels->plane(0).data)) {
    return;
  }
  pw_buffer* out = pw_stream_dequeue_buffer(stream_);
  if (!out) {
    return;  // every buffer is with the consumers: this frame is dropped
  }
  spa_data& data = out->buffer->datas[0];
  if (!data.data || data.maxsize < layout_->frameSize) {
    data.chunk->size = 0;
    pw_stream_queue_buffer(stream_, out);
    return;
  }
  // The one copy: PipeWire links each have their own buffers.
  auto* target = static_cast<std::byte*>(data.data);
  for (std::size_t index = 0; index < layout_->planeCount; ++index) {
    const platform::PixelBufferPlane& plane = pixels->plane(index);
    std::byte* row = target + layout_->planeOffset(index);
    const std::size_t rowBytes = std::min<std::size_t>(plane.bytesPerRow, layout_->stride);
    for (std::uint32_t y = 0; y < layout_->planeHeight(index); ++y) {
      std::memcpy(row + static_cast<std::size_t>(y) * layout_->stride,
                  plane.data + static_cast<std::size_t>(y) * plane.bytesPerRow, rowBytes);
    }
  }
  data.chunk->offset = 0;
  data.chunk->size = static_cast<std::uint32_t>(layout_->frameSize);
  data.chunk->stride = static_cast<std::int32_t>(layout_->stride);
  data.chunk->flags = 0;
  if (auto* header = static_cast<spa_meta_header*>(
          spa_buffer_find_meta_data(out->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
    header->flags = 0;
    header->offset = 0;
    header->pts = static_cast<std::int64_t>(hostTimeInNanoseconds);
    header->dts_offset = 0;
    header->seq = ++sentSequence_;
  }
  pw_stream_queue_buffer(stream_, out);
  if (pw_stream_is_driving(stream_)) {
    pw_stream_trigger_process(stream_);
  }
}

// ---------------------------------------------------------------------------------------------
// Device and provider

platform::Status PipeWireDevice::addStream(const std::shared_ptr<platform::Stream>& stream) {
  auto ours = std::dynamic_pointer_cast<PipeWireStream>(stream);
  if (!ours) {
    return platform::Error{platform::NSOSStatusErrorDomain,
                           platform::kCMIOHardwareUnsupportedOperationError, std::nullopt};
  }
  streams_.push_back(std::move(ours));
  return platform::Status::success();
}

platform::Status PipeWireProvider::addDevice(const std::shared_ptr<platform::Device>& device) {
  auto ours = std::dynamic_pointer_cast<PipeWireDevice>(device);
  if (!ours) {
    return platform::Error{platform::NSOSStatusErrorDomain,
                           platform::kCMIOHardwareUnsupportedOperationError, std::nullopt};
  }
  devices_.push_back(std::move(ours));
  return platform::Status::success();
}

// ---------------------------------------------------------------------------------------------
// PipeWireCameraService

std::shared_ptr<PipeWireCameraService> PipeWireCameraService::create(PipeWireOptions options) {
  auto service = std::make_shared<PipeWireCameraService>(std::move(options));
  if (!service->connect()) {
    return nullptr;
  }
  return service;
}

PipeWireCameraService::PipeWireCameraService(PipeWireOptions options)
    : options_(std::move(options)) {
  pw_init(nullptr, nullptr);
  log_ = std::make_unique<ServiceLog>(options_.logSink);
  clock_ = std::make_unique<embedded::MonotonicClock>();
  fileManager_ = std::make_unique<common::PosixFileManager>(
      options_.containerParent ? options_.containerParent
                               : common::PosixFileManager::defaultContainerParent(),
      std::filesystem::temp_directory_path());
  platformQueue_ = std::make_shared<embedded::ThreadSerialQueue>("pipewire.platform");
  peers_ = std::make_unique<PeerDirectory>([this] {
    loopLock_.assertHeld();
    for (const auto& stream : published_) {
      stream->peersChanged();
    }
  });
  loop_ = pw_thread_loop_new("flowmere-pipewire", nullptr);
  loopLock_ = LoopLock(loop_);
}

PipeWireCameraService::~PipeWireCameraService() {
  if (loop_) {
    pw_thread_loop_stop(loop_);
    {
      const LoopLocker lock(loopLock_);
      published_.clear();
      peers_->detach();
      const platform::Locker<platform::Mutex> workLock(workMutex_);
      if (workEvent_) {
        pw_loop_destroy_source(pw_thread_loop_get_loop(loop_), workEvent_);
        workEvent_ = nullptr;
      }
      loopWork_.clear();
      if (core_) {
        pw_core_disconnect(core_);
        core_ = nullptr;
      }
      if (context_) {
        pw_context_destroy(context_);
        context_ = nullptr;
      }
    }
  }
  platformQueue_.reset();
  if (loop_) {
    pw_thread_loop_destroy(loop_);
  }
}

bool PipeWireCameraService::connect() {
  if (!loop_) {
    std::fprintf(stderr, "[pipewire] could not create the PipeWire loop\n");
    return false;
  }
  const LoopLocker lock(loopLock_);
  context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
  if (!context_) {
    std::fprintf(stderr, "[pipewire] could not create a PipeWire context\n");
    return false;
  }
  pw_properties* props = nullptr;
  if (!options_.remoteName.empty()) {
    props = pw_properties_new(PW_KEY_REMOTE_NAME, options_.remoteName.c_str(), nullptr);
  }
  core_ = pw_context_connect(context_, props, 0);
  if (!core_) {
    std::fprintf(stderr, "[pipewire] could not connect to PipeWire: %s\n", std::strerror(errno));
    return false;
  }
  static const pw_core_events coreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.error = &PipeWireCameraService::onCoreError;
    return events;
  }();
  pw_core_add_listener(core_, &coreListener_, &coreEvents, this);
  {
    const platform::Locker<platform::Mutex> workLock(workMutex_);
    workEvent_ =
        pw_loop_add_event(pw_thread_loop_get_loop(loop_), &PipeWireCameraService::onLoopWork, this);
  }
  peers_->attach(core_);
  if (pw_thread_loop_start(loop_) < 0) {
    std::fprintf(stderr, "[pipewire] could not start the PipeWire thread\n");
    return false;
  }
  return true;
}

void PipeWireCameraService::onCoreError(void* data, std::uint32_t id, int /*seq*/, int res,
                                        const char* message) {
  auto* self = static_cast<PipeWireCameraService*>(data);
  self->writeLog("[pipewire] error on object " + std::to_string(id) + ": " + spa_strerror(res) +
                 " (" + (message ? message : "") + ")");
  if (id == PW_ID_CORE && res == -EPIPE) {
    // The PipeWire daemon went away: nothing more can be published.
    self->shutdown();
  }
}

void PipeWireCameraService::onLoopWork(void* data, std::uint64_t /*count*/) {
  static_cast<PipeWireCameraService*>(data)->runLoopWork();
}

void PipeWireCameraService::runLoopWork() {
  std::vector<std::function<void()>> work;
  {
    const platform::Locker<platform::Mutex> lock(workMutex_);
    work.swap(loopWork_);
  }
  for (auto& item : work) {
    item();
  }
}

void PipeWireCameraService::postToLoop(std::function<void()> work) {
  // Signalling the event is safe from any thread without the loop lock. Once the service is
  // being destroyed there is no event left and the work is dropped.
  const platform::Locker<platform::Mutex> lock(workMutex_);
  if (!workEvent_) {
    return;
  }
  loopWork_.push_back(std::move(work));
  pw_loop_signal_event(pw_thread_loop_get_loop(loop_), workEvent_);
}

void PipeWireCameraService::postToPlatform(platform::Work work) {
  platformQueue_->async(std::move(work));
}

void PipeWireCameraService::writeLog(std::string_view line) {
  log_->write(line);
}

bool PipeWireCameraService::isRevoked(const std::byte* data) {
  loopLock_.assertHeld();
  for (const auto& stream : published_) {
    if (stream->holdsRevoked(data)) {
      return true;
    }
  }
  return false;
}

std::shared_ptr<platform::Provider> PipeWireCameraService::createProvider(
    std::weak_ptr<platform::ProviderSource> source,
    std::shared_ptr<platform::SerialQueue> /*clientQueue*/) {
  return std::make_shared<PipeWireProvider>(std::move(source));
}

std::shared_ptr<platform::Device> PipeWireCameraService::createDevice(
    std::string localizedName, platform::Uuid deviceID,
    std::optional<std::string> /*legacyDeviceID*/, std::weak_ptr<platform::DeviceSource> source) {
  return std::make_shared<PipeWireDevice>(std::move(localizedName), deviceID, std::move(source));
}

std::shared_ptr<platform::Stream> PipeWireCameraService::createStream(
    std::string localizedName, platform::Uuid streamID, platform::StreamDirection direction,
    platform::StreamClockType /*clockType*/, std::weak_ptr<platform::StreamSource> source) {
  return std::make_shared<PipeWireStream>(*this, std::move(localizedName), streamID, direction,
                                          std::move(source));
}

void PipeWireCameraService::startService(const std::shared_ptr<platform::Provider>& provider) {
  provider_ = std::dynamic_pointer_cast<PipeWireProvider>(provider);
  if (!provider_) {
    return;
  }
  std::string manufacturer = "Flowmere";
  if (auto source = provider_->source()) {
    const auto properties = source->providerPropertiesForProperties(
        {std::string(platform::CMIOExtensionPropertyProviderManufacturer)});
    if (properties.ok()) {
      manufacturer = properties.value().manufacturer().value_or(manufacturer);
    }
  }
  for (const auto& device : provider_->devices()) {
    std::map<std::string, std::string> identity{
        {"device.name", device->localizedName()},
        {"device.vendor.name", manufacturer},
        {"flowmere.device.name", device->localizedName()},
        {"flowmere.device.uuid", device->deviceID().toString()},
        {"flowmere.device.manufacturer", manufacturer},
    };
    if (auto source = device->source()) {
      const auto properties = source->devicePropertiesForProperties(
          {std::string(platform::CMIOExtensionPropertyDeviceModel),
           std::string(platform::CMIOExtensionPropertyDeviceLinkedCoreAudioDeviceUID)});
      if (properties.ok()) {
        if (auto model = properties.value().model()) {
          identity["flowmere.device.model"] = *model;
          identity["device.product.name"] = *model;
        }
        if (auto audio = properties.value().linkedCoreAudioDeviceUID()) {
          identity["flowmere.device.linked-audio-uid"] = *audio;
        }
      }
    }
    const LoopLocker lock(loopLock_);
    for (const auto& stream : device->streams()) {
      if (stream->connectNode(identity)) {
        published_.push_back(stream);
        writeLog("[pipewire] published node " + stream->nodeName() + " \"" +
                 stream->localizedName() + "\"");
      }
    }
  }
}

std::vector<std::shared_ptr<PipeWireStream>> PipeWireCameraService::publishedStreams() {
  return published_;
}

void PipeWireCameraService::runMainRunLoop() {
  {
    std::unique_lock lock(runLoopMutex_);
    runLoopWake_.wait(lock, [this] { return shutdownRequested_; });
  }
  disconnectNodes();
  const std::scoped_lock lock(suitesMutex_);
  for (const auto& [path, suite] : suites_) {
    suite->flush();
  }
}

void PipeWireCameraService::disconnectNodes() {
  const LoopLocker lock(loopLock_);
  for (const auto& stream : published_) {
    stream->destroyNode();
  }
}

void PipeWireCameraService::shutdown() {
  {
    const std::scoped_lock lock(runLoopMutex_);
    shutdownRequested_ = true;
  }
  runLoopWake_.notify_all();
}

std::shared_ptr<platform::SerialQueue> PipeWireCameraService::createSerialQueue(
    const platform::QueueAttributes& attributes) {
  embedded::ThreadQueueOptions queueOptions;
  if (attributes.qualityOfService == platform::QualityOfService::kUserInteractive) {
    queueOptions.timerSlackNanoseconds = 1;
  }
  return std::make_shared<embedded::ThreadSerialQueue>(attributes.label, queueOptions);
}

std::shared_ptr<platform::SettingsSuite> PipeWireCameraService::openSettingsSuite(
    std::string_view suiteName) {
  const auto container = fileManager_->containerURLForSecurityApplicationGroupIdentifier(suiteName);
  if (!container) {
    return nullptr;
  }
  const auto database = common::SqliteSettingsSuite::defaultDatabaseFile(*container);
  const std::scoped_lock lock(suitesMutex_);
  auto& suite = suites_[database];
  if (!suite) {
    suite = common::SqliteSettingsSuite::open(database);
  }
  return suite;
}

platform::FileManager& PipeWireCameraService::fileManager() {
  return *fileManager_;
}

const platform::Clock& PipeWireCameraService::clock() {
  return *clock_;
}

platform::Log& PipeWireCameraService::log() {
  return *log_;
}

}  // namespace flowmere::pipewire
