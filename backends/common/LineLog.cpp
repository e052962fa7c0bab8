#include "LineLog.h"

#include <cstdio>

namespace flowmere::common {

void LineLog::write(std::string_view message) {
  const std::scoped_lock lock(mutex_);
  if (sink_) {
    sink_(message);
  } else {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
  }
}

}  // namespace flowmere::common
