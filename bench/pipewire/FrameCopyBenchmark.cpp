// One frame copied into a client's buffer, the way the relay does it: the producer has just
// written the frame from another thread (so it is in the shared cache, not in ours), and the
// target is one of eight shared-memory buffers taken in turn, as a client's link provides them.
// Compares memcpy with the relay's copyBytes and with its ParallelCopy (the copy shared with a
// helper thread; wall time, since the CPU time of the helper is not the caller's) at 1080p and
// 4K BGRA.
//
//   build/release/bench/pipewire/frame_copy_benchmark

#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "pipewire/FrameCopy.h"
#include "pipewire/ParallelCopy.h"
#include "platform/FourCharCode.h"
#include "platform/PixelBuffer.h"

namespace {

// A shared-memory mapping whose pages all exist, as a client's buffer does once faulted in.
class SharedBlock {
 public:
  explicit SharedBlock(std::size_t size) : size_(size) {
    const int descriptor = memfd_create("frame-copy-benchmark", MFD_CLOEXEC);
    if (descriptor >= 0 && ftruncate(descriptor, static_cast<off_t>(size)) == 0) {
      void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
      data_ = mapped == MAP_FAILED ? nullptr : static_cast<std::byte*>(mapped);
    }
    if (descriptor >= 0) {
      close(descriptor);
    }
    if (data_) {
      std::memset(data_, 1, size_);
    }
  }
  ~SharedBlock() {
    if (data_) {
      munmap(data_, size_);
    }
  }
  SharedBlock(const SharedBlock&) = delete;
  SharedBlock& operator=(const SharedBlock&) = delete;
  [[nodiscard]] std::byte* data() const { return data_; }

 private:
  std::size_t size_;
  std::byte* data_ = nullptr;
};

// Writes the next frame on a thread of its own when asked, and says when it is done.
// `mutex_` guards the request and completion counters.
class FrameWriter {
 public:
  FrameWriter() : thread_([this] { run(); }) {}
  ~FrameWriter() {
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  FrameWriter(const FrameWriter&) = delete;
  FrameWriter& operator=(const FrameWriter&) = delete;

  void write(std::byte* frame, std::size_t size) {
    std::unique_lock lock(mutex_);
    frame_ = frame;
    size_ = size;
    ++requested_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return written_ == requested_; });
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] { return stopping_ || written_ != requested_; });
      if (stopping_) {
        return;
      }
      std::memset(frame_, static_cast<int>(requested_ & 0xff), size_);
      written_ = requested_;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::byte* frame_ = nullptr;
  std::size_t size_ = 0;
  std::uint64_t requested_ = 0;
  std::uint64_t written_ = 0;
  bool stopping_ = false;
  std::thread thread_;  // last: starts once everything above exists
};

enum class Copier { kMemcpy, kCopyBytes, kParallel };

template <Copier kCopier>
void BM_FrameCopy(benchmark::State& state) {
  const auto size =
      static_cast<std::size_t>(state.range(0)) * static_cast<std::size_t>(state.range(1)) * 4;
  std::vector<std::unique_ptr<SharedBlock>> sources;
  std::vector<std::unique_ptr<SharedBlock>> targets;
  sources.reserve(3);
  targets.reserve(8);
  for (int index = 0; index < 3; ++index) {
    sources.push_back(std::make_unique<SharedBlock>(size));
  }
  for (int index = 0; index < 8; ++index) {
    targets.push_back(std::make_unique<SharedBlock>(size));
  }
  if (!sources.back()->data() || !targets.back()->data()) {
    state.SkipWithError("no shared memory");
    return;
  }
  FrameWriter writer;
  // The relay's copier: a BGRA frame whose strides match, as the producer's and a client's are.
  flowmere::pipewire::ParallelCopy parallel;
  const auto width = static_cast<std::uint32_t>(state.range(0));
  const auto height = static_cast<std::uint32_t>(state.range(1));
  flowmere::pipewire::FrameLayout layout;
  layout.pixelFormat = flowmere::platform::kCVPixelFormatType_32BGRA;
  layout.width = width;
  layout.height = height;
  layout.stride = width * 4;
  layout.rowBytes = width * 4;
  layout.planeCount = 1;
  layout.frameSize = size;
  std::size_t frame = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::byte* source = sources[frame % sources.size()]->data();
    writer.write(source, size);
    std::byte* target = targets[frame % targets.size()]->data();
    ++frame;
    const flowmere::platform::PixelBufferPlane plane{source, layout.stride, width, height};
    const auto pixels = flowmere::platform::PixelBuffer::wrap(
        width, height, layout.pixelFormat,
        std::span<const flowmere::platform::PixelBufferPlane>(&plane, 1), [] {});
    state.ResumeTiming();
    if constexpr (kCopier == Copier::kParallel) {
      parallel.copyFrame(*pixels, layout, target);
    } else if constexpr (kCopier == Copier::kCopyBytes) {
      flowmere::pipewire::copyBytes(target, source, size);
    } else {
      std::memcpy(target, source, size);
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
  if constexpr (kCopier == Copier::kParallel) {
    state.counters["helper_share"] =
        static_cast<double>(parallel.helperChunks()) /
        static_cast<double>(state.iterations() *
                            ((size + flowmere::pipewire::ParallelCopy::kChunkBytes - 1) /
                             flowmere::pipewire::ParallelCopy::kChunkBytes));
  }
}

BENCHMARK_TEMPLATE(BM_FrameCopy, Copier::kMemcpy)
    ->Name("memcpy")
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_FrameCopy, Copier::kCopyBytes)
    ->Name("copyBytes")
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_FrameCopy, Copier::kParallel)
    ->Name("ParallelCopy")
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
