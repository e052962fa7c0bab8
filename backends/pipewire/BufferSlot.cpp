#include "BufferSlot.h"

#include <atomic>

namespace flowmere::pipewire {

std::uint64_t BufferSlot::nextSerial() {
  static std::atomic<std::uint64_t> next{1};
  return next.fetch_add(1, std::memory_order_relaxed);
}

bool BufferSlot::beginAccess() {
  const std::scoped_lock lock(mutex_);
  if (revoked_) {
    return false;
  }
  ++users_;
  return true;
}

void BufferSlot::endAccess() {
  bool idle = false;
  {
    const std::scoped_lock lock(mutex_);
    idle = --users_ == 0;
  }
  if (idle) {
    idle_.notify_all();
  }
}

void BufferSlot::revoke() {
  std::unique_lock lock(mutex_);
  revoked_ = true;
  idle_.wait(lock, [this] { return users_ == 0; });
}

bool BufferSlot::revoked() const {
  const std::scoped_lock lock(mutex_);
  return revoked_;
}

}  // namespace flowmere::pipewire
