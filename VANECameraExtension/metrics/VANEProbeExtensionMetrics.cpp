#include "metrics/VANEProbeExtensionMetrics.h"

#include <array>
#include <charconv>
#include <limits>
#include <numeric>

namespace flowmere {

namespace {

constexpr std::string_view kFramesReceived = "frames_received";
constexpr std::string_view kLastFrameNumber = "last_frame_number";
constexpr std::string_view kLatencyAverage = "latency_average_ms";
constexpr std::string_view kExtensionStatus = "extension_status";

// Decimal and "%.6f" texts formatted into a stack buffer, independent of the process locale.
class NumberText {
 public:
  explicit NumberText(std::int64_t value) {
    end_ = std::to_chars(buffer_.data(), buffer_.data() + buffer_.size(), value).ptr;
  }
  NumberText(double value, int decimals) {
    const auto result = std::to_chars(buffer_.data(), buffer_.data() + buffer_.size(), value,
                                      std::chars_format::fixed, decimals);
    end_ = result.ec == std::errc() ? result.ptr : buffer_.data();
  }
  [[nodiscard]] std::string_view view() const {
    return {buffer_.data(), static_cast<std::size_t>(end_ - buffer_.data())};
  }

 private:
  // Wide enough for any double in fixed notation with six decimals.
  std::array<char, 330> buffer_{};
  char* end_ = nullptr;
};

}  // namespace

VANEProbeExtensionMetrics::VANEProbeExtensionMetrics(std::shared_ptr<platform::SettingsSuite> suite,
                                                     std::string namespaceName,
                                                     std::shared_ptr<StateFiles> files,
                                                     platform::Log& logger)
    : defaults(std::move(suite)),
      namespace_(std::move(namespaceName)),
      stateFiles(std::move(files)),
      log(logger),
      framesReceivedKey(namespacedKey(kFramesReceived)),
      lastFrameNumberKey(namespacedKey(kLastFrameNumber)),
      latencyAverageKey(namespacedKey(kLatencyAverage)),
      extensionStatusKey(namespacedKey(kExtensionStatus)) {
  // One more than the window: a record appends before it trims.
  recentLatencies.reserve(kLatencyWindow + 1);
}

std::string VANEProbeExtensionMetrics::namespacedKey(std::string_view name) const {
  if (namespace_ == "camera") {
    return std::string(name);
  }
  std::string key;
  key.reserve(namespace_.size() + 1 + name.size());
  key.append(namespace_).append("_").append(name);
  return key;
}

const std::string& VANEProbeExtensionMetrics::keyFor(std::string_view name) const {
  if (name == kFramesReceived) {
    return framesReceivedKey;
  }
  if (name == kLastFrameNumber) {
    return lastFrameNumberKey;
  }
  if (name == kLatencyAverage) {
    return latencyAverageKey;
  }
  return extensionStatusKey;
}

void VANEProbeExtensionMetrics::recordDouble(std::string_view name, double value) {
  const bool known = name == kFramesReceived || name == kLastFrameNumber ||
                     name == kLatencyAverage || name == kExtensionStatus;
  const std::string computed = known ? std::string() : namespacedKey(name);
  const std::string& key = known ? keyFor(name) : computed;
  if (defaults) {
    defaults->setDouble(key, value);
  }
  stateFiles->writeStateFile(NumberText(value, 6).view(), key);
}

void VANEProbeExtensionMetrics::publishInteger(const std::string& key, std::int64_t value) {
  if (defaults) {
    defaults->setInteger(key, value);
  }
  stateFiles->writeStateFile(NumberText(value).view(), key);
}

void VANEProbeExtensionMetrics::publishStatus(std::string_view text) {
  if (defaults) {
    defaults->setObject(extensionStatusKey, text);
  }
  stateFiles->writeStateFile(text, extensionStatusKey);
}

void VANEProbeExtensionMetrics::reset() {
  framesReceived = 0;
  recentLatencies.clear();  // keeps its storage
  publishInteger(framesReceivedKey, 0);
  publishInteger(lastFrameNumberKey, 0);
  recordDouble(kLatencyAverage, 0.0);
  publishStatus("waiting");
}

void VANEProbeExtensionMetrics::recordFrameReceived() {
  // The counter stops at its largest value instead of wrapping to a negative count.
  if (framesReceived < std::numeric_limits<std::int64_t>::max()) {
    ++framesReceived;
  }
  // No latency measurement reaches the recorder: every sample is 0 ms.
  const std::size_t before = recentLatencies.size();
  recentLatencies.push_back(0.0);
  if (before >= kLatencyWindow) {
    recentLatencies.erase(recentLatencies.begin(),
                          recentLatencies.begin() + static_cast<std::ptrdiff_t>(before - 29));
  }
  const double average = recentLatencies.empty() ? 0.0
                                                 : std::accumulate(recentLatencies.begin(),
                                                                   recentLatencies.end(), 0.0) /
                                                       static_cast<double>(recentLatencies.size());

  publishInteger(framesReceivedKey, framesReceived);
  recordDouble(kLatencyAverage, average);
  if (framesReceived == 1 || framesReceived % kStatusInterval == 0) {
    std::array<char, 40> text{};
    constexpr std::string_view kPrefix = "received ";
    std::copy(kPrefix.begin(), kPrefix.end(), text.begin());
    const char* end =
        std::to_chars(text.data() + kPrefix.size(), text.data() + text.size(), framesReceived).ptr;
    publishStatus(std::string_view(text.data(), static_cast<std::size_t>(end - text.data())));
  }
}

void VANEProbeExtensionMetrics::setStatus(std::string_view text) {
  log.write(text);
  publishStatus(text);
}

VANEProbeExtensionMetrics::Snapshot VANEProbeExtensionMetrics::snapshot() const {
  return Snapshot{defaults != nullptr, namespace_, framesReceived, recentLatencies};
}

}  // namespace flowmere
