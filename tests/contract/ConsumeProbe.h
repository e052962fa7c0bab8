#pragma once

// Asks a sink stream for buffers as the extension's consume loop does, and records every answer:
// which request it belongs to, what it carried, on which thread it came, whether it came from
// inside the request call, and how long the request waited. Each answer is also recorded in
// ContractEvents ("sink answer frame", "sink answer empty", "sink answer error"), in order with
// the stream source's calls.
//
// While `keepAsking` is set and the sink source is started, each answer asks again from within
// its completion (on the platform's thread), so a request is outstanding at every moment the
// platform could stop the stream.
//
// Threading: any thread. `mutex_` guards the counters and the answers.

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "contract/ContractEvents.h"
#include "contract/ContractSources.h"
#include "platform/CameraExtension.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::contract {

struct ConsumeAnswer {
  bool hasBuffer = false;
  bool hasError = false;
  std::thread::id thread;
  // The completion ran inside consumeSampleBufferFromClient, on the requester's stack.
  bool insideRequestCall = false;
  std::chrono::steady_clock::duration waited{};
  std::size_t eventPosition = 0;
};

class ConsumeProbe final : public std::enable_shared_from_this<ConsumeProbe> {
 public:
  // `stream` is borrowed for the probe's life.
  ConsumeProbe(platform::Stream& stream, std::shared_ptr<ContractStreamSource> sink,
               std::shared_ptr<ContractEvents> events);

  void setKeepAsking(bool keepAsking) { keepAsking_.store(keepAsking); }
  // Sends one request.
  void request();

  [[nodiscard]] int requests() const;
  // Requests whose consumeSampleBufferFromClient call has returned: the stream has taken them.
  [[nodiscard]] int requestsTaken() const;
  [[nodiscard]] int outstanding() const;
  [[nodiscard]] int frames() const;
  [[nodiscard]] std::vector<ConsumeAnswer> answers() const;

 private:
  void answered(std::chrono::steady_clock::time_point requestedAt, bool hasBuffer, bool hasError,
                bool inside);

  platform::Stream& stream_;
  const std::shared_ptr<ContractStreamSource> sink_;
  const std::shared_ptr<ContractEvents> events_;
  std::atomic<bool> keepAsking_{false};
  mutable platform::Mutex mutex_;
  int requests_ GUARDED_BY(mutex_) = 0;
  int requestsTaken_ GUARDED_BY(mutex_) = 0;
  int frames_ GUARDED_BY(mutex_) = 0;
  std::vector<ConsumeAnswer> answers_ GUARDED_BY(mutex_);
};

}  // namespace flowmere::contract
