#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>

#include "common/SqliteSettingsSuite.h"
#include "support/ExtensionHarness.h"

namespace flowmere::common {
namespace {

namespace fs = std::filesystem;
using Value = SqliteSettingsSuite::Value;

class SettingsStoreTest : public ::testing::Test {
 protected:
  fs::path database() const { return directory.path() / "group" / "settings.sqlite3"; }
  testing::TemporaryDirectory directory;
};

TEST_F(SettingsStoreTest, WritesAreVisibleAtOnceAndReachTheDatabaseByCleanShutdown) {
  {
    // A long delay: only the shutdown can have stored the values.
    auto suite = SqliteSettingsSuite::open(database(), std::chrono::hours(1));
    ASSERT_NE(suite, nullptr);
    for (int i = 0; i <= 100; ++i) {
      suite->setInteger("bridge_frames_received", i);
    }
    suite->setDouble("bridge_latency_average_ms", 0.0);
    suite->setObject("bridge_extension_status", "received 90");
    EXPECT_EQ(suite->valueForKey("bridge_frames_received"), Value(std::int64_t{100}));
  }
  // Read back through a connection of its own, as another process would.
  const auto stored = SqliteSettingsSuite::readAll(database());
  EXPECT_EQ(stored.size(), 3U);
  EXPECT_EQ(stored.at("bridge_frames_received"), Value(std::int64_t{100}));
  EXPECT_EQ(stored.at("bridge_latency_average_ms"), Value(0.0));
  EXPECT_EQ(stored.at("bridge_extension_status"), Value(std::string("received 90")));
}

// Another process holding the write lock must not block the writers, and nothing is lost.
TEST_F(SettingsStoreTest, AnotherWriterHoldingTheLockDelaysOnlyTheStore) {
  auto suite = SqliteSettingsSuite::open(database(), std::chrono::hours(1));
  ASSERT_NE(suite, nullptr);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(database().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);

  suite->setObject("status", "written while locked");  // returns without touching the database
  EXPECT_EQ(suite->valueForKey("status"), Value(std::string("written while locked")));

  ASSERT_EQ(sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(other);
  EXPECT_TRUE(suite->flush());
  EXPECT_EQ(SqliteSettingsSuite::readAll(database()).at("status"),
            Value(std::string("written while locked")));
}

TEST_F(SettingsStoreTest, DeletedDatabaseIsCreatedAgainWithTheCurrentValues) {
  auto suite = SqliteSettingsSuite::open(database(), std::chrono::hours(1));
  ASSERT_NE(suite, nullptr);
  suite->setInteger("a", 1);
  ASSERT_TRUE(suite->flush());
  fs::remove(database());
  suite->setInteger("b", 2);
  ASSERT_TRUE(suite->flush());
  const auto stored = SqliteSettingsSuite::readAll(database());
  EXPECT_EQ(stored.at("a"), Value(std::int64_t{1}));
  EXPECT_EQ(stored.at("b"), Value(std::int64_t{2}));
}

TEST_F(SettingsStoreTest, OpeningFailsCleanlyWhereNoDatabaseCanBeMade) {
  std::ofstream(directory.path() / "file") << "x";
  EXPECT_EQ(SqliteSettingsSuite::open(directory.path() / "file" / "settings.sqlite3"), nullptr);
}

}  // namespace
}  // namespace flowmere::common
