// The platform layer's promises, written once and proved on every backend: the embedded service
// (real time) and the camera service on PipeWire (on the private session that
// pipewire-contract.sh starts; elsewhere those cases are skipped).

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "contract/ConsumeProbe.h"
#include "contract/ContractBackend.h"
#include "contract/ContractEvents.h"
#include "contract/ContractSources.h"
#include "contract/EmbeddedContractBackend.h"
#include "support/ExtensionHarness.h"
#if FLOWMERE_CONTRACT_WITH_PIPEWIRE
#include "contract/PipeWireContractBackend.h"
#endif

namespace flowmere::contract {
namespace {

using std::chrono::milliseconds;

template <typename Backend>
class PlatformContract : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = backend.publish(provider, device, sink, source)) {
      GTEST_SKIP() << reason->c_str();
    }
    published = true;
  }

  void TearDown() override { backend.shutdown(); }

  // Starts a producer and a probe that keeps asking once the sink has started.
  std::shared_ptr<ConsumeProbe> startConsuming(ProducerFrames frames) {
    const std::size_t startsBefore = events->count("sink start");
    backend.startProducer(frames);
    EXPECT_TRUE(events->waitForCount("sink start", startsBefore + 1));
    auto probe = std::make_shared<ConsumeProbe>(backend.sinkStream(), sink, events);
    probe->setKeepAsking(true);
    probe->request();
    return probe;
  }

  // A producer links, sends one frame and falls silent; it leaves (or dies) while the sink's
  // next request waits. Every request the stream had taken by then, the waiting one last, must be
  // answered before the stop, each once. The probe asks again from that answer's completion, before
  // the sink's stop; only that request may be answered after the stop, empty.
  void stopWhileARequestWaits(bool killed) {
    auto probe = startConsuming(ProducerFrames::kOneThenSilent);
    // The link is up once the first answer (the one frame, or a wait that ran out) is in, and the
    // request that followed it waits once the stream has taken it.
    ASSERT_TRUE(events->waitFor([&] {
      const auto answered = probe->answers().size();
      return answered >= 1 && probe->requestsTaken() > static_cast<int>(answered);
    }));
    const auto takenBeforeTheStop = static_cast<std::size_t>(probe->requestsTaken());
    backend.stopProducer(killed);
    ASSERT_TRUE(events->waitForCount("sink stop", 1));
    ASSERT_TRUE(waitUntilAnswered(*probe));

    const auto recorded = events->snapshot();
    const auto stop = std::find_if(recorded.begin(), recorded.end(),
                                   [](const auto& event) { return event.what == "sink stop"; });
    const auto stopPosition = static_cast<std::size_t>(stop - recorded.begin());
    const auto answers = probe->answers();
    ASSERT_GE(answers.size(), takenBeforeTheStop);
    for (std::size_t i = 0; i < takenBeforeTheStop; ++i) {
      EXPECT_LT(answers[i].eventPosition, stopPosition)
          << "request " << i << " answered after the stop";
    }
    const ConsumeAnswer& waiting = answers[takenBeforeTheStop - 1];
    EXPECT_FALSE(waiting.hasBuffer);
    EXPECT_FALSE(waiting.hasError);
    int answersAfterStop = 0;
    for (const auto& answer : answers) {
      if (answer.eventPosition > stopPosition) {
        ++answersAfterStop;
        EXPECT_FALSE(answer.hasBuffer);
        EXPECT_FALSE(answer.hasError);
      }
    }
    EXPECT_LE(answersAfterStop, 1);
    EXPECT_EQ(lifecycle("sink"), (std::vector<std::string>{"sink start", "sink stop"}));
  }

  bool waitUntilAnswered(const ConsumeProbe& probe) {
    return events->waitFor([&] { return probe.outstanding() == 0; });
  }

  // The sink's and source's start and stop calls, in order.
  std::vector<std::string> lifecycle(const std::string& stream) const {
    std::vector<std::string> result;
    for (const auto& event : events->snapshot()) {
      if (event.what == stream + " start" || event.what == stream + " stop") {
        result.push_back(event.what);
      }
    }
    return result;
  }

  std::shared_ptr<ContractEvents> events = std::make_shared<ContractEvents>();
  std::shared_ptr<ContractProviderSource> provider = std::make_shared<ContractProviderSource>();
  std::shared_ptr<ContractDeviceSource> device = std::make_shared<ContractDeviceSource>();
  std::shared_ptr<ContractStreamSource> sink =
      std::make_shared<ContractStreamSource>("sink", events);
  std::shared_ptr<ContractStreamSource> source =
      std::make_shared<ContractStreamSource>("source", events);
  Backend backend;
  bool published = false;
};

class BackendNames {
 public:
  template <typename Backend>
  static std::string GetName(int /*index*/) {
    return Backend::kName;
  }
};

#if FLOWMERE_CONTRACT_WITH_PIPEWIRE
using Backends = ::testing::Types<EmbeddedContractBackend, PipeWireContractBackend>;
#else
using Backends = ::testing::Types<EmbeddedContractBackend>;
#endif
TYPED_TEST_SUITE(PlatformContract, Backends, BackendNames);

TYPED_TEST(PlatformContract, EveryConsumeRequestIsAnsweredExactlyOnceOnThePlatformQueue) {
  auto probe = this->startConsuming(ProducerFrames::kSteady);
  ASSERT_TRUE(this->events->waitFor([&] { return probe->frames() >= 10; }));
  probe->setKeepAsking(false);
  ASSERT_TRUE(this->waitUntilAnswered(*probe));

  const auto answers = probe->answers();
  EXPECT_EQ(static_cast<int>(answers.size()), probe->requests());
  const auto platformThread = this->sink->startThread();
  ASSERT_TRUE(platformThread.has_value());
  for (const auto& answer : answers) {
    EXPECT_EQ(answer.thread, *platformThread) << "an answer off the platform queue";
    EXPECT_FALSE(answer.insideRequestCall) << "an answer on the requester's stack";
    EXPECT_FALSE(answer.hasError);
  }
  this->backend.stopProducer(/*killed=*/false);
  ASSERT_TRUE(this->events->waitForCount("sink stop", 1));
  EXPECT_EQ(probe->outstanding(), 0) << "an answer came twice, or one more came unasked";
}

// The waiting request's empty answer comes first and the stop after it, so that the chain the
// request belongs to reports its wait before the stream's stop.
TYPED_TEST(PlatformContract, AWaitingRequestIsAnsweredBeforeTheStreamStops) {
  this->stopWhileARequestWaits(/*killed=*/false);
}

// The same when the producer dies instead of leaving.
TYPED_TEST(PlatformContract, AProducerThatDiesHasItsWaitingRequestAnsweredBeforeTheSinkStops) {
  this->stopWhileARequestWaits(/*killed=*/true);
}

TYPED_TEST(PlatformContract, AStreamStoppedAndStartedAgainAnswersWithFramesAgain) {
  for (std::size_t round = 1; round <= 2; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    auto probe = this->startConsuming(ProducerFrames::kSteady);
    ASSERT_TRUE(this->events->waitFor([&] { return probe->frames() >= 3; }));
    this->backend.stopProducer(/*killed=*/false);
    ASSERT_TRUE(this->events->waitForCount("sink stop", round));
    ASSERT_TRUE(this->waitUntilAnswered(*probe));
  }
  EXPECT_EQ(this->lifecycle("sink"),
            (std::vector<std::string>{"sink start", "sink stop", "sink start", "sink stop"}));
}

// Frames keep going to the source while its client vanishes: the stream stops once, the sends
// after that are harmless, and the next client starts it again.
TYPED_TEST(PlatformContract, AClientLeavingMidFrameStopsTheSourceOnceAndTheNextClientStartsIt) {
  std::atomic<bool> sending{true};
  std::atomic<int> sent{0};
  platform::Stream& stream = this->backend.sourceStream();
  std::thread sender([&] {
    while (sending.load()) {
      stream.sendSampleBuffer(testing::ExtensionHarness::makeFrameForFormat(
                                  0, platform::MediaTime::make(sent.load(), 30)),
                              platform::CMIOExtensionStreamDiscontinuityFlagNone,
                              static_cast<std::uint64_t>(sent.load()) * 33'000'000U + 1U);
      ++sent;
      this->events->poke();
      // Paced by waiting for nothing in particular: a camera-like frame rate, not a test wait.
      this->events->waitFor([] { return false; }, milliseconds(15));
    }
  });
  this->backend.startClient();
  ASSERT_TRUE(this->events->waitForCount("source start", 1));
  const int before = sent.load();
  ASSERT_TRUE(this->events->waitFor([&] { return sent.load() >= before + 5; }));

  this->backend.stopClient(/*killed=*/true);
  ASSERT_TRUE(this->events->waitForCount("source stop", 1));
  EXPECT_TRUE(this->events->waitFor([&] { return stream.streamingClients().empty(); }));
  const int afterLeave = sent.load();
  ASSERT_TRUE(this->events->waitFor([&] { return sent.load() >= afterLeave + 5; }));

  this->backend.startClient();
  EXPECT_TRUE(this->events->waitForCount("source start", 2));
  sending.store(false);
  sender.join();
  this->backend.stopClient(/*killed=*/false);
  EXPECT_TRUE(this->events->waitForCount("source stop", 2));
  EXPECT_EQ(this->lifecycle("source"), (std::vector<std::string>{"source start", "source stop",
                                                                 "source start", "source stop"}));
}

TYPED_TEST(PlatformContract, PropertyChangesReachTheStreamsSubscribers) {
  platform::Stream& stream = this->backend.sourceStream();
  for (const std::string value : {"{\"frame\":1}", "{\"frame\":2}"}) {
    platform::PropertyStateMap changes;
    changes["flowmere.contract.timeline"] =
        platform::PropertyState{value, platform::PropertyAttributes::readOnlyPropertyAttribute()};
    stream.notifyPropertiesChanged(changes);
    EXPECT_TRUE(this->backend.subscriberSees("flowmere.contract.timeline", value, kGenerousBound))
        << value;
  }
}

TYPED_TEST(PlatformContract, ARequestToAnIdleSinkIsAnsweredEmptyOnceOffTheRequestersStack) {
  auto probe = std::make_shared<ConsumeProbe>(this->backend.sinkStream(), this->sink, this->events);
  probe->request();
  ASSERT_TRUE(this->waitUntilAnswered(*probe));
  const auto answers = probe->answers();
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_FALSE(answers[0].hasBuffer);
  EXPECT_FALSE(answers[0].hasError);
  EXPECT_FALSE(answers[0].insideRequestCall);
  EXPECT_NE(answers[0].thread, std::this_thread::get_id());
  EXPECT_TRUE(this->lifecycle("sink").empty());
}

TYPED_TEST(PlatformContract, AnIdleSourceHasNoClientsAndTakesFramesHarmlessly) {
  platform::Stream& stream = this->backend.sourceStream();
  EXPECT_TRUE(stream.streamingClients().empty());
  for (int frame = 0; frame < 3; ++frame) {
    stream.sendSampleBuffer(
        testing::ExtensionHarness::makeFrameForFormat(0, platform::MediaTime::make(frame, 30)),
        platform::CMIOExtensionStreamDiscontinuityFlagNone, 1U + static_cast<std::uint64_t>(frame));
  }
  EXPECT_TRUE(stream.streamingClients().empty());
  EXPECT_TRUE(this->lifecycle("source").empty());
}

// The service going away leaves no request unanswered and answers none twice.
TYPED_TEST(PlatformContract, AServiceThatGoesAwayAnswersTheWaitingRequestExactlyOnce) {
  auto probe = this->startConsuming(ProducerFrames::kOneThenSilent);
  ASSERT_TRUE(this->events->waitFor([&] {
    const auto answered = probe->answers().size();
    return answered >= 1 && probe->requestsTaken() > static_cast<int>(answered);
  }));
  probe->setKeepAsking(false);
  this->backend.shutdown();
  ASSERT_TRUE(this->waitUntilAnswered(*probe));
  EXPECT_EQ(static_cast<int>(probe->answers().size()), probe->requests());
  for (const auto& answer : probe->answers()) {
    EXPECT_FALSE(answer.hasError);
  }
}

// The whole extension on each backend, for the promises whose effect shows only in what the
// extension logs and publishes.
template <typename Backend>
class ExtensionContract : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = backend.publishExtension()) {
      GTEST_SKIP() << reason->c_str();
    }
  }
  void TearDown() override { backend.shutdown(); }

  bool waitForLogLine(const std::string& line, std::size_t times) {
    return events.waitFor([&] {
      const auto lines = backend.logLines();
      return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line)) >= times;
    });
  }

  ContractEvents events;  // only its waits are used
  Backend backend;
};

TYPED_TEST_SUITE(ExtensionContract, Backends, BackendNames);

// True once the sink has delivered a frame since its last start. Read on the consume queue, where
// deliveries run: the delivery that counted the frame has finished there, and so has the request
// for the next frame that it sent.
bool deliveredSinceStart(VANEProbeSinkStream& sink, ContractEvents& events) {
  auto delivered = std::make_shared<std::atomic<int>>(-1);
  sink.queue()->async([&sink, delivered] {
    delivered->store(sink.metricsRecorder()->snapshot().framesReceived > 0 ? 1 : 0);
  });
  return events.waitFor([&] { return delivered->load() >= 0; }) && delivered->load() == 1;
}

// The producer stops while the sink's request waits for its next frame. The platform answers that
// request before it stops the sink, so each round's "sink waiting" line and status (the first
// empty poll since the frame) come before its "sink stopped", and none follows it.
TYPED_TEST(ExtensionContract, TheWaitingReportComesBeforeTheSinksStop) {
  VANEProbeSinkStream& sink = *this->backend.extension()->devices().front()->sink();
  for (std::uint64_t round = 1; round <= 3; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    this->backend.startProducer(ProducerFrames::kOneThenSilent);
    // The producer's one frame is in and delivered, and the request that followed it waits for a
    // frame that never comes: nothing else of the chain is in flight when the producer leaves.
    ASSERT_TRUE(this->events.waitFor([&] { return sink.snapshot().receivedFrames >= round; }));
    ASSERT_TRUE(this->events.waitFor([&] { return deliveredSinceStart(sink, this->events); }));
    this->backend.stopProducer(/*killed=*/false);
    ASSERT_TRUE(this->waitForLogLine("sink stopped", round));
  }
  this->backend.quiesce();

  const auto lines = this->backend.logLines();
  const auto isRoundStart = [](const std::string& line) {
    return line.rfind("sink started", 0) == 0 || line.rfind("[VANE-EXT] sink startStream", 0) == 0;
  };
  std::size_t rounds = 0;
  bool waitingLine = false;
  bool waitingStatus = false;
  bool stopped = false;
  for (const auto& line : lines) {
    if (isRoundStart(line)) {
      stopped = false;
      waitingLine = false;
      waitingStatus = false;
    } else if (line == "sink stopped") {
      ++rounds;
      stopped = true;
      EXPECT_TRUE(waitingLine) << "round " << rounds
                               << ": no \"sink waiting polls=1\" before the stop";
      EXPECT_TRUE(waitingStatus) << "round " << rounds << ": no waiting status before the stop";
    } else if (line.find("sink waiting") != std::string::npos) {
      EXPECT_FALSE(stopped) << "after round " << rounds << "'s stop: " << line;
      waitingLine = waitingLine || line.find("sink waiting polls=1 ") != std::string::npos;
      waitingStatus = waitingStatus || line == "sink waiting for buffers polls=1";
    }
  }
  EXPECT_EQ(rounds, 3U);
}

}  // namespace
}  // namespace flowmere::contract
