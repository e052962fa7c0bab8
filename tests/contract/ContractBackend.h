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

#include "contract/ContractSources.h"
#include "platform/CameraExtension.h"

namespace flowmere::contract {

enum class ProducerFrames {
  kSteady,        // frames keep coming
  kOneThenSilent  // one frame, then the producer stays linked and sends nothing
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
  virtual platform::Stream& sinkStream() = 0;
  virtual platform::Stream& sourceStream() = 0;

  // A producer links to the sink at the first catalogue format and streams.
  virtual void startProducer(ProducerFrames frames) = 0;
  // The producer leaves.
  virtual void stopProducer() = 0;
  // A camera client captures the source.
  virtual void startClient() = 0;
  // The client leaves; `killed`: it dies without a word, in the middle of the frames.
  virtual void stopClient(bool killed) = 0;
  // True once a subscriber of the source stream's properties has seen `key` with `value`.
  virtual bool subscriberSees(const std::string& key, const std::string& value,
                              std::chrono::milliseconds bound) = 0;
  // The service goes away.
  virtual void shutdown() = 0;
};

}  // namespace flowmere::contract
