#pragma once

// The interface of the separate audio helper process that the producer application talks to.
// Declared beside the camera's types so both sides share one definition; nothing in the camera
// relay calls it. Methods return nothing and answer, where they answer, through a reply callback.

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace flowmere {

class FlowmereAVAudioHelperProtocol {
 public:
  virtual ~FlowmereAVAudioHelperProtocol() = default;

  virtual void hello(std::function<void(std::string)> reply) = 0;
  virtual void configureAudioWithSlot(std::int64_t slot, double sampleRate,
                                      std::int64_t channelCount,
                                      std::function<void(bool)> reply) = 0;
  virtual void sendAudioPacket(std::span<const std::byte> packet, std::int64_t slot,
                               std::uint32_t frameCount, std::uint64_t hostTime,
                               std::uint64_t sequenceNumber) = 0;
  virtual void resetAudioWithSlot(std::int64_t slot) = 0;
  virtual void fetchStatsWithSlot(
      std::int64_t slot,
      std::function<void(std::uint64_t, std::uint64_t, std::uint64_t)> reply) = 0;
  virtual void repairAudioRingPermissions(std::function<void(bool, std::string)> reply) = 0;
  virtual void installAudioPluginFrom(std::string path,
                                      std::function<void(bool, std::string)> reply) = 0;
  virtual void uninstallAudioPlugin(std::function<void(bool, std::string)> reply) = 0;
};

}  // namespace flowmere
