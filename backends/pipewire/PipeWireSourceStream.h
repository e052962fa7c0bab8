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
// While a client captures and no producer frame has come for `kIdleAfterNanoseconds` (or none
// yet), the node sends the idle picture (IdleCard) at 30 fps: the platform's own picture, which
// the extension never sees. A tick on the loop thread, armed only while the node streams, sends
// it and lets the ClientGuard look at the node's buffers; the guard's verdicts (reclaim the
// buffers, cut a client's link) are carried out here and logged once each.
//
// The tick and the idle picture are in PipeWireSourceIdle.cpp, the guard's side in
// PipeWireSourceGuard.cpp.
//
// Threads: as PipeWireStream. `sendSampleBuffer` runs on the sink's consume queue; it takes the
// loop lock only to dequeue, and again to queue and trigger. Every other member is GUARDED_BY
// the loop lock.

#include <climits>

#include "ClientGuard.h"
#include "IdleCard.h"
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
  // How long after the last producer frame the idle picture comes back (the sink's own waiting
  // threshold), and its frame interval.
  static constexpr std::int64_t kIdleAfterNanoseconds = 500'000'000;
  static constexpr std::int64_t kTickNanoseconds = 33'333'333;
  // The node property that says whether the node shows the idle picture ("true"/"false").
  static constexpr const char* kIdlePictureProperty = "flowmere.idle-picture";

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
  void linksChanged() override REQUIRES(loopLock_);
  void createTimers() override REQUIRES(loopLock_);

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
  // Tells the guard whether one was found.
  [[nodiscard]] pw_buffer* dequeueFreeBuffer(std::int64_t now) REQUIRES(loopLock_);
  // Stamps and queues a filled buffer, and starts a graph cycle.
  void queueFrame(pw_buffer* out, const FrameLayout& layout, std::int64_t pts) REQUIRES(loopLock_);

  static void onTick(void* data, std::uint64_t expirations);
  void tick() REQUIRES(loopLock_);
  void setTicking(bool on) REQUIRES(loopLock_);
  // Sends one idle frame, drawing the card first when the format changed.
  void sendIdlePicture(std::int64_t now) REQUIRES(loopLock_);
  // `quietly`: the node stops streaming, so nothing is shown and nothing is said.
  void setShowingIdle(bool showing, bool quietly = false) REQUIRES(loopLock_);
  // Lets the guard look at the buffers and links, and does what it decides.
  void guardClients(std::int64_t now) REQUIRES(loopLock_);
  [[nodiscard]] std::vector<ClientGuard::Link> guardLinks() REQUIRES(loopLock_);
  [[nodiscard]] std::vector<ClientGuard::Buffer> bufferStates() const REQUIRES(loopLock_);

  std::optional<std::int64_t> activeIndex_ GUARDED_BY(loopLock_);
  std::optional<std::int64_t> producerIndex_ GUARDED_BY(loopLock_);
  std::uint64_t sentSequence_ GUARDED_BY(loopLock_) = 0;
  std::uint64_t busyDrops_ GUARDED_BY(loopLock_) = 0;
  spa_source* offersTimer_ GUARDED_BY(loopLock_) = nullptr;
  bool offersPending_ GUARDED_BY(loopLock_) = false;  // `offersTimer_` is armed
  bool renegotiate_ GUARDED_BY(loopLock_) = false;
  std::vector<std::byte> publishedOffers_ GUARDED_BY(loopLock_);  // the offers' pods, as sent
  spa_source* tickTimer_ GUARDED_BY(loopLock_) = nullptr;
  bool ticking_ GUARDED_BY(loopLock_) = false;
  ClientGuard guard_ GUARDED_BY(loopLock_){&processHasEnded};
  // The node's links at the last look, to tell who left.
  std::vector<PeerDirectory::PeerLink> links_ GUARDED_BY(loopLock_);
  // When the last producer frame of the negotiated size arrived; none yet: far in the past.
  std::int64_t lastFrameArrival_ GUARDED_BY(loopLock_) = INT64_MIN / 2;
  bool showingIdle_ GUARDED_BY(loopLock_) = false;
  std::optional<IdleCard> idleCard_ GUARDED_BY(loopLock_);
  std::optional<HdrTransfer> idleCardTransfer_ GUARDED_BY(loopLock_);
  std::uint64_t idleCardTag_ GUARDED_BY(loopLock_) = 0;  // BufferSlot picture tag of the card
  bool idlePictureProblemLogged_ GUARDED_BY(loopLock_) = false;
  PagePopulator populator_;  // started and stopped on the loop thread
  ParallelCopy copier_;      // sendSampleBuffer only; its helper thread ends with the stream
};

}  // namespace flowmere::pipewire
