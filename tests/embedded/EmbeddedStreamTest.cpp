#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "embedded/EmbeddedStream.h"
#include "support/ExtensionHarness.h"

namespace flowmere::embedded {
namespace {

using platform::MediaTime;
using testing::ExtensionHarness;
using testing::HarnessOptions;

constexpr std::int64_t kLimit = std::chrono::nanoseconds(kConsumeWaitLimit).count();
constexpr auto kGuard = std::chrono::seconds(20);  // failure guard only; never reached when green

std::shared_ptr<platform::SampleBuffer> smallFrame() {
  return ExtensionHarness::makeFrame(16, 16, platform::kCVPixelFormatType_32BGRA,
                                     MediaTime::make(0, 30));
}

struct Answer {
  std::shared_ptr<platform::SampleBuffer> buffer;
  std::uint64_t sequenceNumber = 0;
  bool hasMore = false;
  std::optional<std::string> error;
  std::int64_t at = 0;  // virtual time at which the completion ran
};

// --- Answering from the producer queue --------------------------------------------------------

TEST(EmbeddedStreamTest, ProducerQueueRefusesTheFourthBufferAndAnswersInOrder) {
  ExtensionHarness harness;
  auto producer = harness.makeClient(42, "producer");
  auto other = harness.makeClient(43, "other");
  const auto pts = MediaTime::make(0, 30);
  for (std::uint64_t seq = 1; seq <= 3; ++seq) {
    EXPECT_TRUE(harness.push(producer, harness.makeFrameForFormat(0, pts), seq));
  }
  EXPECT_FALSE(harness.push(producer, harness.makeFrameForFormat(0, pts), 4));
  // Each producer has a queue of its own.
  EXPECT_TRUE(harness.push(other, harness.makeFrameForFormat(0, pts), 1));

  std::vector<std::uint64_t> answered;
  for (int i = 0; i < 4; ++i) {
    harness.sinkPlatformStream().consumeSampleBufferFromClient(
        producer,
        [&](const std::shared_ptr<platform::SampleBuffer>& buffer, std::uint64_t seq,
            platform::StreamDiscontinuityFlags, bool,
            const std::optional<platform::Error>&) { answered.push_back(buffer ? seq : 0); });
  }
  EXPECT_TRUE(answered.empty());  // completions arrive later, on the platform queue
  const std::int64_t requestedAt = harness.nowNanoseconds();
  harness.runUntilIdle();
  // Virtual time answers an empty queue at once, so scripted runs keep their timing.
  EXPECT_EQ(answered, (std::vector<std::uint64_t>{1, 2, 3, 0}));
  EXPECT_EQ(harness.nowNanoseconds(), requestedAt);
  EXPECT_EQ(harness.sinkPlatformStream().pendingConsumeRequests(), 0);
}

TEST(EmbeddedStreamTest, ADisconnectingProducerTakesItsQueuedBuffersWithIt) {
  ExtensionHarness harness;
  auto leaving = harness.makeClient(42, "producer before its restart");
  auto staying = harness.makeClient(43, "other producer");
  auto frame = harness.makeFrameForFormat(0, MediaTime::make(0, 30));
  const std::weak_ptr<platform::SampleBuffer> watched = frame;
  ASSERT_TRUE(harness.push(leaving, std::move(frame), 1));
  ASSERT_TRUE(harness.push(leaving, harness.makeFrameForFormat(0, MediaTime::make(1, 30)), 2));
  ASSERT_TRUE(harness.push(staying, harness.makeFrameForFormat(0, MediaTime::make(0, 30)), 1));

  harness.service().publishedProvider()->disconnect(leaving);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(harness.sinkPlatformStream().queuedBufferCount(), 1U);
}

TEST(EmbeddedStreamTest, InjectedConsumeFaultsAnswerWithErrorsThenRecover) {
  ExtensionHarness harness;
  auto producer = harness.makeClient(42, "producer");
  harness.service().failNextConsumeRequests(2, "disk on fire");
  std::vector<std::string> answers;
  for (int i = 0; i < 3; ++i) {
    harness.sinkPlatformStream().consumeSampleBufferFromClient(
        producer,
        [&](const std::shared_ptr<platform::SampleBuffer>&, std::uint64_t,
            platform::StreamDiscontinuityFlags, bool, const std::optional<platform::Error>& error) {
          answers.push_back(error ? error->localizedDescriptionOrDefault() : "none");
        });
  }
  harness.runUntilIdle();
  EXPECT_EQ(answers, (std::vector<std::string>{"disk on fire", "disk on fire", "none"}));
}

// --- Waiting requests, in virtual time --------------------------------------------------------

// The real-time default wait, switched on in virtual time so that its edges are exact.
class WaitingConsumeTest : public ::testing::Test {
 protected:
  static HarnessOptions waiting() {
    HarnessOptions options;
    options.consumeWaitLimit = kConsumeWaitLimit;
    return options;
  }

  EmbeddedStream& sink() { return harness.sinkPlatformStream(); }
  void request(const std::shared_ptr<const platform::Client>& client) {
    sink().consumeSampleBufferFromClient(
        client, [this](std::shared_ptr<platform::SampleBuffer> buffer, std::uint64_t seq,
                       platform::StreamDiscontinuityFlags, bool hasMore,
                       std::optional<platform::Error> error) {
          answers.push_back(
              Answer{std::move(buffer), seq, hasMore,
                     error ? std::optional(error->localizedDescriptionOrDefault()) : std::nullopt,
                     harness.nowNanoseconds()});
        });
  }
  void advanceTo(std::int64_t nanoseconds) { harness.service().executor()->advanceTo(nanoseconds); }

  ExtensionHarness harness{waiting()};
  const std::int64_t start = harness.nowNanoseconds();
  std::shared_ptr<const platform::Client> producer = harness.makeClient(42, "producer");
  std::vector<Answer> answers;
};

TEST_F(WaitingConsumeTest, OnlyAnEmptyQueueWaitsAndTheNextPushAnswersIt) {
  ASSERT_TRUE(harness.push(producer, smallFrame(), 1));
  ASSERT_TRUE(harness.push(producer, smallFrame(), 2));
  request(producer);
  request(producer);
  harness.runUntilIdle();
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_TRUE(answers[0].hasMore);
  EXPECT_EQ(answers[1].sequenceNumber, 2U);
  EXPECT_FALSE(answers[1].hasMore);

  request(producer);
  advanceTo(start + kLimit / 5);
  EXPECT_EQ(answers.size(), 2U);
  EXPECT_EQ(sink().pendingConsumeRequests(), 1);
  ASSERT_TRUE(harness.push(producer, smallFrame(), 3));
  // Handed to the request, not queued behind it.
  EXPECT_EQ(sink().queuedBufferCount(), 0U);
  harness.runUntilIdle();
  ASSERT_EQ(answers.size(), 3U);
  EXPECT_NE(answers[2].buffer, nullptr);
  EXPECT_EQ(answers[2].sequenceNumber, 3U);
  EXPECT_FALSE(answers[2].hasMore);
  EXPECT_EQ(answers[2].at, start + kLimit / 5);

  // Its deadline passes without a second answer.
  advanceTo(start + 3 * kLimit);
  EXPECT_EQ(answers.size(), 3U);
  EXPECT_EQ(sink().pendingConsumeRequests(), 0);
}

TEST_F(WaitingConsumeTest, NoAnswerBeforeTheBoundAndAnEmptyOneAtIt) {
  request(producer);
  advanceTo(start + kLimit - 1);
  EXPECT_TRUE(answers.empty());
  advanceTo(start + kLimit);
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].buffer, nullptr);
  EXPECT_FALSE(answers[0].error);
  EXPECT_EQ(answers[0].at, start + kLimit);
  advanceTo(start + 3 * kLimit);
  EXPECT_EQ(answers.size(), 1U);
}

// A timer that fired on an earlier request's deadline, or did not re-arm after a push answered
// that request, would cut the next request's wait short or make it wait forever.
TEST_F(WaitingConsumeTest, ALaterRequestGetsItsFullWaitAfterAnEarlierOneWasPushed) {
  request(producer);
  advanceTo(start + 100'000'000);
  ASSERT_TRUE(harness.push(producer, smallFrame(), 1));
  advanceTo(start + 200'000'000);
  request(producer);
  advanceTo(start + kLimit);  // the first request's deadline
  EXPECT_EQ(answers.size(), 1U);
  advanceTo(start + 200'000'000 + kLimit - 1);
  EXPECT_EQ(answers.size(), 1U);
  advanceTo(start + 200'000'000 + kLimit);
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(answers[1].buffer, nullptr);
}

TEST_F(WaitingConsumeTest, ClientsWaitIndependentlyAndANewerRequestTakesTheSlot) {
  auto other = harness.makeClient(43, "other");
  request(producer);
  request(other);
  request(other);  // a restarted chain: the older request of `other` is answered empty at once
  harness.runUntilIdle();
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].buffer, nullptr);
  EXPECT_EQ(answers[0].at, start);

  ASSERT_TRUE(harness.push(other, smallFrame(), 5));
  harness.runUntilIdle();
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(answers[1].sequenceNumber, 5U);
  EXPECT_EQ(sink().pendingConsumeRequests(), 1);  // the producer's request still waits
  advanceTo(start + kLimit);
  EXPECT_EQ(answers.size(), 3U);
  EXPECT_EQ(sink().pendingConsumeRequests(), 0);
}

TEST_F(WaitingConsumeTest, InjectedFaultsKeepWorking) {
  harness.service().failNextConsumeRequests(1, "disk on fire");
  request(producer);
  harness.runUntilIdle();
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].error, "disk on fire");  // at once: an error does not wait

  harness.service().setConsumeAnswerDelay(std::chrono::milliseconds(10));
  request(producer);
  advanceTo(start + 100'000'000);
  ASSERT_TRUE(harness.push(producer, smallFrame(), 1));
  harness.runUntilIdle();
  EXPECT_EQ(answers.size(), 1U);
  advanceTo(start + 110'000'000);
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(answers[1].sequenceNumber, 1U);
}

// Everything that ends a client's or the stream's life answers the waiting request, at once.
TEST(EmbeddedStreamWaitTest, StopDisconnectDepartureAndShutdownAnswerAWaitingRequest) {
  const std::vector<std::pair<
      std::string,
      std::function<void(ExtensionHarness&, const std::shared_ptr<const platform::Client>&)>>>
      endings = {
          {"stop", [](auto& harness, auto&) { (void)harness.sinkPlatformStream().stop(); }},
          {"disconnect",
           [](auto& harness, auto& client) {
             harness.service().publishedProvider()->disconnect(client);
           }},
          {"departure",
           [](auto& harness, auto&) { harness.sinkPlatformStream().setStreamingClients({}); }},
          {"shutdown", [](auto& harness, auto&) { harness.service().shutdown(); }},
      };
  for (const auto& [name, end] : endings) {
    SCOPED_TRACE(name);
    HarnessOptions options;
    options.consumeWaitLimit = kConsumeWaitLimit;
    ExtensionHarness harness(options);
    auto producer = harness.makeClient(42, "producer");
    harness.sinkPlatformStream().setStreamingClients({producer});
    std::vector<bool> answered;  // with a buffer?
    const auto request = [&] {
      harness.sinkPlatformStream().consumeSampleBufferFromClient(
          producer,
          [&](const std::shared_ptr<platform::SampleBuffer>& buffer, std::uint64_t,
              platform::StreamDiscontinuityFlags, bool,
              const std::optional<platform::Error>&) { answered.push_back(buffer != nullptr); });
    };
    request();
    harness.runUntilIdle();
    ASSERT_TRUE(answered.empty());
    end(harness, producer);
    harness.runUntilIdle();
    EXPECT_EQ(answered, std::vector<bool>{false});
    harness.advanceBy(2.0);
    EXPECT_EQ(answered.size(), 1U);
    EXPECT_EQ(harness.sinkPlatformStream().pendingConsumeRequests(), 0);
    if (name == "shutdown") {
      request();  // after the shutdown nothing waits any more
      harness.runUntilIdle();
      EXPECT_EQ(answered.size(), 2U);
    }
  }
}

// With waiting, a frame reaches the extension when it is pushed, not at the loop's next retry,
// and a stop answers the waiting request before the sink hears of it.
TEST(EmbeddedStreamWaitTest, TheRelaySendsEachFrameWhenItIsPushed) {
  HarnessOptions options;
  options.consumeWaitLimit = kConsumeWaitLimit;
  ExtensionHarness harness(options);
  auto producer = harness.makeClient(42, "producer");
  ASSERT_TRUE(harness.startProducer(producer, 0).ok());
  // Pushed on time (every 40 ms, stamped 40 ms apart), so pacing holds nothing back. The first
  // push falls between two of the 2 ms retries the loop would have made without waiting.
  std::vector<std::int64_t> pushedAt;
  for (int k = 0; k < 5; ++k) {
    harness.advanceBy(k == 0 ? 0.0105 : 0.040);
    pushedAt.push_back(harness.nowNanoseconds());
    ASSERT_TRUE(harness.push(producer,
                             ExtensionHarness::makeFrameForFormat(
                                 0, MediaTime::make(static_cast<std::int64_t>(k) * 40, 1000)),
                             static_cast<std::uint64_t>(k + 1)));
    harness.runUntilIdle();
  }
  ASSERT_EQ(harness.sent.size(), 5U);
  for (std::size_t i = 0; i < pushedAt.size(); ++i) {
    EXPECT_EQ(harness.sent[i].sentAtNanoseconds, pushedAt[i]) << "frame " << i;
  }
  EXPECT_TRUE(harness.logsStartingWith("sink waiting polls=").empty());

  ASSERT_TRUE(harness.sinkPlatformStream().stop().ok());
  harness.advanceBy(2.0);
  // The waiting request was answered before the stop: its first empty poll is counted and
  // reported ahead of "sink stopped", which stays the status, and its retry finds the sink
  // stopped, so no new request follows.
  const auto& logs = harness.logs;
  const auto waiting = std::find_if(logs.begin(), logs.end(), [](const std::string& line) {
    return line.find("sink waiting polls=1 ") != std::string::npos;
  });
  const auto waitingStatus =
      std::find(logs.begin(), logs.end(), "sink waiting for buffers polls=1");
  const auto stopped = std::find(logs.begin(), logs.end(), "sink stopped");
  ASSERT_NE(stopped, logs.end());
  EXPECT_LT(waiting, stopped);
  EXPECT_LT(waitingStatus, stopped);
  EXPECT_EQ(harness.logsStartingWith("sink waiting polls=").size(), 1U);
  EXPECT_EQ(harness.sink().snapshot().emptyPolls, 1);
  EXPECT_EQ(harness.readStateFile("bridge_extension_status"), "sink stopped");
  EXPECT_EQ(harness.sinkPlatformStream().pendingConsumeRequests(), 0);
}

// --- Waiting requests, in real time -----------------------------------------------------------
// The limits are either an hour, so that only the event under test can answer, or a lower bound
// that the answer must respect. Futures wait with a generous guard that only a failure reaches.

struct RealTimeAnswer {
  std::shared_ptr<platform::SampleBuffer> buffer;
  std::uint64_t sequenceNumber = 0;
  std::chrono::steady_clock::time_point at;
  std::thread::id thread;
};

class RealTimeWaitTest : public ::testing::Test {
 protected:
  static HarnessOptions realTime(std::chrono::nanoseconds limit) {
    HarnessOptions options;
    options.mode = TimeMode::kReal;
    options.consumeWaitLimit = limit;
    return options;
  }
  // One request whose answer the returned future carries.
  static std::future<RealTimeAnswer> request(
      ExtensionHarness& harness, const std::shared_ptr<const platform::Client>& client) {
    auto promise = std::make_shared<std::promise<RealTimeAnswer>>();
    auto future = promise->get_future();
    harness.sinkPlatformStream().consumeSampleBufferFromClient(
        client,
        [promise](std::shared_ptr<platform::SampleBuffer> buffer, std::uint64_t seq,
                  platform::StreamDiscontinuityFlags, bool, const std::optional<platform::Error>&) {
          promise->set_value(RealTimeAnswer{std::move(buffer), seq,
                                            std::chrono::steady_clock::now(),
                                            std::this_thread::get_id()});
        });
    return future;
  }
};

TEST_F(RealTimeWaitTest, APushFromAnotherThreadAnswersTheWaitingRequestOnThePlatformThread) {
  ExtensionHarness harness(realTime(std::chrono::hours(1)));
  auto producer = harness.makeClient(42, "producer");
  auto answer = request(harness, producer);
  std::thread::id pusherThread;
  std::thread pusher([&] {
    pusherThread = std::this_thread::get_id();
    EXPECT_TRUE(harness.push(producer, smallFrame(), 9));
  });
  pusher.join();
  ASSERT_EQ(answer.wait_for(kGuard), std::future_status::ready);
  const RealTimeAnswer got = answer.get();
  EXPECT_NE(got.buffer, nullptr);
  EXPECT_EQ(got.sequenceNumber, 9U);
  EXPECT_NE(got.thread, std::this_thread::get_id());
  EXPECT_NE(got.thread, pusherThread);
}

TEST_F(RealTimeWaitTest, AnEmptyAnswerComesNoEarlierThanTheBound) {
  constexpr auto kShortLimit = std::chrono::milliseconds(50);
  ExtensionHarness harness(realTime(kShortLimit));
  auto producer = harness.makeClient(42, "producer");
  const auto requestedAt = std::chrono::steady_clock::now();
  auto answer = request(harness, producer);
  ASSERT_EQ(answer.wait_for(kGuard), std::future_status::ready);
  const RealTimeAnswer got = answer.get();
  EXPECT_EQ(got.buffer, nullptr);
  EXPECT_GE(got.at - requestedAt, kShortLimit);
}

TEST_F(RealTimeWaitTest, StopAndShutdownAnswerAtOnce) {
  ExtensionHarness harness(realTime(std::chrono::hours(1)));
  auto producer = harness.makeClient(42, "producer");
  auto stopped = request(harness, producer);
  ASSERT_TRUE(harness.sinkPlatformStream().stop().ok());
  ASSERT_EQ(stopped.wait_for(kGuard), std::future_status::ready);
  EXPECT_EQ(stopped.get().buffer, nullptr);

  auto shutDown = request(harness, producer);
  harness.service().shutdown();
  ASSERT_EQ(shutDown.wait_for(kGuard), std::future_status::ready);
  EXPECT_EQ(shutDown.get().buffer, nullptr);
  auto afterShutdown = request(harness, producer);
  ASSERT_EQ(afterShutdown.wait_for(kGuard), std::future_status::ready);
}

// A requester and a producer race. Every request is answered exactly once, each with a buffer
// (nothing else can answer within the hour), in push order, and every pushed buffer is answered,
// still queued or refused: none is lost between the queue and a waiting request.
TEST_F(RealTimeWaitTest, RacingPushesAndRequestsLoseNothing) {
  ExtensionHarness harness(realTime(std::chrono::hours(1)));
  auto producer = harness.makeClient(42, "producer");
  constexpr int kRequests = 2000;
  std::atomic<bool> done{false};
  std::uint64_t pushed = 0;
  std::uint64_t refused = 0;
  std::thread pusher([&] {
    while (!done.load()) {
      ++pushed;
      if (!harness.push(producer, smallFrame(), pushed)) {
        ++refused;
      }
      std::this_thread::yield();
    }
  });
  std::uint64_t lastSequence = 0;
  int answeredWithBuffers = 0;
  for (int i = 0; i < kRequests; ++i) {
    auto answer = request(harness, producer);
    ASSERT_EQ(answer.wait_for(kGuard), std::future_status::ready);
    const RealTimeAnswer got = answer.get();
    ASSERT_NE(got.buffer, nullptr);
    EXPECT_GT(got.sequenceNumber, lastSequence);
    lastSequence = got.sequenceNumber;
    ++answeredWithBuffers;
  }
  done.store(true);
  pusher.join();
  EXPECT_EQ(pushed, static_cast<std::uint64_t>(answeredWithBuffers) + refused +
                        harness.sinkPlatformStream().queuedBufferCount());
  EXPECT_EQ(harness.sinkPlatformStream().pendingConsumeRequests(), 0);
}

}  // namespace
}  // namespace flowmere::embedded
