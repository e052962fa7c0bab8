#pragma once

// A moving test pattern with a visible frame counter, drawn into BGRA or 10-bit 4:2:0 buffers.

#include <cstdint>

#include "platform/PixelBuffer.h"

namespace flowmere::sim {

// Draws frame `frameNumber` of the pattern: a colour ramp, a bar that moves one step per frame,
// and the frame number in large digits at the top left.
void drawTestPattern(platform::PixelBuffer& buffer, std::uint64_t frameNumber);

}  // namespace flowmere::sim
