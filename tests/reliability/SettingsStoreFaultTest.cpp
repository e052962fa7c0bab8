// The SQLite settings store under faults while frames flow, in virtual time: the database deleted
// underneath, and locked by another connection. The relay must not notice (no stall, no log
// line), and once the service has closed the store the database must hold the last values.
//
// The store's writer thread runs in real time beside the virtual relay, so when it stores is
// not fixed; what is fixed is that closing the store writes everything it still holds, which is
// what these tests read back.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>

#include "VANEProbeExtensionProvider.h"
#include "common/SqliteSettingsSuite.h"
#include "embedded/EmbeddedCameraService.h"
#include "reliability/FrameFeeder.h"
#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

namespace fs = std::filesystem;
using common::SqliteSettingsSuite;
using reliability::FrameFeeder;

constexpr std::size_t kFormat = 2;

// The extension on the embedded service in virtual time, with the SQLite store in a container
// that the fixture owns, so that the database outlives the service and can be read after it.
// Test thread only: in virtual time every log line and subscriber call comes on it.
class SettingsStoreFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    embedded::EmbeddedOptions options;
    options.containerDirectory = directory.path() / "container";
    options.temporaryDirectory = directory.path() / "tmp";
    options.settings = embedded::EmbeddedOptions::Settings::kSqlite;
    options.logSink = [this](std::string_view line) { logs.emplace_back(line); };
    fs::create_directories(options.temporaryDirectory);
    service = embedded::EmbeddedCameraService::create(std::move(options));
    provider = VANEProbeExtensionProviderSource::create(service, nullptr);
    service->startService(provider->platformProvider());
    service->onScheduledOutput(
        [this](const embedded::EmbeddedStream&, const platform::ScheduledOutput&) { ++relayed; });

    producer = service->makeClient(4242, "producer");
    auto sink = service->sinkStream();
    sink->authorize(producer);
    platform::StreamProperties format;
    format.setActiveFormatIndex(static_cast<std::int64_t>(kFormat));
    ASSERT_TRUE(sink->setProperties(format).ok());
    ASSERT_TRUE(sink->start().ok());
    feeder = std::make_unique<FrameFeeder>(*service, producer, kFormat);
  }

  void TearDown() override { closeService(); }

  // Releases the extension and the service, as a process exit does; the settings store writes
  // what it still holds as it closes.
  void closeService() {
    feeder.reset();
    producer.reset();
    provider.reset();
    service.reset();
  }

  [[nodiscard]] fs::path database() const {
    return SqliteSettingsSuite::defaultDatabaseFile(directory.path() / "container");
  }

  // The log lines other than the per-frame and waiting lines of a healthy relay.
  [[nodiscard]] std::vector<std::string> unexpectedLogLines() const {
    static const std::vector<std::string> kRoutine = {
        "[VANE-EXT] sink received frame=", "[VANE-EXT] source send frame=",
        "[VANE-EXT] sink waiting polls=", "sink waiting for buffers polls="};
    std::vector<std::string> others;
    for (const std::string& line : logs) {
      if (std::none_of(kRoutine.begin(), kRoutine.end(),
                       [&](const std::string& prefix) { return line.rfind(prefix, 0) == 0; })) {
        others.push_back(line);
      }
    }
    return others;
  }

  // The four values of the last run, as another process reads them from the database.
  void expectStoredValues(std::int64_t framesReceived) {
    const auto stored = SqliteSettingsSuite::readAll(database());
    using Value = SqliteSettingsSuite::Value;
    const auto at = [&](const char* key) {
      const auto found = stored.find(key);
      return found == stored.end() ? std::optional<Value>() : std::optional<Value>(found->second);
    };
    EXPECT_EQ(at("bridge_frames_received"), Value(framesReceived));
    EXPECT_EQ(at("bridge_last_frame_number"), Value(std::int64_t{0}));
    EXPECT_EQ(at("bridge_latency_average_ms"), Value(0.0));
    EXPECT_EQ(at("bridge_extension_status"),
              Value(std::string("sink waiting for buffers polls=1")));
  }

  testing::TemporaryDirectory directory;
  std::vector<std::string> logs;
  std::size_t relayed = 0;
  std::shared_ptr<embedded::EmbeddedCameraService> service;
  std::shared_ptr<VANEProbeExtensionProviderSource> provider;
  std::shared_ptr<const platform::Client> producer;
  std::unique_ptr<FrameFeeder> feeder;
};

class DeletedDatabaseTest : public SettingsStoreFaultTest,
                            public ::testing::WithParamInterface<std::vector<std::string>> {};

// The database is deleted while frames flow (the main file alone, or with its write-ahead log
// and shared-memory index): the store creates it again with every value it holds.
TEST_P(DeletedDatabaseTest, IsCreatedAgainWithEveryValue) {
  feeder->feedFor(1.0);
  logs.clear();
  for (const std::string& suffix : GetParam()) {
    fs::remove(database().string() + suffix);
  }
  feeder->feedFor(2.0);
  EXPECT_EQ(relayed, 90U);
  EXPECT_EQ(unexpectedLogLines(), std::vector<std::string>{});
  closeService();
  expectStoredValues(90);
}

INSTANTIATE_TEST_SUITE_P(Files, DeletedDatabaseTest,
                         ::testing::Values(std::vector<std::string>{""},
                                           std::vector<std::string>{"", "-wal", "-shm"}),
                         [](const ::testing::TestParamInfo<std::vector<std::string>>& files) {
                           return files.param.size() == 1 ? std::string("MainFileOnly")
                                                          : std::string("WithLogAndIndex");
                         });

// Another connection holds the database's write lock for a while: the relay goes on without a
// stall or a log line, and no value is lost once the lock is released.
TEST_F(SettingsStoreFaultTest, LockedDatabaseDelaysNothingAndLosesNothing) {
  feeder->feedFor(1.0);
  logs.clear();

  sqlite3* locker = nullptr;
  ASSERT_EQ(sqlite3_open(database().c_str(), &locker), SQLITE_OK);
  // The store's writer thread may be in the middle of a store; wait for it.
  sqlite3_busy_timeout(locker, 30'000);
  ASSERT_EQ(sqlite3_exec(locker, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);

  feeder->feedFor(3.0);
  EXPECT_EQ(relayed, 120U);
  EXPECT_EQ(unexpectedLogLines(), std::vector<std::string>{});
  // The lock holds: another writer is turned away.
  sqlite3* probe = nullptr;
  ASSERT_EQ(sqlite3_open(database().c_str(), &probe), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(probe, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_BUSY);
  sqlite3_close(probe);

  ASSERT_EQ(sqlite3_exec(locker, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(locker);
  feeder->feedFor(1.0);
  EXPECT_EQ(relayed, 150U);
  closeService();
  expectStoredValues(150);
}

}  // namespace
}  // namespace flowmere
