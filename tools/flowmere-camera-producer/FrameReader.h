#pragma once

// Raw video frames from a file descriptor (the producer's standard input), read on a thread of
// their own into a ring of three frame-sized slots, so that the PipeWire loop never waits on a
// read: at each cycle it takes a complete frame, copies it into a PipeWire buffer and gives the
// slot back. Three slots: one being filled, one being copied, one complete frame waiting.
//
// Two orders, for the two kinds of source:
// - Oldest first, for a scheduled source (a file, a decoder that runs as fast as it can): every
//   frame of the input is shown, in order, one per period of the producer's schedule. The loop
//   takes the oldest complete frame, and the reader waits for a free slot while the ring is
//   full, so a faster input is held back by the pipe instead of losing frames.
// - Newest first, for a live source (a capture, `ffmpeg -re`): a frame belongs to the moment it
//   arrived, and showing an older frame after a newer one has arrived would only add latency.
//   The loop takes the newest complete frame and the older ones it passes over are dropped; the
//   reader never waits, it reuses the oldest complete frame that nobody has taken.
//
// The input ends at end of file, at a read error, or at a short last frame; state() tells which.
// A short frame is never handed out.
//
// Threads: start() and stop() from the thread that owns the reader (the producer's main
// thread). stop() wakes a blocked read and joins the thread: call it before anything `notify`
// touches goes away (the destructor calls it too). take(), giveBack() and state() from one
// consuming thread (the PipeWire loop). `notify` runs on the reader thread, without the lock,
// after each complete frame and once when the input ends. `mutex_` guards the slots' states,
// the counters and the end; a slot's bytes belong to the reader while the slot is kFilling and to
// the consumer while it is kTaken, and are read and written without the lock.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/ThreadAnnotations.h"

namespace flowmere::producer {

class FrameReader {
 public:
  enum class Order { kOldestFirst, kNewestFirst };
  enum class End {
    kNotYet,      // still reading
    kEnded,       // end of file after a whole frame (or before the first byte)
    kShortFrame,  // end of file inside a frame: `shortBytes` of `frameSize` arrived
    kReadError,   // read() failed with `error`
  };

  struct State {
    End end = End::kNotYet;
    std::uint64_t frames = 0;   // whole frames read so far
    std::uint64_t dropped = 0;  // complete frames never shown (newest first only)
    std::size_t shortBytes = 0;
    int error = 0;
    bool framesWaiting = false;  // a complete frame is there to take
  };

  // A complete frame, taken: its bytes stay valid and unchanged until it is given back.
  struct Frame {
    const std::uint8_t* data = nullptr;
    std::int64_t arrival = 0;  // CLOCK_MONOTONIC nanoseconds when its last byte was read
    std::uint64_t number = 0;  // counts the input's frames from 0
    std::size_t slot = 0;
  };

  static constexpr std::size_t kSlotCount = 3;

  FrameReader(int descriptor, std::size_t frameSize, Order order, std::function<void()> notify);
  ~FrameReader();
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  // Allocates (and touches) the slots and starts the thread; false, with `problem` saying why,
  // when that fails. Call once.
  bool start(std::string& problem);
  // Wakes the thread wherever it waits and joins it. The descriptor is left open. Idempotent.
  void stop();

  // The oldest or newest complete frame (by the reader's order), or nothing when none is there.
  std::optional<Frame> take();
  // Returns a taken frame. `shown`: it went out and its slot is free again. Not shown: oldest
  // first, it waits to be taken again; newest first, it is dropped (by the next chance it would
  // be late).
  void giveBack(const Frame& frame, bool shown);

  [[nodiscard]] State state() const;
  [[nodiscard]] std::size_t frameSize() const { return frameSize_; }

 private:
  enum class SlotState { kFree, kFilling, kReady, kTaken };
  struct SlotInfo {
    SlotState state = SlotState::kFree;
    std::int64_t arrival = 0;
    std::uint64_t number = 0;
  };
  enum class ReadResult { kComplete, kEndOfFile, kError, kStopped };

  void run();
  // A slot to fill: a free one, or (newest first) the oldest complete one, which is dropped;
  // waits while none is free (oldest first). Nothing once stop() was called.
  std::optional<std::size_t> claimSlot();
  // Reads into `target` until the frame is whole, the input ends or fails, or stop() wakes it.
  ReadResult fill(std::uint8_t* target, std::size_t& filled, int& error) const;

  const int descriptor_;
  const std::size_t frameSize_;
  const Order order_;
  const std::function<void()> notify_;
  int wakeDescriptor_ = -1;  // an eventfd: stop() makes it readable to end the reader's poll
  std::thread thread_;
  std::array<std::vector<std::uint8_t>, kSlotCount> bytes_;  // see the class comment

  mutable platform::Mutex mutex_;
  platform::ConditionVariable slotFreed_;
  std::array<SlotInfo, kSlotCount> slots_ GUARDED_BY(mutex_){};
  bool stopping_ GUARDED_BY(mutex_) = false;
  End end_ GUARDED_BY(mutex_) = End::kNotYet;
  std::uint64_t frames_ GUARDED_BY(mutex_) = 0;
  std::uint64_t dropped_ GUARDED_BY(mutex_) = 0;
  std::size_t shortBytes_ GUARDED_BY(mutex_) = 0;
  int error_ GUARDED_BY(mutex_) = 0;
};

}  // namespace flowmere::producer
