#pragma once

// Work items ordered by deadline, equal deadlines in submission order: the ordering shared by the
// manual executor and the threaded serial queue. Not synchronised; the owner locks.
//
// The heap orders small entries (deadline, submission order, slot); the work itself stays in a
// slot from push to pop, so reordering the heap never moves a closure, and freed slots are
// reused so that a queue in steady state does not allocate.

#include <algorithm>
#include <cstdint>
#include <deque>
#include <vector>

#include "platform/Services.h"

namespace flowmere::common {

class DeadlineQueue {
 public:
  // Takes the work by reference so that it is moved once, into its slot.
  void push(std::int64_t deadline, platform::Work&& work) {
    std::size_t slot = 0;
    if (freeSlots_.empty()) {
      slot = slots_.size();
      slots_.push_back(std::move(work));
    } else {
      slot = freeSlots_.back();
      freeSlots_.pop_back();
      slots_[slot] = std::move(work);
    }
    heap_.push_back(Entry{deadline, nextOrder_++, slot});
    std::push_heap(heap_.begin(), heap_.end(), Later{});
  }
  [[nodiscard]] bool empty() const { return heap_.empty(); }
  [[nodiscard]] std::size_t size() const { return heap_.size(); }
  // The earliest deadline; the queue must not be empty.
  [[nodiscard]] std::int64_t nextDeadline() const { return heap_.front().deadline; }
  // Removes and returns the earliest item's work.
  platform::Work pop() {
    std::pop_heap(heap_.begin(), heap_.end(), Later{});
    const std::size_t slot = heap_.back().slot;
    heap_.pop_back();
    platform::Work work = std::move(slots_[slot]);
    freeSlots_.push_back(slot);
    return work;
  }

 private:
  struct Entry {
    std::int64_t deadline;
    std::uint64_t order;
    std::size_t slot;
  };
  struct Later {
    bool operator()(const Entry& a, const Entry& b) const {
      return a.deadline != b.deadline ? a.deadline > b.deadline : a.order > b.order;
    }
  };

  std::vector<Entry> heap_;
  // A deque: growing it never moves the work already stored.
  std::deque<platform::Work> slots_;
  std::vector<std::size_t> freeSlots_;
  std::uint64_t nextOrder_ = 0;
};

}  // namespace flowmere::common
