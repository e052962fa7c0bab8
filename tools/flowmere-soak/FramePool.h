#pragma once

// The soak producer's pixel memory: a fixed number of slots per catalogue format, allocated once,
// as a real producer's buffer pool. Each frame wraps a free slot in a new pixel buffer whose
// release callback hands the slot back, so the relay still sees a fresh buffer object per frame
// (and its allocations), while a buffer that the relay never lets go of shows up as a slot that
// never comes back.
//
// The slots' memory is allocated without being filled, and a frame touches only the first bytes
// of its slot (the frame number), so the pool adds little to the resident memory the soak
// measures.
//
// Ownership: the pool and every buffer handed out share the slot table (`State`), so a buffer
// may outlive the pool. Threading: `acquire` on the producer thread; release callbacks on
// whichever thread drops a buffer's last reference; `slotsInUse` on any thread. `State::mutex`
// guards `State::inUse`; the slot memory is written only by the thread that holds the slot.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/PixelBuffer.h"
#include "platform/StreamFormat.h"

namespace flowmere::soak {

class FramePool {
 public:
  FramePool(const platform::StreamFormatList& formats, std::size_t slotsPerFormat);

  // A pixel buffer of catalogue format `formatIndex` over a free slot, with `frameNumber` written
  // into its first bytes; null when every slot of that format is in use.
  std::shared_ptr<platform::PixelBuffer> acquire(std::size_t formatIndex,
                                                 std::uint64_t frameNumber);
  // Slots handed out and not yet released, over all formats.
  [[nodiscard]] std::size_t slotsInUse() const;
  // Bytes of pixel memory the pool allocated, over all slots.
  [[nodiscard]] std::size_t memoryBytes() const { return memoryBytes_; }

 private:
  struct Slot {
    std::unique_ptr<std::byte[]> memory;
    std::vector<platform::PixelBufferPlane> planes;
  };
  struct Format {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    platform::FourCharCode pixelFormat = 0;
    std::size_t firstSlot = 0;
  };
  struct State {
    std::mutex mutex;
    std::vector<bool> inUse;  // guarded by mutex; one per slot
  };

  const std::size_t slotsPerFormat_;
  std::size_t memoryBytes_ = 0;
  std::vector<Format> formats_;
  std::vector<Slot> slots_;
  const std::shared_ptr<State> state_;
};

}  // namespace flowmere::soak
