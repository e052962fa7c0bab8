#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "embedded/VirtualClock.h"
#include "embedded/VirtualSerialQueue.h"

namespace flowmere::embedded {
namespace {

constexpr std::int64_t kStart = 100'000'000'000;

TEST(ManualExecutorTest, RunsDueWorkInDeadlineOrderWithTiesInSubmissionOrder) {
  ManualExecutor executor(kStart);
  std::vector<std::string> ran;
  executor.schedule(kStart + 20, [&] { ran.push_back("b@20"); });
  executor.schedule(kStart + 10, [&] { ran.push_back("a@10"); });
  executor.schedule(kStart + 20, [&] { ran.push_back("c@20"); });
  executor.schedule(kStart + 30, [&] { ran.push_back("d@30"); });

  executor.advanceTo(kStart + 20);
  EXPECT_EQ(ran, (std::vector<std::string>{"a@10", "b@20", "c@20"}));
  EXPECT_EQ(executor.nowNanoseconds(), kStart + 20);
  EXPECT_EQ(executor.pendingCount(), 1U);
}

TEST(ManualExecutorTest, WorkScheduledByWorkRunsInTheSameAdvanceWhenDue) {
  ManualExecutor executor(kStart);
  VirtualSerialQueue queue("q", executor);
  std::vector<std::int64_t> times;
  queue.asyncAfter(std::chrono::nanoseconds(5), [&] {
    times.push_back(executor.nowNanoseconds());
    queue.asyncAfter(std::chrono::nanoseconds(5), [&] {
      times.push_back(executor.nowNanoseconds());
      // Beyond the advance: stays pending.
      queue.asyncAfter(std::chrono::nanoseconds(100), [&] { times.push_back(-1); });
    });
  });
  executor.advanceTo(kStart + 50);
  // The clock reads each item's own deadline while it runs.
  EXPECT_EQ(times, (std::vector<std::int64_t>{kStart + 5, kStart + 10}));
  EXPECT_EQ(executor.nextDeadline(), kStart + 110);
}

TEST(ManualExecutorTest, ZeroAndNegativeDelaysRunAtTheCurrentTimeInOrder) {
  ManualExecutor executor(kStart);
  VirtualSerialQueue queue("q", executor);
  std::vector<int> ran;
  queue.asyncAfter(std::chrono::nanoseconds(0), [&] { ran.push_back(1); });
  queue.asyncAfter(std::chrono::nanoseconds(-50), [&] { ran.push_back(2); });
  queue.async([&] { ran.push_back(3); });
  EXPECT_TRUE(ran.empty());  // nothing runs on the submitter's stack
  executor.runUntilIdle();
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(executor.nowNanoseconds(), kStart);
}

}  // namespace
}  // namespace flowmere::embedded
