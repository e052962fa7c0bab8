#include "ParallelCopy.h"

#include <pthread.h>

#include <algorithm>

namespace flowmere::pipewire {

namespace {

constexpr std::uint64_t kChunkMask = 0xffff;

constexpr std::uint64_t packWork(std::uint32_t generation, std::uint32_t chunks,
                                 std::uint32_t next) {
  return (std::uint64_t{generation} << 32) | ((std::uint64_t{chunks} & kChunkMask) << 16) |
         (std::uint64_t{next} & kChunkMask);
}
constexpr std::uint32_t generationOf(std::uint64_t work) {
  return static_cast<std::uint32_t>(work >> 32);
}
constexpr std::uint32_t chunksOf(std::uint64_t work) {
  return static_cast<std::uint32_t>((work >> 16) & kChunkMask);
}
constexpr std::uint32_t nextOf(std::uint64_t work) {
  return static_cast<std::uint32_t>(work & kChunkMask);
}

}  // namespace

ParallelCopy::~ParallelCopy() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  if (helper_.joinable()) {
    helper_.join();
  }
}

void ParallelCopy::copyFrame(const platform::PixelBuffer& pixels, const FrameLayout& layout,
                             std::byte* target) {
  if (!share_ || layout.frameSize < kShareThreshold) {
    pipewire::copyFrame(pixels, layout, target);
    return;
  }
  const FrameCopyPlan plan = planFrameCopy(pixels, layout, target);
  std::array<std::uint32_t, 2> chunkRows{};
  std::array<std::uint32_t, 2> chunkCounts{};
  std::uint64_t chunks = 0;
  for (std::size_t index = 0; index < plan.planeCount; ++index) {
    const PlaneRows& plane = plan.planes[index];
    chunkRows[index] = static_cast<std::uint32_t>(
        std::max<std::size_t>(1, kChunkBytes / std::max<std::size_t>(1, plane.rowBytes)));
    chunkCounts[index] = (plane.rows + chunkRows[index] - 1) / chunkRows[index];
    chunks += chunkCounts[index];
  }
  if (chunks < 2 || chunks > kChunkMask) {
    pipewire::copyFrame(pixels, layout, target);
    return;
  }

  // The previous copy has no unfinished chunk (the last call waited for it), so the helper reads
  // none of these until the new generation is published below.
  plan_ = plan;
  chunkRows_ = chunkRows;
  chunkCounts_ = chunkCounts;
  remaining_.store(static_cast<std::uint32_t>(chunks), std::memory_order_relaxed);
  ++generation_;
  work_.store(packWork(generation_, static_cast<std::uint32_t>(chunks), 0),
              std::memory_order_release);
  callHelper();

  const std::uint32_t copied = copyChunks(generation_);
  std::uint32_t left = remaining_.fetch_sub(copied, std::memory_order_acq_rel) - copied;
  while (left != 0) {
    remaining_.wait(left, std::memory_order_acquire);
    left = remaining_.load(std::memory_order_acquire);
  }
}

bool ParallelCopy::claim(std::uint32_t generation, std::uint32_t& chunk) {
  std::uint64_t work = work_.load(std::memory_order_acquire);
  while (generationOf(work) == generation && nextOf(work) < chunksOf(work)) {
    if (work_.compare_exchange_weak(work, work + 1, std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
      chunk = nextOf(work);
      return true;
    }
  }
  return false;
}

std::uint32_t ParallelCopy::copyChunks(std::uint32_t generation) {
  std::uint32_t copied = 0;
  std::uint32_t chunk = 0;
  while (claim(generation, chunk)) {
    copyChunk(chunk);
    ++copied;
  }
  if (copied > 0) {
    fenceFrameCopy(plan_.streaming);
  }
  return copied;
}

void ParallelCopy::copyChunk(std::uint32_t chunk) const {
  std::size_t plane = 0;
  while (plane + 1 < plan_.planeCount && chunk >= chunkCounts_[plane]) {
    chunk -= chunkCounts_[plane];
    ++plane;
  }
  const PlaneRows& rows = plan_.planes[plane];
  const std::uint32_t first = chunk * chunkRows_[plane];
  const std::uint32_t count = std::min(chunkRows_[plane], rows.rows - first);
  copyPlaneRows(rows, first, count, plan_.streaming);
}

void ParallelCopy::callHelper() {
  std::thread ended;
  bool start = false;
  bool wake = false;
  {
    const std::lock_guard lock(mutex_);
    if (!running_) {
      running_ = true;
      start = true;
      ended = std::move(helper_);  // one that ended when it found no copy for a while
    } else {
      wake = sleeping_;
    }
  }
  if (wake) {
    wake_.notify_one();
    return;
  }
  if (start) {
    if (ended.joinable()) {
      ended.join();
    }
    helper_ = std::thread([this] { run(); });
    pthread_setname_np(helper_.native_handle(), "flowmere-copy");
  }
}

void ParallelCopy::run() {
  std::uint32_t finished = 0;  // the last generation this thread took part in
  while (true) {
    {
      std::unique_lock lock(mutex_);
      const auto called = [this, finished] {
        return stopping_ || generationOf(work_.load(std::memory_order_acquire)) != finished;
      };
      if (!called()) {
        // The caller publishes a copy before it looks at `sleeping_` under the lock, so a copy
        // published after the check above finds this thread asleep and wakes it.
        sleeping_ = true;
        const bool woken = wake_.wait_for(lock, idleExit_, called);
        sleeping_ = false;
        if (!woken) {
          running_ = false;
          return;
        }
      }
      if (stopping_) {
        running_ = false;
        return;
      }
    }
    finished = generationOf(work_.load(std::memory_order_acquire));
    const std::uint32_t copied = copyChunks(finished);
    if (copied > 0) {
      helperChunks_.fetch_add(copied, std::memory_order_relaxed);
      if (remaining_.fetch_sub(copied, std::memory_order_acq_rel) == copied) {
        remaining_.notify_one();
      }
    }
  }
}

}  // namespace flowmere::pipewire
