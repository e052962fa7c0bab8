#include "EmbeddedStream.h"

#include <algorithm>
#include <utility>

#include "EmbeddedCameraService.h"

namespace flowmere::embedded {

EmbeddedStream::EmbeddedStream(EmbeddedCameraService& service, std::string localizedName,
                               platform::Uuid streamID, platform::StreamDirection direction,
                               std::weak_ptr<platform::StreamSource> source)
    : service_(service),
      localizedName_(std::move(localizedName)),
      streamID_(streamID),
      direction_(direction),
      source_(std::move(source)) {}

EmbeddedStream::~EmbeddedStream() {
  // The service and its queues may be gone by now, so a request still waiting is answered here,
  // on the destroying thread, rather than lost.
  for (auto& [clientID, queue] : producerQueues_) {
    if (queue.waiting) {
      platform::ConsumeCompletion completion = std::move(queue.waiting);
      pendingConsumeRequests_->fetch_sub(1);
      completion(nullptr, 0, platform::CMIOExtensionStreamDiscontinuityFlagNone, false,
                 std::nullopt);
    }
  }
}

std::vector<std::shared_ptr<const platform::Client>> EmbeddedStream::streamingClients() const {
  const platform::Locker lock(mutex_);
  return streamingClients_;
}

void EmbeddedStream::setStreamingClients(
    std::vector<std::shared_ptr<const platform::Client>> clients) {
  std::vector<platform::Uuid> departed;
  {
    const platform::Locker lock(mutex_);
    for (const auto& before : streamingClients_) {
      const bool stays = std::any_of(clients.begin(), clients.end(), [&](const auto& after) {
        return after && before && after->clientID() == before->clientID();
      });
      if (before && !stays) {
        departed.push_back(before->clientID());
      }
    }
    streamingClients_ = std::move(clients);
  }
  if (!departed.empty()) {
    answerWaitingRequestsWhere([&departed](const platform::Uuid& clientID, const ProducerQueue&) {
      return std::find(departed.begin(), departed.end(), clientID) != departed.end();
    });
  }
}

void EmbeddedStream::notifyPropertiesChanged(const platform::PropertyStateMap& changes) {
  service_.notifyProperties(*this, changes);
}

void EmbeddedStream::consumeSampleBufferFromClient(
    const std::shared_ptr<const platform::Client>& client, platform::ConsumeCompletion completion) {
  pendingConsumeRequests_->fetch_add(1);
  std::optional<platform::Error> error = service_.takeConsumeFault();
  if (error) {
    // Rare: an error is too large to travel inline, so this answer costs an allocation.
    service_.dispatchCompletion([pending = pendingConsumeRequests_,
                                 completion = std::move(completion),
                                 error = std::move(error)]() mutable {
      pending->fetch_sub(1);
      completion(nullptr, 0, platform::CMIOExtensionStreamDiscontinuityFlagNone, false,
                 std::move(error));
    });
    return;
  }
  std::shared_ptr<platform::SampleBuffer> buffer;
  std::uint64_t sequenceNumber = 0;
  bool hasMore = false;
  bool waits = false;
  platform::ConsumeCompletion displaced;
  std::optional<std::int64_t> timerDeadline;
  if (client) {
    const platform::Locker lock(mutex_);
    auto found = producerQueues_.find(client->clientID());
    const bool queued = found != producerQueues_.end() && !found->second.buffers.empty();
    // Read under the lock, so that a shutdown's sweep either finds this request waiting or the
    // request sees the shutdown and is answered at once.
    const std::chrono::nanoseconds limit =
        queued ? std::chrono::nanoseconds(0) : service_.consumeWaitLimit();
    if (queued) {
      std::deque<Queued>& buffers = found->second.buffers;
      buffer = std::move(buffers.front().buffer);
      sequenceNumber = buffers.front().sequenceNumber;
      buffers.pop_front();
      hasMore = !buffers.empty();
    } else if (limit.count() > 0) {
      ProducerQueue& queue =
          found != producerQueues_.end() ? found->second : producerQueues_[client->clientID()];
      // One request waits per client: a newer one takes the slot and the older one is answered
      // empty. A second request means a restarted chain, and the newer chain is the live one.
      displaced = std::move(queue.waiting);
      queue.waiting = std::exchange(completion, nullptr);
      queue.waitingDeadline = service_.nowNanoseconds() + limit.count();
      timerDeadline = noteDeadline(queue.waitingDeadline);
      waits = true;
    }
  }
  if (displaced) {
    answer(std::move(displaced), nullptr, 0, false);
  }
  if (timerDeadline) {
    armTimer(*timerDeadline);
  }
  if (!waits) {
    answer(std::move(completion), std::move(buffer), sequenceNumber, hasMore);
  }
}

void EmbeddedStream::answer(platform::ConsumeCompletion completion,
                            std::shared_ptr<platform::SampleBuffer> buffer,
                            std::uint64_t sequenceNumber, bool hasMore) {
  auto work = [pending = pendingConsumeRequests_, completion = std::move(completion),
               buffer = std::move(buffer), sequenceNumber, hasMore]() mutable {
    pending->fetch_sub(1);
    completion(std::move(buffer), sequenceNumber,
               platform::CMIOExtensionStreamDiscontinuityFlagNone, hasMore, std::nullopt);
  };
  static_assert(platform::Work::fitsInline<decltype(work)>(),
                "every poll's answer must reach the platform queue without a heap allocation");
  service_.dispatchCompletion(std::move(work));
}

template <typename Match>
void EmbeddedStream::answerWaitingRequestsWhere(Match matches, bool atOnce) {
  // One at a time, so that no list of completions is built and none is answered under the lock.
  while (true) {
    platform::ConsumeCompletion taken;
    {
      const platform::Locker lock(mutex_);
      for (auto& [clientID, queue] : producerQueues_) {
        if (queue.waiting && matches(clientID, queue)) {
          taken = std::move(queue.waiting);
          break;
        }
      }
    }
    if (!taken) {
      return;
    }
    if (atOnce) {
      pendingConsumeRequests_->fetch_sub(1);
      taken(nullptr, 0, platform::CMIOExtensionStreamDiscontinuityFlagNone, false, std::nullopt);
    } else {
      answer(std::move(taken), nullptr, 0, false);
    }
  }
}

void EmbeddedStream::answerWaitingRequests() {
  answerWaitingRequestsWhere([](const platform::Uuid&, const ProducerQueue&) { return true; });
}

std::optional<std::int64_t> EmbeddedStream::noteDeadline(std::int64_t deadline) {
  if (timerArmed_ && timerDeadline_ <= deadline) {
    return std::nullopt;  // the armed timer fires first and re-arms for this deadline
  }
  timerArmed_ = true;
  timerDeadline_ = deadline;
  return deadline;
}

void EmbeddedStream::armTimer(std::int64_t deadline) {
  const std::int64_t delay = std::max<std::int64_t>(deadline - service_.nowNanoseconds(), 0);
  service_.schedulePlatformWork(std::chrono::nanoseconds(delay),
                                [weakSelf = weak_from_this(), deadline] {
                                  if (auto self = weakSelf.lock()) {
                                    self->onTimer(deadline);
                                  }
                                });
}

void EmbeddedStream::onTimer(std::int64_t armedFor) {
  {
    const platform::Locker lock(mutex_);
    if (timerArmed_ && timerDeadline_ == armedFor) {
      timerArmed_ = false;
    }
  }
  // The queue runs this no earlier than `armedFor`, on the clock the deadlines are taken from.
  const std::int64_t now = service_.nowNanoseconds();
  answerWaitingRequestsWhere([now](const platform::Uuid&, const ProducerQueue& queue) {
    return queue.waitingDeadline <= now;
  });
  std::optional<std::int64_t> next;
  {
    const platform::Locker lock(mutex_);
    std::optional<std::int64_t> earliest;
    for (const auto& [clientID, queue] : producerQueues_) {
      if (queue.waiting && (!earliest || queue.waitingDeadline < *earliest)) {
        earliest = queue.waitingDeadline;
      }
    }
    if (earliest) {
      next = noteDeadline(*earliest);
    }
  }
  if (next) {
    armTimer(*next);
  }
}

void EmbeddedStream::notifyScheduledOutputChanged(const platform::ScheduledOutput& output) {
  service_.notifyScheduledOutput(*this, output);
}

void EmbeddedStream::sendSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& buffer,
                                      platform::StreamDiscontinuityFlags discontinuity,
                                      std::uint64_t hostTimeInNanoseconds) {
  service_.notifySend(*this, buffer, discontinuity, hostTimeInNanoseconds);
}

std::shared_ptr<const platform::StreamFormatList> EmbeddedStream::formats() {
  auto source = source_.lock();
  return source ? service_.callExtension([&] { return source->formats(); }) : nullptr;
}

platform::PropertySet EmbeddedStream::availableProperties() {
  auto source = source_.lock();
  return source ? service_.callExtension([&] { return source->availableProperties(); })
                : platform::PropertySet{};
}

platform::Result<platform::StreamProperties> EmbeddedStream::getProperties(
    const platform::PropertySet& names) {
  auto source = source_.lock();
  if (!source) {
    return platform::StreamProperties{};
  }
  return service_.callExtension([&] { return source->streamPropertiesForProperties(names); });
}

platform::Status EmbeddedStream::setProperties(const platform::StreamProperties& properties) {
  auto source = source_.lock();
  if (!source) {
    return platform::Status::success();
  }
  return service_.callExtension([&] { return source->setStreamProperties(properties); });
}

bool EmbeddedStream::authorize(const std::shared_ptr<const platform::Client>& client) {
  auto source = source_.lock();
  return source &&
         service_.callExtension([&] { return source->authorizedToStartStreamForClient(client); });
}

platform::Status EmbeddedStream::start() {
  auto source = source_.lock();
  if (!source) {
    return platform::Status::success();
  }
  return service_.callExtension([&] { return source->startStream(); });
}

platform::Status EmbeddedStream::stop() {
  // A request still waiting is answered before the extension hears of the stop, so that its chain
  // reports its wait ahead of the stop, whose status stays the last one. In real time the answers
  // and then the stop go through the platform queue in that order; in virtual time the extension
  // is called at once on this thread, so the answers are given here first.
  answerWaitingRequestsWhere([](const platform::Uuid&, const ProducerQueue&) { return true; },
                             /*atOnce=*/service_.mode() == TimeMode::kVirtual);
  auto source = source_.lock();
  if (!source) {
    return platform::Status::success();
  }
  return service_.callExtension([&] { return source->stopStream(); });
}

bool EmbeddedStream::push(const std::shared_ptr<const platform::Client>& client,
                          std::shared_ptr<platform::SampleBuffer> buffer,
                          std::uint64_t sequenceNumber) {
  platform::ConsumeCompletion waiting;
  {
    const platform::Locker lock(mutex_);
    ProducerQueue& queue = producerQueues_[client->clientID()];
    if (!queue.waiting) {
      if (queue.buffers.size() >= kProducerQueueCapacity) {
        return false;
      }
      queue.buffers.push_back(Queued{std::move(buffer), sequenceNumber});
      return true;
    }
    // The queue is empty while a request waits: the buffer goes straight to that request. Its
    // timer stays armed; when it fires it finds nothing expired and re-arms for the next request.
    waiting = std::move(queue.waiting);
  }
  answer(std::move(waiting), std::move(buffer), sequenceNumber, false);
  return true;
}

void EmbeddedStream::discardProducerQueue(const platform::Uuid& clientID) {
  std::deque<Queued> discarded;
  platform::ConsumeCompletion waiting;
  {
    const platform::Locker lock(mutex_);
    auto found = producerQueues_.find(clientID);
    if (found == producerQueues_.end()) {
      return;
    }
    discarded = std::move(found->second.buffers);
    waiting = std::move(found->second.waiting);
    producerQueues_.erase(found);
  }
  // The buffers are released here, outside the lock: their release callbacks may call back.
  if (waiting) {
    answer(std::move(waiting), nullptr, 0, false);
  }
}

std::size_t EmbeddedStream::queuedBufferCount() const {
  const platform::Locker lock(mutex_);
  std::size_t count = 0;
  for (const auto& [id, queue] : producerQueues_) {
    count += queue.buffers.size();
  }
  return count;
}

}  // namespace flowmere::embedded
