#pragma once

// The format catalogue: the fixed, ordered list of ten video formats that both streams offer.
// Six 8-bit BGRA formats (landscape and portrait) and four 10-bit 4:2:0 HDR formats in two sizes,
// each in an HLG and a PQ variant; all at 30 frames per second. A format index is a position in
// this list, counted from 0, and means the same format on both streams.
//
// Built once per device source; immutable afterwards and shared by both streams; any thread.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/StreamFormat.h"

namespace flowmere {

inline constexpr std::size_t kFormatCatalogueSize = 10;

// Builds the ten entries in catalogue order. Never returns a shorter list: if the platform could
// not describe an entry the process stops, because every index published to clients must exist.
std::shared_ptr<const platform::StreamFormatList> makeFormatCatalogue();

// True when `index` names an entry of `formats`.
inline bool isValidFormatIndex(const platform::StreamFormatList& formats, std::int64_t index) {
  return index >= 0 && static_cast<std::uint64_t>(index) < formats.size();
}

}  // namespace flowmere
