#include "ClientGuard.h"

#include <algorithm>
#include <fstream>
#include <string>

namespace flowmere::pipewire {

namespace {

// The state letter of /proc/PID/stat (its third field), 'X' for a process that is gone, or
// nothing for an unknown pid.
std::optional<char> processState(std::int32_t pid) {
  if (pid <= 0) {
    return std::nullopt;
  }
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!stat || !std::getline(stat, text)) {
    return 'X';
  }
  const auto end = text.rfind(')');  // the command name may hold spaces and parentheses
  if (end == std::string::npos || end + 2 >= text.size()) {
    return std::nullopt;
  }
  return text[end + 2];
}

}  // namespace

bool processHasEnded(std::int32_t pid) {
  const auto state = processState(pid);
  return state && (*state == 'Z' || *state == 'X');
}

bool processIsStopped(std::int32_t pid) {
  const auto state = processState(pid);
  return state && (*state == 'T' || *state == 't' || *state == 'Z' || *state == 'X');
}

void ClientGuard::linkRemoved(std::int64_t now, std::string client, std::int32_t pid,
                              std::span<const Buffer> buffers) {
  departure_ = now;
  departedClient_ = std::move(client);
  departedPid_ = pid;
  departureHeld_.clear();
  for (const Buffer& buffer : buffers) {
    if (buffer.held) {
      departureHeld_.push_back(buffer.key);
    }
  }
}

void ClientGuard::formatMoved(std::vector<std::uint32_t> links) {
  movedLinks_ = std::move(links);
}

void ClientGuard::sendAttempt(std::int64_t now, bool found) {
  if (found) {
    starvedSince_.reset();
    return;
  }
  if (!starvedSince_) {
    starvedSince_ = now;
  }
}

void ClientGuard::reset() {
  departureHeld_.clear();
  departure_.reset();
  departedClient_.clear();
  starvedSince_.reset();
}

bool ClientGuard::needsLinks(std::int64_t now) const {
  const bool settled = !lastAction_ || now - *lastAction_ >= kSettleNanoseconds;
  return settled && starvedSince_ && now - *starvedSince_ >= kStarvedNanoseconds;
}

ClientGuard::Action ClientGuard::act(std::int64_t now, Action action) {
  lastAction_ = now;
  // Whatever the action, the buffers change hands: the next look starts afresh.
  starvedSince_.reset();
  return action;
}

ClientGuard::Action ClientGuard::check(std::int64_t now, std::span<const Buffer> buffers,
                                       const std::vector<Link>& links) {
  // A buffer seen free since the departure was not the departed client's.
  std::erase_if(departureHeld_, [&](std::uint64_t key) {
    return std::none_of(buffers.begin(), buffers.end(),
                        [key](const Buffer& buffer) { return buffer.key == key && buffer.held; });
  });

  if (lastAction_ && now - *lastAction_ < kSettleNanoseconds) {
    return {};
  }

  if (departure_ && departureHeld_.empty()) {
    departure_.reset();  // it held nothing, or gave everything back as it closed
  }
  if (departure_ && now - *departure_ >= kDepartureLimitNanoseconds) {
    departure_.reset();  // a process that still runs gives its buffers back itself
    departureHeld_.clear();
  }
  if (departure_ && now - *departure_ >= kDepartureGraceNanoseconds && departedPid_ > 0 &&
      processGone_ && processGone_(departedPid_)) {
    const std::string who = std::move(departedClient_);
    std::vector<std::uint64_t> held = std::move(departureHeld_);
    departure_.reset();
    departureHeld_.clear();
    {
      const std::string count = std::to_string(held.size());
      return act(now, Action{Action::Kind::kRelease, 0, std::move(held),
                             who + " went away holding " + count + " of " +
                                 std::to_string(buffers.size()) + " buffers"});
    }
  }

  if (!starvedSince_ || now - *starvedSince_ < kStarvedNanoseconds || links.empty()) {
    return {};
  }
  const std::string starved =
      "no buffer has been free for " + std::to_string((now - *starvedSince_) / 1'000'000) + " ms";
  // A stopped process cannot give anything back: it goes first.
  for (const Link& link : links) {
    if (link.processStopped) {
      return act(now, Action{Action::Kind::kCut,
                             link.id,
                             {},
                             link.client + " is stopped and holds the camera's buffers (" +
                                 starved + ")"});
    }
  }
  // The newest client is the likeliest cause: the camera served the older ones before it came.
  // Links that had to follow the last format change come first.
  for (auto link = links.rbegin(); link != links.rend(); ++link) {
    const auto moved = std::find(movedLinks_.begin(), movedLinks_.end(), link->id);
    if (moved != movedLinks_.end()) {
      movedLinks_.erase(moved);
      return act(now, Action{Action::Kind::kCut,
                             link->id,
                             {},
                             link->client +
                                 " had to follow the camera's format change and every buffer is "
                                 "held (" +
                                 starved + ")"});
    }
  }
  return act(now, Action{Action::Kind::kCut,
                         links.back().id,
                         {},
                         links.back().client + " is the newest client and every buffer is held (" +
                             starved + ")"});
}

}  // namespace flowmere::pipewire
