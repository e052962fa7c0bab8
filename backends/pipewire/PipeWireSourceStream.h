#pragma once

// The source node: the camera that clients capture (media.class Video/Source, media.role
// Camera). It drives its clients' graph: each frame the relay sends is copied into a buffer of
// the node, queued, and a graph cycle started, so clients receive it at once.
//
// The copy (the one copy a PipeWire relay needs: every link has its own buffers) runs without
// the loop lock, into a buffer that the node has handed us and that stays ours until it is
// queued; large frames are copied by two threads (ParallelCopy). Both ends of the copy are pinned
// by their BufferSlots, so neither a client's link being renegotiated nor the producer's can unmap
// them in the middle of it.
//
// Formats: while a producer runs, the node offers only the producer's format, so every client
// negotiates what it can actually get, and one that cannot take it fails its own link without
// touching anyone else; a client already linked at another format is renegotiated to it (it
// follows, or its link fails). While no producer runs, the node offers the whole catalogue with
// the active format first. A refusal of the extension never destroys the node.
//
// New offers reach a streaming node's links only when a link must move: PipeWire (0.3.65)
// renegotiates one link of a running node when its offers change and leaves the node's other
// links at the old format, with the node's buffers of the new one. So while the node streams,
// offers change only to move the links to the producer's format (or after a refusal), with the
// node paused around the change so that every link negotiates again; otherwise they wait until
// the node stops streaming (a link that joins a streaming node takes its format anyway).
// Changes that come together (the active format, then the producer's) are published once,
// `kOffersSettleNanoseconds` after the first.
//
// Threads: as PipeWireStream. `sendSampleBuffer` runs on the sink's consume queue; it takes the
// loop lock only to dequeue, and again to queue and trigger. Every other member is GUARDED_BY
// the loop lock.

#include "PagePopulator.h"
#include "ParallelCopy.h"
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
  // How long offer changes gather before they are published together.
  static constexpr std::int64_t kOffersSettleNanoseconds = 30'000'000;

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
  void streamingChanged(bool streaming) override REQUIRES(loopLock_);
  void nodeDestroying() override REQUIRES(loopLock_);
  // A client's new buffers are faulted in by `populator_`, beside the relay.
  void bufferAdded(const std::shared_ptr<BufferSlot>& slot) override REQUIRES(loopLock_);

 private:
  // Loop thread: the offers are published `kOffersSettleNanoseconds` from now, with the active
  // and producer formats of then; `renegotiate` makes the links negotiate again even when the
  // offers stay the same.
  void scheduleOffers(bool renegotiate) REQUIRES(loopLock_);
  static void onOffersTimer(void* data, std::uint64_t expirations);
  // Publishes the offers when they changed (or a renegotiation was asked for), pausing the node
  // around them while it streams so that every link negotiates again.
  void publishOffers() REQUIRES(loopLock_);
  // A buffer of the node that no client holds, or null when every one is held or in flight.
  [[nodiscard]] pw_buffer* dequeueFreeBuffer() REQUIRES(loopLock_);

  std::optional<std::int64_t> activeIndex_ GUARDED_BY(loopLock_);
  std::optional<std::int64_t> producerIndex_ GUARDED_BY(loopLock_);
  std::uint64_t sentSequence_ GUARDED_BY(loopLock_) = 0;
  std::uint64_t busyDrops_ GUARDED_BY(loopLock_) = 0;
  spa_source* offersTimer_ GUARDED_BY(loopLock_) = nullptr;
  bool offersPending_ GUARDED_BY(loopLock_) = false;  // `offersTimer_` is armed
  bool renegotiate_ GUARDED_BY(loopLock_) = false;
  std::vector<std::byte> publishedOffers_ GUARDED_BY(loopLock_);  // the offers' pods, as sent
  PagePopulator populator_;  // started and stopped on the loop thread
  ParallelCopy copier_;      // sendSampleBuffer only; its helper thread ends with the stream
};

}  // namespace flowmere::pipewire
