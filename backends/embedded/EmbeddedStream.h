#pragma once

// A stream of the embedded camera service: its streaming clients, the calls that the service
// forwards to the extension's stream source, and, for the sink, the producer's buffer queues from
// which consume requests are answered.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/CameraExtension.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::embedded {

class EmbeddedCameraService;

// How long a consume request that finds the producer's queue empty waits for the producer's next
// buffer in real time before it is answered empty. It matches the consume loop's 0.5 s anchor
// gap: a gap shorter than that keeps the producer's timeline, so the producer is late, not
// paused, and the request waits for its frame. A longer gap is a pause; the loop then gets its
// empty answer, reports that it is waiting, and asks again after its own 2 ms.
inline constexpr std::chrono::milliseconds kConsumeWaitLimit{500};

// A platform stream of the embedded service.
//
// Consume requests. A request is answered from the producer's queue for its client: with the
// oldest buffer if there is one. Otherwise, when the service lets requests wait (real time, or a
// test that sets a wait limit), the request waits in its client's queue and is answered by the
// first of: the client's next push (with that buffer), its deadline (empty), a stop of the stream,
// the client's disconnection or departure from the streaming clients, a newer request of the same
// client (which takes its place), or the service's shutdown (all empty). Each answer reaches the
// completion exactly once, on the platform queue; only a stream destroyed with a request still
// waiting answers it on the destroying thread, since the service's queue may be gone by then.
// One timeout timer per stream covers all waiting requests: it fires at the earliest deadline and
// re-arms itself for the next one, so a request answered by a push leaves no timer behind.
//
// Threading: every operation may be called from any thread. `mutex_` guards the streaming
// clients, the producer queues with each client's waiting request, and the timer state. A
// completion is taken out of its slot under `mutex_` and dispatched only after it is released;
// nothing calls a completion or into the extension while holding it.
class EmbeddedStream final : public platform::Stream,
                             public std::enable_shared_from_this<EmbeddedStream> {
 public:
  EmbeddedStream(EmbeddedCameraService& service, std::string localizedName, platform::Uuid streamID,
                 platform::StreamDirection direction, std::weak_ptr<platform::StreamSource> source);
  ~EmbeddedStream() override;
  EmbeddedStream(const EmbeddedStream&) = delete;
  EmbeddedStream& operator=(const EmbeddedStream&) = delete;

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
  // A client that leaves the list has its waiting request answered empty.
  void setStreamingClients(std::vector<std::shared_ptr<const platform::Client>> clients);
  [[nodiscard]] std::shared_ptr<platform::StreamSource> source() const { return source_.lock(); }
  [[nodiscard]] std::shared_ptr<const platform::StreamFormatList> formats();
  [[nodiscard]] platform::PropertySet availableProperties();
  platform::Result<platform::StreamProperties> getProperties(const platform::PropertySet& names);
  platform::Status setProperties(const platform::StreamProperties& properties);
  bool authorize(const std::shared_ptr<const platform::Client>& client);
  platform::Status start();
  // Answers every waiting request empty, then stops the extension's stream: a chain reports its
  // wait before the stop. In virtual time the answers run at once, on the calling thread, as the
  // extension's stop does.
  platform::Status stop();
  // Puts a producer buffer into this sink stream's queue for `client`, or hands it straight to
  // the client's waiting request; false when the queue already holds three buffers (the buffer
  // is refused, not lost silently).
  bool push(const std::shared_ptr<const platform::Client>& client,
            std::shared_ptr<platform::SampleBuffer> buffer, std::uint64_t sequenceNumber);
  // Drops the buffers a departing client left in its queue, releasing them, and answers its
  // waiting request empty.
  void discardProducerQueue(const platform::Uuid& clientID);
  // Answers every waiting request empty (the service's shutdown).
  void answerWaitingRequests();
  // Buffers waiting in this stream's queues.
  [[nodiscard]] std::size_t queuedBufferCount() const;
  // Consume requests whose completion has not run yet, waiting ones included.
  [[nodiscard]] int pendingConsumeRequests() const { return pendingConsumeRequests_->load(); }

  static constexpr std::size_t kProducerQueueCapacity = 3;

 private:
  struct Queued {
    std::shared_ptr<platform::SampleBuffer> buffer;
    std::uint64_t sequenceNumber;
  };
  // One client's side of the sink: its buffers, or the request waiting for its next one. A
  // request waits only while `buffers` is empty; a push answers it instead of queueing.
  struct ProducerQueue {
    std::deque<Queued> buffers;
    platform::ConsumeCompletion waiting;
    std::int64_t waitingDeadline = 0;  // the service clock's nanoseconds
  };

  // Dispatches the answer to the platform queue.
  void answer(platform::ConsumeCompletion completion,
              std::shared_ptr<platform::SampleBuffer> buffer, std::uint64_t sequenceNumber,
              bool hasMore);
  // Takes out and answers empty, one at a time, each waiting request whose queue `matches`;
  // through the platform queue, or with `atOnce` on the calling thread.
  template <typename Match>
  void answerWaitingRequestsWhere(Match matches, bool atOnce = false);
  // Notes that a waiting request expires at `deadline`; the time to arm the timer for, if the
  // timer is not already due by then.
  std::optional<std::int64_t> noteDeadline(std::int64_t deadline) REQUIRES(mutex_);
  void armTimer(std::int64_t deadline);
  // The timer armed for `armedFor` fired: answers the expired requests and re-arms.
  void onTimer(std::int64_t armedFor);

  EmbeddedCameraService& service_;
  const std::string localizedName_;
  const platform::Uuid streamID_;
  const platform::StreamDirection direction_;
  const std::weak_ptr<platform::StreamSource> source_;
  mutable platform::Mutex mutex_;
  std::vector<std::shared_ptr<const platform::Client>> streamingClients_ GUARDED_BY(mutex_);
  std::map<platform::Uuid, ProducerQueue> producerQueues_ GUARDED_BY(mutex_);
  // The timeout timer: whether one is armed, and for when. An older timer that fires after a
  // re-arm only finds nothing more to do.
  bool timerArmed_ GUARDED_BY(mutex_) = false;
  std::int64_t timerDeadline_ GUARDED_BY(mutex_) = 0;
  // Shared with the completions in flight, which may outlive the stream at shutdown.
  const std::shared_ptr<std::atomic<int>> pendingConsumeRequests_ =
      std::make_shared<std::atomic<int>>(0);
};

}  // namespace flowmere::embedded
