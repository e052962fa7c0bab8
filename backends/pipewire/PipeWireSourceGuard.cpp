// The source node's side of the client guard: what it shows the guard (its buffers' holders, its
// links) and what it does with the guard's verdicts. The rest of the node is in
// PipeWireSourceStream.cpp.

#include <spa/buffer/meta.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "PipeWireSourceStream.h"
#include "common/MonotonicTime.h"

namespace flowmere::pipewire {

namespace {

// "gst-launch-1.0 (pid 4242)", as the log names a client.
std::string describeClient(const std::shared_ptr<const platform::Client>& client) {
  if (!client) {
    return "an unknown client";
  }
  return client->description() +
         (client->pid() > 0 ? " (pid " + std::to_string(client->pid()) + ")" : std::string());
}

}  // namespace

std::vector<ClientGuard::Link> PipeWireSourceStream::guardLinks() {
  std::vector<ClientGuard::Link> links;
  for (const auto& link : links_) {
    ClientGuard::Link entry;
    entry.id = link.id;
    entry.client = describeClient(link.client);
    entry.processStopped = link.client && processIsStopped(link.client->pid());
    links.push_back(std::move(entry));
  }
  return links;
}

std::vector<ClientGuard::Buffer> PipeWireSourceStream::bufferStates() const {
  std::vector<ClientGuard::Buffer> buffers;
  buffers.reserve(slots().size());
  for (const auto& slot : slots()) {
    // pw_stream counts in the buffer's shared memory the holders of it: clients that took it and
    // have not given it back. Read as pw_stream does: it hands a buffer out when one more holder
    // makes at most one, so a count below zero (PipeWire's V4L2 layer gives a buffer back twice
    // as its program exits) is free too.
    const auto* busy = static_cast<const spa_meta_busy*>(
        spa_buffer_find_meta_data(slot->buffer()->buffer, SPA_META_Busy, sizeof(spa_meta_busy)));
    const bool held =
        busy && static_cast<std::int32_t>(__atomic_load_n(&busy->count, __ATOMIC_RELAXED)) > 0;
    buffers.push_back(ClientGuard::Buffer{slot->serial(), held});
  }
  return buffers;
}

void PipeWireSourceStream::guardClients(std::int64_t now) {
  const std::vector<ClientGuard::Buffer> buffers = bufferStates();
  const ClientGuard::Action action = guard_.check(
      now, buffers, guard_.needsLinks(now) ? guardLinks() : std::vector<ClientGuard::Link>{});
  switch (action.kind) {
    case ClientGuard::Action::Kind::kNone:
      return;
    case ClientGuard::Action::Kind::kRelease: {
      // One holder less on each: the departed client's mark, which nobody else would ever take
      // off. A count that dropped to zero (or below) meanwhile is left alone.
      for (const auto& slot : slots()) {
        if (std::find(action.buffers.begin(), action.buffers.end(), slot->serial()) ==
            action.buffers.end()) {
          continue;
        }
        auto* busy = static_cast<spa_meta_busy*>(spa_buffer_find_meta_data(
            slot->buffer()->buffer, SPA_META_Busy, sizeof(spa_meta_busy)));
        std::uint32_t count = busy ? __atomic_load_n(&busy->count, __ATOMIC_RELAXED) : 0U;
        while (static_cast<std::int32_t>(count) > 0 &&
               !__atomic_compare_exchange_n(&busy->count, &count, count - 1U, false,
                                            __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
        }
      }
      writeLog("[pipewire] " + nodeName_ + " takes back the buffers: " + action.reason);
      return;
    }
    case ClientGuard::Action::Kind::kCut: {
      // The links that stay negotiate again with the node paused around it: PipeWire 0.3.65 can
      // give the port new buffers when a link goes and leave a streaming link with the old ones.
      scheduleOffers(true);
      loop_->lock().assertHeld();  // the same lock, under the loop's name
      const int result = loop_->peers().destroyLink(action.link);
      writeLog(
          "[pipewire] " + nodeName_ + " cuts off link " + std::to_string(action.link) + ": " +
          action.reason +
          (result < 0 ? std::string(" (failed: ") + spa_strerror(result) + ")" : std::string()));
      return;
    }
  }
}

void PipeWireSourceStream::linksChanged() {
  if (!stream_) {
    return;
  }
  loop_->lock().assertHeld();  // the same lock, under the loop's name
  auto links = loop_->peers().linksOf(pw_stream_get_node_id(stream_));
  const std::int64_t now = common::monotonicNanoseconds();
  for (const auto& before : links_) {
    const bool stays = std::any_of(links.begin(), links.end(),
                                   [&](const auto& after) { return after.id == before.id; });
    if (!stays) {
      guard_.linkRemoved(now, describeClient(before.client),
                         before.client ? before.client->pid() : -1, bufferStates());
    }
  }
  links_ = std::move(links);
}

}  // namespace flowmere::pipewire
