#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "pipewire/BufferSlot.h"

namespace flowmere::pipewire {
namespace {

// A PipeWire buffer must not be unmapped while the source copies from or into it: revoke waits
// for the user, and nobody can start using the slot once revoke has begun.
TEST(BufferSlotTest, RevokeWaitsForTheUserAndRefusesNewOnes) {
  BufferSlot slot(nullptr);
  ASSERT_TRUE(slot.beginAccess());
  auto revoked = std::async(std::launch::async, [&slot] { slot.revoke(); });
  while (!slot.revoked()) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(slot.beginAccess()) << "a new user got in while the memory is being taken back";
  EXPECT_EQ(revoked.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout)
      << "revoke returned while the memory was still in use";
  slot.endAccess();
  EXPECT_EQ(revoked.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_FALSE(slot.beginAccess());
}

// Users come and go in any number; only the last one's end lets a waiting revoke finish.
TEST(BufferSlotTest, NestedUsersAllEndBeforeRevokeReturns) {
  BufferSlot slot(nullptr);
  ASSERT_TRUE(slot.beginAccess());
  ASSERT_TRUE(slot.beginAccess());
  slot.endAccess();
  auto revoked = std::async(std::launch::async, [&slot] { slot.revoke(); });
  while (!slot.revoked()) {
    std::this_thread::yield();
  }
  EXPECT_EQ(revoked.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  slot.endAccess();
  EXPECT_EQ(revoked.wait_for(std::chrono::seconds(30)), std::future_status::ready);
}

TEST(BufferSlotTest, RevokeWithoutUsersReturnsAtOnce) {
  BufferSlot slot(nullptr);
  EXPECT_FALSE(slot.revoked());
  slot.revoke();
  EXPECT_TRUE(slot.revoked());
  EXPECT_FALSE(slot.beginAccess());
}

}  // namespace
}  // namespace flowmere::pipewire
