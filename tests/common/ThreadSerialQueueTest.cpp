#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <vector>

#include "common/ThreadSerialQueue.h"

namespace flowmere::common {
namespace {

TEST(ThreadSerialQueueTest, RunsWorkSeriallyInDeadlineOrderOffTheCallersThread) {
  ThreadSerialQueue queue("test.queue", ThreadQueueOptions{1});
  std::vector<int> ran;
  std::promise<void> done;
  const auto caller = std::this_thread::get_id();
  bool offCaller = true;
  queue.asyncAfter(std::chrono::milliseconds(2), [&] {
    ran.push_back(2);
    done.set_value();
  });
  queue.async([&] {
    offCaller = std::this_thread::get_id() != caller;
    ran.push_back(1);
  });
  done.get_future().wait();
  EXPECT_TRUE(offCaller);
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

// A queue destroyed with work far in the future must neither run it nor keep its captures.
TEST(ThreadSerialQueueTest, DestructionDropsPendingWorkAndReleasesItsCaptures) {
  auto token = std::make_shared<int>(0);
  bool ran = false;
  {
    ThreadSerialQueue queue("test.drop");
    queue.asyncAfter(std::chrono::hours(1), [token, &ran] { ran = true; });
    EXPECT_EQ(token.use_count(), 2);
  }
  EXPECT_FALSE(ran);
  EXPECT_EQ(token.use_count(), 1);
}

// The last owner of a queue may be one of its own work items: the destructor must not join
// its own thread (a deadlock, or std::terminate).
TEST(ThreadSerialQueueTest, MayBeDestroyedByItsOwnWork) {
  auto queue = std::make_shared<ThreadSerialQueue>("test.self");
  // The submitter keeps the queue alive until `async` has returned; then the work drops it.
  std::promise<void> submitted;
  std::promise<bool> destroyedOnItsThread;
  auto result = destroyedOnItsThread.get_future();
  queue->async([&queue, gate = submitted.get_future().share(), &destroyedOnItsThread] {
    gate.wait();
    const bool onItsThread = queue->isCurrent();
    queue.reset();
    destroyedOnItsThread.set_value(onItsThread);
  });
  submitted.set_value();
  EXPECT_TRUE(result.get());
}

}  // namespace
}  // namespace flowmere::common
