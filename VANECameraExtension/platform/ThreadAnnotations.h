#pragma once

// Clang thread-safety annotations, and the two lock types the extension uses, annotated so that
// `-Wthread-safety` can check which lock guards which field. On other compilers the annotations
// compile away and the types are plain std::mutex / std::recursive_mutex.

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define FLOWMERE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define FLOWMERE_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) FLOWMERE_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY FLOWMERE_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) FLOWMERE_THREAD_ANNOTATION(guarded_by(x))
#define ACQUIRE(...) FLOWMERE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) FLOWMERE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define REQUIRES(...) FLOWMERE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) FLOWMERE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS FLOWMERE_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace flowmere::platform {

// A plain, non-recursive lock. Any thread.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  friend class ConditionVariable;
  std::mutex mutex_;
};

// A condition variable used with a `Mutex` that the caller holds. Any thread.
class ConditionVariable {
 public:
  // Releases `mutex` while it waits and holds it again when it returns, which may be spuriously:
  // callers wait in a loop on their condition.
  void wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> held(mutex.mutex_, std::adopt_lock);
    condition_.wait(held);
    held.release();
  }
  // As `wait`, but returns by `deadline` at the latest.
  template <typename Clock, typename Duration>
  void waitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline)
      REQUIRES(mutex) {
    std::unique_lock<std::mutex> held(mutex.mutex_, std::adopt_lock);
    condition_.wait_until(held, deadline);
    held.release();
  }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

// A lock that its holder may take again. Any thread.
class CAPABILITY("mutex") RecursiveMutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

// Holds a lock for the scope it lives in.
template <typename Lockable>
class SCOPED_CAPABILITY Locker {
 public:
  explicit Locker(Lockable& lockable) ACQUIRE(lockable) : lockable_(lockable) { lockable_.lock(); }
  ~Locker() RELEASE() { lockable_.unlock(); }
  Locker(const Locker&) = delete;
  Locker& operator=(const Locker&) = delete;

 private:
  Lockable& lockable_;
};

}  // namespace flowmere::platform
