#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/DeadlineQueue.h"

namespace flowmere::common {
namespace {

TEST(DeadlineQueueTest, KeepsOrderWhileSlotsAreReusedAndReleasesCapturesOnPop) {
  DeadlineQueue queue;
  std::vector<std::string> ran;
  auto token = std::make_shared<int>(0);
  const auto add = [&](std::int64_t deadline, std::string name) {
    queue.push(deadline, [&ran, token, name = std::move(name)] { ran.push_back(name); });
  };
  add(30, "c");
  add(10, "a");
  add(20, "b");
  queue.pop()();                    // a; its slot is free again
  EXPECT_EQ(token.use_count(), 3);  // popped work no longer pins its captures in the queue
  add(5, "early");
  add(20, "b2");  // same deadline as b, submitted later
  add(40, "d");
  while (!queue.empty()) {
    queue.pop()();
  }
  EXPECT_EQ(ran, (std::vector<std::string>{"a", "early", "b", "b2", "c", "d"}));
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace flowmere::common
