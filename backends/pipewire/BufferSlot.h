#pragma once

// One PipeWire buffer of one of our nodes, as the relay's threads see it. PipeWire maps a
// node's buffers when a link is negotiated and unmaps them when it is renegotiated or removed
// (the stream's remove_buffer event, on the node's loop thread). Meanwhile another thread may be
// reading the memory (the source copying a producer frame) or writing it (the copy into a
// client's buffer), without the loop lock. A slot lets such a reader or writer pin the memory;
// `revoke` waits for it to finish before PipeWire takes the memory back, and refuses later
// pins. Slots are identities: a held frame is recognised by its slot, never by an address that
// a new mapping might reuse.
//
// Any thread. `mutex_` guards `users_` and `revoked_`; it is never held while the memory is
// used, only to count users.

#include <pipewire/stream.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/PixelBuffer.h"

namespace flowmere::pipewire {

class BufferSlot final : public platform::ExternalMemory,
                         public std::enable_shared_from_this<BufferSlot> {
 public:
  explicit BufferSlot(pw_buffer* buffer) : buffer_(buffer), serial_(nextSerial()) {}

  // A number no other slot of this process has had: an identity that outlives the slot, unlike
  // its address.
  [[nodiscard]] std::uint64_t serial() const { return serial_; }

  // The PipeWire buffer; only to be used by a holder of its node's loop lock, and only while
  // `revoked()` is false.
  [[nodiscard]] pw_buffer* buffer() const { return buffer_; }

  [[nodiscard]] bool beginAccess() override;
  void endAccess() override;
  // Loop thread, from remove_buffer: waits until no one uses the memory, then refuses every
  // later `beginAccess`.
  void revoke();
  [[nodiscard]] bool revoked() const;

  // What the buffer's memory holds besides a relayed frame: the idle picture of one drawing
  // (its number), or 0. Written and read by the node under its loop lock; atomic so that the
  // slot needs no lock for it.
  [[nodiscard]] std::uint64_t pictureTag() const {
    return pictureTag_.load(std::memory_order_relaxed);
  }
  void setPictureTag(std::uint64_t tag) { pictureTag_.store(tag, std::memory_order_relaxed); }

 private:
  static std::uint64_t nextSerial();

  pw_buffer* const buffer_;
  const std::uint64_t serial_;
  mutable std::mutex mutex_;
  std::condition_variable idle_;
  int users_ = 0;         // by mutex_
  bool revoked_ = false;  // by mutex_
  std::atomic<std::uint64_t> pictureTag_{0};
};

}  // namespace flowmere::pipewire
