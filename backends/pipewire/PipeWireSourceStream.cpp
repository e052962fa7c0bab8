#include "PipeWireSourceStream.h"

#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

#include "FrameCopy.h"
#include "PipeWireCameraService.h"
#include "common/MonotonicTime.h"

namespace flowmere::pipewire {

namespace {

constexpr std::size_t kPodBufferSize = 8192;

// Ends a pin on scope exit unless released earlier.
class AccessGuard {
 public:
  explicit AccessGuard(platform::ExternalMemory* memory) : memory_(memory) {}
  ~AccessGuard() { end(); }
  AccessGuard(const AccessGuard&) = delete;
  AccessGuard& operator=(const AccessGuard&) = delete;
  void end() {
    if (memory_) {
      memory_->endAccess();
      memory_ = nullptr;
    }
  }

 private:
  platform::ExternalMemory* memory_;
};

}  // namespace

pw_stream_flags PipeWireSourceStream::connectFlags() const {
  return static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS);
}

void PipeWireSourceStream::addNodeProperties(pw_properties* props) const {
  pw_properties_set(props, PW_KEY_MEDIA_CATEGORY, "Capture");
  pw_properties_set(props, PW_KEY_MEDIA_CLASS, "Video/Source");
  pw_properties_set(props, PW_KEY_MEDIA_ROLE, "Camera");
}

void PipeWireSourceStream::notifyPropertiesChanged(const platform::PropertyStateMap& changes) {
  // Called with the extension's locks held: never take the loop lock here.
  for (const auto& [name, state] : changes) {
    if (name != platform::CMIOExtensionPropertyStreamActiveFormatIndex) {
      continue;
    }
    if (const auto* index = std::get_if<std::int64_t>(&state.value)) {
      loop_->post([weak = weak_from_this(), value = *index] {
        if (auto self = std::static_pointer_cast<PipeWireSourceStream>(weak.lock())) {
          self->loopLock_.assertHeld();
          self->activeIndex_ = value;
          self->scheduleOffers(false);
        }
      });
    }
  }
  PipeWireStream::notifyPropertiesChanged(changes);
}

void PipeWireSourceStream::producerFormatChanged(std::optional<std::int64_t> index) {
  loop_->post([weak = weak_from_this(), index] {
    if (auto self = std::static_pointer_cast<PipeWireSourceStream>(weak.lock())) {
      self->loopLock_.assertHeld();
      self->producerIndex_ = index;
      self->scheduleOffers(false);
    }
  });
}

std::vector<const spa_pod*> PipeWireSourceStream::formatOffers(
    spa_pod_builder& builder, const platform::StreamFormatList& formats) const {
  if (producerIndex_ && *producerIndex_ >= 0 &&
      static_cast<std::size_t>(*producerIndex_) < formats.size()) {
    std::vector<const spa_pod*> only;
    if (const auto info = videoInfoForFormat(formats[static_cast<std::size_t>(*producerIndex_)])) {
      only.push_back(buildVideoFormat(builder, SPA_PARAM_EnumFormat, *info));
    }
    return only;
  }
  return buildFormatOffers(builder, formats, activeIndex_);
}

void PipeWireSourceStream::scheduleOffers(bool renegotiate) {
  renegotiate_ = renegotiate_ || renegotiate;
  if (!stream_) {
    return;
  }
  if (!offersTimer_) {
    offersTimer_ = pw_loop_add_timer(loop_->loop(), &PipeWireSourceStream::onOffersTimer, this);
    if (!offersTimer_) {
      publishOffers();
      return;
    }
  }
  // Armed once: a change that comes while it runs joins the pending publication.
  if (!offersPending_) {
    offersPending_ = true;
    timespec settle{0, kOffersSettleNanoseconds};
    pw_loop_update_timer(loop_->loop(), offersTimer_, &settle, nullptr, false);
  }
}

void PipeWireSourceStream::onOffersTimer(void* data, std::uint64_t /*expirations*/) {
  auto* self = static_cast<PipeWireSourceStream*>(data);
  self->loopLock_.assertHeld();
  self->offersPending_ = false;
  self->publishOffers();
}

void PipeWireSourceStream::publishOffers() {
  const auto formats = catalogue();
  if (!stream_ || !formats) {
    return;
  }
  std::array<std::byte, kPodBufferSize> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  std::vector<const spa_pod*> params = formatOffers(builder, *formats);
  if (params.empty()) {
    return;
  }
  // While the node streams, its links share one format, and a link that joins takes that format
  // whatever the offers say: new offers would only make PipeWire renegotiate links. They wait
  // until the node stops streaming, unless a link must move to the producer's format.
  const bool streaming = state_ == PW_STREAM_STATE_STREAMING;
  const bool move = formatIndex_ && producerIndex_ && *formatIndex_ != *producerIndex_;
  if (streaming && !move && !renegotiate_) {
    return;
  }
  std::vector<std::byte> offers;
  for (const spa_pod* param : params) {
    const auto* bytes = reinterpret_cast<const std::byte*>(param);
    offers.insert(offers.end(), bytes, bytes + SPA_POD_SIZE(param));
  }
  if (offers == publishedOffers_ && !renegotiate_) {
    return;  // nothing a link could negotiate differently
  }
  publishedOffers_ = std::move(offers);
  renegotiate_ = false;
  spa_video_info_raw first{};
  if (spa_format_video_raw_parse(params.front(), &first) >= 0) {
    // Clients that link from now on see this format first; the log says when that begins.
    writeLog("[pipewire] " + nodeName_ + " offers " + describeVideoInfo(first) +
             (producerIndex_ ? " only" : " first"));
  }
  if (streaming && move) {
    std::vector<std::uint32_t> moved;
    for (const auto& link : links_) {
      moved.push_back(link.id);
    }
    guard_.formatMoved(std::move(moved));
    writeLog("[pipewire] " + nodeName_ + " moves its clients from index " +
             std::to_string(*formatIndex_) + " to the producer's index " +
             std::to_string(*producerIndex_));
  }
  if (streaming) {
    pw_stream_set_active(stream_, false);
  }
  pw_stream_update_params(stream_, params.data(), static_cast<std::uint32_t>(params.size()));
  if (streaming) {
    pw_stream_set_active(stream_, true);
  }
}

pw_buffer* PipeWireSourceStream::dequeueFreeBuffer(std::int64_t now) {
  // pw_stream hands out its buffers in turn and refuses (EBUSY) one that a client still holds,
  // putting it back at the end of the line: asking again for each buffer of the node skips every
  // held one, so a client that keeps a buffer (a paused pipeline, or a process that died or was
  // stopped with one) costs the others nothing while a buffer is free.
  for (std::size_t attempt = 0; attempt <= slots().size(); ++attempt) {
    errno = 0;
    if (pw_buffer* buffer = pw_stream_dequeue_buffer(stream_)) {
      guard_.sendAttempt(now, true);
      return buffer;
    }
    if (errno != EBUSY) {
      break;  // none queued back yet: in flight, not held
    }
  }
  guard_.sendAttempt(now, false);
  return nullptr;
}

void PipeWireSourceStream::streamingChanged(bool streaming) {
  setTicking(streaming);
  if (!streaming) {
    scheduleOffers(false);  // what waited for the links to end
  }
}

void PipeWireSourceStream::bufferAdded(const std::shared_ptr<BufferSlot>& slot) {
  populator_.add(slot);
}

void PipeWireSourceStream::nodeDestroying() {
  populator_.stop();
  setTicking(false);
  if (tickTimer_) {
    pw_loop_destroy_source(loop_->loop(), tickTimer_);
    tickTimer_ = nullptr;
  }
  links_.clear();
  if (offersTimer_) {
    pw_loop_destroy_source(loop_->loop(), offersTimer_);
    offersTimer_ = nullptr;
  }
  offersPending_ = false;
  publishedOffers_.clear();
}

BufferCount PipeWireSourceStream::bufferCount() const {
  const std::size_t frameSize = layout_ ? std::max<std::size_t>(layout_->frameSize, 1) : 1;
  const int fits = static_cast<int>(std::min<std::size_t>(kLinkBufferBudget / frameSize, 64));
  const int count = std::clamp(fits, kMinimumBuffers, kMaximumBuffers);
  return BufferCount{count, 2, 16};
}

void PipeWireSourceStream::formatRefused(std::int64_t index, const std::string& /*message*/) {
  // A client negotiated a format the extension no longer takes (just before a producer pinned
  // another, or while the stream was started at another): every link negotiates again, against
  // the producer's format or the active one first. A client that cannot take it fails its own
  // link; the others keep the format they have.
  if (producerIndex_ != index) {
    scheduleOffers(true);
  }
}

void PipeWireSourceStream::sendSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& buffer,
                                            platform::StreamDiscontinuityFlags /*discontinuity*/,
                                            std::uint64_t hostTimeInNanoseconds) {
  const std::shared_ptr<platform::PixelBuffer>& pixels = buffer ? buffer->imageBuffer() : nullptr;
  if (!pixels) {
    return;
  }
  // The producer's memory must stay mapped until the copy is done.
  platform::ExternalMemory* input = pixels->externalMemory();
  if (input && !input->beginAccess()) {
    return;  // the producer's link was renegotiated or removed since the frame arrived
  }
  AccessGuard inputGuard(input);

  std::shared_ptr<BufferSlot> target;
  FrameLayout layout;
  {
    const LoopLocker lock(loopLock_);
    // Any producer frame keeps the idle picture away, streaming or not, of the negotiated size
    // or not: a client that links while a producer runs gets the producer's frames first, and
    // one whose link waits to move to the producer's format keeps its last picture meanwhile.
    const std::int64_t now = common::monotonicNanoseconds();
    lastFrameArrival_ = now;
    if (!stream_ || state_ != PW_STREAM_STATE_STREAMING || !layout_ ||
        pixels->width() != layout_->width || pixels->height() != layout_->height ||
        pixels->pixelFormat() != layout_->pixelFormat ||
        pixels->planeCount() != layout_->planeCount) {
      return;
    }
    pw_buffer* out = dequeueFreeBuffer(now);
    if (!out) {
      // Every buffer is with the clients: this frame is dropped. Said at the first drop and
      // every 300th, as the relay's own per-frame lines are.
      if (++busyDrops_ % 300 == 1) {
        writeLog("[pipewire] " + nodeName_ +
                 " dropped a frame: every buffer is with the clients (" +
                 std::to_string(busyDrops_) + " so far)");
      }
      return;
    }
    BufferSlot* slot = slotFor(out);
    spa_data& data = out->buffer->datas[0];
    if (!slot || !data.data || data.maxsize < layout_->frameSize || !slot->beginAccess()) {
      data.chunk->size = 0;
      pw_stream_queue_buffer(stream_, out);
      return;
    }
    slot->setPictureTag(0);  // about to hold a relayed frame
    setShowingIdle(false);
    target = slot->shared_from_this();
    layout = *layout_;
  }
  AccessGuard targetGuard(target.get());
  copier_.copyFrame(*pixels, layout,
                    static_cast<std::byte*>(target->buffer()->buffer->datas[0].data));
  targetGuard.end();
  inputGuard.end();

  const LoopLocker lock(loopLock_);
  if (!stream_ || target->revoked()) {
    return;  // the client's link was renegotiated during the copy: the buffer is gone
  }
  queueFrame(target->buffer(), layout, static_cast<std::int64_t>(hostTimeInNanoseconds));
}

void PipeWireSourceStream::queueFrame(pw_buffer* out, const FrameLayout& layout, std::int64_t pts) {
  spa_data& data = out->buffer->datas[0];
  data.chunk->offset = 0;
  data.chunk->size = static_cast<std::uint32_t>(layout.frameSize);
  data.chunk->stride = static_cast<std::int32_t>(layout.stride);
  data.chunk->flags = 0;
  if (auto* header = static_cast<spa_meta_header*>(
          spa_buffer_find_meta_data(out->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
    header->flags = 0;
    header->offset = 0;
    header->pts = pts;
    header->dts_offset = 0;
    header->seq = ++sentSequence_;
  }
  pw_stream_queue_buffer(stream_, out);
  if (pw_stream_is_driving(stream_)) {
    pw_stream_trigger_process(stream_);
  }
}

}  // namespace flowmere::pipewire
