#pragma once

// VANEProbeExtensionMetrics publishes the extension's progress to the other processes of the
// application group: a frame counter, an average latency over the last 30 samples, a
// reset-time frame number and a one-line status text. Every value goes first to the shared
// settings suite (when there is one) and then to its state file.
//
// Keys are namespaced: with the namespace "camera" a key is its base name, otherwise
// namespace + "_" + base name ("bridge_frames_received").
//
// Threading: no lock of its own. The counters (`framesReceived`, `recentLatencies`) are used by
// `reset` and `recordFrameReceived` only, and those never overlap: the sink's start resets (under
// the sink's formatLock) before it dispatches its chain, a delivery records on the consume queue,
// a sink stop waits for a running delivery, and a delivery of an older chain never begins after
// a stop or a new start. `setStatus` touches no field, only the settings suite and the state
// files, which are safe from any thread; it may run beside a delivery, since a stale chain's
// completion (see the sink's header) may run beside the current chain's steps. The source's
// recorder is used only from the source's start and stop (under the source's formatLock).

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "metrics/StateFiles.h"
#include "platform/Services.h"

namespace flowmere {

class VANEProbeExtensionMetrics {
 public:
  static constexpr std::size_t kLatencyWindow = 30;
  static constexpr std::int64_t kStatusInterval = 30;

  // `suite` may be null (the platform refused it): only files are written then. `files` is
  // shared by both recorders; `logger` is borrowed for the life of the recorder.
  VANEProbeExtensionMetrics(std::shared_ptr<platform::SettingsSuite> suite,
                            std::string namespaceName, std::shared_ptr<StateFiles> files,
                            platform::Log& logger);

  // The published key for a base name.
  [[nodiscard]] std::string namespacedKey(std::string_view name) const;
  void recordDouble(std::string_view name, double value);
  // Clears the counters and publishes 0, 0, 0.000000 and "waiting".
  void reset();
  // Records one relayed frame.
  void recordFrameReceived();
  // Logs `text` bare, then publishes it as the status.
  void setStatus(std::string_view text);

  // What the recorder holds now, for tests and diagnostics. Same threading rules as above.
  struct Snapshot {
    bool hasDefaults = false;
    std::string namespaceName;
    std::int64_t framesReceived = 0;
    std::vector<double> recentLatencies;
  };
  [[nodiscard]] Snapshot snapshot() const;

 private:
  // Suite first (when there is one), then the state file; the key is already namespaced.
  void publishInteger(const std::string& key, std::int64_t value);
  void publishDouble(const std::string& key, double value);
  void publishStatus(std::string_view text);
  // The cached namespaced key for one of the four published base names; null for any other.
  [[nodiscard]] const std::string* cachedKey(std::string_view name) const;

  // Fields keep the names the rest of the system uses for them; `namespace` is a reserved word
  // in C++, hence `namespace_`.
  const std::shared_ptr<platform::SettingsSuite> defaults;
  const std::string namespace_;
  std::int64_t framesReceived = 0;
  std::vector<double> recentLatencies;  // oldest first, at most kLatencyWindow after a record
  const std::shared_ptr<StateFiles> stateFiles;
  platform::Log& log;
  // The four published keys, namespaced once so that a frame does not build them again.
  const std::string framesReceivedKey;
  const std::string lastFrameNumberKey;
  const std::string latencyAverageKey;
  const std::string extensionStatusKey;
};

}  // namespace flowmere
