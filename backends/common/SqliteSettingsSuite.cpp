#include "common/SqliteSettingsSuite.h"

#include <sqlite3.h>

#include <algorithm>

namespace flowmere::common {

namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS settings ("
    "key TEXT PRIMARY KEY NOT NULL, value, type TEXT NOT NULL, updated_at REAL NOT NULL)";
constexpr const char* kUpsert =
    "INSERT INTO settings (key, value, type, updated_at) VALUES (?1, ?2, ?3, ?4) "
    "ON CONFLICT(key) DO UPDATE SET value = excluded.value, type = excluded.type, "
    "updated_at = excluded.updated_at";

// After a failed store the writer thread waits longer each time, so that a database that stays
// unusable (a read-only directory, a full disk) does not keep a core busy.
constexpr std::chrono::milliseconds kFirstRetryDelay{100};
constexpr std::chrono::milliseconds kLongestRetryDelay{5000};

double unixSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

bool execute(sqlite3* connection, const char* sql) {
  return sqlite3_exec(connection, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Copies `source` into `target`, reusing the target string's storage when both are texts.
void assignValue(SqliteSettingsSuite::Value& target, const SqliteSettingsSuite::Value& source) {
  const auto* text = std::get_if<std::string>(&source);
  auto* existing = std::get_if<std::string>(&target);
  if (text != nullptr && existing != nullptr) {
    existing->assign(*text);
  } else {
    target = source;
  }
}

}  // namespace

std::shared_ptr<SqliteSettingsSuite> SqliteSettingsSuite::open(
    const std::filesystem::path& databaseFile, std::chrono::milliseconds flushDelay) {
  try {
    std::shared_ptr<SqliteSettingsSuite> suite(new SqliteSettingsSuite(databaseFile, flushDelay));
    {
      const platform::Locker lock(suite->databaseMutex_);
      if (!suite->openDatabase()) {
        return nullptr;
      }
    }
    suite->writer_ = std::thread([raw = suite.get()] { raw->runWriter(); });
    return suite;
  } catch (...) {
    // No memory or no thread: the callers run without a settings suite.
    return nullptr;
  }
}

std::map<std::string, SqliteSettingsSuite::Value> SqliteSettingsSuite::readAll(
    const std::filesystem::path& databaseFile) {
  std::map<std::string, Value> values;
  sqlite3* connection = nullptr;
  if (sqlite3_open_v2(databaseFile.c_str(), &connection, SQLITE_OPEN_READONLY, nullptr) !=
      SQLITE_OK) {
    sqlite3_close_v2(connection);
    return values;
  }
  sqlite3_busy_timeout(connection, static_cast<int>(kBusyTimeout.count()));
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(connection, "SELECT key, value FROM settings", -1, &statement, nullptr) ==
      SQLITE_OK) {
    try {
      while (sqlite3_step(statement) == SQLITE_ROW) {
        const auto* keyText = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
        std::string key(keyText != nullptr ? keyText : "",
                        static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
        switch (sqlite3_column_type(statement, 1)) {
          case SQLITE_INTEGER:
            values[std::move(key)] = static_cast<std::int64_t>(sqlite3_column_int64(statement, 1));
            break;
          case SQLITE_FLOAT:
            values[std::move(key)] = sqlite3_column_double(statement, 1);
            break;
          case SQLITE_TEXT:
          case SQLITE_BLOB: {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
            values[std::move(key)] =
                std::string(text != nullptr ? text : "",
                            static_cast<std::size_t>(sqlite3_column_bytes(statement, 1)));
            break;
          }
          default:  // NULL: no value to report
            break;
        }
      }
    } catch (...) {
      values.clear();
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close_v2(connection);
  return values;
}

SqliteSettingsSuite::SqliteSettingsSuite(std::filesystem::path databaseFile,
                                         std::chrono::milliseconds flushDelay)
    : databaseFile_(std::move(databaseFile)), flushDelay_(flushDelay) {}

SqliteSettingsSuite::~SqliteSettingsSuite() {
  {
    const platform::Locker lock(cacheMutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  // join and the directory re-creation in storePending throw only for want of resources; the
  // destructor must not throw, so what is pending is lost then.
  try {
    if (writer_.joinable()) {
      writer_.join();  // before taking databaseMutex_, which the writer thread may be waiting for
    }
  } catch (...) {
  }
  const platform::Locker lock(databaseMutex_);
  try {
    storePending();
  } catch (...) {
  }
  closeDatabase();
}

template <typename Assign>
void SqliteSettingsSuite::write(std::string_view key, Assign assign) {
  bool firstPending = false;
  try {
    const platform::Locker lock(cacheMutex_);
    // Heterogeneous lookup: a key already known costs no allocation.
    auto found = cache_.find(key);
    if (found == cache_.end()) {
      found = cache_.try_emplace(std::string(key)).first;
    }
    assign(found->second.value);
    found->second.pending = true;
    firstPending = !anyPending_;
    anyPending_ = true;
  } catch (...) {
    // Out of memory for a new key or a longer text: the write is dropped, the cache keeps its
    // previous value. The interface has no way to report it.
    return;
  }
  // The writer thread waits only while nothing is pending; later writes need not wake it.
  if (firstPending) {
    wake_.notify_one();
  }
}

void SqliteSettingsSuite::setInteger(std::string_view key, std::int64_t value) {
  write(key, [value](Value& slot) { slot = value; });
}

void SqliteSettingsSuite::setDouble(std::string_view key, double value) {
  write(key, [value](Value& slot) { slot = value; });
}

void SqliteSettingsSuite::setObject(std::string_view key, std::string_view value) {
  write(key, [value](Value& slot) {
    if (auto* text = std::get_if<std::string>(&slot)) {
      text->assign(value);  // reuses the string's storage
    } else {
      slot = std::string(value);
    }
  });
}

std::optional<SqliteSettingsSuite::Value> SqliteSettingsSuite::valueForKey(
    std::string_view key) const {
  const platform::Locker lock(cacheMutex_);
  const auto found = cache_.find(key);
  if (found == cache_.end()) {
    return std::nullopt;
  }
  return found->second.value;
}

bool SqliteSettingsSuite::flush() {
  const platform::Locker lock(databaseMutex_);
  return storePending();
}

bool SqliteSettingsSuite::openDatabase() {
  // The directory may be missing at the first open or removed since.
  std::error_code error;
  if (const std::filesystem::path parent = databaseFile_.parent_path(); !parent.empty()) {
    std::filesystem::create_directories(parent, error);
  }
  sqlite3* connection = nullptr;
  // The connection is only ever used under databaseMutex_, so SQLite's own mutex is not needed.
  if (sqlite3_open_v2(databaseFile_.c_str(), &connection,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      nullptr) != SQLITE_OK) {
    sqlite3_close_v2(connection);
    return false;
  }
  sqlite3_busy_timeout(connection, static_cast<int>(kBusyTimeout.count()));
  // WAL lets readers in other processes read while the writer thread stores. Where WAL cannot be
  // used the database stays in its previous journal mode, which still works, so the result is
  // not checked; a file that is not a database fails at the schema below.
  execute(connection, "PRAGMA journal_mode=WAL");
  // In WAL mode NORMAL loses at most the last stores on a power cut, never consistency.
  execute(connection, "PRAGMA synchronous=NORMAL");
  if (!execute(connection, kSchema)) {
    sqlite3_close_v2(connection);
    return false;
  }
  database_ = connection;
  return true;
}

void SqliteSettingsSuite::closeDatabase() {
  sqlite3_finalize(upsert_);
  upsert_ = nullptr;
  sqlite3_close_v2(database_);
  database_ = nullptr;
}

bool SqliteSettingsSuite::databaseHasMoved() {
  // SQLite compares the inode it has open with the one now at the path (a missing path counts as
  // moved). The open descriptor keeps the old inode alive, so its number cannot be reused by a
  // new file in the meantime.
  int moved = 0;
  if (sqlite3_file_control(database_, "main", SQLITE_FCNTL_HAS_MOVED, &moved) != SQLITE_OK) {
    return false;
  }
  return moved != 0;
}

std::size_t SqliteSettingsSuite::takePending() {
  const platform::Locker lock(cacheMutex_);
  if (!anyPending_) {
    return 0;
  }
  std::size_t count = 0;
  for (auto& [key, entry] : cache_) {
    if (!entry.pending) {
      continue;
    }
    if (count == batch_.size()) {
      batch_.emplace_back();
    }
    Row& row = batch_[count++];
    row.key.assign(key);
    assignValue(row.value, entry.value);
    entry.pending = false;
  }
  anyPending_ = false;
  return count;
}

bool SqliteSettingsSuite::writeRows(std::size_t count) {
  if (upsert_ == nullptr && sqlite3_prepare_v3(database_, kUpsert, -1, SQLITE_PREPARE_PERSISTENT,
                                               &upsert_, nullptr) != SQLITE_OK) {
    return false;
  }
  // IMMEDIATE takes the write lock at once, so a busy database fails here (after kBusyTimeout)
  // rather than halfway through the rows.
  if (!execute(database_, "BEGIN IMMEDIATE")) {
    return false;
  }
  // Another process may have dropped the table since the connection was opened.
  bool stored = execute(database_, kSchema);
  const double now = unixSeconds();
  for (std::size_t i = 0; stored && i < count; ++i) {
    const Row& row = batch_[i];
    sqlite3_bind_text(upsert_, 1, row.key.data(), static_cast<int>(row.key.size()), SQLITE_STATIC);
    if (const auto* integer = std::get_if<std::int64_t>(&row.value)) {
      sqlite3_bind_int64(upsert_, 2, *integer);
      sqlite3_bind_text(upsert_, 3, "integer", -1, SQLITE_STATIC);
    } else if (const auto* real = std::get_if<double>(&row.value)) {
      sqlite3_bind_double(upsert_, 2, *real);
      sqlite3_bind_text(upsert_, 3, "double", -1, SQLITE_STATIC);
    } else {
      const std::string& text = std::get<std::string>(row.value);
      sqlite3_bind_text(upsert_, 2, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
      sqlite3_bind_text(upsert_, 3, "string", -1, SQLITE_STATIC);
    }
    sqlite3_bind_double(upsert_, 4, now);
    stored = sqlite3_step(upsert_) == SQLITE_DONE;
    sqlite3_reset(upsert_);
  }
  // The bound texts point into batch_; drop them before the rows are reused.
  sqlite3_clear_bindings(upsert_);
  stored = stored && execute(database_, "COMMIT");
  if (!stored) {
    execute(database_, "ROLLBACK");
  }
  return stored;
}

bool SqliteSettingsSuite::storePending() {
  // A file deleted or replaced underneath (or a connection lost to an earlier failure) is opened,
  // and so created, afresh; it holds none of this suite's values, so all of them are stored.
  if (database_ == nullptr || databaseHasMoved()) {
    closeDatabase();
    if (!openDatabase()) {
      return false;
    }
    const platform::Locker lock(cacheMutex_);
    for (auto& [key, entry] : cache_) {
      entry.pending = true;
    }
    anyPending_ = anyPending_ || !cache_.empty();
  }

  std::size_t count = 0;
  try {
    count = takePending();
  } catch (...) {
    return false;  // no memory for the batch: the keys not yet copied stay pending
  }
  if (count == 0) {
    return true;
  }
  if (writeRows(count)) {
    rowsStored_.fetch_add(count, std::memory_order_relaxed);
    return true;
  }
  // Pending again (a key written meanwhile already is), for the next store.
  const platform::Locker lock(cacheMutex_);
  for (std::size_t i = 0; i < count; ++i) {
    const auto found = cache_.find(batch_[i].key);
    if (found != cache_.end()) {
      found->second.pending = true;
    }
  }
  anyPending_ = true;
  return false;
}

void SqliteSettingsSuite::runWriter() {
  std::chrono::milliseconds retryDelay{0};
  for (;;) {
    {
      const platform::Locker lock(cacheMutex_);
      while (!anyPending_ && !stopping_) {
        wake_.wait(cacheMutex_);
      }
      // Let repeated writes of the same keys gather into one store (or, after a failed store,
      // give the other process time to finish).
      const auto deadline = std::chrono::steady_clock::now() + std::max(flushDelay_, retryDelay);
      while (!stopping_ && wake_.wait_until(cacheMutex_, deadline) == std::cv_status::no_timeout) {
      }
      if (stopping_) {
        return;  // the destructor stores what is pending
      }
    }
    bool stored = false;
    {
      const platform::Locker lock(databaseMutex_);
      try {
        stored = storePending();
      } catch (...) {
        // Out of memory while reopening: treated as a failed store, tried again later.
      }
    }
    if (stored) {
      retryDelay = std::chrono::milliseconds(0);
    } else {
      retryDelay = std::clamp(retryDelay * 2, kFirstRetryDelay, kLongestRetryDelay);
    }
  }
}

}  // namespace flowmere::common
