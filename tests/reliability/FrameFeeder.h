#pragma once

// A producer for the fault-injection tests: pushes frames of one catalogue format into the sink
// at a fixed rate in virtual time, each at the moment its time stamp names (stamps k/fps from the
// feeder's start), advancing the embedded service's clock so that whatever falls due in between
// runs. It cycles through a few pixel buffers, as a real producer's pool would. Frames whose time
// has passed while the feeder was not feeding are skipped, as a paused producer's would be, so
// their stamps and sequence numbers are never used.
//
// Threading: the test's thread only (the service must be in virtual time). The service and the
// producer client are borrowed for the feeder's life.

#include <cstdint>
#include <memory>
#include <vector>

#include "embedded/EmbeddedCameraService.h"
#include "platform/PixelBuffer.h"

namespace flowmere::reliability {

class FrameFeeder {
 public:
  FrameFeeder(embedded::EmbeddedCameraService& service,
              std::shared_ptr<const platform::Client> producer, std::size_t formatIndex,
              std::int32_t fps = 30);

  // Pushes the frames due within the next `seconds` of virtual time, then advances to its end.
  void feedFor(double seconds);
  // Advances virtual time without pushing.
  void idleFor(double seconds);

  [[nodiscard]] std::uint64_t pushed() const { return pushed_; }
  // Pushes the service refused because the producer queue already held three buffers.
  [[nodiscard]] std::uint64_t refused() const { return refused_; }
  // The sequence numbers of the accepted pushes, in order.
  [[nodiscard]] const std::vector<std::uint64_t>& acceptedSequenceNumbers() const {
    return accepted_;
  }

 private:
  [[nodiscard]] std::int64_t frameTime(std::int64_t index) const;

  embedded::EmbeddedCameraService& service_;
  const std::shared_ptr<const platform::Client> producer_;
  const std::int32_t fps_;
  const std::int64_t start_;
  std::vector<std::shared_ptr<platform::PixelBuffer>> pool_;
  std::int64_t next_ = 0;
  std::uint64_t pushed_ = 0;
  std::uint64_t refused_ = 0;
  std::vector<std::uint64_t> accepted_;
};

}  // namespace flowmere::reliability
