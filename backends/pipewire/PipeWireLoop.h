#pragma once

// One connection to PipeWire with its own threads. The camera opens one per node, so that what
// happens on one node's connection (a camera client linking to the source and 33 MB buffers
// being mapped at 4K) never delays the other's (the producer's frames arriving at the sink).
//
// Threads of one loop:
// - the loop thread (`pw_thread_loop`) runs the connection's events: the registry, node
//   negotiation, buffer mapping, timers, and, for nodes without real-time processing, their
//   process events. It holds the loop lock while it runs any of them.
// - the context's data thread runs graph cycles; nothing of ours runs there.
// Other threads take the loop lock (LoopLocker) around every call into PipeWire objects of this
// loop, and keep it only for those calls.

#include <pipewire/pipewire.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "PeerDirectory.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::pipewire {

// The loop lock of a `pw_thread_loop`, as a capability the thread-safety analysis can follow.
// It is recursive: the loop thread already holds it while it runs callbacks.
class CAPABILITY("mutex") LoopLock {
 public:
  explicit LoopLock(pw_thread_loop* loop) : loop_(loop) {}
  void lock() ACQUIRE() { pw_thread_loop_lock(loop_); }
  void unlock() RELEASE() { pw_thread_loop_unlock(loop_); }
  // Tells the analysis that a PipeWire callback runs with the lock held.
  void assertHeld() const FLOWMERE_THREAD_ANNOTATION(assert_capability(this)) {}

 private:
  pw_thread_loop* loop_;
};

class SCOPED_CAPABILITY LoopLocker {
 public:
  explicit LoopLocker(LoopLock& lock) ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  ~LoopLocker() RELEASE() { lock_.unlock(); }
  LoopLocker(const LoopLocker&) = delete;
  LoopLocker& operator=(const LoopLocker&) = delete;

 private:
  LoopLock& lock_;
};

class PipeWireLoop;

struct LoopCallbacks {
  // Loop thread: a line for the service's log.
  std::function<void(std::string_view)> log;
  // Loop thread: links or clients changed (see PeerDirectory) on the given loop.
  std::function<void(PipeWireLoop&)> peersChanged;
  // Loop thread: the PipeWire daemon closed the connection.
  std::function<void()> disconnected;
};

// Created, started and stopped on the main thread (stop: any thread but the loop's own). The
// PipeWire objects are GUARDED_BY the loop lock; `workMutex_` guards the posted work.
class PipeWireLoop {
 public:
  PipeWireLoop(std::string name, LoopCallbacks callbacks);
  ~PipeWireLoop();
  PipeWireLoop(const PipeWireLoop&) = delete;
  PipeWireLoop& operator=(const PipeWireLoop&) = delete;

  // Connects to `remoteName` (empty: the user's default) and starts the loop thread. False, with
  // the reason on standard error, when PipeWire cannot be reached.
  bool start(const std::string& remoteName);
  // Ends the loop thread and closes the connection; no callback runs afterwards. Nodes of this
  // loop must be destroyed first.
  void stop();

  [[nodiscard]] const std::string& name() const { return name_; }
  LoopLock& lock() FLOWMERE_THREAD_ANNOTATION(lock_returned(lock_)) { return lock_; }
  pw_core* core() REQUIRES(lock_) { return core_; }
  pw_loop* loop() { return pw_thread_loop_get_loop(threadLoop_); }
  PeerDirectory& peers() REQUIRES(lock_) { return peers_; }
  // Any thread: runs `work` on the loop thread with the lock held, after earlier posts; never
  // waits. Dropped once the loop is stopping.
  void post(std::function<void()> work);
  // Main thread, at shutdown, before the loop's nodes are destroyed: stops the data thread and
  // the loop thread, for good. PipeWire hands a node's work between them (a graph cycle's process
  // event to the loop, a relay's trigger to the data thread) with the stream's address, and
  // would run it after `pw_stream_destroy` had freed the stream. With both stopped, what is left
  // runs on the caller's thread, in `runPending` and in PipeWire's own calls.
  void stopThreads() EXCLUDES(lock_);
  // After `stopThreads`: runs what PipeWire queued for the loop thread, now.
  void runPending() REQUIRES(lock_);

 private:
  static void onWork(void* data, std::uint64_t count);
  static void onCoreError(void* data, std::uint32_t id, int seq, int res, const char* message);
  void runWork();

  const std::string name_;
  const LoopCallbacks callbacks_;
  pw_thread_loop* threadLoop_ = nullptr;
  LoopLock lock_{nullptr};
  pw_context* context_ GUARDED_BY(lock_) = nullptr;
  pw_core* core_ GUARDED_BY(lock_) = nullptr;
  spa_hook coreListener_ GUARDED_BY(lock_){};
  PeerDirectory peers_ GUARDED_BY(lock_);
  bool running_ = false;  // main thread

  platform::Mutex workMutex_;
  std::vector<std::function<void()>> work_ GUARDED_BY(workMutex_);
  spa_source* workEvent_ GUARDED_BY(workMutex_) = nullptr;
};

}  // namespace flowmere::pipewire
