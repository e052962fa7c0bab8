#include "ThreadSerialQueue.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>

#include "MonotonicTime.h"

namespace flowmere::common {

ThreadSerialQueue::ThreadSerialQueue(std::string label, ThreadQueueOptions options)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
  thread_ = std::thread([state = state_, name = label_, options] { run(state, name, options); });
  threadID_ = thread_.get_id();
}

ThreadSerialQueue::~ThreadSerialQueue() {
  {
    const platform::Locker lock(state_->mutex);
    state_->stopping = true;
  }
  state_->wake.notifyAll();
  if (isCurrent()) {
    // Destroyed by one of its own work items: the thread owns the state and ends by itself.
    thread_.detach();
  } else {
    thread_.join();
  }
}

void ThreadSerialQueue::async(platform::Work work) {
  submit(monotonicNanoseconds(), std::move(work));
}

void ThreadSerialQueue::asyncAfter(std::chrono::nanoseconds delay, platform::Work work) {
  submit(monotonicNanoseconds() + std::max<std::int64_t>(delay.count(), 0), std::move(work));
}

void ThreadSerialQueue::submit(std::int64_t deadline, platform::Work&& work) {
  bool earliest = false;
  {
    const platform::Locker lock(state_->mutex);
    if (state_->stopping) {
      return;
    }
    earliest = state_->items.empty() || deadline < state_->items.nextDeadline();
    state_->items.push(deadline, std::move(work));
  }
  if (earliest) {
    state_->wake.notifyAll();  // only the queue's own thread waits
  }
}

void ThreadSerialQueue::run(const std::shared_ptr<State>& state, const std::string& label,
                            ThreadQueueOptions options) {
  // Thread names are limited to 15 characters; keep the end of the label, which says the most.
  const std::string name = label.size() > 15 ? label.substr(label.size() - 15) : label;
  pthread_setname_np(pthread_self(), name.c_str());
  if (options.timerSlackNanoseconds > 0) {
    prctl(PR_SET_TIMERSLACK, options.timerSlackNanoseconds, 0, 0, 0);
  }

  state->mutex.lock();
  while (true) {
    if (state->stopping) {
      // Drop pending work outside the lock: destroying a closure may release objects whose
      // destructors submit to this queue.
      const DeadlineQueue pending = std::move(state->items);
      state->mutex.unlock();
      return;
    }
    if (state->items.empty()) {
      state->wake.wait(state->mutex);
      continue;
    }
    const std::int64_t deadline = state->items.nextDeadline();
    if (deadline > monotonicNanoseconds()) {
      // steady_clock is CLOCK_MONOTONIC on Linux, the clock the deadlines are taken from.
      state->wake.waitUntil(
          state->mutex, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(deadline)));
      continue;
    }
    platform::Work work = state->items.pop();
    state->mutex.unlock();
    work();
    work = nullptr;  // release captures before taking the lock again
    state->mutex.lock();
  }
}

}  // namespace flowmere::common
