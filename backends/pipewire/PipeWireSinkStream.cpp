#include "PipeWireSinkStream.h"

#include <spa/buffer/meta.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "PipeWireCameraService.h"

namespace flowmere::pipewire {

namespace {

timespec timespecFor(std::chrono::nanoseconds duration) {
  return timespec{static_cast<time_t>(duration.count() / 1'000'000'000),
                  static_cast<long>(duration.count() % 1'000'000'000)};
}

}  // namespace

pw_stream_flags PipeWireSinkStream::connectFlags() const {
  return static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS);
}

void PipeWireSinkStream::addNodeProperties(pw_properties* props) const {
  pw_properties_set(props, PW_KEY_MEDIA_CATEGORY, "Playback");
  pw_properties_set(props, PW_KEY_MEDIA_CLASS, "Video/Sink/Virtual");
  // The lowest driver priority: a producer that drives its link keeps driving it.
  pw_properties_set(props, PW_KEY_PRIORITY_DRIVER, "0");
}

void PipeWireSinkStream::consumeSampleBufferFromClient(
    const std::shared_ptr<const platform::Client>& /*client*/,
    platform::ConsumeCompletion completion) {
  const LoopLocker lock(loopLock_);
  if (pending_) {
    // One request at a time per chain; a second one would mean two chains. The older one is
    // answered empty so that each completion still runs exactly once.
    answerPending(nullptr, 0);
  }
  pending_.emplace(std::move(completion));
  if (!stream_ || state_ != PW_STREAM_STATE_STREAMING) {
    answerPending(nullptr, 0);
    return;
  }
  std::uint64_t sequenceNumber = 0;
  if (auto sample = takeFrame(sequenceNumber)) {
    answerPending(std::move(sample), sequenceNumber);
    return;
  }
  // Nothing has arrived yet: the process event answers, or the wait limit does.
  ensureTimers();
  const timespec limit = timespecFor(kConsumeWaitLimit);
  pw_loop_update_timer(loop_->loop(), waitTimer_, const_cast<timespec*>(&limit), nullptr, false);
  if (pw_stream_is_driving(stream_)) {
    pw_stream_trigger_process(stream_);
    const timespec interval = timespecFor(kDriveInterval);
    pw_loop_update_timer(loop_->loop(), driveTimer_, const_cast<timespec*>(&interval),
                         const_cast<timespec*>(&interval), false);
  }
}

void PipeWireSinkStream::handleProcess() {
  if (!pending_) {
    return;  // frames wait in the node's queue for the next request
  }
  std::uint64_t sequenceNumber = 0;
  if (auto sample = takeFrame(sequenceNumber)) {
    answerPending(std::move(sample), sequenceNumber);
  }
}

void PipeWireSinkStream::handleProcessRequest() {
  // Only a driver is asked; the cycle brings the producer's frame in.
  if (stream_) {
    pw_stream_trigger_process(stream_);
  }
}

void PipeWireSinkStream::streamingChanged(bool streaming) {
  freshStart_ = streaming;
  if (!streaming) {
    answerPending(nullptr, 0);
  }
  // The camera offers only the producer's format while one runs.
  service_.producerFormatChanged(streaming ? formatIndex_ : std::nullopt);
}

void PipeWireSinkStream::formatRefused(std::int64_t index, const std::string& /*message*/) {
  // The producer changed format while the stream was started: the stream restarts with it,
  // as it would had the producer stopped and started again.
  if (state_ == PW_STREAM_STATE_STREAMING) {
    postRestart(index);
  }
}

void PipeWireSinkStream::nodeDestroying() {
  answerPending(nullptr, 0);
  held_.clear();
  for (spa_source** timer : {&waitTimer_, &driveTimer_}) {
    if (*timer) {
      pw_loop_destroy_source(loop_->loop(), *timer);
      *timer = nullptr;
    }
  }
}

void PipeWireSinkStream::bufferAdded(const std::shared_ptr<BufferSlot>& slot) {
  // The producer writes its buffers, so their pages normally exist and mapping them costs
  // little. Mapping them now, while the link is set up, keeps the first frames free of page
  // faults: the consume loop paces every later frame by the first one's arrival, so a first
  // frame slowed by faults would add its delay to every frame after it.
  static const auto pageSize = static_cast<std::uint32_t>(sysconf(_SC_PAGESIZE));
  const spa_buffer* buffer = slot->buffer()->buffer;
  for (std::uint32_t index = 0; index < buffer->n_datas; ++index) {
    const spa_data& block = buffer->datas[index];
    if (const auto* bytes = static_cast<const volatile std::uint8_t*>(block.data)) {
      for (std::uint32_t offset = 0; offset < block.maxsize; offset += pageSize) {
        (void)bytes[offset];
      }
    }
  }
}

void PipeWireSinkStream::ensureTimers() {
  if (!waitTimer_) {
    waitTimer_ = pw_loop_add_timer(loop_->loop(), &PipeWireSinkStream::onWaitLimit, this);
  }
  if (!driveTimer_) {
    driveTimer_ = pw_loop_add_timer(loop_->loop(), &PipeWireSinkStream::onDrive, this);
  }
}

void PipeWireSinkStream::onWaitLimit(void* data, std::uint64_t /*expirations*/) {
  auto* self = static_cast<PipeWireSinkStream*>(data);
  self->loopLock_.assertHeld();
  self->answerPending(nullptr, 0);
}

void PipeWireSinkStream::onDrive(void* data, std::uint64_t /*expirations*/) {
  auto* self = static_cast<PipeWireSinkStream*>(data);
  self->loopLock_.assertHeld();
  if (self->pending_ && self->stream_ && pw_stream_is_driving(self->stream_)) {
    pw_stream_trigger_process(self->stream_);
  }
}

void PipeWireSinkStream::answerPending(std::shared_ptr<platform::SampleBuffer> sample,
                                       std::uint64_t sequenceNumber) {
  if (!pending_) {
    return;
  }
  for (spa_source* timer : {waitTimer_, driveTimer_}) {
    if (timer) {
      pw_loop_update_timer(loop_->loop(), timer, nullptr, nullptr, false);
    }
  }
  auto answer = [completion = std::move(*pending_), sample = std::move(sample),
                 sequenceNumber]() mutable {
    completion(std::move(sample), sequenceNumber,
               platform::CMIOExtensionStreamDiscontinuityFlagNone, false, std::nullopt);
  };
  pending_.reset();
  static_assert(platform::Work::fitsInline<decltype(answer)>(),
                "every consume answer must reach the platform queue without a heap allocation");
  postToPlatform(std::move(answer));
}

std::shared_ptr<platform::SampleBuffer> PipeWireSinkStream::takeFrame(
    std::uint64_t& sequenceNumber) {
  std::shared_ptr<platform::SampleBuffer> sample;
  // Malformed buffers (too small for the format) go straight back to the producer. At a fresh
  // start the frames that queued up before the relay asked for one are given back too, all but
  // the newest: the relay paces every later frame by the first one's arrival, and starting
  // from a frame that waited would hold every later frame as long.
  while (pw_buffer* buffer = pw_stream_dequeue_buffer(stream_)) {
    BufferSlot* slot = slotFor(buffer);
    std::uint64_t number = 0;
    std::shared_ptr<platform::SampleBuffer> candidate =
        slot ? wrapFrame(buffer, *slot, number) : nullptr;
    if (!candidate) {
      pw_stream_queue_buffer(stream_, buffer);
      continue;
    }
    sample = std::move(candidate);  // an older one goes back through its release
    sequenceNumber = number;
    if (!freshStart_) {
      break;
    }
  }
  if (sample) {
    freshStart_ = false;
  }
  return sample;
}

std::shared_ptr<platform::SampleBuffer> PipeWireSinkStream::wrapFrame(
    pw_buffer* buffer, BufferSlot& slot, std::uint64_t& sequenceNumber) {
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
  std::shared_ptr<BufferSlot> shared = slot.shared_from_this();
  auto pixelBuffer = platform::PixelBuffer::wrap(
      layout->width, layout->height, layout->pixelFormat,
      std::span<const platform::PixelBufferPlane>(planes.data(), layout->planeCount),
      [weak = std::weak_ptr(std::static_pointer_cast<PipeWireSinkStream>(shared_from_this())),
       slot = &slot] {
        // The pixel buffer holds the slot until this has run, so `slot` is still there.
        if (auto self = weak.lock()) {
          self->releaseFrame(*slot);
        }
      },
      shared);
  if (!pixelBuffer) {
    return nullptr;
  }
  held_.push_back(std::move(shared));
  const auto description = platform::createVideoFormatDescriptionForImageBuffer(*pixelBuffer);
  const platform::SampleTimingInfo timing{platform::MediaTime::invalid(), presentation,
                                          platform::MediaTime::invalid()};
  return platform::SampleBuffer::createReadyWithImageBuffer(std::move(pixelBuffer), description,
                                                            timing);
}

void PipeWireSinkStream::releaseFrame(BufferSlot& slot) {
  const LoopLocker lock(loopLock_);
  const auto found = std::find_if(held_.begin(), held_.end(),
                                  [&slot](const auto& held) { return held.get() == &slot; });
  if (found == held_.end()) {
    return;  // the node was destroyed since: its buffers are gone
  }
  held_.erase(found);
  // Under the loop lock remove_buffer cannot run, so a slot that is not revoked now still
  // belongs to the node's current buffers.
  if (stream_ && !slot.revoked()) {
    pw_stream_queue_buffer(stream_, slot.buffer());
  }
}

}  // namespace flowmere::pipewire
