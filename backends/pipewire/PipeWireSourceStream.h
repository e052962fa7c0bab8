#pragma once

// The source node: the camera that clients capture (media.class Video/Source, media.role
// Camera). It drives its clients' graph: each frame the relay sends is copied into a buffer of
// the node, queued, and a graph cycle started, so clients receive it at once.
//
// The copy (the one copy a PipeWire relay needs: every link has its own buffers) runs without
// the loop lock, into a buffer that the node has handed us and that stays ours until it is
// queued. Both ends of the copy are pinned by their BufferSlots, so neither a client's link
// being renegotiated nor the producer's can unmap them in the middle of it.
//
// Threads: as PipeWireStream. `sendSampleBuffer` runs on the sink's consume queue; it takes the
// loop lock only to dequeue, and again to queue and trigger. `offeredFirst_` and `sentSequence_`
// are GUARDED_BY the loop lock.

#include "PipeWireStream.h"

namespace flowmere::pipewire {

class PipeWireSourceStream final : public PipeWireStream {
 public:
  // Buffers for each client's link: one being filled, one in flight, one being read by the
  // client and one spare for a client that holds a frame a little longer.
  static constexpr BufferCount kBufferCount{4, 2, 16};

  using PipeWireStream::PipeWireStream;

  void notifyPropertiesChanged(const platform::PropertyStateMap& changes) override;
  void sendSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& buffer,
                        platform::StreamDiscontinuityFlags discontinuity,
                        std::uint64_t hostTimeInNanoseconds) override;

 protected:
  [[nodiscard]] pw_stream_flags connectFlags() const override;
  void addNodeProperties(pw_properties* props) const override;
  [[nodiscard]] std::optional<std::int64_t> preferredOffer() const override REQUIRES(loopLock_) {
    return offeredFirst_;
  }
  [[nodiscard]] BufferCount bufferCount() const override { return kBufferCount; }

 private:
  // Loop thread: offers the catalogue again with `preferredIndex` first.
  void offerFormats(std::optional<std::int64_t> preferredIndex) REQUIRES(loopLock_);

  std::optional<std::int64_t> offeredFirst_ GUARDED_BY(loopLock_);
  std::uint64_t sentSequence_ GUARDED_BY(loopLock_) = 0;
};

}  // namespace flowmere::pipewire
