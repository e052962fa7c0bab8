// flowmere-camera-extension: publishes the Flowmere camera on the user's PipeWire.
//
// Takes no arguments and reads no configuration: everything it needs comes from the session
// (the PipeWire socket, the data directory). Logs go to standard error, which a service manager
// hands to the journal. SIGTERM or SIGINT end it cleanly: the nodes are removed and the settings
// store is written out before the process exits.

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <memory>
#include <thread>

#include "VANEProbeExtensionProvider.h"
#include "pipewire/PipeWireCameraService.h"

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
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  auto service = flowmere::pipewire::PipeWireCameraService::create({});
  if (!service) {
    std::fputs("flowmere-camera-extension: PipeWire is not available\n", stderr);
    return 1;
  }
  std::thread waiter([signals, weak = std::weak_ptr(service)] {
    int received = 0;
    sigwait(&signals, &received);
    if (auto strong = weak.lock()) {
      strong->writeLog(received == SIGTERM ? "[pipewire] SIGTERM: stopping"
                                           : "[pipewire] SIGINT: stopping");
      strong->shutdown();
    }
  });
  waiter.detach();
  return flowmere::runExtension(service);
}
