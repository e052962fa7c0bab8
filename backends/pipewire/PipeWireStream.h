#pragma once

// One stream of the camera as a node of the user's PipeWire graph: what the sink and the source
// nodes share. A `pw_stream` on the stream's own PipeWireLoop; its negotiation (format, buffers),
// its state (a linked peer streaming or not) and its peers become the extension's
// authorisation, start, stop, format sets and streaming clients.
//
// Threads: the platform::Stream operations may be called from any thread. PipeWire callbacks run
// on the loop thread with the loop lock held; they never call into the extension, whose
// operations may wait: starts, stops, sets and authorisations are posted, in order, to the
// platform queue. Fields marked GUARDED_BY(loopLock_) belong to the loop thread or to a caller
// holding the loop lock; `clientsMutex_` guards the streaming clients, which the extension reads
// under its own locks.
//
// Node life: connectNode (loop lock) creates and connects the node; destroyNode (loop lock)
// takes every buffer back from whoever uses it and destroys the node. The service destroys every
// node it published before it stops the loops; the stream object may outlive both.

#include <pipewire/pipewire.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "BufferSlot.h"
#include "NodeParams.h"
#include "PipeWireLoop.h"
#include "SpaFormats.h"
#include "platform/Platform.h"

namespace flowmere::pipewire {

class PipeWireCameraService;

class PipeWireStream : public platform::Stream,
                       public std::enable_shared_from_this<PipeWireStream> {
 public:
  PipeWireStream(PipeWireCameraService& service, std::shared_ptr<PipeWireLoop> loop,
                 std::string localizedName, platform::Uuid streamID,
                 platform::StreamDirection direction, std::weak_ptr<platform::StreamSource> source);
  ~PipeWireStream() override;
  PipeWireStream(const PipeWireStream&) = delete;
  PipeWireStream& operator=(const PipeWireStream&) = delete;

  [[nodiscard]] const std::string& localizedName() const override { return localizedName_; }
  [[nodiscard]] const platform::Uuid& streamID() const override { return streamID_; }
  [[nodiscard]] platform::StreamDirection direction() const override { return direction_; }
  [[nodiscard]] platform::StreamClockType clockType() const override {
    return platform::StreamClockType::CMIOExtensionStreamClockTypeHostTime;
  }
  [[nodiscard]] std::vector<std::shared_ptr<const platform::Client>> streamingClients()
      const override;
  void notifyPropertiesChanged(const platform::PropertyStateMap& changes) override;
  void consumeSampleBufferFromClient(const std::shared_ptr<const platform::Client>& client,
                                     platform::ConsumeCompletion completion) override;
  void notifyScheduledOutputChanged(const platform::ScheduledOutput& output) override;
  void sendSampleBuffer(const std::shared_ptr<platform::SampleBuffer>& buffer,
                        platform::StreamDiscontinuityFlags discontinuity,
                        std::uint64_t hostTimeInNanoseconds) override;

  [[nodiscard]] bool isSink() const {
    return direction_ == platform::StreamDirection::CMIOExtensionStreamDirectionSink;
  }
  [[nodiscard]] const std::string& nodeName() const { return nodeName_; }
  [[nodiscard]] PipeWireLoop& loop() { return *loop_; }

  // Loop lock: creates and connects the node. `identity` holds the device's node properties.
  bool connectNode(const std::map<std::string, std::string>& identity);
  // Loop lock, at shutdown: a started stream is stopped as when its last peer leaves (the
  // extension's stop is posted to the platform queue).
  void stopStreaming();
  // Loop lock, at shutdown, once the loop's threads have stopped: takes every buffer back,
  // then disconnects and destroys the node.
  void destroyNode();
  // Loop thread: the loop's peer directory saw links or clients change.
  void peersChanged();

 protected:
  // What the two kinds of node do differently. All run on the loop thread with the lock held.
  [[nodiscard]] virtual pw_stream_flags connectFlags() const = 0;
  virtual void addNodeProperties(pw_properties* props) const = 0;
  // The EnumFormat params the node offers, built into `builder`; by default the catalogue.
  [[nodiscard]] virtual std::vector<const spa_pod*> formatOffers(
      spa_pod_builder& builder, const platform::StreamFormatList& formats) const {
    return buildFormatOffers(builder, formats, std::nullopt);
  }
  [[nodiscard]] virtual BufferCount bufferCount() const = 0;
  virtual void handleProcess() {}
  // A follower asked this node, as its driver, for a graph cycle.
  virtual void handleProcessRequest() {}
  // The extension refused the format a peer negotiated (its set rules). The node stays; it
  // decides how the peer is brought back in line.
  virtual void formatRefused(std::int64_t index, const std::string& message) = 0;
  // A linked peer started (true) or stopped (false) streaming.
  virtual void streamingChanged(bool /*streaming*/) {}
  // The node is about to be destroyed: whatever waits on it is answered, its timers removed.
  virtual void nodeDestroying() {}
  // PipeWire mapped a new buffer of the node (a link was set up).
  virtual void bufferAdded(const std::shared_ptr<BufferSlot>& /*slot*/) {}
  // The node was created: its timers are made now, so that a long-running service holds the
  // same descriptors from its start on.
  virtual void createTimers() {}
  // The registry saw the node's links or their clients change.
  virtual void linksChanged() {}

  // The catalogue of the extension's stream, or null once it is gone. Any thread.
  [[nodiscard]] std::shared_ptr<const platform::StreamFormatList> catalogue() const;
  void writeLog(std::string_view line);
  // Runs `work` on the platform queue, after everything posted before it. Any thread.
  void postToPlatform(platform::Work work);
  // Platform queue, in order: stops the extension's stream, sets `index`, and starts it again
  // for the streaming clients. For a peer that changed format while streaming.
  void postRestart(std::int64_t index) REQUIRES(loopLock_);
  // The slot of a buffer of this node, or null for one it does not know.
  [[nodiscard]] BufferSlot* slotFor(pw_buffer* buffer) const REQUIRES(loopLock_);
  // The node's buffers now (those of its current links).
  [[nodiscard]] const std::vector<std::shared_ptr<BufferSlot>>& slots() const REQUIRES(loopLock_) {
    return slots_;
  }

  PipeWireCameraService& service_;
  // Shared so that a frame released after the service has stopped (the last reference dropped
  // late on some thread) still finds a lock to take; a stopped loop runs nothing.
  const std::shared_ptr<PipeWireLoop> loop_;
  LoopLock& loopLock_;
  const std::weak_ptr<platform::StreamSource> source_;
  const std::string nodeName_;

  pw_stream* stream_ GUARDED_BY(loopLock_) = nullptr;
  pw_stream_state state_ GUARDED_BY(loopLock_) = PW_STREAM_STATE_UNCONNECTED;
  std::optional<FrameLayout> layout_ GUARDED_BY(loopLock_);  // of the negotiated format
  spa_video_info_raw videoInfo_ GUARDED_BY(loopLock_){};
  std::optional<std::int64_t> formatIndex_ GUARDED_BY(loopLock_);  // catalogue index of it

 private:
  static void onStateChanged(void* data, pw_stream_state old, pw_stream_state state,
                             const char* error);
  static void onParamChanged(void* data, std::uint32_t id, const spa_pod* param);
  static void onAddBuffer(void* data, pw_buffer* buffer);
  static void onRemoveBuffer(void* data, pw_buffer* buffer);
  static void onProcess(void* data);
  static void onCommand(void* data, const spa_command* command);
  static void onPeerTimeout(void* data, std::uint64_t expirations);

  void handleStateChanged(pw_stream_state old, pw_stream_state state, const char* error)
      REQUIRES(loopLock_);
  void handleFormat(const spa_pod* param) REQUIRES(loopLock_);
  void updateStreamingClients() REQUIRES(loopLock_);
  // Authorises the streaming clients (or `standIn` when there are none) and starts the stream.
  void postStart(std::shared_ptr<const platform::Client> standIn) REQUIRES(loopLock_);
  // The node stopped streaming, or is being stopped: answers what waits and posts the
  // extension's stop.
  void endStreaming() REQUIRES(loopLock_);

  const std::string localizedName_;
  const platform::Uuid streamID_;
  const platform::StreamDirection direction_;

  spa_hook listener_ GUARDED_BY(loopLock_){};
  std::vector<std::shared_ptr<BufferSlot>> slots_ GUARDED_BY(loopLock_);
  bool started_ GUARDED_BY(loopLock_) = false;  // the extension was asked to start
  // A sink link streams before the registry has told us whose it is: the start waits for the
  // peer (or `peerTimer_`) so that the producer is known and authorised when the stream starts.
  bool waitingForPeer_ GUARDED_BY(loopLock_) = false;
  spa_source* peerTimer_ GUARDED_BY(loopLock_) = nullptr;

  mutable platform::Mutex clientsMutex_;
  std::vector<std::shared_ptr<const platform::Client>> streamingClients_ GUARDED_BY(clientsMutex_);
};

}  // namespace flowmere::pipewire
