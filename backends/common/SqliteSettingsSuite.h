#pragma once

// A settings suite that the processes of an application group share: an SQLite database in the
// group's container, readable and writable by any of them (and by the `sqlite3` command).
//
// A write returns at once and is visible to the writer immediately: it lands in an in-memory
// cache and marks the key pending. A writer thread wakes on the first pending key, waits
// `flushDelay` so that repeated writes of the same key collapse into one row update, then stores
// every pending key in one transaction. Callers never touch the database, so another process
// holding the database lock delays only the writer thread, which keeps the keys pending and tries
// again later. A database file deleted underneath is created again, with every value this suite
// holds, by the next store. The destructor stores whatever is still pending, so nothing written
// before a clean exit is lost.
//
// Schema: settings(key TEXT PRIMARY KEY NOT NULL, value, type TEXT NOT NULL,
// updated_at REAL NOT NULL); `value` keeps its native SQLite type (INTEGER, REAL or TEXT; a NaN
// double is stored as NULL), `type` is 'integer', 'double' or 'string', `updated_at` is Unix time
// in seconds.
//
// Threading: any thread. `cacheMutex_` guards the cache, the pending flags and the stop flag and
// is held only for in-memory work. `databaseMutex_` guards the connection, its prepared
// statement and the store batch; it is taken by the writer thread, `flush` and the destructor,
// always before `cacheMutex_` when both are held.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <variant>
#include <vector>

#include "platform/Services.h"
#include "platform/ThreadAnnotations.h"

struct sqlite3;
struct sqlite3_stmt;

namespace flowmere::common {

class SqliteSettingsSuite final : public platform::SettingsSuite {
 public:
  using Value = std::variant<std::int64_t, double, std::string>;

  // How long the writer thread (never a caller of the setters) waits for another process's lock.
  static constexpr std::chrono::milliseconds kBusyTimeout{3000};

  // Creates the parent directory if needed and opens (creating if needed) the database in WAL
  // mode with the schema above. Null when the database cannot be used.
  static std::shared_ptr<SqliteSettingsSuite> open(
      const std::filesystem::path& databaseFile,
      std::chrono::milliseconds flushDelay = std::chrono::milliseconds(50));
  // The database file inside an application-group container.
  static std::filesystem::path defaultDatabaseFile(const std::filesystem::path& container) {
    return container / "settings.sqlite3";
  }
  // Every stored value, read through a read-only connection of its own, as another process
  // would. Empty when the database cannot be read.
  static std::map<std::string, Value> readAll(const std::filesystem::path& databaseFile);

  ~SqliteSettingsSuite() override;
  SqliteSettingsSuite(const SqliteSettingsSuite&) = delete;
  SqliteSettingsSuite& operator=(const SqliteSettingsSuite&) = delete;

  void setInteger(std::string_view key, std::int64_t value) override;
  void setDouble(std::string_view key, double value) override;
  void setObject(std::string_view key, std::string_view value) override;

  // The value as the writer sees it, including writes not stored yet.
  [[nodiscard]] std::optional<Value> valueForKey(std::string_view key) const;
  // Stores everything pending now and returns when done (after any store already under way).
  // True when the store succeeded; on failure the keys stay pending for the writer thread.
  bool flush();
  [[nodiscard]] const std::filesystem::path& databaseFile() const { return databaseFile_; }
  // Row updates written to the database so far; shows how well writes were coalesced.
  [[nodiscard]] std::uint64_t rowsStored() const {
    return rowsStored_.load(std::memory_order_relaxed);
  }

 private:
  struct Entry {
    Value value;
    bool pending = false;
  };
  // One row of a store, copied out of the cache so that the cache lock is not held during I/O.
  struct Row {
    std::string key;
    Value value;
  };

  SqliteSettingsSuite(std::filesystem::path databaseFile, std::chrono::milliseconds flushDelay);

  template <typename Assign>
  void write(std::string_view key, Assign assign) EXCLUDES(cacheMutex_);
  bool openDatabase() REQUIRES(databaseMutex_);
  void closeDatabase() REQUIRES(databaseMutex_);
  bool databaseHasMoved() REQUIRES(databaseMutex_);
  // Copies the pending keys into `batch_`, clearing their flags; returns how many.
  std::size_t takePending() REQUIRES(databaseMutex_) EXCLUDES(cacheMutex_);
  bool writeRows(std::size_t count) REQUIRES(databaseMutex_);
  bool storePending() REQUIRES(databaseMutex_) EXCLUDES(cacheMutex_);
  void runWriter() EXCLUDES(cacheMutex_, databaseMutex_);

  const std::filesystem::path databaseFile_;
  const std::chrono::milliseconds flushDelay_;

  mutable platform::Mutex cacheMutex_;
  // Signalled when the first key becomes pending and when the suite stops.
  std::condition_variable_any wake_;
  std::map<std::string, Entry, std::less<>> cache_ GUARDED_BY(cacheMutex_);
  bool anyPending_ GUARDED_BY(cacheMutex_) = false;
  bool stopping_ GUARDED_BY(cacheMutex_) = false;

  platform::Mutex databaseMutex_;
  sqlite3* database_ GUARDED_BY(databaseMutex_) = nullptr;
  sqlite3_stmt* upsert_ GUARDED_BY(databaseMutex_) = nullptr;
  // Reused from store to store so that its strings keep their storage.
  std::vector<Row> batch_ GUARDED_BY(databaseMutex_);

  std::atomic<std::uint64_t> rowsStored_{0};

  // Started by `open` once the database is usable; joined by the destructor.
  std::thread writer_;
};

}  // namespace flowmere::common
