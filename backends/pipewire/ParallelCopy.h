#pragma once

// Shares a large frame copy between the calling thread and one helper thread. The copy is bound
// by how fast one core can move memory (about 10 GB/s on the 2-core VMs measured), so two cores
// take about half the time: a 1080p BGRA copy from 0.82 to 0.34 ms, a 4K one from 4.0 to 2.0 ms
// (build/release/bench/pipewire/frame_copy_benchmark).
//
// The frame is cut into chunks of whole rows, about `kChunkBytes` each, and both threads claim
// chunks from one counter until none is left. The caller never waits for the helper to start: if
// the helper is slow to wake (every core busy), the caller simply copies every chunk itself. It
// waits only for the chunks that the helper has claimed and is copying.
//
// Threads: `copyFrame` is called by one thread at a time (the source's send, on the sink's
// consume queue). The helper thread starts with the first copy large enough to share and ends
// after `kIdleExit` without one (so an idle camera keeps no thread for it); the next such copy
// joins it and starts another. The destructor stops and joins it. `mutex_` guards `running_`,
// `sleeping_` and `stopping_`, and is never held during a copy. The plan fields (`plan_`,
// `chunkRows_`, `chunkCounts_`) are written by the caller only while no chunk of the previous
// copy is unfinished, and read by the helper only while it holds a claimed, unfinished chunk:
// `work_` (the copy's generation, chunk count and next chunk, in one word) and `remaining_` order
// the two.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

#include "FrameCopy.h"

namespace flowmere::pipewire {

class ParallelCopy {
 public:
  // Frames below this size are copied by the caller alone: waking the helper costs more than it
  // saves.
  static constexpr std::size_t kShareThreshold = std::size_t{2} * 1024 * 1024;
  static constexpr std::size_t kChunkBytes = std::size_t{256} * 1024;
  // How long the helper waits for the next copy before it ends.
  static constexpr std::chrono::seconds kIdleExit{1};

  // `share` false copies everything on the calling thread (one core, or a test of that path);
  // `idleExit` replaces kIdleExit (tests).
  explicit ParallelCopy(bool share = std::thread::hardware_concurrency() > 1,
                        std::chrono::nanoseconds idleExit = kIdleExit)
      : share_(share), idleExit_(idleExit) {}
  ~ParallelCopy();
  ParallelCopy(const ParallelCopy&) = delete;
  ParallelCopy& operator=(const ParallelCopy&) = delete;

  // As pipewire::copyFrame: every plane of `pixels` into `target` laid out as `layout`, fenced.
  // The helper has finished its part when this returns.
  void copyFrame(const platform::PixelBuffer& pixels, const FrameLayout& layout, std::byte* target);

  // Chunks the helper copied so far (for tests and benchmarks). Any thread.
  [[nodiscard]] std::uint64_t helperChunks() const {
    return helperChunks_.load(std::memory_order_relaxed);
  }

 private:
  // Claims the next chunk of copy `generation`, if one is left.
  bool claim(std::uint32_t generation, std::uint32_t& chunk);
  // Claims and copies chunks of `generation` until none is left, fences, and returns how many.
  std::uint32_t copyChunks(std::uint32_t generation);
  void copyChunk(std::uint32_t chunk) const;
  // Wakes the helper for a published copy, or starts one if none is running.
  void callHelper();
  void run();

  const bool share_;
  const std::chrono::nanoseconds idleExit_;
  // The current copy; see the class comment for who may touch them when.
  FrameCopyPlan plan_;
  std::array<std::uint32_t, 2> chunkRows_{};
  std::array<std::uint32_t, 2> chunkCounts_{};
  std::uint32_t generation_ = 0;  // caller only
  // Bits 32-63 the copy's generation, 16-31 its chunk count, 0-15 the next chunk to claim.
  std::atomic<std::uint64_t> work_{0};
  // Chunks of the current copy not yet copied and fenced.
  std::atomic<std::uint32_t> remaining_{0};
  std::atomic<std::uint64_t> helperChunks_{0};
  std::mutex mutex_;
  std::condition_variable wake_;
  bool running_ = false;   // by mutex_: a helper thread takes copies (or is about to)
  bool sleeping_ = false;  // by mutex_: it waits on `wake_`
  bool stopping_ = false;  // by mutex_
  std::thread helper_;     // the caller's, and the destructor's
};

}  // namespace flowmere::pipewire
