#include "sink/VANEProbeSinkStream.h"

#include <cmath>

#include "HostTime.h"
#include "formats/FormatCatalogue.h"

namespace flowmere {

namespace {

using platform::Locker;

}  // namespace

std::shared_ptr<VANEProbeSinkStream> VANEProbeSinkStream::create(
    const std::shared_ptr<platform::Platform>& platform,
    const FlowmereCameraDeviceDescriptor& descriptor,
    std::shared_ptr<const platform::StreamFormatList> formats,
    std::shared_ptr<VANEProbeExtensionMetrics> metrics,
    const std::shared_ptr<VANEProbeSourceStream>& sourceStream,
    std::shared_ptr<platform::SerialQueue> consumeQueue) {
  auto self = std::make_shared<VANEProbeSinkStream>(
      platform, std::move(formats), std::move(metrics), sourceStream, std::move(consumeQueue));
  self->stream = platform->createStream(
      descriptor.sinkStreamName, descriptor.sinkStreamID,
      platform::StreamDirection::CMIOExtensionStreamDirectionSink,
      platform::StreamClockType::CMIOExtensionStreamClockTypeHostTime, self->weak_from_this());
  return self;
}

VANEProbeSinkStream::VANEProbeSinkStream(std::shared_ptr<platform::Platform> platformServices,
                                         std::shared_ptr<const platform::StreamFormatList> formats,
                                         std::shared_ptr<VANEProbeExtensionMetrics> recorder,
                                         std::weak_ptr<VANEProbeSourceStream> source,
                                         std::shared_ptr<platform::SerialQueue> queue)
    : platform(std::move(platformServices)),
      streamFormats(std::move(formats)),
      metrics(std::move(recorder)),
      consumeQueue(std::move(queue)),
      sourceStream(std::move(source)) {}

void VANEProbeSinkStream::log(const std::string& message) {
  logStreamEvent(platform->log(), message);
}

std::shared_ptr<const platform::Client> VANEProbeSinkStream::selectedClient() {
  const Locker lock(clientLock);
  return client;
}

void VANEProbeSinkStream::setSelectedClient(std::shared_ptr<const platform::Client> newClient) {
  const Locker lock(clientLock);
  client = std::move(newClient);
}

std::string VANEProbeSinkStream::clientSummary() const {
  return makeClientSummary(*stream);
}

// --- Properties and lifecycle ----------------------------------------------------------------

std::shared_ptr<const platform::StreamFormatList> VANEProbeSinkStream::formats() const {
  return streamFormats;
}

platform::PropertySet VANEProbeSinkStream::availableProperties() const {
  return {std::string(platform::CMIOExtensionPropertyStreamActiveFormatIndex),
          std::string(platform::CMIOExtensionPropertyStreamFrameDuration),
          std::string(platform::CMIOExtensionPropertyStreamSinkBufferQueueSize),
          std::string(platform::CMIOExtensionPropertyStreamSinkBuffersRequiredForStartup),
          std::string(platform::CMIOExtensionPropertyStreamSinkBufferUnderrunCount),
          std::string(platform::CMIOExtensionPropertyStreamSinkEndOfData)};
}

platform::Result<platform::StreamProperties> VANEProbeSinkStream::streamPropertiesForProperties(
    const platform::PropertySet& properties) {
  log("sink streamProperties requested=" + platform::describePropertySet(properties) +
      " clients=" + clientSummary());
  platform::StreamProperties result;
  if (properties.contains(platform::CMIOExtensionPropertyStreamActiveFormatIndex)) {
    const Locker lock(formatLock);
    result.setActiveFormatIndex(storedFormatIndex);
  }
  if (properties.contains(platform::CMIOExtensionPropertyStreamFrameDuration)) {
    std::int64_t index = 0;
    {
      const Locker lock(formatLock);
      index = storedFormatIndex;
    }
    result.setFrameDuration((*streamFormats)[static_cast<std::size_t>(index)].minFrameDuration);
  }
  if (properties.contains(platform::CMIOExtensionPropertyStreamSinkBufferQueueSize)) {
    result.setSinkBufferQueueSize(kSinkBufferQueueSize);
  }
  if (properties.contains(platform::CMIOExtensionPropertyStreamSinkBuffersRequiredForStartup)) {
    result.setSinkBuffersRequiredForStartup(kSinkBuffersRequiredForStartup);
  }
  if (properties.contains(platform::CMIOExtensionPropertyStreamSinkBufferUnderrunCount)) {
    result.setSinkBufferUnderrunCount(kSinkBufferUnderrunCount);
  }
  if (properties.contains(platform::CMIOExtensionPropertyStreamSinkEndOfData)) {
    result.setSinkEndOfData(kSinkEndOfData);
  }
  return result;
}

platform::Status VANEProbeSinkStream::setStreamProperties(
    const platform::StreamProperties& properties) {
  const Locker lock(formatLock);
  const std::optional<std::int64_t> index = properties.activeFormatIndex();
  log("sink setStreamProperties activeFormatIndex=" + describeOptional(index) +
      " clients=" + clientSummary());
  if (!index) {
    return platform::Status::success();
  }
  if (!isValidFormatIndex(*streamFormats, *index)) {
    return platform::Error{platform::NSOSStatusErrorDomain,
                           platform::kCMIOHardwareUnsupportedOperationError, std::nullopt};
  }
  if (*index == storedFormatIndex || !isConsuming.load()) {
    // The source stream learns the index at the next start.
    storedFormatIndex = *index;
    return platform::Status::success();
  }
  return platform::Error{platform::NSOSStatusErrorDomain,
                         platform::kCMIOHardwareIllegalOperationError,
                         "Stop capture before changing camera orientation."};
}

bool VANEProbeSinkStream::authorizedToStartStreamForClient(
    const std::shared_ptr<const platform::Client>& newClient) {
  setSelectedClient(newClient);
  log("sink authorizedToStartStream client=" + (newClient ? newClient->description() : "nil") +
      " clients=" + clientSummary());
  return true;
}

platform::Status VANEProbeSinkStream::startStream() {
  const Locker lock(formatLock);
  if (isConsuming.load()) {
    return platform::Status::success();
  }
  if (auto source = sourceStream.lock()) {
    // formatLock is already held for the whole start, so the index is read as it stands.
    platform::Status adopted = source->adoptProducerFormatIndex(storedFormatIndex);
    if (!adopted.ok()) {
      return adopted;
    }
  }

  // A new chain: steps of any earlier chain still in flight find their generation stale. The
  // generation changes before isConsuming turns true, so a step that sees the new flag also sees
  // the new generation.
  const std::uint64_t generation = chainGeneration.fetch_add(1) + 1;
  isConsuming.store(true);
  {
    // A completion of an older chain that passed its generation test before the change above
    // finishes its anchor writes before these clears; one that tests after it finds its
    // generation stale and writes nothing.
    const Locker loop(loopLock);
    timelineAnchorPTS.reset();
    timelineAnchorHostSeconds.reset();
    lastProducerPTS.reset();
  }

  std::shared_ptr<const platform::Client> selected = selectedClient();
  if (!selected) {
    const auto streaming = stream->streamingClients();
    if (!streaming.empty()) {
      selected = streaming.front();
      setSelectedClient(selected);
    }
  }
  log("sink startStream started=true clients=" + clientSummary() +
      " selectedClient=" + describeOptionalClient(selected));

  if (auto source = sourceStream.lock()) {
    source->resetTimelineMetadata();
  }
  metrics->reset();
  metrics->setStatus("sink started clients=" + std::to_string(stream->streamingClients().size()) +
                     " hasClient=" + (selected ? "true" : "false"));
  dispatchRequest(generation);
  return platform::Status::success();
}

platform::Status VANEProbeSinkStream::stopStream() {
  // Before formatLock: a running delivery may need it (a platform that completes a consume
  // request on the requesting thread), and set and start must not block behind the wait.
  holdDeliveriesForStop();
  const Locker lock(formatLock);
  log("sink stopStream started=false clients=" + clientSummary());
  isConsuming.store(false);
  // Deliveries of this chain now end at their check; a start that follows this stop (it needs
  // formatLock) finds the gate open for its own.
  releaseDeliveries();
  if (auto source = sourceStream.lock()) {
    source->clearProducerFormatIndex();
  }
  metrics->setStatus("sink stopped");
  setSelectedClient(nullptr);
  return platform::Status::success();
}

void VANEProbeSinkStream::holdDeliveriesForStop() {
  const Locker lock(deliveryLock);
  ++stopsPending;
  // A delivery running on this thread is the caller of this stop: waiting for it would never end.
  if (deliveryRunning && deliveryThread != std::this_thread::get_id()) {
    ++stopsWaiting;
    while (deliveryRunning) {
      deliveryEnded.wait(deliveryLock);
    }
    --stopsWaiting;
  }
}

void VANEProbeSinkStream::releaseDeliveries() {
  const Locker lock(deliveryLock);
  --stopsPending;
}

// --- Consume loop ----------------------------------------------------------------------------

bool VANEProbeSinkStream::isCurrentChain(std::uint64_t generation) const {
  return isConsuming.load() && chainGeneration.load() == generation;
}

void VANEProbeSinkStream::dispatchRequest(std::uint64_t generation) {
  consumeQueue->async([weakSelf = weak_from_this(), generation] {
    if (auto self = weakSelf.lock()) {
      self->requestNextSampleBuffer(generation);
    }
  });
}

void VANEProbeSinkStream::dispatchRequestAfter(std::chrono::nanoseconds delay,
                                               std::uint64_t generation) {
  consumeQueue->asyncAfter(delay, [weakSelf = weak_from_this(), generation] {
    if (auto self = weakSelf.lock()) {
      self->requestNextSampleBuffer(generation);
    }
  });
}

void VANEProbeSinkStream::requestNextSampleBuffer(std::uint64_t generation) {
  if (!isCurrentChain(generation)) {
    return;
  }
  const std::shared_ptr<const platform::Client> producer = selectedClient();
  if (!producer) {
    return;
  }
  stream->consumeSampleBufferFromClient(
      producer, [weakSelf = weak_from_this(), generation](
                    std::shared_ptr<platform::SampleBuffer> sampleBuffer,
                    std::uint64_t sequenceNumber, platform::StreamDiscontinuityFlags discontinuity,
                    bool hasMore, const std::optional<platform::Error>& error) {
        if (auto self = weakSelf.lock()) {
          self->handleConsumeResult(generation, std::move(sampleBuffer), sequenceNumber,
                                    discontinuity, hasMore, error);
        }
      });
}

void VANEProbeSinkStream::handleConsumeResult(std::uint64_t generation,
                                              std::shared_ptr<platform::SampleBuffer> sampleBuffer,
                                              std::uint64_t sequenceNumber,
                                              platform::StreamDiscontinuityFlags /*discontinuity*/,
                                              bool /*hasMore*/,
                                              const std::optional<platform::Error>& error) {
  if (error) {
    const std::string description = error->localizedDescriptionOrDefault();
    log("sink consumeSampleBuffer result=error error=" + description +
        " clients=" + clientSummary());
    metrics->setStatus("consume error: " + description);
    // No back-off: a failing platform is asked again at once.
    if (isCurrentChain(generation)) {
      dispatchRequest(generation);
    }
    return;
  }

  if (!sampleBuffer) {
    std::int64_t polls = 0;
    {
      const Locker loop(loopLock);
      polls = ++emptyPolls;
    }
    if (polls == 1 || polls % waitingLogInterval == 0) {
      log("sink waiting polls=" + std::to_string(polls) + " clients=" + clientSummary());
      metrics->setStatus("sink waiting for buffers polls=" + std::to_string(polls));
    }
    if (isCurrentChain(generation)) {
      dispatchRequestAfter(emptyPollRetryDelay, generation);
    }
    return;
  }

  std::int64_t index = 0;
  {
    const Locker lock(formatLock);
    index = storedFormatIndex;
  }
  const platform::VideoDimensions dimensions =
      (*streamFormats)[static_cast<std::size_t>(index)].formatDescription.dimensions();
  const std::shared_ptr<platform::PixelBuffer>& pixelBuffer = sampleBuffer->imageBuffer();
  if (!pixelBuffer || static_cast<std::int64_t>(pixelBuffer->width()) != dimensions.width ||
      static_cast<std::int64_t>(pixelBuffer->height()) != dimensions.height) {
    // Dropped silently; the poll count keeps its value. The request checks whether to go on.
    dispatchRequest(generation);
    return;
  }

  std::uint64_t frame = 0;
  {
    const Locker loop(loopLock);
    emptyPolls = 0;
    frame = ++receivedFrames;
  }
  if (frame == 1 || frame % receivedLogInterval == 0) {
    log("sink received frame=" + std::to_string(frame) +
        " sequence=" + std::to_string(sequenceNumber) +
        " pts=" + shortestDecimal(sampleBuffer->presentationTimeStamp().seconds()) +
        " clients=" + clientSummary());
  }
  scheduleDelivery(generation, std::move(sampleBuffer), sequenceNumber);
}

void VANEProbeSinkStream::scheduleDelivery(std::uint64_t generation,
                                           std::shared_ptr<platform::SampleBuffer> sampleBuffer,
                                           std::uint64_t sequenceNumber) {
  const double host = platform->clock().hostSeconds();
  const double pts = sampleBuffer->presentationTimeStamp().seconds();
  double target = host;

  {
    const Locker loop(loopLock);
    // A buffer answered to a chain that a later start replaced is dropped here: pacing it would
    // disturb the new chain's anchors. The lock keeps that start's clears from falling between
    // this test and the writes below.
    if (chainGeneration.load() != generation) {
      return;
    }
    // Negative zero is usable; negative values, NaN and infinities are not.
    if (std::isfinite(pts) && pts >= 0.0) {
      if (!lastProducerPTS || pts <= *lastProducerPTS || pts - *lastProducerPTS > anchorGapLimit ||
          !timelineAnchorPTS || !timelineAnchorHostSeconds) {
        timelineAnchorPTS = pts;
        timelineAnchorHostSeconds = host;
      }
      target = *timelineAnchorHostSeconds + (pts - *timelineAnchorPTS);
      if (target < host - lateFrameLimit) {
        timelineAnchorPTS = pts;
        timelineAnchorHostSeconds = host;
        target = host;
      }
      lastProducerPTS = pts;
    }
  }

  double delay = target - host;
  if (!(delay >= 0.0)) {
    delay = 0.0;
  }
  const auto deadline = std::chrono::nanoseconds(static_cast<std::int64_t>(delay * 1e9));
  consumeQueue->asyncAfter(deadline, [weakSelf = weak_from_this(), generation,
                                      buffer = std::move(sampleBuffer), sequenceNumber] {
    if (auto self = weakSelf.lock()) {
      self->runDelivery(generation, buffer, sequenceNumber);
    }
  });
}

void VANEProbeSinkStream::runDelivery(std::uint64_t generation,
                                      const std::shared_ptr<platform::SampleBuffer>& sampleBuffer,
                                      std::uint64_t sequenceNumber) {
  {
    // The check and the mark are one step under the gate's lock, so a stop either finds this
    // delivery running (and waits for it) or this delivery finds the stop (and drops its buffer).
    const Locker lock(deliveryLock);
    if (stopsPending > 0 || !isCurrentChain(generation)) {
      return;  // stopped (or restarted, or about to stop) meanwhile: dropped undelivered
    }
    deliveryRunning = true;
    deliveryThread = std::this_thread::get_id();
  }
  deliverSampleBuffer(sampleBuffer, sequenceNumber);
  bool goOn = false;
  {
    const Locker lock(deliveryLock);
    deliveryRunning = false;
    if (stopsWaiting > 0) {
      deliveryEnded.notifyAll();
    }
    // A pending stop ends the chain here, as its isConsuming change would at the request.
    goOn = stopsPending == 0;
  }
  if (goOn) {
    requestNextSampleBuffer(generation);
  }
}

void VANEProbeSinkStream::deliverSampleBuffer(
    const std::shared_ptr<platform::SampleBuffer>& sampleBuffer, std::uint64_t sequenceNumber) {
  metrics->recordFrameReceived();
  if (auto source = sourceStream.lock()) {
    const std::shared_ptr<const platform::Client> producer = selectedClient();
    source->publishTimelineMetadata(sampleBuffer->presentationTimeStamp(),
                                    producer ? producer->pid() : -1);
  }
  if (auto source = sourceStream.lock()) {
    source->forwardSampleBuffer(sampleBuffer);
  }
  const std::uint64_t hostNanoseconds = hostTimeInNanoseconds(platform->clock().hostSeconds());
  stream->notifyScheduledOutputChanged(platform::ScheduledOutput{sequenceNumber, hostNanoseconds});
}

VANEProbeSinkStream::Snapshot VANEProbeSinkStream::snapshot() {
  Snapshot result;
  {
    const Locker lock(formatLock);
    result.storedFormatIndex = storedFormatIndex;
  }
  result.isConsuming = isConsuming.load();
  result.client = selectedClient();
  {
    const Locker loop(loopLock);
    result.emptyPolls = emptyPolls;
    result.receivedFrames = receivedFrames;
    result.timelineAnchorPTS = timelineAnchorPTS;
    result.timelineAnchorHostSeconds = timelineAnchorHostSeconds;
    result.lastProducerPTS = lastProducerPTS;
  }
  {
    const Locker gate(deliveryLock);
    result.stopsWaitingForDelivery = stopsWaiting;
  }
  result.chainGeneration = chainGeneration.load();
  return result;
}

}  // namespace flowmere
