// The source node's tick: the idle picture while no producer frame comes, and a look for the
// client guard. The rest of the node is in PipeWireSourceStream.cpp; the guard's side in
// PipeWireSourceGuard.cpp.

#include <cstring>
#include <filesystem>

#include "PipeWireCameraService.h"
#include "PipeWireSourceStream.h"
#include "common/MonotonicTime.h"

namespace flowmere::pipewire {

void PipeWireSourceStream::createTimers() {
  if (!tickTimer_) {
    tickTimer_ = pw_loop_add_timer(loop_->loop(), &PipeWireSourceStream::onTick, this);
  }
  if (!offersTimer_) {
    offersTimer_ = pw_loop_add_timer(loop_->loop(), &PipeWireSourceStream::onOffersTimer, this);
  }
}

void PipeWireSourceStream::setTicking(bool on) {
  if (on == ticking_ || !stream_) {
    return;
  }
  if (!tickTimer_) {
    tickTimer_ = pw_loop_add_timer(loop_->loop(), &PipeWireSourceStream::onTick, this);
    if (!tickTimer_) {
      return;
    }
  }
  ticking_ = on;
  if (on) {
    // The first tick at once: a client that opens the camera gets a picture without waiting.
    timespec first{0, 1};
    timespec interval{0, kTickNanoseconds};
    pw_loop_update_timer(loop_->loop(), tickTimer_, &first, &interval, false);
  } else {
    pw_loop_update_timer(loop_->loop(), tickTimer_, nullptr, nullptr, false);
    guard_.reset();
    setShowingIdle(false, /*quietly=*/true);
    // Nobody captures: the card's memory goes too (a 4K card is 33 MB); the next client that
    // needs it has it drawn again, and copied into each buffer again under a new tag.
    idleCard_.reset();
  }
}

void PipeWireSourceStream::onTick(void* data, std::uint64_t /*expirations*/) {
  auto* self = static_cast<PipeWireSourceStream*>(data);
  self->loopLock_.assertHeld();
  self->tick();
}

void PipeWireSourceStream::tick() {
  if (!stream_ || state_ != PW_STREAM_STATE_STREAMING) {
    return;
  }
  const std::int64_t now = common::monotonicNanoseconds();
  if (now - lastFrameArrival_ >= kIdleAfterNanoseconds) {
    sendIdlePicture(now);
  }
  guardClients(now);
}

void PipeWireSourceStream::sendIdlePicture(std::int64_t now) {
  if (!layout_) {
    return;
  }
  const bool hlg = videoInfo_.transfer_function == kSpaTransferAribStdB67;
  const std::optional<HdrTransfer> transfer =
      layout_->pixelFormat == platform::kCVPixelFormatType_32BGRA
          ? std::nullopt
          : std::optional(hlg ? HdrTransfer::kHlg : HdrTransfer::kPq);
  const auto& wanted = *layout_;
  if (!idleCard_ || idleCard_->layout().width != wanted.width ||
      idleCard_->layout().height != wanted.height || idleCard_->layout().stride != wanted.stride ||
      idleCard_->layout().pixelFormat != wanted.pixelFormat || idleCardTransfer_ != transfer) {
    std::string problem;
    const std::optional<std::filesystem::path>& picture = service_.options().idlePicture;
    const bool usable = picture && std::filesystem::is_regular_file(*picture);
    if (picture && !usable) {
      problem = picture->string() + ": no such file";
    }
    idleCard_ = IdleCard::draw(wanted, transfer, service_.cameraName(),
                               usable ? picture : std::nullopt, problem);
    idleCardTransfer_ = transfer;
    ++idleCardTag_;
    if (!problem.empty() && !idlePictureProblemLogged_) {
      idlePictureProblemLogged_ = true;
      writeLog("[pipewire] " + nodeName_ + " idle picture " + problem + ": showing the drawn card");
    }
    if (!idleCard_) {
      return;
    }
  }
  pw_buffer* out = dequeueFreeBuffer(now);
  if (!out) {
    return;
  }
  BufferSlot* slot = slotFor(out);
  spa_data& data = out->buffer->datas[0];
  if (!slot || !data.data || data.maxsize < wanted.frameSize) {
    data.chunk->size = 0;
    pw_stream_queue_buffer(stream_, out);
    return;
  }
  auto* frame = static_cast<std::byte*>(data.data);
  // A buffer keeps what was last written into it: the card is copied once per buffer, then only
  // the bar changes.
  if (slot->pictureTag() != idleCardTag_) {
    std::memcpy(frame, idleCard_->pixels().data(), wanted.frameSize);
    slot->setPictureTag(idleCardTag_);
  }
  idleCard_->drawBar(frame, now);
  setShowingIdle(true);
  queueFrame(out, wanted, now);
}

void PipeWireSourceStream::setShowingIdle(bool showing, bool quietly) {
  if (showing == showingIdle_) {
    return;
  }
  showingIdle_ = showing;
  if (!quietly) {
    writeLog("[pipewire] " + nodeName_ +
             (showing ? " shows the idle picture" : " shows the producer's frames"));
  }
  if (stream_) {
    const spa_dict_item item = SPA_DICT_ITEM_INIT(kIdlePictureProperty, showing ? "true" : "false");
    const spa_dict dict = SPA_DICT_INIT(&item, 1);
    pw_stream_update_properties(stream_, &dict);
  }
}

}  // namespace flowmere::pipewire
