#include "contract/EmbeddedContractBackend.h"

namespace flowmere::contract {

using embedded::EmbeddedStream;

EmbeddedContractBackend::~EmbeddedContractBackend() {
  shutdown();
  extension_.reset();  // before the service its streams refer to
}

void EmbeddedContractBackend::createService() {
  embedded::EmbeddedOptions options;
  options.mode = embedded::TimeMode::kReal;
  options.settings = embedded::EmbeddedOptions::Settings::kMemory;
  options.temporaryDirectory = directory_.path();
  options.containerParent = directory_.path() / "containers";
  options.logSink = [lines = logLines_](std::string_view line) { lines->add(line); };
  service_ = embedded::EmbeddedCameraService::create(std::move(options));
  service_->onPropertiesChanged(
      [this](const EmbeddedStream& /*stream*/, const platform::PropertyStateMap& changes) {
        {
          const platform::Locker lock(mutex_);
          for (const auto& [name, state] : changes) {
            if (const auto* text = std::get_if<std::string>(&state.value)) {
              seen_[name] = *text;
            }
          }
        }
        changed_.notifyAll();
      });
}

std::optional<std::string> EmbeddedContractBackend::publishExtension() {
  createService();
  extension_ = VANEProbeExtensionProviderSource::create(service_, nullptr);
  service_->startService(extension_->platformProvider());
  sinkStream_ = service_->sinkStream();
  sourceStream_ = service_->sourceStream();
  return std::nullopt;
}

std::optional<std::string> EmbeddedContractBackend::publish(
    std::shared_ptr<ContractProviderSource> provider, std::shared_ptr<ContractDeviceSource> device,
    std::shared_ptr<ContractStreamSource> sink, std::shared_ptr<ContractStreamSource> source) {
  createService();
  provider_ = service_->createProvider(provider, nullptr);
  device_ = service_->createDevice("Contract Camera", platform::Uuid{}, std::nullopt, device);
  sinkStream_ = std::static_pointer_cast<EmbeddedStream>(service_->createStream(
      "Contract Sink", platform::Uuid{},
      platform::StreamDirection::CMIOExtensionStreamDirectionSink,
      platform::StreamClockType::CMIOExtensionStreamClockTypeHostTime, sink));
  sourceStream_ = std::static_pointer_cast<EmbeddedStream>(service_->createStream(
      "Contract Source", platform::Uuid{},
      platform::StreamDirection::CMIOExtensionStreamDirectionSource,
      platform::StreamClockType::CMIOExtensionStreamClockTypeHostTime, source));
  if (!device_->addStream(sourceStream_).ok() || !device_->addStream(sinkStream_).ok() ||
      !provider_->addDevice(device_).ok()) {
    return "the embedded service refused the contract's device";
  }
  service_->startService(provider_);
  return std::nullopt;
}

void EmbeddedContractBackend::startProducer(ProducerFrames frames) {
  producer_ = service_->makeClient(4242, "contract producer");
  sinkStream_->setStreamingClients({producer_});
  (void)sinkStream_->authorize(producer_);
  (void)sinkStream_->start();
  std::uint64_t sequence = 1;
  sinkStream_->push(
      producer_, testing::ExtensionHarness::makeFrameForFormat(0, platform::MediaTime::make(0, 30)),
      sequence++);
  if (frames == ProducerFrames::kOneThenSilent) {
    return;
  }
  {
    const platform::Locker lock(mutex_);
    feederStop_ = false;
  }
  feeder_ = std::thread([this, stream = sinkStream_, producer = producer_, sequence]() mutable {
    // A producer at roughly 100 frames a second that never overfills the three-buffer queue.
    const platform::Locker lock(mutex_);
    while (!feederStop_) {
      if (stream->queuedBufferCount() < EmbeddedStream::kProducerQueueCapacity) {
        stream->push(producer,
                     testing::ExtensionHarness::makeFrameForFormat(
                         0, platform::MediaTime::make(static_cast<std::int64_t>(sequence), 30)),
                     sequence);
        ++sequence;
      }
      changed_.waitUntil(mutex_, std::chrono::steady_clock::now() + std::chrono::milliseconds(10));
    }
  });
}

void EmbeddedContractBackend::stopFeeder() {
  {
    const platform::Locker lock(mutex_);
    feederStop_ = true;
  }
  changed_.notifyAll();
  if (feeder_.joinable()) {
    feeder_.join();
  }
}

void EmbeddedContractBackend::stopProducer(bool /*killed*/) {
  stopFeeder();
  // As a leaving peer on PipeWire: the stream stops, then the client is gone with its buffers.
  // The embedded service learns of a vanished producer as of one that left.
  (void)sinkStream_->stop();
  sinkStream_->setStreamingClients({});
  if (producer_) {
    sinkStream_->discardProducerQueue(producer_->clientID());
  }
}

void EmbeddedContractBackend::startClient() {
  client_ = service_->makeClient(5151, "contract client");
  sourceStream_->setStreamingClients({client_});
  (void)sourceStream_->authorize(client_);
  (void)sourceStream_->start();
}

void EmbeddedContractBackend::stopClient(bool /*killed*/) {
  // The embedded service learns of a vanished client as of one that left.
  (void)sourceStream_->stop();
  sourceStream_->setStreamingClients({});
}

bool EmbeddedContractBackend::subscriberSees(const std::string& key, const std::string& value,
                                             std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  const platform::Locker lock(mutex_);
  while (true) {
    const auto found = seen_.find(key);
    if (found != seen_.end() && found->second == value) {
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    changed_.waitUntil(mutex_, deadline);
  }
}

void EmbeddedContractBackend::quiesce() {
  // The answers a stop sends go to the platform queue and end the chains there; a call into the
  // extension runs after everything queued before it.
  const auto deadline = std::chrono::steady_clock::now() + kGenerousBound;
  while (sinkStream_->pendingConsumeRequests() > 0 && std::chrono::steady_clock::now() < deadline) {
    service_->callExtension([] {});
  }
  service_->callExtension([] {});
}

void EmbeddedContractBackend::shutdown() {
  stopFeeder();
  if (service_) {
    service_->shutdown();
  }
}

}  // namespace flowmere::contract
