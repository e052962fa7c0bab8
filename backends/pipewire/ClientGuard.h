#pragma once

// Keeps one camera client from taking the camera from the others.
//
// Every link of the source node shares the node's buffers (PipeWire keeps one buffer set per
// output port), and pw_stream counts in each buffer's shared memory the clients that hold it
// (SPA_META_Busy); the node cannot reuse a buffer while the count is above zero. Three ways a
// client keeps buffers that the others need:
// - it died or was killed holding some: its link goes, its marks stay for ever;
// - it was stopped (SIGSTOP, a debugger) holding some: they come back when it runs again;
// - it stopped consuming while PipeWire still hands it buffers (a pipeline that could not follow
//   a format change, a frozen program whose PipeWire thread still runs): it ends up holding
//   every buffer, and no client gets a frame.
// The node skips held buffers when it sends, so the first two cost the others nothing while free
// buffers remain. The guard decides when that is not enough:
// - buffers held when a link went away, and held at every look until the client's process has
//   ended (and at least `kDepartureGraceNanoseconds`), were the departed client's: the node
//   takes its mark off them (one holder less). A process that is still running would take its
//   marks off itself as it closes its stream, and a mark taken twice would make the buffer look
//   held for ever, so nothing is taken while it runs; after `kDepartureLimitNanoseconds` the
//   departure is forgotten. Renegotiating the buffers instead would move them for every link,
//   and PipeWire 0.3.65 can leave a streaming link with the old ones;
// - when no buffer has been free for `kStarvedNanoseconds`, the node cuts off one client: first
//   one whose process is stopped, then one that had to follow the node's last format change,
//   newest first, then the newest link. PipeWire cannot say which link holds a buffer, so the
//   order is a likelihood: the camera served the older clients before the newest came, and a
//   client that cannot follow a format change is the known way to end up holding everything.
//   A cut client's link goes like any other, so what it held is then taken back as above. It
//   sees its stream end (WirePlumber links a client that asks to be reconnected again at once).
// After each action the guard waits `kSettleNanoseconds` for the graph to settle.
//
// Pure logic on the times it is given. Owned by the source node and called on its loop thread
// under the loop lock (tests drive it on virtual time); it has no lock of its own.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace flowmere::pipewire {

// What /proc says of process `pid` (any thread): it has ended (no such process, or a zombie
// nobody reaped yet), or it is stopped by a signal or a debugger (or has ended). False for an
// unknown pid (0 or less).
bool processHasEnded(std::int32_t pid);
bool processIsStopped(std::int32_t pid);

class ClientGuard {
 public:
  // One buffer of the node: an identity that stays the same while the buffer exists, and
  // whether a client holds it now.
  struct Buffer {
    std::uint64_t key = 0;
    bool held = false;
  };

  static constexpr std::int64_t kDepartureGraceNanoseconds = 250'000'000;
  static constexpr std::int64_t kDepartureLimitNanoseconds = 5'000'000'000;
  static constexpr std::int64_t kStarvedNanoseconds = 500'000'000;
  static constexpr std::int64_t kSettleNanoseconds = 500'000'000;

  // One link of the node to a client.
  struct Link {
    std::uint32_t id = 0;
    std::string client;           // how the log names it: "gst-launch-1.0 (pid 4242)"
    bool processStopped = false;  // the client's process is stopped or has exited
  };
  struct Action {
    enum class Kind { kNone, kRelease, kCut };
    Kind kind = Kind::kNone;
    std::uint32_t link = 0;              // kCut: the link to destroy
    std::vector<std::uint64_t> buffers;  // kRelease: the buffers to take one holder off
    std::string reason;                  // for the log: what was found
  };

  // Whether the process `pid` has ended (exited, killed, or a zombie); false for an unknown one.
  using ProcessGone = std::function<bool(std::int32_t pid)>;
  explicit ClientGuard(ProcessGone processGone) : processGone_(std::move(processGone)) {}

  // A link of the node went away; `client` names whose it was, `pid` its process (-1 when
  // unknown), `buffers` are the node's buffers then (what it held is among those held).
  void linkRemoved(std::int64_t now, std::string client, std::int32_t pid,
                   std::span<const Buffer> buffers);
  // The node moved its links to another format; `links` are those that had to follow.
  void formatMoved(std::vector<std::uint32_t> links);
  // The result of one attempt to take a free buffer for a frame.
  void sendAttempt(std::int64_t now, bool found);
  // The node stopped streaming: what was seen of its buffers no longer matters.
  void reset();

  // Whether the next `check` may cut a client off, and so needs the node's links (finding them
  // reads the registry's view and /proc: done only then).
  [[nodiscard]] bool needsLinks(std::int64_t now) const;
  // One look at the node's buffers and, when `needsLinks` said so, its links in the order they
  // were made.
  Action check(std::int64_t now, std::span<const Buffer> buffers, const std::vector<Link>& links);

 private:
  Action act(std::int64_t now, Action action);

  // Buffers held when a link last went away and held at every look since.
  ProcessGone processGone_;
  std::vector<std::uint64_t> departureHeld_;
  std::int32_t departedPid_ = -1;
  std::optional<std::int64_t> departure_;  // when a link last went away
  std::string departedClient_;
  std::optional<std::int64_t> starvedSince_;  // first failed attempt of the current run
  std::optional<std::int64_t> lastAction_;
  std::vector<std::uint32_t> movedLinks_;  // links that had to follow the last move
};

}  // namespace flowmere::pipewire
