#include "VirtualSerialQueue.h"

#include <algorithm>

namespace flowmere::embedded {

void VirtualSerialQueue::async(platform::Work work) {
  executor_.schedule(executor_.nowNanoseconds(), std::move(work));
}

void VirtualSerialQueue::asyncAfter(std::chrono::nanoseconds delay, platform::Work work) {
  const std::int64_t now = executor_.nowNanoseconds();
  executor_.schedule(now + std::max<std::int64_t>(delay.count(), 0), std::move(work));
}

}  // namespace flowmere::embedded
