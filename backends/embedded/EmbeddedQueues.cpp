#include "EmbeddedQueues.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>

namespace flowmere::embedded {

void VirtualSerialQueue::async(platform::Work work) {
  executor_.schedule(executor_.nowNanoseconds(), std::move(work));
}

void VirtualSerialQueue::asyncAfter(std::chrono::nanoseconds delay, platform::Work work) {
  const std::int64_t now = executor_.nowNanoseconds();
  executor_.schedule(now + std::max<std::int64_t>(delay.count(), 0), std::move(work));
}

ThreadSerialQueue::ThreadSerialQueue(std::string label, ThreadQueueOptions options)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
  thread_ = std::thread([state = state_, name = label_, options] { run(state, name, options); });
  threadID_ = thread_.get_id();
}

ThreadSerialQueue::~ThreadSerialQueue() {
  {
    const std::scoped_lock lock(state_->mutex);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  if (isCurrent()) {
    // Destroyed by one of its own work items: the thread owns the state and ends by itself.
    thread_.detach();
  } else {
    thread_.join();
  }
}

void ThreadSerialQueue::async(platform::Work work) {
  submit(MonotonicClock::nowNanoseconds(), std::move(work));
}

void ThreadSerialQueue::asyncAfter(std::chrono::nanoseconds delay, platform::Work work) {
  submit(MonotonicClock::nowNanoseconds() + std::max<std::int64_t>(delay.count(), 0),
         std::move(work));
}

void ThreadSerialQueue::submit(std::int64_t deadline, platform::Work&& work) {
  bool earliest = false;
  {
    const std::scoped_lock lock(state_->mutex);
    if (state_->stopping) {
      return;
    }
    earliest = state_->items.empty() || deadline < state_->items.nextDeadline();
    state_->items.push(deadline, std::move(work));
  }
  if (earliest) {
    state_->wake.notify_one();
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

  std::unique_lock lock(state->mutex);
  while (true) {
    if (state->stopping) {
      // Drop pending work outside the lock: destroying a closure may release objects whose
      // destructors submit to this queue.
      auto pending = std::move(state->items);
      lock.unlock();
      return;
    }
    if (state->items.empty()) {
      state->wake.wait(lock);
      continue;
    }
    const std::int64_t deadline = state->items.nextDeadline();
    if (deadline > MonotonicClock::nowNanoseconds()) {
      // steady_clock is CLOCK_MONOTONIC on Linux, the clock the deadlines are taken from.
      state->wake.wait_until(
          lock, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(deadline)));
      continue;
    }
    platform::Work work = state->items.pop();
    lock.unlock();
    work();
    work = nullptr;  // release captures before taking the lock again
    lock.lock();
  }
}

}  // namespace flowmere::embedded
