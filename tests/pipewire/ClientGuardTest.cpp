#include <gtest/gtest.h>

#include <vector>

#include "pipewire/ClientGuard.h"

namespace flowmere::pipewire {
namespace {

constexpr std::int64_t kMs = 1'000'000;
using Kind = ClientGuard::Action::Kind;

// A node with eight buffers, looked at every 33 ms as the source node's tick does.
class ClientGuardTest : public ::testing::Test {
 protected:
  std::vector<ClientGuard::Buffer> states(const std::vector<int>& heldBuffers) {
    std::vector<ClientGuard::Buffer> buffers;
    for (int index = 0; index < 8; ++index) {
      bool held = false;
      for (const int one : heldBuffers) {
        held = held || one == index;
      }
      buffers.push_back(ClientGuard::Buffer{kFirstKey + static_cast<std::uint64_t>(index), held});
    }
    return buffers;
  }
  ClientGuard::Action look(std::int64_t now, const std::vector<int>& heldBuffers,
                           const std::vector<ClientGuard::Link>& links = {}) {
    return guard.check(now, states(heldBuffers),
                       guard.needsLinks(now) ? links : std::vector<ClientGuard::Link>{});
  }
  // Frames sent every 33 ms from `from` to `to` with the given outcome, looking after each.
  ClientGuard::Action run(std::int64_t from, std::int64_t to, bool found,
                          const std::vector<int>& held,
                          const std::vector<ClientGuard::Link>& links = {}) {
    for (std::int64_t now = from; now < to; now += 33 * kMs) {
      guard.sendAttempt(now, found);
      auto action = look(now, held, links);
      if (action.kind != Kind::kNone) {
        return action;
      }
    }
    return {};
  }

  static constexpr std::uint64_t kFirstKey = 100;
  // Process 10 is gone once `ended` says so; every other is alive.
  bool ended = true;
  ClientGuard guard{[this](std::int32_t pid) { return pid == 10 && ended; }};
  std::vector<ClientGuard::Link> twoClients{{44, "gst-launch-1.0 (pid 10)", false},
                                            {51, "flowmere-camera-receiver (pid 11)", false}};
};

TEST_F(ClientGuardTest, BuffersHeldByAClientThatLeftAreTakenBackWithinASecond) {
  // A pipeline keeps its last buffer (a different one each frame) until it is killed holding
  // buffer 3, which it took after the guard's last look: the departure itself says so.
  for (std::int64_t now = 0; now < 1000 * kMs; now += 33 * kMs) {
    ASSERT_EQ(look(now, {static_cast<int>(now / (33 * kMs)) % 8}).kind, Kind::kNone);
  }
  const std::int64_t killed = 1000 * kMs;
  guard.linkRemoved(killed, "gst-launch-1.0 (pid 10)", 10, states({3, 4}));
  ClientGuard::Action action;
  std::int64_t now = killed;
  for (; now < killed + 1000 * kMs && action.kind == Kind::kNone; now += 33 * kMs) {
    // Buffer 4 was only in flight to another client: it comes back at the next frame.
    action = look(now, now == killed ? std::vector<int>{3, 4} : std::vector<int>{3});
  }
  ASSERT_EQ(action.kind, Kind::kRelease);
  EXPECT_LT(now - killed, 1000 * kMs);
  EXPECT_EQ(action.buffers, std::vector<std::uint64_t>{kFirstKey + 3});
  EXPECT_NE(action.reason.find("gst-launch-1.0 (pid 10) went away holding 1 of 8"),
            std::string::npos)
      << action.reason;
}

TEST_F(ClientGuardTest, ABufferInFlightAtADepartureIsNotTakenBack) {
  // Held at the departure, free at the next look, held again by a live client later: that
  // client's hold is its own.
  look(0, {2});
  guard.linkRemoved(10 * kMs, "firefox (pid 12)", 12, states({2}));
  EXPECT_EQ(look(40 * kMs, {}).kind, Kind::kNone);
  for (std::int64_t now = 73 * kMs; now < 3000 * kMs; now += 33 * kMs) {
    ASSERT_EQ(look(now, {2}).kind, Kind::kNone);
  }
}

TEST_F(ClientGuardTest, NothingIsTakenFromAClientWhoseProcessStillRuns) {
  // A program that closes its stream slowly takes its own marks off as it goes; a mark taken
  // twice would leave the buffer looking held for ever.
  ended = false;
  guard.linkRemoved(0, "ffmpeg (pid 10)", 10, states({0, 1, 2, 3, 4, 5, 6, 7}));
  for (std::int64_t now = 0; now < 2000 * kMs; now += 33 * kMs) {
    ASSERT_EQ(look(now, {0, 1, 2, 3, 4, 5, 6, 7}).kind, Kind::kNone);
  }
  // It ended with two still marked: those two come back.
  ended = true;
  const auto action = look(2000 * kMs, {2, 5});
  ASSERT_EQ(action.kind, Kind::kRelease);
  EXPECT_EQ(action.buffers, (std::vector<std::uint64_t>{kFirstKey + 2, kFirstKey + 5}));
  // A departure whose process outlives the limit is forgotten.
  ended = false;
  guard.linkRemoved(3000 * kMs, "ffmpeg (pid 10)", 10, states({1}));
  for (std::int64_t now = 3000 * kMs; now < 9000 * kMs; now += 33 * kMs) {
    ended = now > 8500 * kMs;
    ASSERT_EQ(look(now, {1}).kind, Kind::kNone) << now / kMs;
  }
}

TEST_F(ClientGuardTest, AClientHoldingSomeBuffersWhileOthersAreFreeIsLeftAlone) {
  // A stopped or paused client keeping two buffers: frames still find free ones.
  EXPECT_EQ(run(0, 10'000 * kMs, true, {0, 1}, twoClients).kind, Kind::kNone);
}

TEST_F(ClientGuardTest, AClientThatDidNotFollowAFormatChangeIsCutWhenNothingIsFree) {
  look(0, {});
  guard.formatMoved({44});  // the receiver joined after the move: it negotiated afresh
  // 400 ms without a free buffer (a client's pipeline starting) is not a fault.
  EXPECT_EQ(run(0, 400 * kMs, false, {0, 1, 2, 3, 4, 5, 6, 7}, twoClients).kind, Kind::kNone);
  EXPECT_EQ(run(400 * kMs, 1000 * kMs, true, {}, twoClients).kind, Kind::kNone);
  const auto action = run(1000 * kMs, 3000 * kMs, false, {0, 1, 2, 3, 4, 5, 6, 7}, twoClients);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 44U);
  EXPECT_NE(action.reason.find("had to follow the camera's format change"), std::string::npos);
  EXPECT_NE(action.reason.find("no buffer has been free for 5"), std::string::npos)
      << action.reason;
}

TEST_F(ClientGuardTest, AStoppedProcessIsCutFirst) {
  guard.formatMoved({44});
  auto links = twoClients;
  links[1].processStopped = true;
  const auto action = run(0, 2000 * kMs, false, {0, 1, 2, 3, 4, 5, 6, 7}, links);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 51U);
  EXPECT_NE(action.reason.find("flowmere-camera-receiver (pid 11) is stopped"), std::string::npos);
}

TEST_F(ClientGuardTest, ACutClientsBuffersComeBackAndTheNextSuspectWaitsItsTurn) {
  guard.formatMoved({44, 51});
  const std::vector<int> all{0, 1, 2, 3, 4, 5, 6, 7};
  auto action = run(0, 2000 * kMs, false, all, twoClients);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 51U);  // the newest of the links that moved
  // Its link goes with every buffer held: once the settling time is over they come back.
  const std::vector<ClientGuard::Link> oneLeft{twoClients[0]};
  guard.linkRemoved(600 * kMs, "flowmere-camera-receiver (pid 11)", 10, states(all));
  action = run(620 * kMs, 2000 * kMs, false, all, oneLeft);
  ASSERT_EQ(action.kind, Kind::kRelease);
  EXPECT_EQ(action.buffers.size(), 8U);
  // Still nothing free half a second after that: the next suspect goes.
  action = run(1200 * kMs, 4000 * kMs, false, all, oneLeft);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 44U);
}

TEST_F(ClientGuardTest, WithoutASuspectTheNewestLinkGoes) {
  const auto action = run(0, 2000 * kMs, false, {}, twoClients);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 51U);
  EXPECT_NE(action.reason.find("is the newest client"), std::string::npos);
}

TEST_F(ClientGuardTest, ResetForgetsADepartureAndTheStarvation) {
  look(0, {5});
  guard.linkRemoved(10 * kMs, "chromium (pid 13)", 10, states({5}));
  guard.sendAttempt(10 * kMs, false);
  guard.reset();  // the node stopped streaming: its buffers go anyway
  EXPECT_EQ(look(2000 * kMs, {5}, twoClients).kind, Kind::kNone);
}

}  // namespace
}  // namespace flowmere::pipewire
