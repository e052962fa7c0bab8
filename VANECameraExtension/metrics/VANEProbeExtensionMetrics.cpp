#include "metrics/VANEProbeExtensionMetrics.h"

#include <algorithm>
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
constexpr std::string_view kDefaultNamespace = "camera";
constexpr std::string_view kWaiting = "waiting";
constexpr std::string_view kReceivedPrefix = "received ";

// Number texts built in a stack buffer with std::to_chars, so that neither the process locale
// (a decimal comma) nor the heap is involved.
class NumberText {
 public:
  // Decimal, as "%lld" would print it.
  explicit NumberText(std::int64_t value) {
    end_ = std::to_chars(buffer_.data(), buffer_.data() + buffer_.size(), value).ptr;
  }
  // Fixed notation with six decimals, as "%.6f" would print it in the "C" locale.
  explicit NumberText(double value) {
    const std::to_chars_result result = std::to_chars(
        buffer_.data(), buffer_.data() + buffer_.size(), value, std::chars_format::fixed, 6);
    end_ = result.ec == std::errc() ? result.ptr : buffer_.data();
  }
  [[nodiscard]] std::string_view view() const {
    return {buffer_.data(), static_cast<std::size_t>(end_ - buffer_.data())};
  }

 private:
  // The longest fixed text of a double with six decimals is 317 characters: sign, 309 integer
  // digits, point, six decimals.
  std::array<char, 320> buffer_{};
  char* end_ = buffer_.data();
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
  // One more than the window: a record appends before it trims, and must not reallocate.
  recentLatencies.reserve(kLatencyWindow + 1);
}

std::string VANEProbeExtensionMetrics::namespacedKey(std::string_view name) const {
  if (namespace_ == kDefaultNamespace) {
    return std::string(name);
  }
  std::string key;
  key.reserve(namespace_.size() + 1 + name.size());
  key.append(namespace_).append("_").append(name);
  return key;
}

const std::string* VANEProbeExtensionMetrics::cachedKey(std::string_view name) const {
  if (name == kFramesReceived) {
    return &framesReceivedKey;
  }
  if (name == kLastFrameNumber) {
    return &lastFrameNumberKey;
  }
  if (name == kLatencyAverage) {
    return &latencyAverageKey;
  }
  if (name == kExtensionStatus) {
    return &extensionStatusKey;
  }
  return nullptr;
}

void VANEProbeExtensionMetrics::recordDouble(std::string_view name, double value) {
  if (const std::string* key = cachedKey(name)) {
    publishDouble(*key, value);
  } else {
    publishDouble(namespacedKey(name), value);
  }
}

void VANEProbeExtensionMetrics::publishInteger(const std::string& key, std::int64_t value) {
  if (defaults) {
    defaults->setInteger(key, value);
  }
  if (stateFiles) {
    stateFiles->writeStateFile(NumberText(value).view(), key);
  }
}

void VANEProbeExtensionMetrics::publishDouble(const std::string& key, double value) {
  if (defaults) {
    defaults->setDouble(key, value);
  }
  if (stateFiles) {
    stateFiles->writeStateFile(NumberText(value).view(), key);
  }
}

void VANEProbeExtensionMetrics::publishStatus(std::string_view text) {
  if (defaults) {
    defaults->setObject(extensionStatusKey, text);
  }
  if (stateFiles) {
    stateFiles->writeStateFile(text, extensionStatusKey);
  }
}

void VANEProbeExtensionMetrics::reset() {
  framesReceived = 0;
  recentLatencies.clear();  // keeps its storage
  publishInteger(framesReceivedKey, 0);
  publishInteger(lastFrameNumberKey, 0);
  publishDouble(latencyAverageKey, 0.0);
  publishStatus(kWaiting);
}

void VANEProbeExtensionMetrics::recordFrameReceived() {
  // The counter stops at its largest value rather than overflowing (undefined behaviour) into a
  // negative count; at one frame per nanosecond that takes 292 years.
  if (framesReceived < std::numeric_limits<std::int64_t>::max()) {
    ++framesReceived;
  }

  // No latency measurement reaches the recorder: every sample is 0 ms. The window keeps the
  // newest kLatencyWindow samples; the storage reserved at construction holds the one extra
  // sample between the append and the trim.
  const std::size_t countBefore = recentLatencies.size();
  recentLatencies.push_back(0.0);
  if (countBefore >= kLatencyWindow) {
    const auto excess = static_cast<std::ptrdiff_t>(countBefore - (kLatencyWindow - 1));
    recentLatencies.erase(recentLatencies.begin(), recentLatencies.begin() + excess);
  }
  const double average = recentLatencies.empty() ? 0.0
                                                 : std::accumulate(recentLatencies.begin(),
                                                                   recentLatencies.end(), 0.0) /
                                                       static_cast<double>(recentLatencies.size());

  publishInteger(framesReceivedKey, framesReceived);
  publishDouble(latencyAverageKey, average);
  if (framesReceived == 1 || framesReceived % kStatusInterval == 0) {
    // "received " and at most 19 digits.
    std::array<char, kReceivedPrefix.size() + 20> text{};
    char* const digits = std::copy(kReceivedPrefix.begin(), kReceivedPrefix.end(), text.data());
    const char* const end = std::to_chars(digits, text.data() + text.size(), framesReceived).ptr;
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
