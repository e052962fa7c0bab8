#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <thread>

#include "common/SqliteSettingsSuite.h"
#include "metrics/ScratchDirectory.h"

namespace flowmere::common {
namespace {

namespace fs = std::filesystem;
using Value = SqliteSettingsSuite::Value;
using Values = std::map<std::string, Value>;
// Long enough that only explicit flushes and the destructor store anything.
constexpr std::chrono::hours kNoBackgroundStore{1};

// A connection of the test's own, standing in for another process of the group.
class OtherProcess {
 public:
  explicit OtherProcess(const fs::path& file) { sqlite3_open(file.c_str(), &connection_); }
  ~OtherProcess() { sqlite3_close(connection_); }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;
  bool execute(const char* sql) {
    return sqlite3_exec(connection_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
  }
  // The first column of the first row as text ("" when there is none).
  std::string scalar(const char* sql) {
    std::string result;
    sqlite3_exec(
        connection_, sql,
        [](void* out, int, char** values, char**) {
          *static_cast<std::string*>(out) = values[0] != nullptr ? values[0] : "";
          return 1;
        },
        &result, nullptr);
    return result;
  }

 private:
  sqlite3* connection_ = nullptr;
};

class SqliteSettingsSuiteTest : public ::testing::Test {
 protected:
  fs::path database() const { return scratch.path() / "group" / "settings.sqlite3"; }
  metrics_test::ScratchDirectory scratch;
};

TEST_F(SqliteSettingsSuiteTest, WritesAreVisibleAtOnceAndStoredByACleanShutdown) {
  {
    auto suite = SqliteSettingsSuite::open(database(), kNoBackgroundStore);
    ASSERT_NE(suite, nullptr);
    suite->setInteger("frames_received", 7);
    suite->setDouble("latency_average_ms", 0.25);
    suite->setObject("extension_status", "received 1");
    suite->setObject("changes_type", "text");
    suite->setInteger("changes_type", 3);
    EXPECT_EQ(suite->valueForKey("extension_status"), Value(std::string("received 1")));
    EXPECT_EQ(suite->valueForKey("changes_type"), Value(std::int64_t{3}));
    EXPECT_EQ(suite->valueForKey("never_written"), std::nullopt);
    EXPECT_TRUE(SqliteSettingsSuite::readAll(database()).empty()) << "stored before any flush";
  }
  EXPECT_EQ(SqliteSettingsSuite::readAll(database()),
            (Values{{"frames_received", std::int64_t{7}},
                    {"latency_average_ms", 0.25},
                    {"extension_status", std::string("received 1")},
                    {"changes_type", std::int64_t{3}}}));
  EXPECT_EQ(OtherProcess(database())
                .scalar("SELECT group_concat(typeof(value) || ':' || type, ' ') FROM "
                        "(SELECT value, type FROM settings ORDER BY key)"),
            "integer:integer text:string integer:integer real:double");
}

TEST_F(SqliteSettingsSuiteTest, RepeatedWritesOfOneKeyCoalesceIntoOneRowUpdate) {
  auto suite = SqliteSettingsSuite::open(database(), kNoBackgroundStore);
  ASSERT_NE(suite, nullptr);
  for (int i = 1; i <= 1000; ++i) {
    suite->setInteger("frames_received", i);
  }
  EXPECT_TRUE(suite->flush());
  EXPECT_TRUE(suite->flush());  // nothing pending: no further row
  EXPECT_EQ(suite->rowsStored(), 1U);
  EXPECT_EQ(SqliteSettingsSuite::readAll(database()),
            (Values{{"frames_received", std::int64_t{1000}}}));
}

// Another process holding the write lock delays only the writer thread; nothing is lost, and a
// key the other process wrote is left alone.
TEST_F(SqliteSettingsSuiteTest, AnotherProcessHoldingTheLockDoesNotBlockTheSetters) {
  auto suite = SqliteSettingsSuite::open(database(), std::chrono::milliseconds(0));
  ASSERT_NE(suite, nullptr);
  OtherProcess other(database());
  ASSERT_TRUE(other.execute("BEGIN IMMEDIATE"));
  ASSERT_TRUE(other.execute("INSERT INTO settings VALUES ('producer_key', 'kept', 'string', 0.0)"));
  // The writer thread runs into the lock at once; the setters must still return at once.
  for (int i = 1; i <= 200; ++i) {
    suite->setInteger("frames_received", i);
    suite->setObject("extension_status", "locked");
  }
  EXPECT_EQ(suite->valueForKey("frames_received"), Value(std::int64_t{200}));
  EXPECT_TRUE(SqliteSettingsSuite::readAll(database()).empty());
  ASSERT_TRUE(other.execute("COMMIT"));

  EXPECT_TRUE(suite->flush());
  EXPECT_EQ(SqliteSettingsSuite::readAll(database()),
            (Values{{"frames_received", std::int64_t{200}},
                    {"extension_status", std::string("locked")},
                    {"producer_key", std::string("kept")}}));
}

TEST_F(SqliteSettingsSuiteTest, DeletedDatabaseIsCreatedAgainWithTheCurrentValues) {
  auto suite = SqliteSettingsSuite::open(database(), kNoBackgroundStore);
  ASSERT_NE(suite, nullptr);
  suite->setInteger("a", 1);
  ASSERT_TRUE(suite->flush());
  fs::remove(database());
  suite->setObject("b", "two");
  ASSERT_TRUE(suite->flush());
  EXPECT_EQ(SqliteSettingsSuite::readAll(database()),
            (Values{{"a", std::int64_t{1}}, {"b", std::string("two")}}));

  // The whole directory, WAL files included.
  fs::remove_all(database().parent_path());
  ASSERT_TRUE(suite->flush());
  EXPECT_EQ(SqliteSettingsSuite::readAll(database()).size(), 2U);
}

TEST_F(SqliteSettingsSuiteTest, OpenFailsCleanlyWhereNoDatabaseCanBeMade) {
  std::ofstream(scratch.path() / "file") << "not a directory";
  EXPECT_EQ(SqliteSettingsSuite::open(scratch.path() / "file" / "settings.sqlite3"), nullptr);
  // An existing file that is not a database is refused and left as it was.
  std::ofstream(scratch.path() / "text.sqlite3") << "plain text, long enough to be a header....";
  EXPECT_EQ(SqliteSettingsSuite::open(scratch.path() / "text.sqlite3"), nullptr);
  EXPECT_EQ(metrics_test::readFile(scratch.path() / "text.sqlite3"),
            "plain text, long enough to be a header....");
}

TEST_F(SqliteSettingsSuiteTest, ConcurrentWritersAndFlushesLoseNothing) {
  {
    auto suite = SqliteSettingsSuite::open(database(), std::chrono::milliseconds(1));
    ASSERT_NE(suite, nullptr);
    std::atomic<int> writersLeft{3};
    const auto writer = [&](const std::string& key) {
      for (int i = 1; i <= 500; ++i) {
        suite->setInteger(key, i);
        suite->setObject("shared", key);
      }
      writersLeft.fetch_sub(1);
    };
    std::thread a(writer, "a"), b(writer, "b"), c(writer, "c");
    while (writersLeft.load() > 0) {
      suite->flush();
    }
    a.join();
    b.join();
    c.join();
  }
  Values stored = SqliteSettingsSuite::readAll(database());
  EXPECT_EQ(stored.erase("shared"), 1U);
  EXPECT_EQ(stored,
            (Values{{"a", std::int64_t{500}}, {"b", std::int64_t{500}}, {"c", std::int64_t{500}}}));
}

}  // namespace
}  // namespace flowmere::common
