#pragma once

// A settings suite that the processes of an application group share: an SQLite database in the
// group's container.
//
// Like the platform's own settings service, a write returns at once and is visible to the writer
// immediately (an in-memory cache); a writer thread stores it in the database shortly after,
// coalescing repeated writes of the same key into one row update, and the destructor stores
// whatever is still pending, so nothing written before a clean exit is lost. Callers never touch
// the database: another process holding the database lock delays only the writer thread, which
// keeps the keys pending and tries again. A database file deleted underneath is created again on
// the next store.
//
// Schema: settings(key TEXT PRIMARY KEY, value, type TEXT, updated_at REAL); `value` keeps its
// native SQLite type (INTEGER, REAL or TEXT), `type` is 'integer', 'double' or 'string',
// `updated_at` is Unix time in seconds.
//
// Threading: any thread. `cacheMutex_` guards the cache, the pending flags and the stop flag;
// `databaseMutex_` guards the connection and is taken only by the writer thread and `flush`.

#include <sqlite3.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>

#include "platform/Services.h"

namespace flowmere::common {

class SqliteSettingsSuite final : public platform::SettingsSuite {
 public:
  using Value = std::variant<std::int64_t, double, std::string>;

  // Opens (creating if needed) the database; null when it cannot be used.
  static std::shared_ptr<SqliteSettingsSuite> open(
      const std::filesystem::path& databaseFile,
      std::chrono::milliseconds flushDelay = std::chrono::milliseconds(50));
  // The database file inside an application-group container.
  static std::filesystem::path defaultDatabaseFile(const std::filesystem::path& container) {
    return container / "settings.sqlite3";
  }
  // Every stored value, read through a connection of its own, as another process would.
  static std::map<std::string, Value> readAll(const std::filesystem::path& databaseFile);

  SqliteSettingsSuite(std::filesystem::path databaseFile, std::chrono::milliseconds flushDelay);
  ~SqliteSettingsSuite() override;
  SqliteSettingsSuite(const SqliteSettingsSuite&) = delete;
  SqliteSettingsSuite& operator=(const SqliteSettingsSuite&) = delete;

  void setInteger(std::string_view key, std::int64_t value) override;
  void setDouble(std::string_view key, double value) override;
  void setObject(std::string_view key, std::string_view value) override;

  // The value as the writer sees it (including writes not yet stored).
  [[nodiscard]] std::optional<Value> valueForKey(std::string_view key) const;
  // Stores everything pending now; true when nothing is left pending.
  bool flush();
  [[nodiscard]] const std::filesystem::path& databaseFile() const { return databaseFile_; }

 private:
  struct Entry {
    Value value;
    bool pending = false;
  };

  template <typename Assign>
  void write(std::string_view key, Assign assign);
  bool openDatabase();
  void closeDatabase();
  bool storePending();
  void runWriter();

  const std::filesystem::path databaseFile_;
  const std::chrono::milliseconds flushDelay_;

  mutable std::mutex cacheMutex_;
  std::condition_variable wake_;
  std::map<std::string, Entry, std::less<>> cache_;  // guarded by cacheMutex_
  bool anyPending_ = false;                          // guarded by cacheMutex_
  bool stopping_ = false;                            // guarded by cacheMutex_

  std::mutex databaseMutex_;
  sqlite3* database_ = nullptr;  // guarded by databaseMutex_
  ino_t databaseInode_ = 0;      // guarded by databaseMutex_

  std::thread writer_;
};

}  // namespace flowmere::common
