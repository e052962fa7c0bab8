#pragma once

// What the contract tests observe of a backend, in the order it happened: the calls the platform
// made into the fake sources and the consume answers it gave, each with its thread. Tests wait on
// it for a condition with a bounded timeout instead of sleeping.
//
// Threading: any thread. `mutex_` guards `events_`; `changed_` is notified on every record.

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/ThreadAnnotations.h"

namespace flowmere::contract {

// Long enough that only a broken promise reaches it, on any machine.
inline constexpr std::chrono::seconds kGenerousBound{20};

struct ContractEvent {
  std::string what;  // "sink start", "sink stop", "sink answer empty", ...
  std::thread::id thread;
  std::chrono::steady_clock::time_point at;
};

class ContractEvents {
 public:
  // Records `what` and returns its position.
  std::size_t record(std::string what);
  [[nodiscard]] std::vector<ContractEvent> snapshot() const;
  [[nodiscard]] std::size_t count(const std::string& what) const;
  // Wakes the waiters without an event: something they test that is not an event has changed.
  void poke();
  // Waits until `condition` holds, testing it at each event and at least every 10 ms (for
  // conditions that no event announces); false if `bound` passed first.
  bool waitFor(const std::function<bool()>& condition,
               std::chrono::milliseconds bound = kGenerousBound);
  // Waits until `what` has been recorded `times` times.
  bool waitForCount(const std::string& what, std::size_t times,
                    std::chrono::milliseconds bound = kGenerousBound);

 private:
  mutable platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  std::vector<ContractEvent> events_ GUARDED_BY(mutex_);
};

}  // namespace flowmere::contract
