#pragma once

// A serial queue with a thread of its own, on CLOCK_MONOTONIC: the platform and stream queues of
// the camera services in real time.

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "DeadlineQueue.h"
#include "platform/Services.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::common {

struct ThreadQueueOptions {
  // Timer slack of the queue's thread in nanoseconds; 0 keeps the thread's default (50 us on
  // Linux). 1 is the tightest an unprivileged thread can ask for.
  std::uint64_t timerSlackNanoseconds = 0;
};

// Work items run one at a time in deadline order (equal deadlines in submission order). Work
// still pending when the queue is destroyed is dropped without running.
//
// Threading: any thread may submit. The pending items live in a shared state whose `mutex`
// guards `items` and `stopping`; the queue's thread keeps that state alive, so the queue may even
// be destroyed by one of its own work items. The mutex is never held while work runs.
class ThreadSerialQueue final : public platform::SerialQueue {
 public:
  explicit ThreadSerialQueue(std::string label, ThreadQueueOptions options = {});
  ~ThreadSerialQueue() override;
  ThreadSerialQueue(const ThreadSerialQueue&) = delete;
  ThreadSerialQueue& operator=(const ThreadSerialQueue&) = delete;

  [[nodiscard]] const std::string& label() const override { return label_; }
  void async(platform::Work work) override;
  void asyncAfter(std::chrono::nanoseconds delay, platform::Work work) override;
  // True when called from this queue's own thread.
  [[nodiscard]] bool isCurrent() const { return std::this_thread::get_id() == threadID_; }

 private:
  struct State {
    platform::Mutex mutex;
    platform::ConditionVariable wake;
    DeadlineQueue items GUARDED_BY(mutex);
    bool stopping GUARDED_BY(mutex) = false;
  };

  void submit(std::int64_t deadline, platform::Work&& work);
  static void run(const std::shared_ptr<State>& state, const std::string& label,
                  ThreadQueueOptions options);

  const std::string label_;
  const std::shared_ptr<State> state_;
  std::thread thread_;
  std::thread::id threadID_;
};

}  // namespace flowmere::common
