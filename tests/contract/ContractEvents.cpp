#include "contract/ContractEvents.h"

#include <algorithm>

namespace flowmere::contract {

std::size_t ContractEvents::record(std::string what) {
  std::size_t position = 0;
  {
    const platform::Locker lock(mutex_);
    position = events_.size();
    events_.push_back(ContractEvent{std::move(what), std::this_thread::get_id(),
                                    std::chrono::steady_clock::now()});
  }
  changed_.notifyAll();
  return position;
}

std::vector<ContractEvent> ContractEvents::snapshot() const {
  const platform::Locker lock(mutex_);
  return events_;
}

std::size_t ContractEvents::count(const std::string& what) const {
  const platform::Locker lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(events_.begin(), events_.end(),
                    [&](const ContractEvent& event) { return event.what == what; }));
}

void ContractEvents::poke() {
  changed_.notifyAll();
}

bool ContractEvents::waitFor(const std::function<bool()>& condition,
                             std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!condition()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) {
      return false;
    }
    // The condition is tested without the lock (it may take it itself), so an event can slip in
    // between the test and the wait: the wait is short, and the loop tests again.
    const platform::Locker lock(mutex_);
    changed_.waitUntil(mutex_, std::min(deadline, now + std::chrono::milliseconds(10)));
  }
  return true;
}

bool ContractEvents::waitForCount(const std::string& what, std::size_t times,
                                  std::chrono::milliseconds bound) {
  return waitFor([&] { return count(what) >= times; }, bound);
}

}  // namespace flowmere::contract
