#pragma once

// The camera service on PipeWire: each stream the extension creates becomes a node of the user's
// PipeWire graph. The sink is an input node that producers link to (media.class Video/Sink); the
// source is an output node that camera clients capture (media.class Video/Source, media.role
// Camera). The device's identity travels as node properties.
//
// Threads:
// - the PipeWire loop thread (`pw_thread_loop`) runs every PipeWire callback with the loop lock
//   held. It never calls into the extension directly for anything that may wait: starts, stops,
//   sets and authorisations are posted, in order, to the platform queue.
// - the platform queue (a serial thread) makes those calls and answers consume requests.
// - the extension's own queues call `consumeSampleBufferFromClient` and `sendSampleBuffer`,
//   which take the loop lock only around dequeue, queue, trigger and the one copy into the
//   source's buffer.
// Lock order: the extension's locks may be held while a stream is notified of property changes,
// so notifications never take the loop lock; they post work to the loop thread instead.

#include <pipewire/pipewire.h>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "SpaFormats.h"
#include "platform/Platform.h"
#include "platform/ThreadAnnotations.h"

namespace flowmere::common {
class PosixFileManager;
class SqliteSettingsSuite;
}  // namespace flowmere::common

namespace flowmere::embedded {
class ThreadSerialQueue;
}

namespace flowmere::pipewire {

class PipeWireCameraService;
class PeerDirectory;

struct PipeWireOptions {
  // The PipeWire remote to connect to; empty for the user's default.
  std::string remoteName;
  // Node names are `nodeNamePrefix` + "-source" and + "-sink"; consumers and producers target
  // the nodes by these names.
  std::string nodeNamePrefix = "flowmere-camera";
  // Where application-group containers live; unset: the standard per-user location.
  std::optional<std::filesystem::path> containerParent;
  // Receives every log line; unset: standard error.
  std::function<void(std::string_view)> logSink;
  // Buffers requested for the sink's input; each stays with us until delivered or dropped.
  int sinkBufferCount = 8;
};

// The loop lock of a `pw_thread_loop`, as a capability the thread-safety analysis can follow.
// It is recursive: the loop thread already holds it while it runs callbacks.
class CAPABILITY("mutex") LoopLock {
 public:
  explicit LoopLock(pw_thread_loop* loop) : loop_(loop) {}
  void lock() ACQUIRE() { pw_thread_loop_lock(loop_); }
  void unlock() RELEASE() { pw_thread_loop_unlock(loop_); }
  // Tells the analysis that a PipeWire callback runs with the lock held.
  void assertHeld() const FLOWMERE_THREAD_ANNOTATION(assert_capability(this)) {}

 private:
  pw_thread_loop* loop_;
};

class SCOPED_CAPABILITY LoopLocker {
 public:
  explicit LoopLocker(LoopLock& lock) ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  ~LoopLocker() RELEASE() { lock_.unlock(); }
  LoopLocker(const LoopLocker&) = delete;
  LoopLocker& operator=(const LoopLocker&) = delete;

 private:
  LoopLock& lock_;
};

// One stream: a `pw_stream` node. Any thread may call the platform::Stream operations. Fields
// marked GUARDED_BY(loopLock_) belong to the loop thread or to a caller holding the loop lock;
// `clientsMutex_` guards the streaming clients, which the extension reads while holding its own
// locks.
class PipeWireStream final : public platform::Stream,
                             public std::enable_shared_from_this<PipeWireStream> {
 public:
  PipeWireStream(PipeWireCameraService& service, std::string localizedName, platform::Uuid streamID,
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

  // Loop thread: creates and connects the node. `identity` holds the device's node properties.
  bool connectNode(const std::map<std::string, std::string>& identity);
  // Loop thread: disconnects and destroys the node; held sink buffers stay valid until released.
  void destroyNode();
  // Loop thread: the node's id in the graph, or SPA_ID_INVALID before it is known.
  [[nodiscard]] std::uint32_t nodeID() const;
  // Loop thread: the peer directory saw links or clients change.
  void peersChanged();
  // Loop thread: whether a frame starting at `data` is one of ours whose memory PipeWire took
  // back (renegotiation or a destroyed node); such a frame must not be read any more.
  [[nodiscard]] bool holdsRevoked(const std::byte* data) const;

 private:
  // A sink buffer on its way through the relay; `revoked` once PipeWire takes its memory back.
  struct HeldBuffer {
    pw_buffer* buffer = nullptr;
    const std::byte* data = nullptr;  // the frame's first byte
    bool revoked = false;
  };

  static void onStateChanged(void* data, pw_stream_state old, pw_stream_state state,
                             const char* error);
  static void onParamChanged(void* data, std::uint32_t id, const spa_pod* param);
  static void onRemoveBuffer(void* data, pw_buffer* buffer);
  static void onProcess(void* data);

  void handleStateChanged(pw_stream_state old, pw_stream_state state, const char* error);
  void handleFormat(const spa_pod* param);
  // The catalogue as EnumFormat params built into `builder`, `preferredIndex` first when valid.
  std::vector<const spa_pod*> buildFormatOffers(spa_pod_builder& builder,
                                                std::optional<std::int64_t> preferredIndex) const;
  void offerFormats(std::optional<std::int64_t> preferredIndex);
  // The raw-video description of catalogue entry `index`; nothing when there is none.
  [[nodiscard]] std::optional<spa_video_info_raw> offeredFormatInfo(std::int64_t index) const;
  void answerBuffers(const FrameLayout& layout);
  void updateStreamingClients();
  void releaseHeldBuffer(const std::shared_ptr<HeldBuffer>& held);
  std::shared_ptr<platform::SampleBuffer> wrapSinkBuffer(pw_buffer* buffer,
                                                         std::uint64_t& sequenceNumber);
  void reconnectAfterRefusal(const std::string& message);

  PipeWireCameraService& service_;
  const std::string localizedName_;
  const platform::Uuid streamID_;
  const platform::StreamDirection direction_;
  const std::weak_ptr<platform::StreamSource> source_;
  const std::string nodeName_;

  LoopLock& loopLock_;
  pw_stream* stream_ GUARDED_BY(loopLock_) = nullptr;
  spa_hook listener_ GUARDED_BY(loopLock_){};
  std::map<std::string, std::string> identity_ GUARDED_BY(loopLock_);
  pw_stream_state state_ GUARDED_BY(loopLock_) = PW_STREAM_STATE_UNCONNECTED;
  std::optional<FrameLayout> layout_ GUARDED_BY(loopLock_);  // of the negotiated format
  spa_video_info_raw videoInfo_ GUARDED_BY(loopLock_){};
  std::optional<std::int64_t> offeredFirst_ GUARDED_BY(loopLock_);
  std::vector<std::shared_ptr<HeldBuffer>> held_ GUARDED_BY(loopLock_);
  std::uint64_t sentSequence_ GUARDED_BY(loopLock_) = 0;
  bool started_ GUARDED_BY(loopLock_) = false;  // the extension was asked to start

  mutable std::mutex clientsMutex_;
  std::vector<std::shared_ptr<const platform::Client>> streamingClients_;  // by clientsMutex_
};

// The device: holds its streams until the service publishes them. Main thread during start-up.
class PipeWireDevice final : public platform::Device {
 public:
  PipeWireDevice(std::string localizedName, platform::Uuid deviceID,
                 std::weak_ptr<platform::DeviceSource> source)
      : localizedName_(std::move(localizedName)), deviceID_(deviceID), source_(std::move(source)) {}
  [[nodiscard]] const std::string& localizedName() const override { return localizedName_; }
  [[nodiscard]] const platform::Uuid& deviceID() const override { return deviceID_; }
  platform::Status addStream(const std::shared_ptr<platform::Stream>& stream) override;

  [[nodiscard]] const std::vector<std::shared_ptr<PipeWireStream>>& streams() const {
    return streams_;
  }
  [[nodiscard]] std::shared_ptr<platform::DeviceSource> source() const { return source_.lock(); }

 private:
  const std::string localizedName_;
  const platform::Uuid deviceID_;
  const std::weak_ptr<platform::DeviceSource> source_;
  std::vector<std::shared_ptr<PipeWireStream>> streams_;
};

// The provider: holds its devices until the service publishes them. Main thread.
class PipeWireProvider final : public platform::Provider {
 public:
  explicit PipeWireProvider(std::weak_ptr<platform::ProviderSource> source)
      : source_(std::move(source)) {}
  platform::Status addDevice(const std::shared_ptr<platform::Device>& device) override;
  [[nodiscard]] const std::vector<std::shared_ptr<PipeWireDevice>>& devices() const {
    return devices_;
  }
  [[nodiscard]] std::shared_ptr<platform::ProviderSource> source() const { return source_.lock(); }

 private:
  const std::weak_ptr<platform::ProviderSource> source_;
  std::vector<std::shared_ptr<PipeWireDevice>> devices_;
};

// The platform on PipeWire. Created on the main thread; `shutdown` may be called from any
// thread (a signal-handling thread, typically) and makes `runMainRunLoop` return.
class PipeWireCameraService final : public platform::Platform {
 public:
  // Null (with the reason on standard error) when PipeWire cannot be reached.
  static std::shared_ptr<PipeWireCameraService> create(PipeWireOptions options);
  explicit PipeWireCameraService(PipeWireOptions options);
  ~PipeWireCameraService() override;
  PipeWireCameraService(const PipeWireCameraService&) = delete;
  PipeWireCameraService& operator=(const PipeWireCameraService&) = delete;

  std::shared_ptr<platform::Provider> createProvider(
      std::weak_ptr<platform::ProviderSource> source,
      std::shared_ptr<platform::SerialQueue> clientQueue) override;
  std::shared_ptr<platform::Device> createDevice(
      std::string localizedName, platform::Uuid deviceID, std::optional<std::string> legacyDeviceID,
      std::weak_ptr<platform::DeviceSource> source) override;
  std::shared_ptr<platform::Stream> createStream(
      std::string localizedName, platform::Uuid streamID, platform::StreamDirection direction,
      platform::StreamClockType clockType, std::weak_ptr<platform::StreamSource> source) override;
  void startService(const std::shared_ptr<platform::Provider>& provider) override;
  void runMainRunLoop() override;

  std::shared_ptr<platform::SerialQueue> createSerialQueue(
      const platform::QueueAttributes& attributes) override;
  std::shared_ptr<platform::SettingsSuite> openSettingsSuite(std::string_view suiteName) override;
  platform::FileManager& fileManager() override;
  const platform::Clock& clock() override;
  platform::Log& log() override;

  // Makes `runMainRunLoop` return; the nodes are disconnected and the settings stored first.
  void shutdown();

  // For the streams.
  [[nodiscard]] const PipeWireOptions& options() const { return options_; }
  LoopLock& loopLock() FLOWMERE_THREAD_ANNOTATION(lock_returned(loopLock_)) { return loopLock_; }
  pw_core* core() REQUIRES(loopLock_) { return core_; }
  PeerDirectory& peers() { return *peers_; }
  // Runs `work` on the platform queue, after everything posted before it.
  void postToPlatform(platform::Work work);
  // Runs `work` on the loop thread with the loop lock held; never waits.
  void postToLoop(std::function<void()> work);
  void writeLog(std::string_view line);
  // Loop thread: whether `data` belongs to a sink frame whose memory is no longer valid.
  bool isRevoked(const std::byte* data) REQUIRES(loopLock_);
  // The streams that are nodes now (loop thread).
  std::vector<std::shared_ptr<PipeWireStream>> publishedStreams() REQUIRES(loopLock_);

 private:
  class ServiceLog;
  static void onLoopWork(void* data, std::uint64_t count);
  static void onCoreError(void* data, std::uint32_t id, int seq, int res, const char* message);

  bool connect();
  void runLoopWork();
  void disconnectNodes();

  PipeWireOptions options_;
  pw_thread_loop* loop_ = nullptr;
  LoopLock loopLock_{nullptr};
  pw_context* context_ GUARDED_BY(loopLock_) = nullptr;
  pw_core* core_ GUARDED_BY(loopLock_) = nullptr;
  spa_hook coreListener_ GUARDED_BY(loopLock_){};
  std::unique_ptr<PeerDirectory> peers_;
  std::vector<std::shared_ptr<PipeWireStream>> published_ GUARDED_BY(loopLock_);
  std::shared_ptr<PipeWireProvider> provider_;  // main thread

  // Work posted to the loop thread from any thread, and the event that wakes the loop for it. The
  // event lives from connect() until the destructor, which clears it before the loop goes away.
  platform::Mutex workMutex_;
  std::vector<std::function<void()>> loopWork_ GUARDED_BY(workMutex_);
  spa_source* workEvent_ GUARDED_BY(workMutex_) = nullptr;

  std::shared_ptr<embedded::ThreadSerialQueue> platformQueue_;
  std::unique_ptr<common::PosixFileManager> fileManager_;
  std::unique_ptr<platform::Clock> clock_;
  std::unique_ptr<ServiceLog> log_;

  std::mutex suitesMutex_;
  std::map<std::filesystem::path, std::shared_ptr<common::SqliteSettingsSuite>> suites_;

  std::mutex runLoopMutex_;
  std::condition_variable runLoopWake_;
  bool shutdownRequested_ = false;  // guarded by runLoopMutex_
};

}  // namespace flowmere::pipewire
