// What the idle picture costs. Drawing a card (once per format: Cairo's text and, for P010, the
// conversion to HDR video range), and what each idle frame costs afterwards: the bar redrawn
// into a buffer that already holds the card (the usual case: the node copies the card into each
// of its buffers once), against copying the whole card in again (what a frame would cost if the
// node did not remember what each buffer holds).
//
//   build/release/bench/pipewire/idle_card_benchmark

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "pipewire/HdrColor.h"
#include "pipewire/IdleCard.h"
#include "pipewire/SpaFormats.h"

namespace {

using flowmere::pipewire::FrameLayout;
using flowmere::pipewire::HdrTransfer;
using flowmere::pipewire::IdleCard;

FrameLayout layoutOf(std::uint32_t format, std::uint32_t width, std::uint32_t height) {
  spa_video_info_raw info{};
  info.format = static_cast<spa_video_format>(format);
  info.size = {width, height};
  return *flowmere::pipewire::frameLayoutFor(info);
}

// state.range(0): 0 = 1080p BGRA, 1 = 4K BGRA, 2 = 1080p P010 (PQ), 3 = 4K P010 (PQ).
FrameLayout layoutFor(const benchmark::State& state) {
  const bool p010 = state.range(0) >= 2;
  const bool large = state.range(0) % 2 == 1;
  return layoutOf(p010 ? SPA_VIDEO_FORMAT_P010_10LE : SPA_VIDEO_FORMAT_BGRA, large ? 3840 : 1920,
                  large ? 2160 : 1080);
}

void setLabel(benchmark::State& state) {
  static const char* const kLabels[] = {"1080p BGRA", "4K BGRA", "1080p P010 PQ", "4K P010 PQ"};
  state.SetLabel(kLabels[state.range(0)]);
}

IdleCard drawCard(const FrameLayout& layout) {
  std::string problem;
  const bool p010 = layout.pixelFormat != flowmere::platform::kCVPixelFormatType_32BGRA;
  return *IdleCard::draw(layout, p010 ? std::optional(HdrTransfer::kPq) : std::nullopt,
                         "Flowmere Camera", std::nullopt, problem);
}

void BM_DrawCard(benchmark::State& state) {
  const FrameLayout layout = layoutFor(state);
  for (auto _ : state) {
    auto card = drawCard(layout);
    benchmark::DoNotOptimize(card.pixels().data());
  }
  setLabel(state);
}

// An idle frame into a buffer that holds the card already: the bar only.
void BM_IdleFrameBarOnly(benchmark::State& state) {
  const FrameLayout layout = layoutFor(state);
  const IdleCard card = drawCard(layout);
  std::vector<std::byte> buffer = card.pixels();
  std::int64_t now = 0;
  for (auto _ : state) {
    card.drawBar(buffer.data(), now);
    now += 33'333'333;
    benchmark::ClobberMemory();
  }
  setLabel(state);
}

// An idle frame into a buffer that does not hold the card: the whole card, then the bar.
void BM_IdleFrameWholeCard(benchmark::State& state) {
  const FrameLayout layout = layoutFor(state);
  const IdleCard card = drawCard(layout);
  // Eight buffers in turn, as a link provides them, so the target is not in the cache.
  std::vector<std::vector<std::byte>> buffers(8, std::vector<std::byte>(layout.frameSize));
  std::size_t next = 0;
  std::int64_t now = 0;
  for (auto _ : state) {
    std::byte* target = buffers[next++ % buffers.size()].data();
    std::memcpy(target, card.pixels().data(), layout.frameSize);
    card.drawBar(target, now);
    now += 33'333'333;
    benchmark::ClobberMemory();
  }
  setLabel(state);
}

BENCHMARK(BM_DrawCard)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_IdleFrameBarOnly)->DenseRange(0, 3)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_IdleFrameWholeCard)->DenseRange(0, 3)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
