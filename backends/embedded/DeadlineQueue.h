#pragma once

// Work items ordered by deadline, equal deadlines in submission order: the ordering shared by the
// manual executor and the threaded serial queue. Not synchronised; the owner locks.

#include <cstdint>
#include <queue>
#include <vector>

#include "platform/Services.h"

namespace flowmere::embedded {

class DeadlineQueue {
 public:
  void push(std::int64_t deadline, platform::Work work) {
    items_.push(Item{deadline, nextOrder_++, std::move(work)});
  }
  [[nodiscard]] bool empty() const { return items_.empty(); }
  [[nodiscard]] std::size_t size() const { return items_.size(); }
  // The earliest deadline; the queue must not be empty.
  [[nodiscard]] std::int64_t nextDeadline() const { return items_.top().deadline; }
  // Removes and returns the earliest item's work.
  platform::Work pop() {
    platform::Work work = std::move(items_.top().work);
    items_.pop();
    return work;
  }
  void clear() { items_ = {}; }

 private:
  struct Item {
    std::int64_t deadline;
    std::uint64_t order;
    // The heap hands out its top as const; the work is moved out just before the pop.
    mutable platform::Work work;
  };
  struct Later {
    bool operator()(const Item& a, const Item& b) const {
      return a.deadline != b.deadline ? a.deadline > b.deadline : a.order > b.order;
    }
  };

  std::priority_queue<Item, std::vector<Item>, Later> items_;
  std::uint64_t nextOrder_ = 0;
};

}  // namespace flowmere::embedded
