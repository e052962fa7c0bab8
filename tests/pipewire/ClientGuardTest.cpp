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
      buffers.push_back(ClientGuard::Buffer{&keys[index], held});
    }
    return buffers;
  }
  ClientGuard::Action look(std::int64_t now, const std::vector<int>& heldBuffers,
                           const std::vector<ClientGuard::Link>& links = {}) {
    return guard.check(now, states(heldBuffers),
                       guard.needsLinks(now) ? links : std::vector<ClientGuard::Link>{});
  }
  // Frames sent every 33 ms from `from` to `to` with the given outcome, looking after each.
  ClientGuard::Action run(std::int64_t from, std::int64_t to, bool found, std::vector<int> held,
                          std::vector<ClientGuard::Link> links = {}) {
    for (std::int64_t now = from; now < to; now += 33 * kMs) {
      guard.sendAttempt(now, found);
      const auto action = look(now, held, links);
      if (action.kind != Kind::kNone) {
        return action;
      }
    }
    return {};
  }

  ClientGuard guard;
  int keys[8] = {};
  std::vector<ClientGuard::Link> twoClients{{44, "gst-launch-1.0 (pid 10)", false},
                                            {51, "flowmere-camera-receiver (pid 11)", false}};
};

TEST_F(ClientGuardTest, BuffersHeldByAClientThatLeftAreReclaimedWithinASecond) {
  // A pipeline keeps its last buffer (a different one each frame) until it is killed holding 3.
  for (std::int64_t now = 0; now < 1000 * kMs; now += 33 * kMs) {
    ASSERT_EQ(look(now, {static_cast<int>(now / (33 * kMs)) % 8}).kind, Kind::kNone);
  }
  // Buffer 3 went to the pipeline after the last look: the departure itself says it was held.
  const std::int64_t killed = 1000 * kMs;
  guard.linkRemoved(killed, "gst-launch-1.0 (pid 10)", states({3}));
  ClientGuard::Action action;
  std::int64_t now = killed;
  for (; now < killed + 1000 * kMs && action.kind == Kind::kNone; now += 33 * kMs) {
    action = look(now, {3});
  }
  EXPECT_EQ(action.kind, Kind::kReclaim);
  EXPECT_LT(now - killed, 1000 * kMs);
  EXPECT_NE(action.reason.find("gst-launch-1.0 (pid 10) went away holding 1 of 8"),
            std::string::npos)
      << action.reason;
}

TEST_F(ClientGuardTest, ALinkThatLeavesHoldingNothingCostsNothing) {
  // A buffer in flight at the departure comes back within a frame: nothing to reclaim, even
  // when other clients hold that buffer again later.
  look(0, {2});
  guard.linkRemoved(10 * kMs, "firefox (pid 12)", states({2}));
  for (std::int64_t now = 33 * kMs; now < 3000 * kMs; now += 33 * kMs) {
    ASSERT_EQ(look(now, {(static_cast<int>(now / (33 * kMs)) + 3) % 8}).kind, Kind::kNone);
  }
}

TEST_F(ClientGuardTest, AClientHoldingSomeBuffersWhileOthersAreFreeIsLeftAlone) {
  // A stopped or paused client keeping two buffers: frames still find free ones.
  EXPECT_EQ(run(0, 10'000 * kMs, true, {0, 1}, twoClients).kind, Kind::kNone);
}

TEST_F(ClientGuardTest, StarvationIsReclaimedFirstThenTheClientThatDidNotFollowIsCut) {
  look(0, {});
  guard.formatMoved({44});  // the receiver joined after the move: it negotiated afresh
  // Every buffer held: a reclaim after half a second.
  auto action = run(0, 2000 * kMs, false, {0, 1, 2, 3, 4, 5, 6, 7}, twoClients);
  ASSERT_EQ(action.kind, Kind::kReclaim);
  EXPECT_NE(action.reason.find("no buffer has been free"), std::string::npos);
  // It comes back at once: after the settling time, the link that had to follow the move goes.
  action = run(600 * kMs, 3000 * kMs, false, {0, 1, 2, 3, 4, 5, 6, 7}, twoClients);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 44U);
  EXPECT_NE(action.reason.find("had to follow the camera's format change"), std::string::npos);
}

TEST_F(ClientGuardTest, AStoppedProcessIsCutBeforeAnyReclaim) {
  auto links = twoClients;
  links[1].processStopped = true;
  const auto action = run(0, 2000 * kMs, false, {0, 1, 2, 3, 4, 5, 6, 7}, links);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 51U);
  EXPECT_NE(action.reason.find("flowmere-camera-receiver (pid 11) is stopped"), std::string::npos);
}

TEST_F(ClientGuardTest, WithoutASuspectTheNewestLinkGoesAfterAReclaimDidNotHelp) {
  ASSERT_EQ(run(0, 2000 * kMs, false, {}, twoClients).kind, Kind::kReclaim);
  auto action = run(600 * kMs, 3000 * kMs, false, {}, twoClients);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 51U);
  // Still starving once it is gone: a reclaim, then the next newest.
  const std::vector<ClientGuard::Link> oneLeft{twoClients[0]};
  ASSERT_EQ(run(1200 * kMs, 4000 * kMs, false, {}, oneLeft).kind, Kind::kReclaim);
  action = run(1800 * kMs, 5000 * kMs, false, {}, oneLeft);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 44U);
}

TEST_F(ClientGuardTest, AmongLinksThatFollowedAMoveTheNewestGoesFirst) {
  guard.formatMoved({44, 51});
  ASSERT_EQ(run(0, 2000 * kMs, false, {}, twoClients).kind, Kind::kReclaim);
  const auto action = run(600 * kMs, 3000 * kMs, false, {}, twoClients);
  ASSERT_EQ(action.kind, Kind::kCut);
  EXPECT_EQ(action.link, 51U);
}

TEST_F(ClientGuardTest, ShortStarvationAndARecoveredCameraStartMildlyAgain) {
  // 400 ms without a free buffer (a client's new pipeline starting) is not a fault.
  EXPECT_EQ(run(0, 400 * kMs, false, {}, twoClients).kind, Kind::kNone);
  EXPECT_EQ(run(400 * kMs, 1000 * kMs, true, {}, twoClients).kind, Kind::kNone);
  // A reclaim that worked, then calm for seconds: the next starvation starts with a reclaim
  // again, not with a cut.
  ASSERT_EQ(run(1000 * kMs, 3000 * kMs, false, {}, twoClients).kind, Kind::kReclaim);
  EXPECT_EQ(run(2000 * kMs, 6000 * kMs, true, {}, twoClients).kind, Kind::kNone);
  EXPECT_EQ(run(6000 * kMs, 8000 * kMs, false, {}, twoClients).kind, Kind::kReclaim);
}

TEST_F(ClientGuardTest, ResetForgetsADepartureAndTheStarvation) {
  look(0, {5});
  guard.linkRemoved(10 * kMs, "chromium (pid 13)", states({5}));
  guard.sendAttempt(10 * kMs, false);
  guard.reset();  // the node stopped streaming: its buffers go anyway
  EXPECT_EQ(look(2000 * kMs, {5}, twoClients).kind, Kind::kNone);
}

}  // namespace
}  // namespace flowmere::pipewire
