#pragma once

// The camera service on PipeWire: each stream the extension creates becomes a node of the user's
// PipeWire graph. The sink is an input node that producers link to (media.class Video/Sink); the
// source is an output node that camera clients capture (media.class Video/Source, media.role
// Camera). The device's identity travels as node properties.
//
// Threads (docs/threading.md draws them):
// - two PipeWire loops, one per node (PipeWireLoop), each with its loop thread and data thread:
//   a client linking to the source never delays the producer's frames on the sink.
// - the platform queue (a serial thread) calls into the extension: authorisations, starts,
//   stops, format sets, and the completions of consume requests.
// - the extension's own queues call consumeSampleBufferFromClient and sendSampleBuffer; those
//   take a node's loop lock only around calls on its `pw_stream`.
// Lock order: the extension's locks may be held while a stream is notified of property changes,
// so notifications never take a loop lock; they post work to the loop thread instead. No thread
// holds both loop locks at once.

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "PipeWireDevice.h"
#include "PipeWireLoop.h"
#include "PipeWireStream.h"
#include "platform/Platform.h"

namespace flowmere::common {
class LineLog;
class ThreadSerialQueue;
class WriteBehindFileManager;
class SqliteSettingsSuite;
}  // namespace flowmere::common

namespace flowmere::pipewire {

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
  // A PNG shown instead of the drawn idle card while no producer sends frames; unset: the card.
  std::optional<std::filesystem::path> idlePicture;
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

  enum class ShutdownReason { kRequested, kPipeWireLost };
  // The exit status after PipeWire went away: the service cannot go on, and a service manager
  // that restarts failed services starts it again (EX_UNAVAILABLE).
  static constexpr int kExitPipeWireLost = 69;

  // Makes `runMainRunLoop` return: the started streams are stopped, the nodes removed, the
  // platform queue drained and the settings stored first. Any thread; the first reason holds.
  void shutdown(ShutdownReason reason = ShutdownReason::kRequested);
  // After `runMainRunLoop`: 0 after a requested shutdown, kExitPipeWireLost when PipeWire went
  // away.
  [[nodiscard]] int exitStatus() const;

  // For the streams. Any thread.
  [[nodiscard]] const PipeWireOptions& options() const { return options_; }
  // Runs `work` on the platform queue, after everything posted before it.
  void postToPlatform(platform::Work work);
  void writeLog(std::string_view line);
  // The camera's name (the device's), for the idle picture. Any thread.
  [[nodiscard]] std::string cameraName() const;
  // Sink loop thread: the producer's format while a producer streams, none when it stops; the
  // source node offers only that format meanwhile.
  void producerFormatChanged(std::optional<std::int64_t> index);

 private:
  bool connect();
  void stopNodes();
  // Waits until the platform queue has run everything posted before this call.
  void drainPlatformQueue();
  // Loop thread of `loop`: tells that loop's streams that their peers changed.
  void peersChanged(PipeWireLoop& loop);

  PipeWireOptions options_;
  std::unique_ptr<common::LineLog> log_;
  std::shared_ptr<PipeWireLoop> sinkLoop_;
  std::shared_ptr<PipeWireLoop> sourceLoop_;
  std::shared_ptr<PipeWireProvider> provider_;  // main thread
  mutable platform::Mutex cameraNameMutex_;
  std::string cameraName_ GUARDED_BY(cameraNameMutex_);

  // The streams that are nodes; written on the main thread during start-up, read by the loops.
  platform::Mutex publishedMutex_;
  std::vector<std::shared_ptr<PipeWireStream>> published_ GUARDED_BY(publishedMutex_);

  std::shared_ptr<common::ThreadSerialQueue> platformQueue_;
  std::unique_ptr<common::WriteBehindFileManager> fileManager_;
  std::unique_ptr<platform::Clock> clock_;

  platform::Mutex suitesMutex_;
  std::map<std::filesystem::path, std::shared_ptr<common::SqliteSettingsSuite>> suites_
      GUARDED_BY(suitesMutex_);

  mutable platform::Mutex runLoopMutex_;
  platform::ConditionVariable runLoopWake_;
  bool shutdownRequested_ GUARDED_BY(runLoopMutex_) = false;
  ShutdownReason shutdownReason_ GUARDED_BY(runLoopMutex_) = ShutdownReason::kRequested;
};

}  // namespace flowmere::pipewire
