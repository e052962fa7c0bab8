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
// Formats: while a producer runs, the node offers only the producer's format, so every client
// negotiates what it can actually get, and one that cannot take it fails its own link without
// touching anyone else; a client already linked at another format is renegotiated to it (it
// follows, or its link fails). While no producer runs, the node offers the whole catalogue with
// the active format first. A refusal of the extension never destroys the node.
//
// Threads: as PipeWireStream. `sendSampleBuffer` runs on the sink's consume queue; it takes the
// loop lock only to dequeue, and again to queue and trigger. `activeIndex_`, `producerIndex_`
// and `sentSequence_` are GUARDED_BY the loop lock.

#include "PipeWireStream.h"

namespace flowmere::pipewire {

class PipeWireSourceStream final : public PipeWireStream {
 public:
  // Buffers for each client's link: up to 8, so that a client that stalls for a moment (its
  // first frame sets up its own pipeline) does not make the relay drop frames, within about
  // 100 MB per link; at least 4 (one being filled, one in flight, one being read, one spare).
  static constexpr std::size_t kLinkBufferBudget = std::size_t{100} * 1024 * 1024;
  static constexpr int kMinimumBuffers = 4;
  static constexpr int kMaximumBuffers = 8;

  using PipeWireStream::PipeWireStream;

  void notifyPropertiesChanged(const platform::PropertyStateMap& changes) override;
  // Any thread: the producer's format index while a producer runs, none when it stops.
  void producerFormatChanged(std::optional<std::int64_t> index);
  void sendSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& buffer,
                        platform::StreamDiscontinuityFlags discontinuity,
                        std::uint64_t hostTimeInNanoseconds) override;

 protected:
  [[nodiscard]] pw_stream_flags connectFlags() const override;
  void addNodeProperties(pw_properties* props) const override;
  [[nodiscard]] std::vector<const spa_pod*> formatOffers(
      spa_pod_builder& builder, const platform::StreamFormatList& formats) const override
      REQUIRES(loopLock_);
  [[nodiscard]] BufferCount bufferCount() const override REQUIRES(loopLock_);
  void formatRefused(std::int64_t index, const std::string& message) override REQUIRES(loopLock_);

 private:
  // Loop thread: publishes the offers for the current active and producer formats, and moves a
  // link whose format is no longer offered to the one that is.
  void updateOffers() REQUIRES(loopLock_);

  std::optional<std::int64_t> activeIndex_ GUARDED_BY(loopLock_);
  std::optional<std::int64_t> producerIndex_ GUARDED_BY(loopLock_);
  std::uint64_t sentSequence_ GUARDED_BY(loopLock_) = 0;
  std::uint64_t busyDrops_ GUARDED_BY(loopLock_) = 0;
};

}  // namespace flowmere::pipewire
