#pragma once

// The subscribers to one kind of event of the embedded camera service.

#include <functional>
#include <memory>
#include <vector>

#include "platform/ThreadAnnotations.h"

namespace flowmere::embedded {

// Adding copies the list and replaces it; a notification copies one pointer under `mutex_` and
// calls the observers outside it without allocating, so an observer may add another (which
// hears the next event) and a notification never waits for a slow observer.
//
// Threading: any thread. `mutex_`, a leaf lock, guards `observers_`; it is never held while an
// observer runs. Observers run on the notifying thread.
template <typename... Args>
class ObserverList {
 public:
  using Observer = std::function<void(Args...)>;

  void add(Observer observer) EXCLUDES(mutex_) {
    const platform::Locker lock(mutex_);
    auto next = observers_ ? std::make_shared<std::vector<Observer>>(*observers_)
                           : std::make_shared<std::vector<Observer>>();
    next->push_back(std::move(observer));
    observers_ = std::move(next);
  }

  [[nodiscard]] bool empty() const EXCLUDES(mutex_) { return snapshot() == nullptr; }

  void notify(Args... args) const EXCLUDES(mutex_) {
    if (const auto observers = snapshot()) {
      for (const auto& observer : *observers) {
        observer(args...);
      }
    }
  }

 private:
  std::shared_ptr<const std::vector<Observer>> snapshot() const EXCLUDES(mutex_) {
    const platform::Locker lock(mutex_);
    return observers_;
  }

  mutable platform::Mutex mutex_;
  std::shared_ptr<const std::vector<Observer>> observers_ GUARDED_BY(mutex_);
};

}  // namespace flowmere::embedded
