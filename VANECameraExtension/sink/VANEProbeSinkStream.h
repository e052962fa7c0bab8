#pragma once

// VANEProbeSinkStream: the stream into which the producer pushes its frames, and the consume loop
// that relays them to the source stream.
//
// Lifecycle:
//
//   | State     | isConsuming | entered by                          | left by            |
//   |-----------|-------------|-------------------------------------|--------------------|
//   | Stopped   | false       | construction; stop; a failed start  | a successful start |
//   | Consuming | true        | a successful start                  | stop               |
//
//   A start while Consuming changes nothing; a stop runs all its steps in either state. The
//   active format changes freely while Stopped; while Consuming only to the value it has.
//
// The consume loop is a chain of work items on the serial consume queue, linked by the
// platform's consume completions: request -> answer -> (retry | paced delivery) -> request.
// A chain has at most one request or delivery outstanding. Each start begins a new chain with a
// new generation; every step of an older chain finds its generation stale and ends, so a quick
// stop/start never leaves two chains running. A completion that arrives after a stop still runs
// its branch and only then ends: an empty answer is counted and, at the cadence, logged and
// written to the status. The platforms answer a request still waiting at a stop before they
// deliver the stop, so that answer's "sink waiting" comes before "sink stopped".
//
// A stop never overlaps a delivery that runs on another thread. It first holds back deliveries
// that have not begun (they drop their buffers), waits for the one that is running, if any, to
// finish, and only then takes `formatLock` and runs its steps. So the sink's recorder (not safe
// for two threads at once) is never used by a delivery and by stop's "sink stopped" at the same
// time, that status is not overwritten by a late frame's, a running delivery still publishes the
// producer's pid, and no buffer of the stopped chain is delivered once stop has returned, nor
// while the next start resets the recorder and the timeline. A stop issued from within a
// delivery does not wait (the delivery is its caller): it runs its steps, returns, and the
// delivery finishes its own steps without requesting another buffer. A stop must not come from a
// thread that a running delivery itself waits for.
//
// Threading:
// - Platform calls arrive on any platform thread. `formatLock` (recursive) guards
//   storedFormatIndex and makes set, start and stop mutually exclusive; start and stop call the
//   source stream (its formatLock or stateLock) and the metrics recorder while holding it. Stop
//   waits for a running delivery before it takes formatLock, never while holding it.
// - isConsuming and chainGeneration are written under formatLock and read by the loop without
//   it, as atomics. `client` is written by authorisation, start and stop and read by the loop;
//   its own small `clientLock` covers only the pointer copy.
// - The loop's counters and pacing anchors are guarded by `loopLock` (plain), because the
//   completion (`handleConsumeResult`/`scheduleDelivery`) runs on whatever thread the platform
//   completes on, which may differ from the thread of start and stop, and a stale chain's late
//   completion may run beside the current chain's. The completion holds it for each counter
//   update, and from the chain-generation test through the anchor writes; start holds it while
//   it clears the anchors. Requests and deliveries run on the consume queue.
// - `deliveryLock` (plain) guards the delivery gate: which thread runs a delivery, and how many
//   stops are waiting for it.
// - loopLock, deliveryLock and clientLock are leaves: each is held only to read or write its own
//   fields, never together, and never while the metrics recorder, the source stream, the log or
//   the platform is called.
// - Every closure captures the sink weakly and does nothing once it is gone.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "DeviceIdentity.h"
#include "metrics/VANEProbeExtensionMetrics.h"
#include "platform/Platform.h"
#include "platform/ThreadAnnotations.h"
#include "source/VANEProbeSourceStream.h"

namespace flowmere {

class VANEProbeSinkStream final : public platform::StreamSource,
                                  public std::enable_shared_from_this<VANEProbeSinkStream> {
 public:
  // Loop constants.
  static constexpr std::chrono::milliseconds emptyPollRetryDelay{2};
  static constexpr std::int64_t waitingLogInterval = 500;
  static constexpr std::uint64_t receivedLogInterval = 300;
  static constexpr double anchorGapLimit = 0.5;
  static constexpr double lateFrameLimit = 0.1;

  // Sink properties that never change.
  static constexpr std::int64_t kSinkBufferQueueSize = 3;
  static constexpr std::int64_t kSinkBuffersRequiredForStartup = 1;
  static constexpr std::int64_t kSinkBufferUnderrunCount = 0;
  static constexpr std::int64_t kSinkEndOfData = 0;

  // Builds the object with its initial field values, then its platform stream (direction sink,
  // host-time clock), whose source is the new object. Main thread, during start-up.
  static std::shared_ptr<VANEProbeSinkStream> create(
      const std::shared_ptr<platform::Platform>& platform,
      const FlowmereCameraDeviceDescriptor& descriptor,
      std::shared_ptr<const platform::StreamFormatList> formats,
      std::shared_ptr<VANEProbeExtensionMetrics> metrics,
      const std::shared_ptr<VANEProbeSourceStream>& sourceStream,
      std::shared_ptr<platform::SerialQueue> consumeQueue);

  // platform::StreamSource; any platform thread.
  [[nodiscard]] std::shared_ptr<const platform::StreamFormatList> formats() const override;
  [[nodiscard]] platform::PropertySet availableProperties() const override;
  platform::Result<platform::StreamProperties> streamPropertiesForProperties(
      const platform::PropertySet& properties) override EXCLUDES(formatLock);
  platform::Status setStreamProperties(const platform::StreamProperties& properties) override
      EXCLUDES(formatLock);
  bool authorizedToStartStreamForClient(
      const std::shared_ptr<const platform::Client>& client) override;
  platform::Status startStream() override EXCLUDES(formatLock);
  platform::Status stopStream() override EXCLUDES(formatLock);

  // The consume loop. `generation` identifies the chain a step belongs to.
  // Consume queue.
  void requestNextSampleBuffer(std::uint64_t generation);
  // The queue the platform completes on.
  void handleConsumeResult(std::uint64_t generation,
                           std::shared_ptr<platform::SampleBuffer> sampleBuffer,
                           std::uint64_t sequenceNumber,
                           platform::StreamDiscontinuityFlags discontinuity, bool hasMore,
                           const std::optional<platform::Error>& error)
      EXCLUDES(formatLock, loopLock);
  // Drops the buffer if `generation` is no longer the newest chain; otherwise paces it.
  void scheduleDelivery(std::uint64_t generation,
                        std::shared_ptr<platform::SampleBuffer> sampleBuffer,
                        std::uint64_t sequenceNumber) EXCLUDES(loopLock);
  // Consume queue.
  void deliverSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& sampleBuffer,
                           std::uint64_t sequenceNumber);

  // "count=N clients=[...]" of this stream's streaming clients. Any thread.
  [[nodiscard]] std::string clientSummary() const;

  // A copy of the sink's state for tests, tools and invariant checks. Any thread.
  struct Snapshot {
    std::int64_t storedFormatIndex = 0;
    bool isConsuming = false;
    std::shared_ptr<const platform::Client> client;
    std::int64_t emptyPolls = 0;
    std::uint64_t receivedFrames = 0;
    std::optional<double> timelineAnchorPTS;
    std::optional<double> timelineAnchorHostSeconds;
    std::optional<double> lastProducerPTS;
    std::uint64_t chainGeneration = 0;
    // Stops that are waiting for a delivery running on another thread.
    int stopsWaitingForDelivery = 0;
  };
  [[nodiscard]] Snapshot snapshot() EXCLUDES(formatLock, loopLock);

  [[nodiscard]] const std::shared_ptr<platform::Stream>& platformStream() const { return stream; }
  [[nodiscard]] const std::shared_ptr<VANEProbeExtensionMetrics>& metricsRecorder() const {
    return metrics;
  }
  [[nodiscard]] const std::shared_ptr<platform::SerialQueue>& queue() const { return consumeQueue; }
  [[nodiscard]] std::shared_ptr<VANEProbeSourceStream> linkedSourceStream() const {
    return sourceStream.lock();
  }

  VANEProbeSinkStream(std::shared_ptr<platform::Platform> platform,
                      std::shared_ptr<const platform::StreamFormatList> formats,
                      std::shared_ptr<VANEProbeExtensionMetrics> metrics,
                      std::weak_ptr<VANEProbeSourceStream> sourceStream,
                      std::shared_ptr<platform::SerialQueue> consumeQueue);

 private:
  void log(const std::string& message);
  [[nodiscard]] std::shared_ptr<const platform::Client> selectedClient() EXCLUDES(clientLock);
  void setSelectedClient(std::shared_ptr<const platform::Client> newClient) EXCLUDES(clientLock);
  [[nodiscard]] bool isCurrentChain(std::uint64_t generation) const;
  void dispatchRequest(std::uint64_t generation);
  void dispatchRequestAfter(std::chrono::nanoseconds delay, std::uint64_t generation);
  // The delivery work item: passes the gate, delivers, leaves the gate, and requests the next
  // buffer unless a stop is pending. Consume queue.
  void runDelivery(std::uint64_t generation,
                   const std::shared_ptr<platform::SampleBuffer>& sampleBuffer,
                   std::uint64_t sequenceNumber) EXCLUDES(deliveryLock);
  // Stop's wait: holds back deliveries that have not begun and waits until none runs on another
  // thread. Each call is paired with one releaseDeliveries().
  void holdDeliveriesForStop() EXCLUDES(deliveryLock, formatLock);
  void releaseDeliveries() EXCLUDES(deliveryLock);

  const std::shared_ptr<platform::Platform> platform;
  // Set once by create(), before the device is published; never changed.
  std::shared_ptr<platform::Stream> stream;
  const std::shared_ptr<const platform::StreamFormatList> streamFormats;
  const std::shared_ptr<VANEProbeExtensionMetrics> metrics;
  const std::shared_ptr<platform::SerialQueue> consumeQueue;
  const std::weak_ptr<VANEProbeSourceStream> sourceStream;

  platform::RecursiveMutex formatLock;
  std::int64_t storedFormatIndex GUARDED_BY(formatLock) = 0;

  // The selected producer. Written by authorisation, start and stop, read by the loop. A pointer
  // copy is not atomic in C++, so `clientLock` is held just for the copy or the assignment, and
  // never while anything is called.
  platform::Mutex clientLock;
  std::shared_ptr<const platform::Client> client GUARDED_BY(clientLock);
  // Written under formatLock; read by the loop without it.
  std::atomic<bool> isConsuming{false};
  std::atomic<std::uint64_t> chainGeneration{0};

  // The delivery gate. A delivery begins only while no stop is pending and its chain is current,
  // and records its thread until its frame is out; a stop counts itself pending and, while a
  // delivery runs on another thread, counts itself waiting and waits on `deliveryEnded`.
  platform::Mutex deliveryLock;
  platform::ConditionVariable deliveryEnded;
  bool deliveryRunning GUARDED_BY(deliveryLock) = false;
  std::thread::id deliveryThread GUARDED_BY(deliveryLock);
  int stopsPending GUARDED_BY(deliveryLock) = 0;
  int stopsWaiting GUARDED_BY(deliveryLock) = 0;

  // Loop state, written by the completion (any platform thread) and, for the anchors, by start.
  platform::Mutex loopLock;
  std::int64_t emptyPolls GUARDED_BY(loopLock) = 0;
  std::uint64_t receivedFrames GUARDED_BY(loopLock) = 0;
  std::optional<double> timelineAnchorPTS GUARDED_BY(loopLock);
  std::optional<double> timelineAnchorHostSeconds GUARDED_BY(loopLock);
  std::optional<double> lastProducerPTS GUARDED_BY(loopLock);
};

}  // namespace flowmere
