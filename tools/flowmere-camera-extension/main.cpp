// flowmere-camera-extension: publishes the Flowmere camera on the user's PipeWire.
//
// Takes no arguments and reads no configuration: everything it needs comes from the session
// (the PipeWire socket, the data directory). Logs go to standard error, which a service manager
// hands to the journal. SIGTERM or SIGINT end it cleanly: the streams are stopped, the nodes
// removed and the settings store written out before the process exits with status 0. When
// PipeWire goes away it stops the same way and exits with status 69, so that a service manager
// starts it again with PipeWire.

#include <malloc.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>

#include "VANEProbeExtensionProvider.h"
#include "pipewire/PipeWireCameraService.h"

namespace {

// Where the user may put the picture shown while no producer runs:
// $XDG_CONFIG_HOME/flowmere/idle.png, or ~/.config/flowmere/idle.png.
std::optional<std::filesystem::path> idlePicturePath() {
  // Read from main before any thread starts; getenv is not synchronised with setenv.
  const char* config = std::getenv("XDG_CONFIG_HOME");  // NOLINT(concurrency-mt-unsafe)
  if (config && *config == '/') {
    return std::filesystem::path(config) / "flowmere" / "idle.png";
  }
  const char* home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe)
  if (home && *home == '/') {
    return std::filesystem::path(home) / ".config" / "flowmere" / "idle.png";
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** /*argv*/) {
  if (argc > 1) {
    std::fputs("flowmere-camera-extension takes no arguments\n", stderr);
    return 2;
  }
  // Blocked here, before any thread starts, so that every thread inherits the mask and only the
  // waiting thread below ever receives these signals.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGUSR1);  // main's wake-up for the signal thread at the end
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  // Blocks of 1 MiB and more (the idle picture's cards, Cairo's surfaces) are mapped on their
  // own and go back to the system when freed. Left to itself glibc raises this threshold after
  // the first such free, and later cards then stay in the heap after the last client left.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);  // NOLINT(concurrency-mt-unsafe): before any thread
  flowmere::pipewire::PipeWireOptions options;
  options.idlePicture = idlePicturePath();
  auto service = flowmere::pipewire::PipeWireCameraService::create(std::move(options));
  if (!service) {
    std::fputs("flowmere-camera-extension: PipeWire is not available\n", stderr);
    return 1;
  }
  std::atomic<bool> ending{false};
  std::thread waiter([signals, &ending, weak = std::weak_ptr(service)] {
    int received = SIGUSR1;
    while (received == SIGUSR1) {
      sigwait(&signals, &received);
      if (ending) {
        return;  // woken by main below
      }
    }
    if (auto strong = weak.lock()) {
      strong->writeLog(received == SIGTERM ? "[pipewire] SIGTERM: stopping"
                                           : "[pipewire] SIGINT: stopping");
      strong->shutdown();
    }
  });

  // Returns after a signal or when PipeWire went away, with the streams stopped and the
  // extension's object tree released.
  const int status = flowmere::runExtension(service);
  // The stop order from here: the signal thread ends (woken if no signal came), then the
  // service with its loops and queues, all on this thread and before static destruction.
  ending = true;
  pthread_kill(waiter.native_handle(), SIGUSR1);
  waiter.join();
  const int serviceStatus = service->exitStatus();
  service.reset();
  return status != 0 ? status : serviceStatus;
}
