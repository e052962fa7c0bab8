// The producer's standard-input reader, on real pipes: frames come whole and in order, however
// the bytes arrive; a scheduled input loses nothing while the loop is slower than the input; a
// live input hands out its newest frame and counts the rest as dropped; the end of the input is
// told apart (whole, short, failed); and stop() ends the thread wherever it waits.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "FrameReader.h"

namespace flowmere::producer {
namespace {

using Order = FrameReader::Order;
using End = FrameReader::End;

// Counts the reader's notifications, so that a test can wait for the next one without sleeping.
class Notifications {
 public:
  void notify() {
    {
      const std::scoped_lock lock(mutex_);
      ++count_;
    }
    changed_.notify_all();
  }
  std::uint64_t count() {
    const std::scoped_lock lock(mutex_);
    return count_;
  }
  // False when no notification came after `seen` within 10 s: the reader is stuck.
  bool waitPast(std::uint64_t seen) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return count_ > seen; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t count_ = 0;
};

struct Pipe {
  int read = -1;
  int write = -1;
  Pipe() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    read = ends[0];
    write = ends[1];
  }
  ~Pipe() {
    closeWrite();
    ::close(read);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  void closeWrite() {
    if (write >= 0) {
      ::close(write);
      write = -1;
    }
  }
  // Writes `size` bytes of `value`, all of them (blocking while the pipe is full).
  void put(std::size_t size, std::uint8_t value) const {
    const std::vector<std::uint8_t> bytes(size, value);
    std::size_t done = 0;
    while (done < size) {
      const ssize_t count = ::write(write, bytes.data() + done, size - done);
      ASSERT_GT(count, 0);
      done += static_cast<std::size_t>(count);
    }
  }
};

struct Reader {
  Notifications notes;
  FrameReader reader;
  Reader(int descriptor, std::size_t frameSize, Order order)
      : reader(descriptor, frameSize, order, [this] { notes.notify(); }) {
    std::string problem;
    EXPECT_TRUE(reader.start(problem)) << problem;
  }
  // The next frame the loop would take, waiting for the reader; nothing once the input has
  // ended and no frame is left (or after 10 s without news).
  std::optional<FrameReader::Frame> next() {
    for (;;) {
      const std::uint64_t seen = notes.count();
      if (auto frame = reader.take()) {
        return frame;
      }
      if (reader.state().end != End::kNotYet || !notes.waitPast(seen)) {
        return std::nullopt;
      }
    }
  }
  FrameReader::State ended() {
    for (;;) {
      const std::uint64_t seen = notes.count();
      const FrameReader::State state = reader.state();
      if (state.end != End::kNotYet || !notes.waitPast(seen)) {
        return state;
      }
    }
  }
};

// Every byte of a frame is its number: the value a frame must carry when it comes out.
bool frameIs(const FrameReader::Frame& frame, std::size_t size, std::uint8_t value) {
  for (std::size_t index = 0; index < size; ++index) {
    if (frame.data[index] != value) {
      return false;
    }
  }
  return true;
}

TEST(FrameReaderTest, ScheduledInputKeepsEveryFrameInOrderWhileTheLoopLagsBehind) {
  constexpr std::size_t kSize = 64;
  Pipe input;
  // Seven frames against three slots: the reader must wait for the loop, not drop.
  for (std::uint8_t value = 0; value < 7; ++value) {
    input.put(kSize, value);
  }
  input.closeWrite();
  Reader reader(input.read, kSize, Order::kOldestFirst);
  for (std::uint8_t value = 0; value < 7; ++value) {
    const auto frame = reader.next();
    ASSERT_TRUE(frame) << "frame " << int{value};
    EXPECT_EQ(frame->number, value);
    EXPECT_TRUE(frameIs(*frame, kSize, value)) << "frame " << int{value};
    // The camera had no buffer the first time: the frame waits and comes again, unchanged.
    if (value == 3) {
      reader.reader.giveBack(*frame, false);
      const auto again = reader.next();
      ASSERT_TRUE(again);
      EXPECT_EQ(again->number, 3U);
      reader.reader.giveBack(*again, true);
      continue;
    }
    reader.reader.giveBack(*frame, true);
  }
  EXPECT_FALSE(reader.next());
  const FrameReader::State state = reader.ended();
  EXPECT_EQ(state.end, End::kEnded);
  EXPECT_EQ(state.frames, 7U);
  EXPECT_EQ(state.dropped, 0U);
}

TEST(FrameReaderTest, FramesLargerThanThePipeAreAssembledFromPartialReads) {
  constexpr std::size_t kSize = 300'000;  // several pipe buffers
  Pipe input;
  std::thread writer([&input] {
    for (std::uint8_t value = 1; value <= 3; ++value) {
      input.put(kSize, value);
    }
    input.closeWrite();
  });
  Reader reader(input.read, kSize, Order::kOldestFirst);
  for (std::uint8_t value = 1; value <= 3; ++value) {
    const auto frame = reader.next();
    ASSERT_TRUE(frame);
    EXPECT_TRUE(frameIs(*frame, kSize, value)) << "frame " << int{value};
    reader.reader.giveBack(*frame, true);
  }
  writer.join();
  EXPECT_EQ(reader.ended().end, End::kEnded);
}

TEST(FrameReaderTest, LiveInputHandsOutTheNewestFrameAndCountsTheOthersDropped) {
  constexpr std::size_t kSize = 32;
  Pipe input;
  for (std::uint8_t value = 0; value < 5; ++value) {
    input.put(kSize, value);
  }
  input.closeWrite();
  Reader reader(input.read, kSize, Order::kNewestFirst);
  EXPECT_EQ(reader.ended().end, End::kEnded);  // a live reader never waits for the loop
  const auto frame = reader.reader.take();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->number, 4U);
  EXPECT_TRUE(frameIs(*frame, kSize, 4));
  reader.reader.giveBack(*frame, true);
  EXPECT_FALSE(reader.reader.take());
  const FrameReader::State state = reader.reader.state();
  EXPECT_EQ(state.frames, 5U);
  EXPECT_EQ(state.dropped, 4U);
  EXPECT_FALSE(state.framesWaiting);
}

TEST(FrameReaderTest, LiveFrameThatFindsNoBufferIsDroppedNotKept) {
  constexpr std::size_t kSize = 16;
  Pipe input;
  input.put(kSize, 9);
  input.closeWrite();
  Reader reader(input.read, kSize, Order::kNewestFirst);
  const auto frame = reader.next();
  ASSERT_TRUE(frame);
  reader.reader.giveBack(*frame, false);
  EXPECT_FALSE(reader.reader.take());
  EXPECT_EQ(reader.reader.state().dropped, 1U);
}

TEST(FrameReaderTest, TheEndOfTheInputIsToldApart) {
  constexpr std::size_t kSize = 1000;
  {
    SCOPED_TRACE("a short last frame is reported with its size and never handed out");
    Pipe input;
    input.put(kSize, 1);
    input.put(kSize, 2);
    input.put(kSize / 2 + 3, 3);
    input.closeWrite();
    Reader reader(input.read, kSize, Order::kOldestFirst);
    for (std::uint8_t value = 1; value <= 2; ++value) {
      const auto frame = reader.next();
      ASSERT_TRUE(frame);
      EXPECT_TRUE(frameIs(*frame, kSize, value));
      reader.reader.giveBack(*frame, true);
    }
    EXPECT_FALSE(reader.next());
    const FrameReader::State state = reader.ended();
    EXPECT_EQ(state.end, End::kShortFrame);
    EXPECT_EQ(state.frames, 2U);
    EXPECT_EQ(state.shortBytes, kSize / 2 + 3);
  }
  {
    SCOPED_TRACE("an empty input ends after no frame");
    Pipe input;
    input.closeWrite();
    Reader reader(input.read, kSize, Order::kOldestFirst);
    const FrameReader::State state = reader.ended();
    EXPECT_EQ(state.end, End::kEnded);
    EXPECT_EQ(state.frames, 0U);
  }
  {
    SCOPED_TRACE("a read that fails is reported with its errno");
    const int directory = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(directory, 0);
    Reader reader(directory, kSize, Order::kOldestFirst);
    const FrameReader::State state = reader.ended();
    EXPECT_EQ(state.end, End::kReadError);
    EXPECT_EQ(state.error, EISDIR);
    reader.reader.stop();
    close(directory);
  }
}

TEST(FrameReaderTest, StopEndsTheThreadWhereverItWaits) {
  constexpr std::size_t kSize = 128;
  {
    SCOPED_TRACE("in a read: the writer is open and silent");
    Pipe input;
    Reader reader(input.read, kSize, Order::kOldestFirst);
    input.put(kSize / 2, 1);  // half a frame: the reader is inside the frame
    reader.reader.stop();
    EXPECT_EQ(reader.reader.state().end, End::kNotYet);
  }
  {
    SCOPED_TRACE("for a free slot: the ring is full and nobody takes");
    Pipe input;
    for (std::uint8_t value = 0; value < 5; ++value) {
      input.put(kSize, value);
    }
    Reader reader(input.read, kSize, Order::kOldestFirst);
    for (std::uint64_t seen = reader.notes.count(); reader.notes.count() < 3;) {
      ASSERT_TRUE(reader.notes.waitPast(seen));
      seen = reader.notes.count();
    }
    reader.reader.stop();
    reader.reader.stop();  // a second stop is harmless
    EXPECT_EQ(reader.reader.state().frames, 3U);
  }
}

}  // namespace
}  // namespace flowmere::producer
