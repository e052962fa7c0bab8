#include "source/VANEProbeSourceStream.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <string_view>

#include "HostTime.h"
#include "formats/FormatCatalogue.h"

namespace flowmere {

namespace {

using platform::Locker;

constexpr double kTimelineThrottleSeconds = 0.09;
// Uptime readings are doubles near the machine's uptime, so a difference of exactly 90 ms can
// come out a few ulps short of 0.09. One nanosecond of tolerance keeps such a frame publishing.
constexpr double kTimelineThrottleTolerance = 1e-9;
constexpr std::uint64_t kSendLogInterval = 300;
platform::Error unsupportedFormatError() {
  return platform::Error{platform::NSOSStatusErrorDomain,
                         platform::kCMIOHardwareUnsupportedOperationError, std::nullopt};
}

platform::Error illegalOperationError(const char* message) {
  return platform::Error{platform::NSOSStatusErrorDomain,
                         platform::kCMIOHardwareIllegalOperationError, message};
}

// The timeline text, written into a stack buffer with the exact bytes that nlohmann::json's
// dump() gives for the object {version, value, scale, hostSeconds, producerPID}: keys in sorted
// order, no white space, integers in decimal, the double in the library's own shortest
// round-trip form ("null" when not finite). Building the json object instead costs some thirty
// heap allocations, on every third frame.
class TimelineText {
 public:
  TimelineText(std::int64_t value, std::int32_t scale, double hostSeconds,
               std::int32_t producerPID) {
    append(R"({"hostSeconds":)");
    if (std::isfinite(hostSeconds)) {
      end_ = nlohmann::detail::to_chars(end_, buffer_.data() + buffer_.size(), hostSeconds);
    } else {
      append("null");
    }
    append(R"(,"producerPID":)");
    appendInteger(producerPID);
    append(R"(,"scale":)");
    appendInteger(scale);
    append(R"(,"value":)");
    appendInteger(value);
    append(R"(,"version":1})");
  }
  [[nodiscard]] std::string_view view() const {
    return {buffer_.data(), static_cast<std::size_t>(end_ - buffer_.data())};
  }

 private:
  // The buffer always has room; the bound only keeps a mistake from writing past it.
  void append(std::string_view text) {
    const auto room = static_cast<std::size_t>(buffer_.data() + buffer_.size() - end_);
    end_ = std::copy_n(text.data(), std::min(text.size(), room), end_);
  }
  void appendInteger(std::int64_t number) {
    end_ = std::to_chars(end_, buffer_.data() + buffer_.size(), number).ptr;
  }

  // 62 characters of keys and punctuation, at most 24 for the double, 11 for each 32-bit integer
  // and 20 for the 64-bit one; the double's formatter wants room to spare.
  std::array<char, 192> buffer_{};
  char* end_ = buffer_.data();
};

}  // namespace

const platform::PropertyName& timelineMetadataProperty() {
  static const platform::PropertyName name = "4cc_fwtc_glob_0000";
  return name;
}

std::shared_ptr<VANEProbeSourceStream> VANEProbeSourceStream::create(
    const std::shared_ptr<platform::Platform>& platform,
    const FlowmereCameraDeviceDescriptor& descriptor,
    std::shared_ptr<const platform::StreamFormatList> formats,
    std::shared_ptr<VANEProbeExtensionMetrics> metrics) {
  auto self = std::make_shared<VANEProbeSourceStream>(platform, std::move(formats),
                                                      std::move(metrics), descriptor.role);
  self->stream = platform->createStream(
      descriptor.sourceStreamName, descriptor.sourceStreamID,
      platform::StreamDirection::CMIOExtensionStreamDirectionSource,
      platform::StreamClockType::CMIOExtensionStreamClockTypeHostTime, self->weak_from_this());
  return self;
}

VANEProbeSourceStream::VANEProbeSourceStream(
    std::shared_ptr<platform::Platform> platformServices,
    std::shared_ptr<const platform::StreamFormatList> formats,
    std::shared_ptr<VANEProbeExtensionMetrics> recorder, FlowmereCameraRole cameraRole)
    : platform(std::move(platformServices)),
      streamFormats(std::move(formats)),
      metrics(std::move(recorder)),
      role(cameraRole) {}

void VANEProbeSourceStream::log(const std::string& message) {
  logStreamEvent(platform->log(), message);
}

const platform::StreamFormat& VANEProbeSourceStream::formatAt(std::int64_t index) const {
  return (*streamFormats)[static_cast<std::size_t>(index)];
}

std::string VANEProbeSourceStream::clientSummary() const {
  return makeClientSummary(*stream);
}

std::int64_t VANEProbeSourceStream::activeFormatIndex() {
  const Locker lock(formatLock);
  return storedFormatIndex;
}

// --- Properties and lifecycle ----------------------------------------------------------------

std::shared_ptr<const platform::StreamFormatList> VANEProbeSourceStream::formats() const {
  return streamFormats;
}

platform::PropertySet VANEProbeSourceStream::availableProperties() const {
  return {std::string(platform::CMIOExtensionPropertyStreamActiveFormatIndex),
          std::string(platform::CMIOExtensionPropertyStreamFrameDuration),
          timelineMetadataProperty()};
}

platform::Result<platform::StreamProperties> VANEProbeSourceStream::streamPropertiesForProperties(
    const platform::PropertySet& properties) {
  // Clients poll the timeline property alone; those reads stay out of the log.
  const bool timelineOnly =
      properties.size() == 1 && properties.contains(timelineMetadataProperty());
  if (!timelineOnly) {
    log("source streamProperties requested=" + platform::describePropertySet(properties) +
        " clients=" + clientSummary());
  }

  platform::StreamProperties result;
  if (properties.contains(platform::CMIOExtensionPropertyStreamActiveFormatIndex)) {
    result.setActiveFormatIndex(activeFormatIndex());
  }
  if (properties.contains(platform::CMIOExtensionPropertyStreamFrameDuration)) {
    result.setFrameDuration(formatAt(activeFormatIndex()).minFrameDuration);
  }
  if (properties.contains(timelineMetadataProperty())) {
    std::string text;
    {
      const Locker lock(stateLock);
      text = timelineValue;
    }
    result.setPropertyState(
        timelineMetadataProperty(),
        platform::PropertyState{std::move(text),
                                platform::PropertyAttributes::readOnlyPropertyAttribute()});
  }
  return result;
}

platform::Status VANEProbeSourceStream::setStreamProperties(
    const platform::StreamProperties& properties) {
  const Locker lock(formatLock);
  const std::optional<std::int64_t> index = properties.activeFormatIndex();
  log("source setStreamProperties activeFormatIndex=" + describeOptional(index) +
      " clients=" + clientSummary());

  if (!index) {
    return platform::Status::success();
  }
  if (!isValidFormatIndex(*streamFormats, *index)) {
    return unsupportedFormatError();
  }
  if (producerFormatIndex && *producerFormatIndex != *index) {
    return illegalOperationError("The producer selected this session's camera format.");
  }
  if (*index == storedFormatIndex) {
    storedFormatIndex = *index;
    return platform::Status::success();
  }
  if (isStarted) {
    return illegalOperationError("Stop capture before changing camera orientation.");
  }
  storedFormatIndex = *index;
  return platform::Status::success();
}

platform::Status VANEProbeSourceStream::adoptProducerFormatIndex(std::int64_t index) {
  const Locker lock(formatLock);
  if (!isValidFormatIndex(*streamFormats, index)) {
    return unsupportedFormatError();
  }
  if (producerFormatIndex == index && storedFormatIndex == index) {
    return platform::Status::success();
  }
  storedFormatIndex = index;
  producerFormatIndex = index;

  platform::PropertyStateMap changes;
  changes.emplace(platform::CMIOExtensionPropertyStreamActiveFormatIndex,
                  platform::PropertyState{index, std::nullopt});
  changes.emplace(
      platform::CMIOExtensionPropertyStreamFrameDuration,
      platform::PropertyState{platform::copyMediaTimeAsDictionary(formatAt(index).minFrameDuration),
                              std::nullopt});
  stream->notifyPropertiesChanged(changes);
  return platform::Status::success();
}

void VANEProbeSourceStream::clearProducerFormatIndex() {
  const Locker lock(formatLock);
  producerFormatIndex.reset();
}

bool VANEProbeSourceStream::authorizedToStartStreamForClient(
    const std::shared_ptr<const platform::Client>& client) {
  log("source authorizedToStartStream client=" + (client ? client->description() : "nil") +
      " clients=" + clientSummary());
  return true;
}

platform::Status VANEProbeSourceStream::startStream() {
  const Locker lock(formatLock);
  if (!isStarted) {
    isStarted = true;
    log("source startStream started=true clients=" + clientSummary());
    metrics->setStatus("source started");
  }
  return platform::Status::success();
}

platform::Status VANEProbeSourceStream::stopStream() {
  const Locker lock(formatLock);
  log("source stopStream started=false clients=" + clientSummary());
  isStarted = false;
  metrics->setStatus("source stopped");
  return platform::Status::success();
}

// --- Frame forwarding ------------------------------------------------------------------------

void VANEProbeSourceStream::forwardSampleBuffer(
    const std::shared_ptr<platform::SampleBuffer>& sampleBuffer) {
  const platform::VideoDimensions dimensions =
      formatAt(activeFormatIndex()).formatDescription.dimensions();
  const std::shared_ptr<platform::PixelBuffer>& pixelBuffer = sampleBuffer->imageBuffer();
  if (!pixelBuffer) {
    return;
  }
  if (static_cast<std::int64_t>(pixelBuffer->width()) != dimensions.width ||
      static_cast<std::int64_t>(pixelBuffer->height()) != dimensions.height) {
    return;
  }
  // The attachments go on before the new format description is derived from the buffer, so
  // that the description carries them.
  applyColorAttachments(*pixelBuffer);
  const platform::MediaTime now = platform->clock().hostTime();
  const platform::MediaTime duration = formatAt(activeFormatIndex()).minFrameDuration;
  std::shared_ptr<platform::SampleBuffer> outgoing = makeSampleBuffer(pixelBuffer, now, duration);
  if (!outgoing) {
    return;
  }
  sendToClients(outgoing);
}

void VANEProbeSourceStream::applyColorAttachments(platform::PixelBuffer& pixelBuffer) {
  const std::optional<platform::FormatDescriptionExtensions>& extensions =
      formatAt(activeFormatIndex()).formatDescription.extensions();
  if (!extensions) {
    return;
  }
  const std::optional<platform::ConstantString> transfer =
      extensions->find(platform::kCMFormatDescriptionExtension_TransferFunction);
  if (!transfer) {
    return;
  }
  constexpr auto kPropagate = platform::AttachmentMode::kCVAttachmentMode_ShouldPropagate;
  // A transfer function without primaries or matrix does not occur in the catalogue; a missing
  // value is then simply not attached.
  if (auto primaries = extensions->find(platform::kCMFormatDescriptionExtension_ColorPrimaries)) {
    pixelBuffer.setAttachment(platform::kCVImageBufferColorPrimariesKey, *primaries, kPropagate);
  }
  pixelBuffer.setAttachment(platform::kCVImageBufferTransferFunctionKey, *transfer, kPropagate);
  if (auto matrix = extensions->find(platform::kCMFormatDescriptionExtension_YCbCrMatrix)) {
    pixelBuffer.setAttachment(platform::kCVImageBufferYCbCrMatrixKey, *matrix, kPropagate);
  }
}

std::shared_ptr<platform::SampleBuffer> VANEProbeSourceStream::makeSampleBuffer(
    std::shared_ptr<platform::PixelBuffer> pixelBuffer, platform::MediaTime presentationTime,
    platform::MediaTime duration) {
  const std::optional<platform::FormatDescription> description =
      platform::createVideoFormatDescriptionForImageBuffer(*pixelBuffer);
  if (!description) {
    return nullptr;
  }
  const platform::SampleTimingInfo timing{duration, presentationTime,
                                          platform::MediaTime::invalid()};
  return platform::SampleBuffer::createReadyWithImageBuffer(std::move(pixelBuffer), description,
                                                            timing);
}

void VANEProbeSourceStream::sendToClients(
    const std::shared_ptr<platform::SampleBuffer>& sampleBuffer) {
  const double seconds = sampleBuffer->presentationTimeStamp().seconds();
  const std::uint64_t hostTime = hostTimeInNanoseconds(seconds);
  // Only this queue writes the count; it wraps at 2^64.
  const std::uint64_t count = sentFrameCount.load(std::memory_order_relaxed) + 1;
  sentFrameCount.store(count, std::memory_order_relaxed);
  if (count == 1 || count % kSendLogInterval == 0) {
    log("source send frame=" + std::to_string(count) + " pts=" + shortestDecimal(seconds) +
        " hostTime=" + std::to_string(hostTime) + " clients=" + clientSummary());
  }
  stream->sendSampleBuffer(sampleBuffer, platform::CMIOExtensionStreamDiscontinuityFlagNone,
                           hostTime);
}

// --- Timeline property -----------------------------------------------------------------------

void VANEProbeSourceStream::publishTimelineMetadata(platform::MediaTime presentationTime,
                                                    std::int32_t producerPID) {
  if (!presentationTime.isNumeric() || presentationTime.timescale < 1) {
    return;
  }
  const double now = platform->clock().systemUptime();
  std::string text;
  {
    const Locker lock(stateLock);
    // Written so that a NaN difference also counts as "too soon".
    if (!(now - lastTimelineMetadataTime >=
          kTimelineThrottleSeconds - kTimelineThrottleTolerance)) {
      return;
    }
    lastTimelineMetadataTime = now;
    const TimelineText timeline(presentationTime.value, presentationTime.timescale, now,
                                producerPID);
    // The stored value keeps its capacity from one publication to the next; only the copy that
    // travels with the notice is allocated.
    timelineValue.assign(timeline.view());
    text.assign(timeline.view());
  }
  platform::PropertyStateMap changes;
  changes.emplace(timelineMetadataProperty(),
                  platform::PropertyState{
                      std::move(text), platform::PropertyAttributes::readOnlyPropertyAttribute()});
  stream->notifyPropertiesChanged(changes);
}

void VANEProbeSourceStream::resetTimelineMetadata() {
  const Locker lock(stateLock);
  timelineValue = "{}";
  lastTimelineMetadataTime = 0.0;
}

VANEProbeSourceStream::Snapshot VANEProbeSourceStream::snapshot() {
  Snapshot result;
  {
    const Locker lock(formatLock);
    result.storedFormatIndex = storedFormatIndex;
    result.producerFormatIndex = producerFormatIndex;
    result.isStarted = isStarted;
  }
  {
    const Locker lock(stateLock);
    result.timelineValue = timelineValue;
    result.lastTimelineMetadataTime = lastTimelineMetadataTime;
  }
  result.sentFrameCount = sentFrameCount.load(std::memory_order_relaxed);
  return result;
}

}  // namespace flowmere
