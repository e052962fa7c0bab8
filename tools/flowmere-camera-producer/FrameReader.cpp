#include "FrameReader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <system_error>

#include "common/MonotonicTime.h"

namespace flowmere::producer {

namespace {

using Locker = platform::Locker<platform::Mutex>;
using common::monotonicNanoseconds;

}  // namespace

FrameReader::FrameReader(int descriptor, std::size_t frameSize, Order order,
                         std::function<void()> notify)
    : descriptor_(descriptor), frameSize_(frameSize), order_(order), notify_(std::move(notify)) {}

FrameReader::~FrameReader() {
  stop();
}

bool FrameReader::start(std::string& problem) {
  wakeDescriptor_ = eventfd(0, EFD_CLOEXEC);
  if (wakeDescriptor_ < 0) {
    problem = "cannot make an eventfd: " + std::generic_category().message(errno);
    return false;
  }
  // Filled with zeros now, so that no page fault falls on the first frames' reads.
  for (std::vector<std::uint8_t>& slot : bytes_) {
    slot.assign(frameSize_, 0);
  }
  // The thread may use `this` freely: stop(), from the destructor at the latest, joins it.
  thread_ = std::thread([this] { run(); });
  return true;
}

void FrameReader::stop() {
  if (!thread_.joinable()) {
    return;
  }
  {
    const Locker lock(mutex_);
    stopping_ = true;
  }
  slotFreed_.notifyAll();
  const std::uint64_t one = 1;
  // An eventfd write of 8 bytes cannot be short; it fails only past 2^64 - 2 unread wakes.
  (void)!write(wakeDescriptor_, &one, sizeof one);
  thread_.join();
  close(wakeDescriptor_);
  wakeDescriptor_ = -1;
}

void FrameReader::run() {
  for (;;) {
    const std::optional<std::size_t> slot = claimSlot();
    if (!slot) {
      return;
    }
    std::size_t filled = 0;
    int error = 0;
    const ReadResult result = fill(bytes_[*slot].data(), filled, error);
    const std::int64_t arrival = monotonicNanoseconds();
    {
      const Locker lock(mutex_);
      SlotInfo& info = slots_[*slot];
      if (result == ReadResult::kComplete) {
        info = SlotInfo{SlotState::kReady, arrival, frames_++};
      } else {
        info.state = SlotState::kFree;
        if (result == ReadResult::kStopped) {
          return;
        }
        if (result == ReadResult::kError) {
          end_ = End::kReadError;
          error_ = error;
        } else {
          end_ = filled == 0 ? End::kEnded : End::kShortFrame;
          shortBytes_ = filled;
        }
      }
    }
    notify_();
    if (result != ReadResult::kComplete) {
      return;
    }
  }
}

std::optional<std::size_t> FrameReader::claimSlot() {
  const Locker lock(mutex_);
  for (;;) {
    if (stopping_) {
      return std::nullopt;
    }
    std::optional<std::size_t> oldestReady;
    for (std::size_t index = 0; index < kSlotCount; ++index) {
      if (slots_[index].state == SlotState::kFree) {
        slots_[index].state = SlotState::kFilling;
        return index;
      }
      if (slots_[index].state == SlotState::kReady &&
          (!oldestReady || slots_[index].number < slots_[*oldestReady].number)) {
        oldestReady = index;
      }
    }
    // Newest first never waits: at most one slot is taken, so with none free a complete frame
    // is there to reuse, and it is older than the frame about to be read.
    if (order_ == Order::kNewestFirst && oldestReady) {
      slots_[*oldestReady].state = SlotState::kFilling;
      ++dropped_;
      return oldestReady;
    }
    slotFreed_.wait(mutex_);
  }
}

FrameReader::ReadResult FrameReader::fill(std::uint8_t* target, std::size_t& filled,
                                          int& error) const {
  std::array<pollfd, 2> waits{{{descriptor_, POLLIN, 0}, {wakeDescriptor_, POLLIN, 0}}};
  while (filled < frameSize_) {
    // The wait is in poll(), never in read(), so that stop() can end it: a read() blocked on a
    // pipe whose writer is silent would not return.
    if (poll(waits.data(), waits.size(), -1) < 0) {
      if (errno == EINTR) {
        continue;
      }
      error = errno;
      return ReadResult::kError;
    }
    if (waits[1].revents != 0) {
      return ReadResult::kStopped;
    }
    // Readable, or hung up (a pipe's writer closed): read() then returns what is left, then 0.
    const ssize_t count = read(descriptor_, target + filled, frameSize_ - filled);
    if (count < 0) {
      if (errno == EINTR || errno == EAGAIN) {
        continue;
      }
      error = errno;
      return ReadResult::kError;
    }
    if (count == 0) {
      return ReadResult::kEndOfFile;
    }
    filled += static_cast<std::size_t>(count);
  }
  return ReadResult::kComplete;
}

std::optional<FrameReader::Frame> FrameReader::take() {
  const Locker lock(mutex_);
  std::optional<std::size_t> chosen;
  for (std::size_t index = 0; index < kSlotCount; ++index) {
    if (slots_[index].state != SlotState::kReady) {
      continue;
    }
    const bool better =
        !chosen || (order_ == Order::kOldestFirst ? slots_[index].number < slots_[*chosen].number
                                                  : slots_[index].number > slots_[*chosen].number);
    if (better) {
      chosen = index;
    }
  }
  if (!chosen) {
    return std::nullopt;
  }
  if (order_ == Order::kNewestFirst) {
    // The frames this one overtook will never be shown.
    for (SlotInfo& info : slots_) {
      if (info.state == SlotState::kReady && info.number < slots_[*chosen].number) {
        info.state = SlotState::kFree;
        ++dropped_;
      }
    }
  }
  SlotInfo& info = slots_[*chosen];
  info.state = SlotState::kTaken;
  return Frame{bytes_[*chosen].data(), info.arrival, info.number, *chosen};
}

void FrameReader::giveBack(const Frame& frame, bool shown) {
  {
    const Locker lock(mutex_);
    SlotInfo& info = slots_[frame.slot];
    if (shown || order_ == Order::kNewestFirst) {
      info.state = SlotState::kFree;
      dropped_ += shown ? 0 : 1;
    } else {
      info.state = SlotState::kReady;
    }
  }
  slotFreed_.notifyAll();
}

FrameReader::State FrameReader::state() const {
  const Locker lock(mutex_);
  State state;
  state.end = end_;
  state.frames = frames_;
  state.dropped = dropped_;
  state.shortBytes = shortBytes_;
  state.error = error_;
  for (const SlotInfo& info : slots_) {
    state.framesWaiting = state.framesWaiting || info.state == SlotState::kReady;
  }
  return state;
}

}  // namespace flowmere::producer
