#pragma once

// The sink node: the input that producers link to. Producer frames arrive in the node's process
// event; a consume request is answered with the oldest frame that has arrived, at once when one
// is waiting, otherwise from the process event that brings the next one. A request that no frame
// answers within `kConsumeWaitLimit` gets the empty answer, so "sink waiting" means the producer
// really paused.
//
// Scheduling: a producer that drives its link (PW_STREAM_FLAG_DRIVER with a priority.driver
// above 0, as flowmere-camera-producer does) starts a graph cycle whenever it has a frame, and
// the frame reaches us in that same cycle. The node is a driver too, at the lowest priority, so
// that a producer that does not drive still gets cycles: while a request waits and the node
// drives, it starts one cycle every `kDriveInterval`. Without a driver of its own the graph
// would hang the link under the source node's driver, which runs only when a frame has gone out,
// and nothing would ever flow.
//
// Threads: as PipeWireStream. The process event runs on the sink's loop thread (no real-time
// flag), so every call on the `pw_stream` is made under the loop lock; `pending_` and `held_` are
// GUARDED_BY it too. A frame's memory stays pinned by its BufferSlot while the source copies it.

#include <chrono>
#include <optional>

#include "PipeWireStream.h"

namespace flowmere::pipewire {

class PipeWireSinkStream final : public PipeWireStream {
 public:
  // The longest a consume request waits for a frame before it is answered empty. Half a second
  // is the consume loop's own anchor gap: a shorter gap keeps the producer's timeline and the
  // frame's pacing, so it is not a pause; a longer one is, and is reported as waiting.
  static constexpr std::chrono::milliseconds kConsumeWaitLimit{500};
  // While a request waits and this node drives its link, one graph cycle per interval lets a
  // producer that does not drive queue a frame.
  static constexpr std::chrono::milliseconds kDriveInterval{2};
  // Buffers asked of the producer's link: the sink's reported queue size. Fewer than two would
  // stall the producer while a frame is held; more would let frames queue up behind the relay.
  static constexpr BufferCount kBufferCount{3, 2, 3};

  using PipeWireStream::PipeWireStream;

  void consumeSampleBufferFromClient(const std::shared_ptr<const platform::Client>& client,
                                     platform::ConsumeCompletion completion) override;

 protected:
  [[nodiscard]] pw_stream_flags connectFlags() const override;
  void addNodeProperties(pw_properties* props) const override;
  [[nodiscard]] BufferCount bufferCount() const override { return kBufferCount; }
  void handleProcess() override REQUIRES(loopLock_);
  void handleProcessRequest() override REQUIRES(loopLock_);
  void streamingChanged(bool streaming) override REQUIRES(loopLock_);
  void nodeDestroying() override REQUIRES(loopLock_);
  void bufferAdded(const std::shared_ptr<BufferSlot>& slot) override REQUIRES(loopLock_);
  void createTimers() override REQUIRES(loopLock_) { ensureTimers(); }
  void formatRefused(std::int64_t index, const std::string& message) override REQUIRES(loopLock_);

 private:
  static void onWaitLimit(void* data, std::uint64_t expirations);
  static void onDrive(void* data, std::uint64_t expirations);

  // The oldest usable frame waiting in the node's queue, wrapped for the relay; null when none.
  std::shared_ptr<platform::SampleBuffer> takeFrame(std::uint64_t& sequenceNumber)
      REQUIRES(loopLock_);
  std::shared_ptr<platform::SampleBuffer> wrapFrame(pw_buffer* buffer, BufferSlot& slot,
                                                    std::uint64_t& sequenceNumber)
      REQUIRES(loopLock_);
  // Gives a frame's buffer back to the producer once the relay is done with it. Any thread.
  void releaseFrame(BufferSlot& slot);
  // Answers the waiting request, if any, with `sample` (null: empty) on the platform queue.
  void answerPending(std::shared_ptr<platform::SampleBuffer> sample, std::uint64_t sequenceNumber)
      REQUIRES(loopLock_);
  void ensureTimers() REQUIRES(loopLock_);

  std::optional<platform::ConsumeCompletion> pending_ GUARDED_BY(loopLock_);
  // No frame has been handed over since the producer's link started streaming: frames queued
  // before the first request are stale, and only the newest of them is handed over.
  bool freshStart_ GUARDED_BY(loopLock_) = false;
  // Slots whose buffers the relay holds (dequeued and not yet given back).
  std::vector<std::shared_ptr<BufferSlot>> held_ GUARDED_BY(loopLock_);
  spa_source* waitTimer_ GUARDED_BY(loopLock_) = nullptr;
  spa_source* driveTimer_ GUARDED_BY(loopLock_) = nullptr;
};

}  // namespace flowmere::pipewire
