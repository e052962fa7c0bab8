#include "contract/PipeWireContractBackend.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX declares it nowhere

namespace flowmere::contract {

namespace {

// Everything pw-dump prints, or empty when it could not run.
std::string runPwDump() {
  std::string output;
  FILE* pipe = ::popen("pw-dump 2>/dev/null", "r");
  if (!pipe) {
    return output;
  }
  std::array<char, 65536> chunk{};
  while (const std::size_t read = std::fread(chunk.data(), 1, chunk.size(), pipe)) {
    output.append(chunk.data(), read);
  }
  ::pclose(pipe);
  return output;
}

}  // namespace

PipeWireContractBackend::~PipeWireContractBackend() {
  shutdown();
  extension_.reset();  // before the service its streams refer to
  provider_.reset();
  device_.reset();
  sinkStream_.reset();
  sourceStream_.reset();
  service_.reset();
}

std::optional<std::string> PipeWireContractBackend::createService() {
  if (std::getenv("FLOWMERE_CONTRACT_PIPEWIRE") == nullptr) {  // NOLINT(concurrency-mt-unsafe)
    return "no private PipeWire session: tests/contract/pipewire-contract.sh runs these cases on "
           "one (ctest: contract_pipewire)";
  }
  static std::atomic<int> counter{0};
  prefix_ = "flowmere-contract-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
  pipewire::PipeWireOptions options;
  options.nodeNamePrefix = prefix_;
  options.containerParent = directory_.path() / "containers";
  options.logSink = [lines = logLines_](std::string_view line) { lines->add(line); };
  service_ = pipewire::PipeWireCameraService::create(std::move(options));
  if (!service_) {
    return "PipeWire cannot be reached";
  }
  return std::nullopt;
}

std::optional<std::string> PipeWireContractBackend::publishExtension() {
  if (auto reason = createService()) {
    return reason;
  }
  extension_ = VANEProbeExtensionProviderSource::create(service_, nullptr);
  const auto& device = extension_->devices().front();
  sinkStream_ = device->sink()->platformStream();
  sourceStream_ = device->source()->platformStream();
  service_->startService(extension_->platformProvider());
  runLoop_ = std::thread([service = service_] { service->runMainRunLoop(); });
  return std::nullopt;
}

std::optional<std::string> PipeWireContractBackend::publish(
    std::shared_ptr<ContractProviderSource> provider, std::shared_ptr<ContractDeviceSource> device,
    std::shared_ptr<ContractStreamSource> sink, std::shared_ptr<ContractStreamSource> source) {
  if (auto reason = createService()) {
    return reason;
  }
  provider_ = service_->createProvider(provider, nullptr);
  device_ = service_->createDevice("Contract Camera", platform::Uuid{}, std::nullopt, device);
  sinkStream_ =
      service_->createStream("Contract Sink", platform::Uuid{},
                             platform::StreamDirection::CMIOExtensionStreamDirectionSink,
                             platform::StreamClockType::CMIOExtensionStreamClockTypeHostTime, sink);
  sourceStream_ = service_->createStream(
      "Contract Source", platform::Uuid{},
      platform::StreamDirection::CMIOExtensionStreamDirectionSource,
      platform::StreamClockType::CMIOExtensionStreamClockTypeHostTime, source);
  if (!device_->addStream(sourceStream_).ok() || !device_->addStream(sinkStream_).ok() ||
      !provider_->addDevice(device_).ok()) {
    return "the PipeWire service refused the contract's device";
  }
  service_->startService(provider_);
  runLoop_ = std::thread([service = service_] { service->runMainRunLoop(); });
  return std::nullopt;
}

pid_t PipeWireContractBackend::spawn(const std::vector<std::string>& arguments,
                                     const std::string& logName) {
  std::vector<std::string> words{FLOWMERE_PRODUCER_PATH};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (auto& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  const std::string log = (directory_.path() / (logName + std::to_string(spawned_++) + ".log"));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
    pid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

void PipeWireContractBackend::end(pid_t& pid, int signal) {
  if (pid <= 0) {
    return;
  }
  ::kill(pid, signal);
  int status = 0;
  ::waitpid(pid, &status, 0);
  pid = -1;
}

void PipeWireContractBackend::startProducer(ProducerFrames frames) {
  std::vector<std::string> arguments{"--target",  prefix_ + "-sink", "--size",
                                     "1920x1080", "--fps",           "30"};
  if (frames == ProducerFrames::kOneThenSilent) {
    // Linked and streaming, but nothing after the first frame.
    arguments.insert(arguments.end(), {"--pause", "0,3600"});
  }
  producer_ = spawn(arguments, "producer");
}

void PipeWireContractBackend::stopProducer(bool killed) {
  end(producer_, killed ? SIGKILL : SIGTERM);
}

void PipeWireContractBackend::startClient() {
  client_ = spawn({"receive", "--target", prefix_ + "-source"}, "client");
}

void PipeWireContractBackend::stopClient(bool killed) {
  end(client_, killed ? SIGKILL : SIGTERM);
}

bool PipeWireContractBackend::subscriberSees(const std::string& key, const std::string& value,
                                             std::chrono::milliseconds bound) {
  // Each reading is a complete pw-dump run, so the loop waits for the graph, not for a clock.
  const auto deadline = std::chrono::steady_clock::now() + bound;
  const std::string node = prefix_ + "-source";
  do {
    const auto dump = nlohmann::json::parse(runPwDump(), nullptr, false);
    if (dump.is_array()) {
      for (const auto& object : dump) {
        const auto props =
            object.value(nlohmann::json::json_pointer("/info/props"), nlohmann::json::object());
        const auto name = props.find("node.name");
        const auto found = props.find(key);
        if (name != props.end() && *name == node && found != props.end() && *found == value) {
          return true;
        }
      }
    }
  } while (std::chrono::steady_clock::now() < deadline);
  return false;
}

void PipeWireContractBackend::shutdown() {
  end(producer_, SIGTERM);
  end(client_, SIGTERM);
  if (service_) {
    service_->shutdown();
  }
  if (runLoop_.joinable()) {
    runLoop_.join();
  }
}

}  // namespace flowmere::contract
