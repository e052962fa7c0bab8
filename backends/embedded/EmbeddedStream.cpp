#include "EmbeddedStream.h"

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

std::vector<std::shared_ptr<const platform::Client>> EmbeddedStream::streamingClients() const {
  const platform::Locker lock(mutex_);
  return streamingClients_;
}

void EmbeddedStream::setStreamingClients(
    std::vector<std::shared_ptr<const platform::Client>> clients) {
  const platform::Locker lock(mutex_);
  streamingClients_ = std::move(clients);
}

void EmbeddedStream::notifyPropertiesChanged(const platform::PropertyStateMap& changes) {
  service_.notifyProperties(*this, changes);
}

void EmbeddedStream::consumeSampleBufferFromClient(
    const std::shared_ptr<const platform::Client>& client, platform::ConsumeCompletion completion) {
  std::optional<platform::Error> error = service_.takeConsumeFault();
  std::shared_ptr<platform::SampleBuffer> buffer;
  std::uint64_t sequenceNumber = 0;
  bool hasMore = false;
  if (!error && client) {
    const platform::Locker lock(mutex_);
    auto found = producerQueues_.find(client->clientID());
    if (found != producerQueues_.end() && !found->second.empty()) {
      buffer = std::move(found->second.front().buffer);
      sequenceNumber = found->second.front().sequenceNumber;
      found->second.pop_front();
      hasMore = !found->second.empty();
    }
  }
  pendingConsumeRequests_->fetch_add(1);
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
  auto answer = [pending = pendingConsumeRequests_, completion = std::move(completion),
                 buffer = std::move(buffer), sequenceNumber, hasMore]() mutable {
    pending->fetch_sub(1);
    completion(std::move(buffer), sequenceNumber,
               platform::CMIOExtensionStreamDiscontinuityFlagNone, hasMore, std::nullopt);
  };
  static_assert(platform::Work::fitsInline<decltype(answer)>(),
                "every poll's answer must reach the platform queue without a heap allocation");
  service_.dispatchCompletion(std::move(answer));
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
  auto source = source_.lock();
  if (!source) {
    return platform::Status::success();
  }
  return service_.callExtension([&] { return source->stopStream(); });
}

bool EmbeddedStream::push(const std::shared_ptr<const platform::Client>& client,
                          std::shared_ptr<platform::SampleBuffer> buffer,
                          std::uint64_t sequenceNumber) {
  const platform::Locker lock(mutex_);
  std::deque<Queued>& queue = producerQueues_[client->clientID()];
  if (queue.size() >= kProducerQueueCapacity) {
    return false;
  }
  queue.push_back(Queued{std::move(buffer), sequenceNumber});
  return true;
}

void EmbeddedStream::discardProducerQueue(const platform::Uuid& clientID) {
  std::deque<Queued> discarded;
  {
    const platform::Locker lock(mutex_);
    auto found = producerQueues_.find(clientID);
    if (found == producerQueues_.end()) {
      return;
    }
    discarded = std::move(found->second);
    producerQueues_.erase(found);
  }
  // The buffers are released here, outside the lock: their release callbacks may call back.
}

std::size_t EmbeddedStream::queuedBufferCount() const {
  const platform::Locker lock(mutex_);
  std::size_t count = 0;
  for (const auto& [id, queue] : producerQueues_) {
    count += queue.size();
  }
  return count;
}

}  // namespace flowmere::embedded
