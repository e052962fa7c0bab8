#pragma once

// The picture the camera shows while no producer sends frames: a card with the camera's name,
// "Waiting for the video source" and a bar that moves, so that a person in a call sees a live
// camera rather than a frozen or black one. A PNG of the user's replaces the drawn card, scaled
// to fit; the bar moves over it too.
//
// A card is drawn once per format, in the format's own pixels (P010 through HdrColor at
// reference white); each frame then costs a copy of the card into a buffer that does not hold it
// yet, and the bar's few rows. Along its top edge the card carries 32 light dots where the
// producer's test pattern writes its frame counter, which reads as `kIdleCounter`: test clients
// tell the idle picture from relayed frames by it.
//
// Immutable once drawn: `drawBar` may run on any thread.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "HdrColor.h"
#include "SpaFormats.h"

namespace flowmere::pipewire {

class IdleCard {
 public:
  // The frame number the dots stand for (all 32 counter bits set).
  static constexpr std::uint32_t kIdleCounter = 0xFFFF'FFFF;
  // Where the dots lie: the centre row of the 16 counter rows, one dot in each of 32 blocks.
  static constexpr std::uint32_t kMarkerRow = 8;
  static constexpr std::uint32_t kMarkerDots = 32;
  // How long the bar takes to cross once.
  static constexpr std::int64_t kBarPeriodNanoseconds = 2'000'000'000;

  // Loads what drawing text needs (the font configuration and a font), so that the first card
  // drawn later opens no file and a long-running process keeps the same ones open. Main thread,
  // at start-up.
  static void prepareText();

  // Draws the card for `layout` (BGRA, or P010 with `transfer`), titled `title`. With `picture`
  // set, that PNG is shown instead of the drawn card; when it cannot be read the card is drawn
  // and `problem` says why. Null when the layout is not BGRA or P010.
  static std::optional<IdleCard> draw(const FrameLayout& layout,
                                      std::optional<HdrTransfer> transfer, const std::string& title,
                                      const std::optional<std::filesystem::path>& picture,
                                      std::string& problem);

  [[nodiscard]] const FrameLayout& layout() const { return layout_; }
  // The whole frame, `layout().frameSize` bytes, bar at its start position.
  [[nodiscard]] const std::vector<std::byte>& pixels() const { return pixels_; }
  // Redraws the bar of `frame` (which holds this card) for `nanoseconds` on any steady clock.
  void drawBar(std::byte* frame, std::int64_t nanoseconds) const;

 private:
  // A colour in both of the card's pixel formats.
  struct Colour {
    std::uint32_t bgra = 0;  // as stored: B, G, R, A in memory order
    YCbCr10 hdr;
  };
  IdleCard() = default;
  void fillSpan(std::byte* frame, std::uint32_t x0, std::uint32_t x1, const Colour& colour) const;

  FrameLayout layout_;
  std::vector<std::byte> pixels_;
  std::uint32_t barX_ = 0;  // the bar's box, even-aligned for P010's chroma
  std::uint32_t barY_ = 0;
  std::uint32_t barWidth_ = 0;
  std::uint32_t barHeight_ = 0;
  Colour track_;
  Colour accent_;
};

}  // namespace flowmere::pipewire
