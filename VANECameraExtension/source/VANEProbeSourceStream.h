#pragma once

// VANEProbeSourceStream: the stream that camera clients see and capture.
//
// It answers the platform's stream-source calls (formats, properties, the active-format rules,
// authorisation, start, stop), keeps the active format index, the format index pinned by the
// producer while the sink runs, and whether a client has started it. Frames reach it only from
// the sink's consume queue, through `forwardSampleBuffer`; it also publishes the read-only JSON
// timeline property "4cc_fwtc_glob_0000".
//
// Lifecycle (client start/stop and producer pin are independent):
//
//   | Pinned | Started | client asks another index                           | same index |
//   |--------|---------|-----------------------------------------------------|------------|
//   | no     | no      | stored                                              | success    |
//   | no     | yes     | refused "Stop capture before changing camera orientation." | success |
//   | yes    | either  | refused "The producer selected this session's camera format." | success |
//
//   start: isStarted false -> true (logs and writes "source started" only then);
//   stop: isStarted -> false (every call logs and writes "source stopped");
//   adoptProducerFormatIndex: pins (any time); clearProducerFormatIndex: unpins.
//
// Threading:
// - Platform calls arrive on any platform thread. `formatLock` (recursive) guards
//   storedFormatIndex, producerFormatIndex and isStarted; set, adopt, start and stop hold it for
//   their whole run. `stateLock` (plain) guards timelineValue and lastTimelineMetadataTime.
//   The two are never held together, and no lock of the sink is ever taken here.
// - forwardSampleBuffer and publishTimelineMetadata run on the sink's serial consume queue;
//   sentFrameCount is touched only there and carries no lock. They hold a lock only to copy a
//   field, and never while calling the platform.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "DeviceIdentity.h"
#include "LogFormatting.h"
#include "metrics/VANEProbeExtensionMetrics.h"
#include "platform/Platform.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere {

// The name of the timeline property: selector 'fwtc', global scope, element 0. Built once.
const platform::PropertyName& timelineMetadataProperty();

class VANEProbeSourceStream final : public platform::StreamSource,
                                    public std::enable_shared_from_this<VANEProbeSourceStream> {
 public:
  // Builds the object with its initial field values, then its platform stream (direction
  // source, host-time clock), whose source is the new object. Main thread, during start-up.
  static std::shared_ptr<VANEProbeSourceStream> create(
      const std::shared_ptr<platform::Platform>& platform,
      const FlowmereCameraDeviceDescriptor& descriptor,
      std::shared_ptr<const platform::StreamFormatList> formats,
      std::shared_ptr<VANEProbeExtensionMetrics> metrics);

  // platform::StreamSource; any platform thread.
  [[nodiscard]] std::shared_ptr<const platform::StreamFormatList> formats() const override;
  [[nodiscard]] platform::PropertySet availableProperties() const override;
  platform::Result<platform::StreamProperties> streamPropertiesForProperties(
      const platform::PropertySet& properties) override EXCLUDES(formatLock, stateLock);
  platform::Status setStreamProperties(const platform::StreamProperties& properties) override
      EXCLUDES(stateLock);
  bool authorizedToStartStreamForClient(
      const std::shared_ptr<const platform::Client>& client) override;
  platform::Status startStream() override EXCLUDES(stateLock);
  platform::Status stopStream() override EXCLUDES(stateLock);

  // Called by the sink's start, under the sink's formatLock: pins the producer's format and, when
  // that changes anything, announces the new active format index and frame duration.
  platform::Status adoptProducerFormatIndex(std::int64_t index) EXCLUDES(stateLock);
  // Called by the sink's stop, under the sink's formatLock: removes the pin.
  void clearProducerFormatIndex() EXCLUDES(stateLock);

  // Frame forwarding; consume queue only.
  void forwardSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& sampleBuffer)
      EXCLUDES(formatLock, stateLock);
  void applyColorAttachments(platform::PixelBuffer& pixelBuffer) EXCLUDES(formatLock, stateLock);
  std::shared_ptr<platform::SampleBuffer> makeSampleBuffer(
      std::shared_ptr<platform::PixelBuffer> pixelBuffer, platform::MediaTime presentationTime,
      platform::MediaTime duration);
  void sendToClients(const std::shared_ptr<platform::SampleBuffer>& sampleBuffer)
      EXCLUDES(formatLock, stateLock);

  // Timeline property. publish: consume queue only. reset: the sink's start, under the sink's
  // formatLock.
  void publishTimelineMetadata(platform::MediaTime presentationTime, std::int32_t producerPID)
      EXCLUDES(formatLock, stateLock);
  void resetTimelineMetadata() EXCLUDES(formatLock, stateLock);

  // "count=N clients=[...]" of this stream's streaming clients. Any thread.
  [[nodiscard]] std::string clientSummary() const;
  // The active format index, copied under formatLock. Any thread.
  [[nodiscard]] std::int64_t activeFormatIndex() EXCLUDES(formatLock);

  // A consistent copy of the stream's state, for tests, tools and invariant checks. Takes each
  // lock in turn, never both. Any thread.
  struct Snapshot {
    std::int64_t storedFormatIndex = 0;
    std::optional<std::int64_t> producerFormatIndex;
    bool isStarted = false;
    std::uint64_t sentFrameCount = 0;
    std::string timelineValue;
    double lastTimelineMetadataTime = 0.0;
  };
  [[nodiscard]] Snapshot snapshot() EXCLUDES(formatLock, stateLock);

  [[nodiscard]] const std::shared_ptr<platform::Stream>& platformStream() const { return stream; }
  [[nodiscard]] const std::shared_ptr<VANEProbeExtensionMetrics>& metricsRecorder() const {
    return metrics;
  }
  [[nodiscard]] FlowmereCameraRole cameraRole() const { return role; }

  VANEProbeSourceStream(std::shared_ptr<platform::Platform> platform,
                        std::shared_ptr<const platform::StreamFormatList> formats,
                        std::shared_ptr<VANEProbeExtensionMetrics> metrics,
                        FlowmereCameraRole role);

 private:
  void log(const std::string& message);
  [[nodiscard]] const platform::StreamFormat& formatAt(std::int64_t index) const;

  const std::shared_ptr<platform::Platform> platform;
  // Set once by create(), before the device is published; never changed.
  std::shared_ptr<platform::Stream> stream;
  const std::shared_ptr<const platform::StreamFormatList> streamFormats;
  const std::shared_ptr<VANEProbeExtensionMetrics> metrics;
  const FlowmereCameraRole role;

  platform::Mutex stateLock;
  platform::RecursiveMutex formatLock;

  std::int64_t storedFormatIndex GUARDED_BY(formatLock) = 0;
  std::optional<std::int64_t> producerFormatIndex GUARDED_BY(formatLock);
  bool isStarted GUARDED_BY(formatLock) = false;
  // Written on the consume queue only; a relaxed atomic so that snapshots are well defined.
  std::atomic<std::uint64_t> sentFrameCount{0};

  std::string timelineValue GUARDED_BY(stateLock) = "{}";
  double lastTimelineMetadataTime GUARDED_BY(stateLock) = 0.0;
};

}  // namespace flowmere
