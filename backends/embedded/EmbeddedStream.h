#pragma once

// A stream of the embedded camera service: its streaming clients, the calls that the service
// forwards to the extension's stream source, and, for the sink, the producer's buffer queues from
// which consume requests are answered.

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/CameraExtension.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::embedded {

class EmbeddedCameraService;

// A platform stream of the embedded service.
class EmbeddedStream final : public platform::Stream {
 public:
  EmbeddedStream(EmbeddedCameraService& service, std::string localizedName, platform::Uuid streamID,
                 platform::StreamDirection direction, std::weak_ptr<platform::StreamSource> source);

  // platform::Stream
  [[nodiscard]] const std::string& localizedName() const override { return localizedName_; }
  [[nodiscard]] const platform::Uuid& streamID() const override { return streamID_; }
  [[nodiscard]] platform::StreamDirection direction() const override { return direction_; }
  [[nodiscard]] platform::StreamClockType clockType() const override {
    return platform::StreamClockType::CMIOExtensionStreamClockTypeHostTime;
  }
  [[nodiscard]] std::vector<std::shared_ptr<const platform::Client>> streamingClients()
      const override;
  void notifyPropertiesChanged(const platform::PropertyStateMap& changes) override;
  void consumeSampleBufferFromClient(const std::shared_ptr<const platform::Client>& client,
                                     platform::ConsumeCompletion completion) override;
  void notifyScheduledOutputChanged(const platform::ScheduledOutput& output) override;
  void sendSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& buffer,
                        platform::StreamDiscontinuityFlags discontinuity,
                        std::uint64_t hostTimeInNanoseconds) override;

  // The service's side: what camera clients and the producer do.
  void setStreamingClients(std::vector<std::shared_ptr<const platform::Client>> clients);
  [[nodiscard]] std::shared_ptr<platform::StreamSource> source() const { return source_.lock(); }
  [[nodiscard]] std::shared_ptr<const platform::StreamFormatList> formats();
  [[nodiscard]] platform::PropertySet availableProperties();
  platform::Result<platform::StreamProperties> getProperties(const platform::PropertySet& names);
  platform::Status setProperties(const platform::StreamProperties& properties);
  bool authorize(const std::shared_ptr<const platform::Client>& client);
  platform::Status start();
  platform::Status stop();
  // Puts a producer buffer into this sink stream's queue for `client`; false when the queue
  // already holds three buffers (the buffer is refused, not lost silently).
  bool push(const std::shared_ptr<const platform::Client>& client,
            std::shared_ptr<platform::SampleBuffer> buffer, std::uint64_t sequenceNumber);
  // Drops the buffers a departing client left in its queue, releasing them.
  void discardProducerQueue(const platform::Uuid& clientID);
  // Buffers waiting in this stream's queues.
  [[nodiscard]] std::size_t queuedBufferCount() const;
  // Consume requests whose completion has not run yet.
  [[nodiscard]] int pendingConsumeRequests() const { return pendingConsumeRequests_->load(); }

  static constexpr std::size_t kProducerQueueCapacity = 3;

 private:
  struct Queued {
    std::shared_ptr<platform::SampleBuffer> buffer;
    std::uint64_t sequenceNumber;
  };

  EmbeddedCameraService& service_;
  const std::string localizedName_;
  const platform::Uuid streamID_;
  const platform::StreamDirection direction_;
  const std::weak_ptr<platform::StreamSource> source_;
  mutable platform::Mutex mutex_;
  std::vector<std::shared_ptr<const platform::Client>> streamingClients_ GUARDED_BY(mutex_);
  std::map<platform::Uuid, std::deque<Queued>> producerQueues_ GUARDED_BY(mutex_);
  // Shared with the completions in flight, which may outlive the stream at shutdown.
  const std::shared_ptr<std::atomic<int>> pendingConsumeRequests_ =
      std::make_shared<std::atomic<int>>(0);
};

}  // namespace flowmere::embedded
