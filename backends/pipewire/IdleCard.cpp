#include "IdleCard.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

namespace flowmere::pipewire {

namespace {

constexpr std::uint8_t kBackground[3] = {0x12, 0x16, 0x1f};  // R, G, B
constexpr std::uint8_t kPanel[3] = {0x1b, 0x21, 0x2e};
constexpr std::uint8_t kTitle[3] = {0xf2, 0xf4, 0xf8};
constexpr std::uint8_t kSubtitle[3] = {0xa9, 0xb3, 0xc6};
constexpr std::uint8_t kTrack[3] = {0x2a, 0x33, 0x45};
constexpr std::uint8_t kAccent[3] = {0x4f, 0x8c, 0xff};
// P010 luma of the marker dots: light enough to read as a set counter bit (above 3/4 of the
// range), well below peak.
constexpr std::uint16_t kMarkerLuma = 760;

struct SurfaceDeleter {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct ContextDeleter {
  void operator()(cairo_t* context) const { cairo_destroy(context); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;
using Context = std::unique_ptr<cairo_t, ContextDeleter>;

void setColour(cairo_t* context, const std::uint8_t (&rgb)[3]) {
  cairo_set_source_rgb(context, rgb[0] / 255.0, rgb[1] / 255.0, rgb[2] / 255.0);
}

void roundedRectangle(cairo_t* context, double x, double y, double width, double height,
                      double radius) {
  cairo_new_sub_path(context);
  cairo_arc(context, x + width - radius, y + radius, radius, -M_PI / 2, 0);
  cairo_arc(context, x + width - radius, y + height - radius, radius, 0, M_PI / 2);
  cairo_arc(context, x + radius, y + height - radius, radius, M_PI / 2, M_PI);
  cairo_arc(context, x + radius, y + radius, radius, M_PI, 3 * M_PI / 2);
  cairo_close_path(context);
}

void centredText(cairo_t* context, const std::string& text, double size, double centreX,
                 double baseline, cairo_font_weight_t weight) {
  cairo_select_font_face(context, "sans-serif", CAIRO_FONT_SLANT_NORMAL, weight);
  cairo_set_font_size(context, size);
  cairo_text_extents_t extents{};
  cairo_text_extents(context, text.c_str(), &extents);
  cairo_move_to(context, centreX - extents.width / 2 - extents.x_bearing, baseline);
  // As a path, not glyph images: Cairo keeps the glyph images of every size it drew for ever,
  // and each format's card has its own size.
  cairo_text_path(context, text.c_str());
  cairo_fill(context);
}

// The drawn card: a panel with the title and the waiting line, and the bar's empty track.
void drawCard(cairo_t* context, double width, double height, const std::string& title) {
  setColour(context, kBackground);
  cairo_paint(context);
  const double unit = std::min(width / 16, height / 9);
  const double panelWidth = unit * 11;
  const double panelHeight = unit * 5;
  setColour(context, kPanel);
  roundedRectangle(context, (width - panelWidth) / 2, (height - panelHeight) / 2, panelWidth,
                   panelHeight, unit * 0.4);
  cairo_fill(context);
  setColour(context, kTitle);
  centredText(context, title, unit * 0.8, width / 2, height / 2 - unit * 0.55,
              CAIRO_FONT_WEIGHT_BOLD);
  setColour(context, kSubtitle);
  centredText(context, "Waiting for the video source", unit * 0.45, width / 2,
              height / 2 + unit * 0.35, CAIRO_FONT_WEIGHT_NORMAL);
}

// The user's picture, scaled to fit and centred on the background colour. False when it cannot
// be read as a PNG.
bool drawPicture(cairo_t* context, double width, double height,
                 const std::filesystem::path& picture, std::string& problem) {
  Surface image(cairo_image_surface_create_from_png(picture.c_str()));
  const cairo_status_t status = cairo_surface_status(image.get());
  if (status != CAIRO_STATUS_SUCCESS) {
    problem = picture.string() + ": " + cairo_status_to_string(status);
    return false;
  }
  const double imageWidth = cairo_image_surface_get_width(image.get());
  const double imageHeight = cairo_image_surface_get_height(image.get());
  if (imageWidth < 1 || imageHeight < 1) {
    problem = picture.string() + ": empty picture";
    return false;
  }
  setColour(context, kBackground);
  cairo_paint(context);
  const double scale = std::min(width / imageWidth, height / imageHeight);
  cairo_save(context);
  cairo_translate(context, (width - imageWidth * scale) / 2, (height - imageHeight * scale) / 2);
  cairo_scale(context, scale, scale);
  cairo_set_source_surface(context, image.get(), 0, 0);
  cairo_pattern_set_filter(cairo_get_source(context), CAIRO_FILTER_GOOD);
  cairo_paint(context);
  cairo_restore(context);
  return true;
}

std::uint32_t packBgra(const std::uint8_t (&rgb)[3]) {
  return static_cast<std::uint32_t>(rgb[2]) | static_cast<std::uint32_t>(rgb[1]) << 8U |
         static_cast<std::uint32_t>(rgb[0]) << 16U | 0xFF00'0000U;
}

void store16(std::byte* at, std::uint16_t value10) {
  const auto stored = static_cast<std::uint16_t>(value10 << 6U);
  std::memcpy(at, &stored, sizeof stored);
}

// The ARGB32 picture (opaque; memory order B, G, R, A) as P010 in `layout`.
void convertToP010(const std::uint8_t* argb, std::size_t argbStride, const FrameLayout& layout,
                   HdrTransfer transfer, std::byte* out) {
  const HdrColor colour(transfer);
  // Most of a card is a few flat colours: a pixel like the one before reuses its encoding.
  std::uint32_t lastPixel = 0;
  Rgb10 lastEncoded = colour.encode(0, 0, 0);
  const auto pixelAt = [&](std::uint32_t x, std::uint32_t y) {
    const std::uint8_t* pixel = argb + y * argbStride + std::size_t{x} * 4;
    std::uint32_t packed = 0;
    std::memcpy(&packed, pixel, sizeof packed);
    packed &= 0x00FF'FFFFU;
    if (packed != lastPixel) {
      lastPixel = packed;
      lastEncoded = colour.encode(pixel[2], pixel[1], pixel[0]);
    }
    return lastEncoded;
  };
  std::byte* chroma = out + layout.planeOffset(1);
  for (std::uint32_t y = 0; y / 2 < layout.planeHeight(1); y += 2) {
    const std::uint32_t below = std::min(y + 1, layout.height - 1);
    for (std::uint32_t x = 0; x < layout.width; x += 2) {
      const std::uint32_t right = std::min(x + 1, layout.width - 1);
      const Rgb10 block[4] = {pixelAt(x, y), pixelAt(right, y), pixelAt(x, below),
                              pixelAt(right, below)};
      const std::uint32_t rows[2] = {y, below};
      for (int index = 0; index < 4; ++index) {
        const std::uint32_t row = rows[index / 2];
        const std::uint32_t column = index % 2 == 0 ? x : right;
        store16(out + static_cast<std::size_t>(row) * layout.stride + std::size_t{column} * 2,
                HdrColor::toYCbCr(block[index]).y);
      }
      Rgb10 mean;
      for (const Rgb10& one : block) {
        mean.r += one.r / 4;
        mean.g += one.g / 4;
        mean.b += one.b / 4;
      }
      const YCbCr10 sample = HdrColor::toYCbCr(mean);
      std::byte* pair =
          chroma + static_cast<std::size_t>(y / 2) * layout.stride + std::size_t{x} * 2;
      store16(pair, sample.cb);
      store16(pair + 2, sample.cr);
    }
  }
}

}  // namespace

void IdleCard::prepareText() {
  Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, 16, 16));
  Context context(cairo_create(surface.get()));
  for (const auto weight : {CAIRO_FONT_WEIGHT_BOLD, CAIRO_FONT_WEIGHT_NORMAL}) {
    cairo_select_font_face(context.get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL, weight);
    cairo_set_font_size(context.get(), 12);
    cairo_text_extents_t extents{};
    cairo_text_extents(context.get(), "Flowmere", &extents);
    cairo_move_to(context.get(), 0, 12);
    cairo_show_text(context.get(), "Flowmere");
  }
}

std::optional<IdleCard> IdleCard::draw(const FrameLayout& layout,
                                       std::optional<HdrTransfer> transfer,
                                       const std::string& title,
                                       const std::optional<std::filesystem::path>& picture,
                                       std::string& problem) {
  const bool p010 =
      layout.pixelFormat == platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange;
  if ((layout.pixelFormat != platform::kCVPixelFormatType_32BGRA && !p010) || layout.width < 2 ||
      layout.height < 2 || (p010 && !transfer)) {
    return std::nullopt;
  }
  const auto width = static_cast<int>(layout.width);
  const auto height = static_cast<int>(layout.height);
  Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height));
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
    return std::nullopt;
  }
  {
    Context context(cairo_create(surface.get()));
    if (!picture || !drawPicture(context.get(), width, height, *picture, problem)) {
      drawCard(context.get(), width, height, title);
    }
  }
  cairo_surface_flush(surface.get());
  auto* argb = cairo_image_surface_get_data(surface.get());
  const auto argbStride = static_cast<std::size_t>(cairo_image_surface_get_stride(surface.get()));

  // The dots, in the drawn picture so that P010 converts them with the rest.
  const std::uint32_t block = layout.width / kMarkerDots;
  if (block >= 2 && layout.height > kMarkerRow + 1) {
    for (std::uint32_t dot = 0; dot < kMarkerDots; ++dot) {
      const std::uint32_t x = (dot * block + block / 2) & ~1U;
      for (std::uint32_t row = kMarkerRow; row < kMarkerRow + 2; ++row) {
        std::memset(argb + row * argbStride + std::size_t{x} * 4, 0xFF, 8);
      }
    }
  }

  IdleCard card;
  card.layout_ = layout;
  card.pixels_.assign(layout.frameSize, std::byte{0});
  if (p010) {
    convertToP010(argb, argbStride, layout, *transfer, card.pixels_.data());
    // Counter bits read from luma alone: keep the dots light whatever the transfer.
    if (block >= 2 && layout.height > kMarkerRow + 1) {
      for (std::uint32_t dot = 0; dot < kMarkerDots; ++dot) {
        const std::uint32_t x = (dot * block + block / 2) & ~1U;
        for (std::uint32_t row = kMarkerRow; row < kMarkerRow + 2; ++row) {
          std::byte* at = card.pixels_.data() + static_cast<std::size_t>(row) * layout.stride +
                          std::size_t{x} * 2;
          store16(at, kMarkerLuma);
          store16(at + 2, kMarkerLuma);
        }
      }
    }
  } else {
    for (std::uint32_t y = 0; y < layout.height; ++y) {
      std::memcpy(card.pixels_.data() + static_cast<std::size_t>(y) * layout.stride,
                  argb + y * argbStride, static_cast<std::size_t>(layout.width) * 4);
    }
    // RGB24 leaves the alpha byte undefined: make every pixel opaque.
    for (std::uint32_t y = 0; y < layout.height; ++y) {
      auto* row = card.pixels_.data() + static_cast<std::size_t>(y) * layout.stride;
      for (std::uint32_t x = 0; x < layout.width; ++x) {
        row[x * 4 + 3] = std::byte{0xFF};
      }
    }
  }

  // The bar: 40 % of the width, under the panel, a little taller on larger pictures.
  card.barWidth_ = (layout.width * 2 / 5) & ~1U;
  card.barHeight_ = std::max<std::uint32_t>(4, (layout.height / 90) & ~1U);
  card.barX_ = ((layout.width - card.barWidth_) / 2) & ~1U;
  card.barY_ = ((layout.height * 7 / 10)) & ~1U;
  if (card.barY_ + card.barHeight_ > layout.height) {
    card.barHeight_ = 0;  // too small a picture for a bar: the dots alone move nothing
  }
  const HdrColor hdr(transfer.value_or(HdrTransfer::kPq));
  card.track_ = Colour{packBgra(kTrack), hdr.convert(kTrack[0], kTrack[1], kTrack[2])};
  card.accent_ = Colour{packBgra(kAccent), hdr.convert(kAccent[0], kAccent[1], kAccent[2])};
  card.drawBar(card.pixels_.data(), 0);
  return card;
}

void IdleCard::fillSpan(std::byte* frame, std::uint32_t x0, std::uint32_t x1,
                        const Colour& colour) const {
  if (x1 <= x0) {
    return;
  }
  const bool p010 = layout_.pixelFormat != platform::kCVPixelFormatType_32BGRA;
  for (std::uint32_t y = barY_; y < barY_ + barHeight_; ++y) {
    std::byte* row = frame + static_cast<std::size_t>(y) * layout_.stride;
    for (std::uint32_t x = x0; x < x1; ++x) {
      if (p010) {
        store16(row + std::size_t{x} * 2, colour.hdr.y);
      } else {
        std::memcpy(row + std::size_t{x} * 4, &colour.bgra, 4);
      }
    }
  }
  if (p010) {
    std::byte* chroma = frame + layout_.planeOffset(1);
    for (std::uint32_t y = barY_ / 2; y < (barY_ + barHeight_) / 2; ++y) {
      std::byte* row = chroma + static_cast<std::size_t>(y) * layout_.stride;
      for (std::uint32_t x = x0 & ~1U; x < x1; x += 2) {
        store16(row + std::size_t{x} * 2, colour.hdr.cb);
        store16(row + std::size_t{x} * 2 + 2, colour.hdr.cr);
      }
    }
  }
}

void IdleCard::drawBar(std::byte* frame, std::int64_t nanoseconds) const {
  if (barHeight_ == 0) {
    return;
  }
  // A segment a quarter of the bar long slides across it and wraps round.
  const std::uint32_t segment = (barWidth_ / 4) & ~1U;
  const std::int64_t travel = std::int64_t{barWidth_} + segment;
  const std::int64_t phase =
      ((nanoseconds % kBarPeriodNanoseconds) + kBarPeriodNanoseconds) % kBarPeriodNanoseconds;
  const std::int64_t head = phase * travel / kBarPeriodNanoseconds;  // 0 .. travel
  const auto start = static_cast<std::uint32_t>(std::max<std::int64_t>(head - segment, 0)) & ~1U;
  const auto end = static_cast<std::uint32_t>(std::min<std::int64_t>(head, barWidth_)) & ~1U;
  fillSpan(frame, barX_, barX_ + barWidth_, track_);
  fillSpan(frame, barX_ + start, barX_ + end, accent_);
}

}  // namespace flowmere::pipewire
