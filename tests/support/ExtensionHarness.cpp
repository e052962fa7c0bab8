#include "support/ExtensionHarness.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <sstream>

#include "VendorIdentifiers.h"
#include "formats/FormatCatalogue.h"

namespace flowmere::testing {

TemporaryDirectory::TemporaryDirectory() {
  static std::atomic<int> counter{0};
  path_ = std::filesystem::path(::testing::TempDir()) /
          ("flowmere-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
  std::filesystem::remove_all(path_);
  std::filesystem::create_directories(path_);
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ExtensionHarness::ExtensionHarness(HarnessOptions options) : options_(options) {
  embedded::EmbeddedOptions serviceOptions;
  serviceOptions.mode = options.mode;
  serviceOptions.settings = options.settings;
  serviceOptions.faults = options.faults;
  serviceOptions.consumeWaitLimit = options.consumeWaitLimit;
  if (options.grantContainer) {
    serviceOptions.containerParent = directory_.path() / "containers";
  }
  serviceOptions.temporaryDirectory = directory_.path() / "tmp";
  std::filesystem::create_directories(serviceOptions.temporaryDirectory);
  serviceOptions.logSink = [this](std::string_view line) {
    const std::scoped_lock lock(mutex);
    logs.emplace_back(line);
  };
  service_ = embedded::EmbeddedCameraService::create(std::move(serviceOptions));

  service_->onSend([this](const embedded::EmbeddedStream& /*stream*/,
                          const std::shared_ptr<platform::SampleBuffer>& buffer,
                          platform::StreamDiscontinuityFlags discontinuity,
                          std::uint64_t hostTime) {
    const std::int64_t now = service_->clock().hostTime().value;
    const std::scoped_lock lock(mutex);
    sent.push_back(SentFrame{buffer, discontinuity, hostTime, now});
  });
  service_->onScheduledOutput(
      [this](const embedded::EmbeddedStream& /*stream*/, const platform::ScheduledOutput& output) {
        const std::int64_t now = service_->clock().hostTime().value;
        const std::scoped_lock lock(mutex);
        scheduledOutputs.push_back(output);
        scheduledOutputTimes.push_back(now);
        scheduledOutputRecorded.notify_all();
      });
  service_->onPropertiesChanged(
      [this](const embedded::EmbeddedStream& stream, const platform::PropertyStateMap& changes) {
        const std::scoped_lock lock(mutex);
        propertyChanges.emplace_back(stream.localizedName(), changes);
      });
  service_->onSettingsWrite([this](std::string_view key, const platform::PropertyValue& value) {
    const std::scoped_lock lock(mutex);
    settingsWrites.push_back(SettingsWrite{std::string(key), value});
  });
  service_->onFileWrite([this](const std::filesystem::path& path, std::string_view text) {
    const std::scoped_lock lock(mutex);
    fileWrites.emplace_back(path.filename().string(), std::string(text));
  });
  if (options.start) {
    startExtension();
  }
}

ExtensionHarness::~ExtensionHarness() = default;

void ExtensionHarness::startExtension() {
  provider_ = VANEProbeExtensionProviderSource::create(service_, nullptr);
  service_->startService(provider_->platformProvider());
}

std::filesystem::path ExtensionHarness::containerStateDirectory() const {
  return directory_.path() / "containers" / std::string(kApplicationGroupIdentifier) /
         std::string(kStateDirectoryName);
}

std::filesystem::path ExtensionHarness::fallbackStateDirectory() const {
  return directory_.path() / "tmp" / std::string(kStateDirectoryName);
}

std::int64_t ExtensionHarness::nowNanoseconds() {
  return service_->clock().hostTime().value;
}

void ExtensionHarness::advanceBy(double seconds) {
  service_->executor()->advanceBy(std::llround(seconds * 1e9));
}

void ExtensionHarness::advanceTo(double seconds) {
  service_->executor()->advanceTo(std::llround(seconds * 1e9));
}

void ExtensionHarness::runUntilIdle() {
  service_->executor()->runUntilIdle();
}

std::shared_ptr<const platform::Client> ExtensionHarness::makeClient(std::int32_t pid,
                                                                     std::string description) {
  return service_->makeClient(pid, std::move(description));
}

std::shared_ptr<platform::SampleBuffer> ExtensionHarness::makeFrame(
    std::uint32_t width, std::uint32_t height, platform::FourCharCode pixelFormat,
    platform::MediaTime pts) {
  auto pixels = platform::PixelBuffer::create(width, height, pixelFormat);
  auto description = platform::createVideoFormatDescriptionForImageBuffer(*pixels);
  return platform::SampleBuffer::createReadyWithImageBuffer(
      std::move(pixels), description,
      platform::SampleTimingInfo{platform::MediaTime::make(1, 30), pts,
                                 platform::MediaTime::invalid()});
}

std::shared_ptr<platform::SampleBuffer> ExtensionHarness::makeFrameForFormat(
    std::size_t formatIndex, platform::MediaTime pts) {
  static const auto catalogue = makeFormatCatalogue();
  const platform::FormatDescription& description = (*catalogue)[formatIndex].formatDescription;
  return makeFrame(static_cast<std::uint32_t>(description.dimensions().width),
                   static_cast<std::uint32_t>(description.dimensions().height),
                   description.codecType(), pts);
}

bool ExtensionHarness::push(const std::shared_ptr<const platform::Client>& producer,
                            std::shared_ptr<platform::SampleBuffer> frame,
                            std::uint64_t sequenceNumber) {
  return sinkPlatformStream().push(producer, std::move(frame), sequenceNumber);
}

platform::Status ExtensionHarness::startProducer(
    const std::shared_ptr<const platform::Client>& producer,
    std::optional<std::int64_t> formatIndex) {
  sinkPlatformStream().authorize(producer);
  if (formatIndex) {
    platform::StreamProperties properties;
    properties.setActiveFormatIndex(*formatIndex);
    platform::Status set = sinkPlatformStream().setProperties(properties);
    if (!set.ok()) {
      return set;
    }
  }
  return sinkPlatformStream().start();
}

bool ExtensionHarness::waitForScheduledOutputs(std::size_t count, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex);
  return scheduledOutputRecorded.wait_for(lock, limit,
                                          [&] { return scheduledOutputs.size() >= count; });
}

std::vector<std::string> ExtensionHarness::logsStartingWith(const std::string& prefix,
                                                            bool tagged) {
  const std::string full = tagged ? std::string(kLogTag) + prefix : prefix;
  const std::scoped_lock lock(mutex);
  std::vector<std::string> matching;
  for (const std::string& line : logs) {
    if (line.rfind(full, 0) == 0) {
      matching.push_back(line);
    }
  }
  return matching;
}

std::optional<platform::PropertyValue> ExtensionHarness::lastSetting(const std::string& key) {
  const std::scoped_lock lock(mutex);
  for (auto it = settingsWrites.rbegin(); it != settingsWrites.rend(); ++it) {
    if (it->key == key) {
      return it->value;
    }
  }
  return std::nullopt;
}

std::optional<std::string> ExtensionHarness::readStateFile(const std::string& name) const {
  for (const auto& directory : {containerStateDirectory(), fallbackStateDirectory()}) {
    std::ifstream file(directory / name, std::ios::binary);
    if (file) {
      std::ostringstream content;
      content << file.rdbuf();
      return content.str();
    }
  }
  return std::nullopt;
}

void ExtensionHarness::clearRecords() {
  const std::scoped_lock lock(mutex);
  logs.clear();
  sent.clear();
  scheduledOutputs.clear();
  scheduledOutputTimes.clear();
  propertyChanges.clear();
  settingsWrites.clear();
  fileWrites.clear();
}

}  // namespace flowmere::testing
