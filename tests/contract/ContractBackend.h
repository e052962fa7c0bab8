#pragma once

// One camera service under the contract: it publishes a device with a sink and a source stream
// whose sources are the contract's fakes, and plays the world around them: a producer that links
// to the sink and leaves, a camera client that captures the source and leaves, a subscriber of
// the source's properties, and the service going away.
//
// Threading: the test's thread only (the service itself runs on its own threads).

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VANEProbeExtensionProvider.h"
#include "contract/ContractSources.h"
#include "platform/CameraExtension.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::contract {

enum class ProducerFrames {
  kSteady,        // frames keep coming
  kOneThenSilent  // one frame, then the producer stays linked and sends nothing
};

// The service's log lines, kept in order. Any thread; `mutex_` guards `lines_`.
class LogLines {
 public:
  void add(std::string_view line) {
    const platform::Locker lock(mutex_);
    lines_.emplace_back(line);
  }
  [[nodiscard]] std::vector<std::string> snapshot() const {
    const platform::Locker lock(mutex_);
    return lines_;
  }

 private:
  mutable platform::Mutex mutex_;
  std::vector<std::string> lines_ GUARDED_BY(mutex_);
};

class ContractBackend {
 public:
  virtual ~ContractBackend() = default;

  // Builds the service and publishes the device. The reason, when the backend cannot run here
  // (the test is then skipped).
  virtual std::optional<std::string> publish(std::shared_ptr<ContractProviderSource> provider,
                                             std::shared_ptr<ContractDeviceSource> device,
                                             std::shared_ptr<ContractStreamSource> sink,
                                             std::shared_ptr<ContractStreamSource> source) = 0;
  // Builds the service and runs the whole extension on it instead of the fakes.
  virtual std::optional<std::string> publishExtension() = 0;
  // The extension that publishExtension runs; null after publish.
  [[nodiscard]] virtual std::shared_ptr<VANEProbeExtensionProviderSource> extension() const = 0;
  virtual platform::Stream& sinkStream() = 0;
  virtual platform::Stream& sourceStream() = 0;

  // A producer links to the sink at the first catalogue format and streams.
  virtual void startProducer(ProducerFrames frames) = 0;
  // The producer leaves; `killed`: it dies without a word.
  virtual void stopProducer(bool killed) = 0;
  // A camera client captures the source.
  virtual void startClient() = 0;
  // The client leaves; `killed`: it dies without a word, in the middle of the frames.
  virtual void stopClient(bool killed) = 0;
  // True once a subscriber of the source stream's properties has seen `key` with `value`.
  virtual bool subscriberSees(const std::string& key, const std::string& value,
                              std::chrono::milliseconds bound) = 0;
  // The service goes away.
  virtual void shutdown() = 0;
  // Returns once everything a stop has set off on the service's queues has run; the service
  // may be gone afterwards.
  virtual void quiesce() = 0;
  [[nodiscard]] virtual std::vector<std::string> logLines() const = 0;
};

}  // namespace flowmere::contract
