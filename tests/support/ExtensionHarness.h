#pragma once

// Test support: the whole extension started on the embedded camera service in virtual time, with
// everything the service observes recorded (log lines, sent frames, scheduled outputs, property
// changes, settings and file writes). Each harness works in a temporary directory of its own.
//
// Threading: virtual-time harnesses are used from the test's thread only. A real-time harness
// records from the platform and consume threads under `mutex`.

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "VANEProbeExtensionProvider.h"
#include "embedded/EmbeddedCameraService.h"
#include "platform/SampleBuffer.h"

namespace flowmere::testing {

// A directory under the test temporary directory, removed with everything in it on destruction.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

struct HarnessOptions {
  embedded::TimeMode mode = embedded::TimeMode::kVirtual;
  embedded::EmbeddedOptions::Settings settings = embedded::EmbeddedOptions::Settings::kMemory;
  bool grantContainer = true;
  embedded::EmbeddedFaults faults;
  // How long a consume request waits for a push; none: the mode's default.
  std::optional<std::chrono::nanoseconds> consumeWaitLimit{};
  // Start the provider at construction (false: the test calls `startExtension`).
  bool start = true;
};

struct SentFrame {
  std::shared_ptr<platform::SampleBuffer> buffer;
  platform::StreamDiscontinuityFlags discontinuity = 0;
  std::uint64_t hostTimeInNanoseconds = 0;
  // Virtual host time at which the frame was sent.
  std::int64_t sentAtNanoseconds = 0;
};

struct SettingsWrite {
  std::string key;
  platform::PropertyValue value;
};

class ExtensionHarness {
 public:
  explicit ExtensionHarness(HarnessOptions options = {});
  ~ExtensionHarness();

  void startExtension();

  [[nodiscard]] embedded::EmbeddedCameraService& service() { return *service_; }
  [[nodiscard]] const std::shared_ptr<embedded::EmbeddedCameraService>& servicePointer() {
    return service_;
  }
  [[nodiscard]] const std::shared_ptr<VANEProbeExtensionProviderSource>& provider() {
    return provider_;
  }
  [[nodiscard]] VANEProbeExtensionDeviceSource& device() { return *provider_->devices().front(); }
  [[nodiscard]] VANEProbeSourceStream& source() { return *device().source(); }
  [[nodiscard]] VANEProbeSinkStream& sink() { return *device().sink(); }
  [[nodiscard]] embedded::EmbeddedStream& sourcePlatformStream() {
    return *service_->sourceStream();
  }
  [[nodiscard]] embedded::EmbeddedStream& sinkPlatformStream() { return *service_->sinkStream(); }
  [[nodiscard]] const std::filesystem::path& directory() const { return directory_.path(); }
  // Where the state files land when the container is granted, and when it is not.
  [[nodiscard]] std::filesystem::path containerStateDirectory() const;
  [[nodiscard]] std::filesystem::path fallbackStateDirectory() const;

  // Virtual time.
  [[nodiscard]] std::int64_t nowNanoseconds();
  [[nodiscard]] double nowSeconds() { return static_cast<double>(nowNanoseconds()) / 1e9; }
  void advanceBy(double seconds);
  void advanceTo(double seconds);
  void runUntilIdle();

  // Clients and frames.
  std::shared_ptr<const platform::Client> makeClient(std::int32_t pid, std::string description);
  static std::shared_ptr<platform::SampleBuffer> makeFrame(std::uint32_t width,
                                                           std::uint32_t height,
                                                           platform::FourCharCode pixelFormat,
                                                           platform::MediaTime pts);
  // A frame sized like catalogue entry `formatIndex`.
  static std::shared_ptr<platform::SampleBuffer> makeFrameForFormat(std::size_t formatIndex,
                                                                    platform::MediaTime pts);
  bool push(const std::shared_ptr<const platform::Client>& producer,
            std::shared_ptr<platform::SampleBuffer> frame, std::uint64_t sequenceNumber);

  // Convenience: authorise `producer` on the sink, optionally set its format, and start it.
  platform::Status startProducer(const std::shared_ptr<const platform::Client>& producer,
                                 std::optional<std::int64_t> formatIndex = std::nullopt);

  // What the service observed. In real time, read only after the relay has quiesced, or under
  // `mutex`.
  std::mutex mutex;
  // Notified, under `mutex`, each time a scheduled output is recorded.
  std::condition_variable scheduledOutputRecorded;
  std::vector<std::string> logs;
  std::vector<SentFrame> sent;
  std::vector<platform::ScheduledOutput> scheduledOutputs;
  std::vector<std::int64_t> scheduledOutputTimes;
  std::vector<std::pair<std::string, platform::PropertyStateMap>> propertyChanges;
  std::vector<SettingsWrite> settingsWrites;
  std::vector<std::pair<std::string, std::string>> fileWrites;  // file name, text

  // Real time: waits until at least `count` scheduled outputs are recorded, at most `limit`.
  // True if they were.
  bool waitForScheduledOutputs(std::size_t count, std::chrono::milliseconds limit);
  // Log lines that start with `prefix` (after the "[VANE-EXT] " tag, if `tagged`).
  [[nodiscard]] std::vector<std::string> logsStartingWith(const std::string& prefix,
                                                          bool tagged = true);
  // The last value written to the settings suite under `key`, if any.
  [[nodiscard]] std::optional<platform::PropertyValue> lastSetting(const std::string& key);
  // The content of a state file in the directory it was written to, if it exists.
  [[nodiscard]] std::optional<std::string> readStateFile(const std::string& name) const;
  void clearRecords();

 private:
  TemporaryDirectory directory_;
  HarnessOptions options_;
  std::shared_ptr<embedded::EmbeddedCameraService> service_;
  std::shared_ptr<VANEProbeExtensionProviderSource> provider_;
};

}  // namespace flowmere::testing
