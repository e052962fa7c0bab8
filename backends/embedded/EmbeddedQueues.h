#pragma once

// Serial queues for the embedded camera service: one that runs on the manual executor's virtual
// time, and one with a thread of its own that runs in real time.

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "DeadlineQueue.h"
#include "VirtualClock.h"
#include "platform/Services.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::embedded {

// A serial queue on virtual time. Work runs when the executor is advanced past its deadline;
// since the executor runs everything on one thread, the queue is serial by construction.
// Any thread may submit.
class VirtualSerialQueue final : public platform::SerialQueue {
 public:
  VirtualSerialQueue(std::string label, ManualExecutor& executor)
      : label_(std::move(label)), executor_(executor) {}

  [[nodiscard]] const std::string& label() const override { return label_; }
  void async(platform::Work work) override;
  void asyncAfter(std::chrono::nanoseconds delay, platform::Work work) override;

 private:
  const std::string label_;
  ManualExecutor& executor_;
};

struct ThreadQueueOptions {
  // Timer slack of the queue's thread in nanoseconds; 0 keeps the thread's default (50 us on
  // Linux). 1 is the tightest an unprivileged thread can ask for.
  std::uint64_t timerSlackNanoseconds = 0;
};

// A serial queue with its own thread, on CLOCK_MONOTONIC. Work items run one at a time in
// deadline order (equal deadlines in submission order). Work still pending when the queue is
// destroyed is dropped without running. Any thread may submit. The pending items live in a shared
// state guarded by its own mutex, which the thread keeps alive, so the queue may even be
// destroyed by one of its own work items.
class ThreadSerialQueue final : public platform::SerialQueue {
 public:
  ThreadSerialQueue(std::string label, ThreadQueueOptions options = {});
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
    std::mutex mutex;
    std::condition_variable wake;
    DeadlineQueue items;    // guarded by mutex
    bool stopping = false;  // guarded by mutex
  };

  void submit(std::int64_t deadline, platform::Work&& work);
  static void run(const std::shared_ptr<State>& state, const std::string& name,
                  ThreadQueueOptions options);

  const std::string label_;
  const std::shared_ptr<State> state_;
  std::thread thread_;
  std::thread::id threadID_;
};

}  // namespace flowmere::embedded
