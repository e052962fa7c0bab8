#include "contract/ConsumeProbe.h"

namespace flowmere::contract {

namespace {

// How deep this thread is inside consumeSampleBufferFromClient calls of any probe.
thread_local int requestCallDepth = 0;

}  // namespace

ConsumeProbe::ConsumeProbe(platform::Stream& stream, std::shared_ptr<ContractStreamSource> sink,
                           std::shared_ptr<ContractEvents> events)
    : stream_(stream), sink_(std::move(sink)), events_(std::move(events)) {}

void ConsumeProbe::request() {
  {
    const platform::Locker lock(mutex_);
    ++requests_;
  }
  const auto requestedAt = std::chrono::steady_clock::now();
  ++requestCallDepth;
  stream_.consumeSampleBufferFromClient(
      sink_->lastClient(),
      [weakSelf = weak_from_this(), requestedAt](
          std::shared_ptr<platform::SampleBuffer> buffer, std::uint64_t /*sequenceNumber*/,
          platform::StreamDiscontinuityFlags /*discontinuity*/, bool /*hasMore*/,
          const std::optional<platform::Error>& error) {
        const bool inside = requestCallDepth > 0;
        const bool hasBuffer = buffer != nullptr;
        buffer.reset();  // a PipeWire frame goes back to the producer at once
        if (auto self = weakSelf.lock()) {
          self->answered(requestedAt, hasBuffer, error.has_value(), inside);
        }
      });
  --requestCallDepth;
  {
    const platform::Locker lock(mutex_);
    ++requestsTaken_;
  }
}

void ConsumeProbe::answered(std::chrono::steady_clock::time_point requestedAt, bool hasBuffer,
                            bool hasError, bool inside) {
  ConsumeAnswer answer;
  answer.hasBuffer = hasBuffer;
  answer.hasError = hasError;
  answer.thread = std::this_thread::get_id();
  answer.insideRequestCall = inside;
  answer.waited = std::chrono::steady_clock::now() - requestedAt;
  {
    // Recorded under the lock, so that the event order and the answers' order agree.
    const platform::Locker lock(mutex_);
    answer.eventPosition = events_->record(
        hasError ? "sink answer error" : (hasBuffer ? "sink answer frame" : "sink answer empty"));
    answers_.push_back(answer);
    frames_ += hasBuffer ? 1 : 0;
  }
  if (keepAsking_.load() && sink_->isStarted()) {
    request();
  }
}

int ConsumeProbe::requests() const {
  const platform::Locker lock(mutex_);
  return requests_;
}

int ConsumeProbe::requestsTaken() const {
  const platform::Locker lock(mutex_);
  return requestsTaken_;
}

int ConsumeProbe::outstanding() const {
  const platform::Locker lock(mutex_);
  return requests_ - static_cast<int>(answers_.size());
}

int ConsumeProbe::frames() const {
  const platform::Locker lock(mutex_);
  return frames_;
}

std::vector<ConsumeAnswer> ConsumeProbe::answers() const {
  const platform::Locker lock(mutex_);
  return answers_;
}

}  // namespace flowmere::contract
