#pragma once

// The parameters our nodes hand to PipeWire: the formats a node offers and the buffers it asks
// for once a format is chosen. Pure functions: any thread.

#include <spa/pod/builder.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "SpaFormats.h"
#include "platform/StreamFormat.h"

namespace flowmere::pipewire {

// The catalogue's formats as EnumFormat params built into `builder`, `preferredIndex` first when
// it is a valid index (a peer that accepts anything takes the first offer); formats PipeWire
// cannot carry are left out.
std::vector<const spa_pod*> buildFormatOffers(spa_pod_builder& builder,
                                              const platform::StreamFormatList& formats,
                                              std::optional<std::int64_t> preferredIndex);

struct BufferCount {
  int preferred = 0;
  int minimum = 0;
  int maximum = 0;
};

// The Buffers param (one block per buffer, sized and strided for `layout`, plain or shared
// memory) and the Header meta param that answer a negotiated format.
std::array<const spa_pod*, 2> buildBufferParams(spa_pod_builder& builder, const FrameLayout& layout,
                                                BufferCount count);

}  // namespace flowmere::pipewire
