#include "platform/ConstantString.h"

#include <set>
#include <string>

#include "platform/ThreadAnnotations.h"

namespace flowmere::platform {

namespace {

// Every interned text, for the life of the process. Any thread; `lock` guards `strings`.
struct InternTable {
  Mutex lock;
  std::set<std::string, std::less<>> strings GUARDED_BY(lock);
};

}  // namespace

ConstantString internString(std::string_view text) {
  // Never destroyed: views handed out must stay valid during static destruction too.
  static auto* const table = new InternTable();
  const Locker guard(table->lock);
  auto found = table->strings.find(text);
  if (found == table->strings.end()) {
    found = table->strings.emplace(text).first;
  }
  return *found;
}

}  // namespace flowmere::platform
