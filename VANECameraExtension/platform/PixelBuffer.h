#pragma once

// Pixel buffers: planes of pixel memory plus attachments. Shared ownership
// (std::shared_ptr<PixelBuffer>); the memory may be the buffer's own or may belong to a backend,
// which then learns through the release callback when the last reference is gone. Nothing in
// the relay copies the planes.
//
// Threading: dimensions and planes are immutable. Attachments are not synchronised: a buffer is
// handed from the producer to the consume queue and on to clients through queues, which order
// the accesses.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "platform/ConstantString.h"
#include "platform/FourCharCode.h"
#include "platform/InlineFunction.h"

namespace flowmere::platform {

// Attachment keys.
inline constexpr ConstantString kCVImageBufferColorPrimariesKey = "CVImageBufferColorPrimaries";
inline constexpr ConstantString kCVImageBufferTransferFunctionKey = "CVImageBufferTransferFunction";
inline constexpr ConstantString kCVImageBufferYCbCrMatrixKey = "CVImageBufferYCbCrMatrix";

enum class AttachmentMode : std::uint32_t {
  kCVAttachmentMode_ShouldNotPropagate = 0,
  kCVAttachmentMode_ShouldPropagate = 1,
};

struct Attachment {
  ConstantString key;
  ConstantString value;
  AttachmentMode mode = AttachmentMode::kCVAttachmentMode_ShouldNotPropagate;
  friend bool operator==(const Attachment&, const Attachment&) = default;
};

struct PixelBufferPlane {
  std::byte* data = nullptr;
  std::size_t bytesPerRow = 0;
  std::uint32_t width = 0;   // in samples of this plane
  std::uint32_t height = 0;  // in rows
};

// Memory that its owner may take back before the pixel buffer that wraps it is released: a
// PipeWire link that is renegotiated or removed unmaps its buffers. Code that reads the planes
// outside the relay's own path (a backend copying a frame into its clients' buffers) brackets
// the read with `beginAccess` and `endAccess`; the owner waits for such readers before it takes
// the memory back, and `beginAccess` refuses once it has. The relay itself never reads planes.
// Any thread; implementations say which lock they use.
class ExternalMemory {
 public:
  virtual ~ExternalMemory() = default;
  // True when the memory is still there; it then stays there until `endAccess`.
  [[nodiscard]] virtual bool beginAccess() = 0;
  virtual void endAccess() = 0;
};

class PixelBuffer {
 public:
  static constexpr std::size_t kMaxPlanes = 3;
  static constexpr std::size_t kMaxAttachments = 8;
  using ReleaseCallback = InlineFunction<void(), 48>;

  // Allocates zeroed memory laid out for the pixel format (BGRA: one plane of width x 4 bytes
  // per row; x420: a luma plane and a half-height interleaved chroma plane, 2 bytes per sample).
  static std::shared_ptr<PixelBuffer> create(std::uint32_t width, std::uint32_t height,
                                             FourCharCode pixelFormat);
  // Wraps planes whose memory belongs to someone else. `onRelease` runs when the last reference
  // goes, on whichever thread drops it. `memory`, when given, is how readers learn whether the
  // owner has taken the planes back (see ExternalMemory); the buffer holds it until released.
  static std::shared_ptr<PixelBuffer> wrap(std::uint32_t width, std::uint32_t height,
                                           FourCharCode pixelFormat,
                                           std::span<const PixelBufferPlane> planes,
                                           ReleaseCallback onRelease,
                                           std::shared_ptr<ExternalMemory> memory = nullptr);

  PixelBuffer(const PixelBuffer&) = delete;
  PixelBuffer& operator=(const PixelBuffer&) = delete;
  ~PixelBuffer();

  [[nodiscard]] std::uint32_t width() const { return width_; }
  [[nodiscard]] std::uint32_t height() const { return height_; }
  [[nodiscard]] FourCharCode pixelFormat() const { return pixelFormat_; }
  [[nodiscard]] std::size_t planeCount() const { return planeCount_; }
  [[nodiscard]] const PixelBufferPlane& plane(std::size_t index) const { return planes_[index]; }
  // Total bytes of pixel memory over all planes.
  [[nodiscard]] std::size_t dataSize() const;
  // The owner's guard over wrapped memory; null for memory that stays until release.
  [[nodiscard]] ExternalMemory* externalMemory() const { return externalMemory_.get(); }

  // Sets or replaces an attachment. Returns false (and stores nothing) when the table is full.
  bool setAttachment(ConstantString key, ConstantString value, AttachmentMode mode);
  [[nodiscard]] std::optional<Attachment> attachment(ConstantString key) const;
  [[nodiscard]] std::span<const Attachment> attachments() const {
    return {attachments_.data(), attachmentCount_};
  }
  void removeAllAttachments() { attachmentCount_ = 0; }

 private:
  PixelBuffer() = default;

  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  FourCharCode pixelFormat_ = 0;
  std::array<PixelBufferPlane, kMaxPlanes> planes_{};
  std::size_t planeCount_ = 0;
  std::unique_ptr<std::byte[]> ownedMemory_;
  ReleaseCallback onRelease_;
  std::shared_ptr<ExternalMemory> externalMemory_;
  std::array<Attachment, kMaxAttachments> attachments_{};
  std::size_t attachmentCount_ = 0;
};

}  // namespace flowmere::platform
