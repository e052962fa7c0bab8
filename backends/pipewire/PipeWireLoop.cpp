#include "PipeWireLoop.h"

#include <spa/utils/result.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace flowmere::pipewire {

PipeWireLoop::PipeWireLoop(std::string name, LoopCallbacks callbacks)
    : name_(std::move(name)), callbacks_(std::move(callbacks)), peers_([this] {
        if (callbacks_.peersChanged) {
          callbacks_.peersChanged(*this);
        }
      }) {
  threadLoop_ = pw_thread_loop_new(name_.c_str(), nullptr);
  lock_ = LoopLock(threadLoop_);
}

PipeWireLoop::~PipeWireLoop() {
  stop();
  if (threadLoop_) {
    pw_thread_loop_destroy(threadLoop_);
  }
}

bool PipeWireLoop::start(const std::string& remoteName) {
  if (!threadLoop_) {
    std::fprintf(stderr, "[pipewire] could not create the PipeWire loop %s\n", name_.c_str());
    return false;
  }
  const LoopLocker lock(lock_);
  // No mlock of link buffers: it would fault in every page of a client's new buffers (265 MB
  // for eight 4K frames) on this loop's thread with its lock held, stalling the relay for as
  // long. Video frames gain nothing from locked memory; without the privilege to lock that
  // much, PipeWire skips it anyway.
  context_ = pw_context_new(loop(), pw_properties_new("mem.allow-mlock", "false", nullptr), 0);
  if (!context_) {
    std::fprintf(stderr, "[pipewire] could not create a PipeWire context\n");
    return false;
  }
  pw_properties* props = nullptr;
  if (!remoteName.empty()) {
    props = pw_properties_new(PW_KEY_REMOTE_NAME, remoteName.c_str(), nullptr);
  }
  core_ = pw_context_connect(context_, props, 0);
  if (!core_) {
    std::fprintf(stderr, "[pipewire] could not connect to PipeWire: %s\n",
                 std::generic_category().message(errno).c_str());
    return false;
  }
  static const pw_core_events coreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.error = &PipeWireLoop::onCoreError;
    return events;
  }();
  pw_core_add_listener(core_, &coreListener_, &coreEvents, this);
  {
    const platform::Locker<platform::Mutex> workLock(workMutex_);
    workEvent_ = pw_loop_add_event(loop(), &PipeWireLoop::onWork, this);
  }
  peers_.attach(core_);
  if (pw_thread_loop_start(threadLoop_) < 0) {
    std::fprintf(stderr, "[pipewire] could not start the PipeWire thread %s\n", name_.c_str());
    return false;
  }
  running_ = true;
  return true;
}

void PipeWireLoop::stop() {
  if (!threadLoop_) {
    return;
  }
  if (running_) {
    pw_thread_loop_stop(threadLoop_);
    running_ = false;
  }
  const LoopLocker lock(lock_);
  peers_.detach();
  {
    const platform::Locker<platform::Mutex> workLock(workMutex_);
    if (workEvent_) {
      pw_loop_destroy_source(loop(), workEvent_);
      workEvent_ = nullptr;
    }
    work_.clear();
  }
  if (core_) {
    spa_hook_remove(&coreListener_);
    pw_core_disconnect(core_);
    core_ = nullptr;
  }
  if (context_) {
    pw_context_destroy(context_);
    context_ = nullptr;
  }
}

void PipeWireLoop::stopThreads() {
  pw_data_loop* data = nullptr;
  {
    const LoopLocker lock(lock_);
    data = context_ ? pw_context_get_data_loop(context_) : nullptr;
  }
  // The data thread never takes the loop lock; the loop thread needs it to finish its turn.
  if (data) {
    pw_data_loop_stop(data);
  }
  if (running_) {
    pw_thread_loop_stop(threadLoop_);
    running_ = false;
  }
}

void PipeWireLoop::runPending() {
  // With no thread in the loop, an invocation runs at once, after everything queued before it.
  pw_loop_invoke(
      loop(),
      [](spa_loop* /*loop*/, bool /*async*/, std::uint32_t /*seq*/, const void* /*data*/,
         std::size_t /*size*/, void* /*user*/) { return 0; },
      SPA_ID_INVALID, nullptr, 0, true, nullptr);
}

void PipeWireLoop::post(std::function<void()> work) {
  // Signalling the event is safe from any thread without the loop lock.
  const platform::Locker<platform::Mutex> lock(workMutex_);
  if (!workEvent_) {
    return;
  }
  work_.push_back(std::move(work));
  pw_loop_signal_event(loop(), workEvent_);
}

void PipeWireLoop::onWork(void* data, std::uint64_t /*count*/) {
  static_cast<PipeWireLoop*>(data)->runWork();
}

void PipeWireLoop::runWork() {
  std::vector<std::function<void()>> work;
  {
    const platform::Locker<platform::Mutex> lock(workMutex_);
    work.swap(work_);
  }
  for (auto& item : work) {
    item();
  }
}

void PipeWireLoop::onCoreError(void* data, std::uint32_t id, int /*seq*/, int res,
                               const char* message) {
  auto* self = static_cast<PipeWireLoop*>(data);
  if (self->callbacks_.log) {
    self->callbacks_.log("[pipewire] " + self->name_ + ": error on object " + std::to_string(id) +
                         ": " + spa_strerror(res) + " (" + (message ? message : "") + ")");
  }
  if (id == PW_ID_CORE && res == -EPIPE && self->callbacks_.disconnected) {
    self->callbacks_.disconnected();
  }
}

}  // namespace flowmere::pipewire
