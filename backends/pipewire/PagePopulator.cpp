#include "PagePopulator.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace flowmere::pipewire {

void PagePopulator::add(std::shared_ptr<BufferSlot> slot) {
  {
    const std::scoped_lock lock(mutex_);
    pending_.push_back(std::move(slot));
    if (running_) {
      return;  // the worker takes it before it looks for an empty queue
    }
    running_ = true;
  }
  if (worker_.joinable()) {
    worker_.join();  // the previous worker found the queue empty and has returned
  }
  worker_ = std::thread([this] { run(); });
}

void PagePopulator::stop() {
  {
    const std::scoped_lock lock(mutex_);
    stopping_ = true;
    pending_.clear();
  }
  if (worker_.joinable()) {
    worker_.join();
  }
  const std::scoped_lock lock(mutex_);
  stopping_ = false;
  running_ = false;
}

void PagePopulator::run() {
  for (;;) {
    std::shared_ptr<BufferSlot> slot;
    {
      const std::scoped_lock lock(mutex_);
      if (stopping_ || pending_.empty()) {
        running_ = false;
        return;
      }
      slot = std::move(pending_.front());
      pending_.pop_front();
    }
    populate(*slot);
  }
}

void PagePopulator::populate(BufferSlot& slot) {
  if (!slot.beginAccess()) {
    return;  // the link went away first
  }
  static const auto pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const spa_buffer* buffer = slot.buffer()->buffer;
  for (std::uint32_t index = 0; index < buffer->n_datas; ++index) {
    const spa_data& block = buffer->datas[index];
    if (!block.data || block.maxsize == 0) {
      continue;
    }
    // madvise takes whole pages; the block may start inside one.
    const auto begin = reinterpret_cast<std::uintptr_t>(block.data) & ~(pageSize - 1);
    const auto end = reinterpret_cast<std::uintptr_t>(block.data) + block.maxsize;
#ifdef MADV_POPULATE_WRITE
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the page-aligned start of the block's mapping
    if (madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE) == 0) {
      continue;
    }
#endif
    // Kernels before 5.14: a read maps each page of the shared memory as well.
    const auto* bytes = static_cast<const volatile std::uint8_t*>(block.data);
    for (std::uintptr_t offset = 0; offset < block.maxsize; offset += pageSize) {
      (void)bytes[offset];
    }
  }
  slot.endAccess();
}

}  // namespace flowmere::pipewire
