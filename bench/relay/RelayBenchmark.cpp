// Cost of relaying one frame on the embedded service in virtual time, from the consume answer to
// the send: pacing, delivery, metrics record, timeline, forwarding and scheduled output. Reports
// nanoseconds, heap allocations and pixel bytes copied per frame, beside a relay that copies every
// frame twice (into a kernel loopback device and out again).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <optional>
#include <vector>

#include "VANEProbeExtensionProvider.h"
#include "embedded/EmbeddedCameraService.h"
#include "formats/FormatCatalogue.h"

namespace {

std::atomic<std::uint64_t> allocations{0};

}  // namespace

// Every heap allocation of the process is counted. The replacements pair malloc with free, which
// gcc cannot see through.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size == 0 ? 1 : size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace flowmere {
namespace {

using platform::MediaTime;

enum class Persistence { kDisk, kMemory };

struct Relay {
  Relay(std::size_t formatIndex, Persistence persistence,
        std::optional<std::chrono::nanoseconds> consumeWaitLimit = std::nullopt) {
    directory = std::filesystem::path(persistence == Persistence::kDisk ? "/var/tmp" : "/dev/shm") /
                ("flowmere-bench-" + std::to_string(::getpid()));
    std::filesystem::remove_all(directory);
    embedded::EmbeddedOptions options;
    options.containerDirectory = directory / "container";
    options.temporaryDirectory = directory / "tmp";
    options.settings = persistence == Persistence::kDisk
                           ? embedded::EmbeddedOptions::Settings::kSqlite
                           : embedded::EmbeddedOptions::Settings::kMemory;
    options.logSink = [](std::string_view) {};
    options.consumeWaitLimit = consumeWaitLimit;
    service = embedded::EmbeddedCameraService::create(options);
    provider = VANEProbeExtensionProviderSource::create(service, nullptr);
    service->startService(provider->platformProvider());
    service->onSend([this](const embedded::EmbeddedStream&,
                           const std::shared_ptr<platform::SampleBuffer>& sent,
                           platform::StreamDiscontinuityFlags, std::uint64_t) {
      ++sentFrames;
      if (sent->imageBuffer() != pixels) {
        copiedBytes += sent->imageBuffer()->dataSize();
      }
    });

    const auto catalogue = makeFormatCatalogue();
    const auto& format = (*catalogue)[formatIndex].formatDescription;
    pixels = platform::PixelBuffer::create(static_cast<std::uint32_t>(format.dimensions().width),
                                           static_cast<std::uint32_t>(format.dimensions().height),
                                           format.codecType());
    platform::StreamProperties properties;
    properties.setActiveFormatIndex(static_cast<std::int64_t>(formatIndex));
    (void)service->sinkStream()->setProperties(properties);
    // Started without a producer client: the chain ends at its first request, so the benchmark
    // hands answers to the sink itself and nothing polls in between.
    (void)service->sinkStream()->start();
    service->executor()->runUntilIdle();
    sink = provider->devices().front()->sink();
    generation = sink->snapshot().chainGeneration;
    for (std::int64_t k = 0; k < 1024; ++k) {
      frames.push_back(std::make_shared<platform::SampleBuffer>(
          pixels, std::nullopt,
          platform::SampleTimingInfo{MediaTime::make(1, 30), MediaTime::make(k, 30), {}}));
    }
  }
  ~Relay() {
    provider.reset();
    sink.reset();
    service.reset();
    std::filesystem::remove_all(directory);
  }

  // One frame: the consume answer, then everything it leads to up to the send.
  void relayOne(std::uint64_t k) {
    service->executor()->advanceBy(1'000'000'000 / 30);
    sink->handleConsumeResult(generation, frames[k % frames.size()], k + 1, 0, false, std::nullopt);
    service->executor()->runUntilIdle();
  }

  std::filesystem::path directory;
  std::shared_ptr<embedded::EmbeddedCameraService> service;
  std::shared_ptr<VANEProbeExtensionProviderSource> provider;
  std::shared_ptr<VANEProbeSinkStream> sink;
  std::uint64_t generation = 0;
  std::shared_ptr<platform::PixelBuffer> pixels;
  std::vector<std::shared_ptr<platform::SampleBuffer>> frames;
  std::uint64_t sentFrames = 0;
  std::uint64_t copiedBytes = 0;
};

void BM_Relay(benchmark::State& state) {
  const auto formatIndex = static_cast<std::size_t>(state.range(0));
  const auto persistence = static_cast<Persistence>(state.range(1));
  Relay relay(formatIndex, persistence);
  std::uint64_t k = 0;
  for (int warmUp = 0; warmUp < 64; ++warmUp) {
    relay.relayOne(k++);
  }
  const std::uint64_t sentBefore = relay.sentFrames;
  const std::uint64_t allocationsBefore = allocations.load();
  for (auto _ : state) {
    relay.relayOne(k++);
  }
  const double frames = static_cast<double>(relay.sentFrames - sentBefore);
  state.counters["allocs_per_frame"] =
      static_cast<double>(allocations.load() - allocationsBefore) / frames;
  state.counters["copied_bytes_per_frame"] = static_cast<double>(relay.copiedBytes) / frames;
  state.counters["frame_bytes"] = static_cast<double>(relay.pixels->dataSize());
  state.SetLabel(persistence == Persistence::kDisk ? "sqlite+files on disk"
                                                   : "suite in memory, files on tmpfs");
}

// What a kernel loopback video device costs: the frame is copied into the device and out again.
void BM_CopyingRelay(benchmark::State& state) {
  const auto catalogue = makeFormatCatalogue();
  const auto& format = (*catalogue)[static_cast<std::size_t>(state.range(0))].formatDescription;
  auto source = platform::PixelBuffer::create(
      static_cast<std::uint32_t>(format.dimensions().width),
      static_cast<std::uint32_t>(format.dimensions().height), format.codecType());
  const std::size_t size = source->dataSize();
  std::vector<std::byte> device(size);
  std::vector<std::byte> client(size);
  for (auto _ : state) {
    std::memcpy(device.data(), source->plane(0).data, size);
    std::memcpy(client.data(), device.data(), size);
    benchmark::DoNotOptimize(client.data());
    benchmark::ClobberMemory();
  }
  state.counters["copied_bytes_per_frame"] = static_cast<double>(2 * size);
}

// One consume request on the embedded service, from the request to its answer on the platform
// queue: the poll the sink makes every 2 ms while no frame waits (range 0), one that takes a
// pushed frame (range 1), or one that waits on an empty queue until a push answers it, as in
// real time (range 2).
void BM_ConsumeRequest(benchmark::State& state) {
  const bool withFrame = state.range(0) == 1;
  const bool waits = state.range(0) == 2;
  Relay relay(
      0, Persistence::kMemory,
      waits ? std::optional<std::chrono::nanoseconds>(embedded::kConsumeWaitLimit) : std::nullopt);
  auto producer = relay.service->makeClient(1, "bench producer");
  auto& stream = *relay.service->sinkStream();
  std::uint64_t answered = 0;
  const auto request = [&] {
    if (withFrame) {
      (void)stream.push(producer, relay.frames.front(), answered + 1);
    }
    stream.consumeSampleBufferFromClient(
        producer, [&answered](std::shared_ptr<platform::SampleBuffer> buffer, std::uint64_t,
                              platform::StreamDiscontinuityFlags, bool,
                              const std::optional<platform::Error>&) {
          answered += 1;
          benchmark::DoNotOptimize(buffer);
        });
    if (waits) {
      (void)stream.push(producer, relay.frames.front(), answered + 1);
    }
    relay.service->executor()->runUntilIdle();
  };
  request();
  const std::uint64_t allocationsBefore = allocations.load();
  const std::uint64_t answeredBefore = answered;
  for (auto _ : state) {
    request();
  }
  state.counters["allocs_per_request"] =
      static_cast<double>(allocations.load() - allocationsBefore) /
      static_cast<double>(answered - answeredBefore);
  state.SetLabel(waits ? "waits for a push" : withFrame ? "answer with a frame" : "empty answer");
}

// Format 0: 1920x1080 BGRA; format 6: 3840x2160 10-bit 4:2:0 (HLG).
BENCHMARK(BM_Relay)
    ->ArgsProduct({{0, 6},
                   {static_cast<int>(Persistence::kDisk), static_cast<int>(Persistence::kMemory)}})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CopyingRelay)->Arg(0)->Arg(6)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConsumeRequest)->Arg(0)->Arg(1)->Arg(2);

}  // namespace
}  // namespace flowmere

BENCHMARK_MAIN();
