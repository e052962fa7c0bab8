#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "embedded/ObserverList.h"

namespace flowmere::embedded {
namespace {

// An observer that subscribes another while it is being notified must not deadlock on the
// list's lock, and the newcomer hears only the events after it joined.
TEST(ObserverListTest, AnObserverMayAddAnotherThatHearsFromTheNextEventOn) {
  ObserverList<int, const std::string&> list;
  EXPECT_TRUE(list.empty());
  std::vector<std::string> heard;
  list.add([&](int number, const std::string& text) {
    heard.push_back("first " + std::to_string(number) + text);
    if (number == 1) {
      list.add([&](int later, const std::string& laterText) {
        heard.push_back("second " + std::to_string(later) + laterText);
      });
    }
  });
  EXPECT_FALSE(list.empty());
  list.notify(1, "a");
  list.notify(2, "b");
  EXPECT_EQ(heard, (std::vector<std::string>{"first 1a", "first 2b", "second 2b"}));
}

}  // namespace
}  // namespace flowmere::embedded
