#pragma once

// The embedded camera service in real time under the contract: one serial platform thread, and
// consume requests that wait for the producer's push up to the same half second as on PipeWire.
// The producer and the client are the service's own client calls; a steady producer is a thread
// that keeps the sink's queue topped up.
//
// Threading: the test's thread, except the feeder thread. `mutex_` guards the stop request and
// the property values subscribers saw.

#include <map>
#include <thread>

#include "VANEProbeExtensionProvider.h"
#include "contract/ContractBackend.h"
#include "embedded/EmbeddedCameraService.h"
#include "platform/ThreadAnnotations.h"
#include "support/ExtensionHarness.h"

namespace flowmere::contract {

class EmbeddedContractBackend final : public ContractBackend {
 public:
  static constexpr const char* kName = "Embedded";
  EmbeddedContractBackend() = default;
  ~EmbeddedContractBackend() override;
  EmbeddedContractBackend(const EmbeddedContractBackend&) = delete;
  EmbeddedContractBackend& operator=(const EmbeddedContractBackend&) = delete;

  std::optional<std::string> publish(std::shared_ptr<ContractProviderSource> provider,
                                     std::shared_ptr<ContractDeviceSource> device,
                                     std::shared_ptr<ContractStreamSource> sink,
                                     std::shared_ptr<ContractStreamSource> source) override;
  std::optional<std::string> publishExtension() override;
  [[nodiscard]] std::shared_ptr<VANEProbeExtensionProviderSource> extension() const override {
    return extension_;
  }
  platform::Stream& sinkStream() override { return *sinkStream_; }
  platform::Stream& sourceStream() override { return *sourceStream_; }
  void startProducer(ProducerFrames frames) override;
  void stopProducer(bool killed) override;
  void startClient() override;
  void stopClient(bool killed) override;
  bool subscriberSees(const std::string& key, const std::string& value,
                      std::chrono::milliseconds bound) override;
  void shutdown() override;
  void quiesce() override;
  [[nodiscard]] std::vector<std::string> logLines() const override { return logLines_->snapshot(); }

 private:
  void createService();
  void stopFeeder();

  testing::TemporaryDirectory directory_;
  const std::shared_ptr<LogLines> logLines_ = std::make_shared<LogLines>();
  std::shared_ptr<embedded::EmbeddedCameraService> service_;
  std::shared_ptr<VANEProbeExtensionProviderSource> extension_;
  std::shared_ptr<platform::Provider> provider_;
  std::shared_ptr<platform::Device> device_;
  std::shared_ptr<embedded::EmbeddedStream> sinkStream_;
  std::shared_ptr<embedded::EmbeddedStream> sourceStream_;
  std::shared_ptr<const platform::Client> producer_;
  std::shared_ptr<const platform::Client> client_;
  std::thread feeder_;
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool feederStop_ GUARDED_BY(mutex_) = false;
  std::map<std::string, std::string> seen_ GUARDED_BY(mutex_);
};

}  // namespace flowmere::contract
