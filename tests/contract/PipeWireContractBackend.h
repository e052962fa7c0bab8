#pragma once

// The camera service on PipeWire under the contract, on the session that
// tests/contract/pipewire-contract.sh starts (it sets FLOWMERE_CONTRACT_PIPEWIRE). Each backend
// publishes its nodes under a name of its own; the producer and the camera client are the
// project's own flowmere-camera-producer and its `receive` subcommand, run as child processes;
// the subscriber is `pw-dump`, which reads the source node's properties as any client can.
//
// Threading: the test's thread, except the thread that runs the service's run loop. Nothing is
// shared with that thread but the service, which is safe from any thread.

#include <sys/types.h>

#include <thread>
#include <vector>

#include "VANEProbeExtensionProvider.h"
#include "contract/ContractBackend.h"
#include "pipewire/PipeWireCameraService.h"
#include "support/ExtensionHarness.h"

namespace flowmere::contract {

class PipeWireContractBackend final : public ContractBackend {
 public:
  static constexpr const char* kName = "PipeWire";
  PipeWireContractBackend() = default;
  ~PipeWireContractBackend() override;
  PipeWireContractBackend(const PipeWireContractBackend&) = delete;
  PipeWireContractBackend& operator=(const PipeWireContractBackend&) = delete;

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
  // The service's run loop drains the platform queue when it ends.
  void quiesce() override { shutdown(); }
  [[nodiscard]] std::vector<std::string> logLines() const override { return logLines_->snapshot(); }

 private:
  // The service, or the reason it cannot run here.
  std::optional<std::string> createService();
  // Starts the producer program with `arguments`; its output goes to `logName` in the directory.
  pid_t spawn(const std::vector<std::string>& arguments, const std::string& logName);
  // Signals `pid` and waits for it to end.
  static void end(pid_t& pid, int signal);

  testing::TemporaryDirectory directory_;
  std::string prefix_;
  const std::shared_ptr<LogLines> logLines_ = std::make_shared<LogLines>();
  std::shared_ptr<pipewire::PipeWireCameraService> service_;
  std::shared_ptr<VANEProbeExtensionProviderSource> extension_;
  std::shared_ptr<platform::Provider> provider_;
  std::shared_ptr<platform::Device> device_;
  std::shared_ptr<platform::Stream> sinkStream_;
  std::shared_ptr<platform::Stream> sourceStream_;
  std::thread runLoop_;
  pid_t producer_ = -1;
  pid_t client_ = -1;
  int spawned_ = 0;
};

}  // namespace flowmere::contract
