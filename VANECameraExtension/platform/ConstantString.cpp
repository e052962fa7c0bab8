#include "platform/ConstantString.h"

#include <mutex>
#include <set>
#include <string>

namespace flowmere::platform {

ConstantString internString(std::string_view text) {
  // Never destroyed: views handed out must stay valid during static destruction too.
  static auto* const table = new std::set<std::string, std::less<>>();
  static std::mutex lock;
  const std::scoped_lock guard(lock);
  auto found = table->find(text);
  if (found == table->end()) {
    found = table->emplace(text).first;
  }
  return *found;
}

}  // namespace flowmere::platform
