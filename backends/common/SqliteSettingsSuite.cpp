#include "common/SqliteSettingsSuite.h"

#include <sys/stat.h>

#include <vector>

namespace flowmere::common {

namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS settings ("
    "key TEXT PRIMARY KEY NOT NULL, value, type TEXT NOT NULL, updated_at REAL NOT NULL)";
constexpr const char* kUpsert =
    "INSERT INTO settings (key, value, type, updated_at) VALUES (?1, ?2, ?3, ?4) "
    "ON CONFLICT(key) DO UPDATE SET value = excluded.value, type = excluded.type, "
    "updated_at = excluded.updated_at";

double unixSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

ino_t inodeOf(const std::filesystem::path& file) {
  struct stat status {};
  return ::stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace

std::shared_ptr<SqliteSettingsSuite> SqliteSettingsSuite::open(
    const std::filesystem::path& databaseFile, std::chrono::milliseconds flushDelay) {
  std::error_code error;
  std::filesystem::create_directories(databaseFile.parent_path(), error);
  auto suite = std::make_shared<SqliteSettingsSuite>(databaseFile, flushDelay);
  {
    const std::scoped_lock lock(suite->databaseMutex_);
    if (!suite->openDatabase()) {
      return nullptr;
    }
  }
  // Start from what the group has stored already, as the platform's settings do.
  for (auto& [key, value] : readAll(databaseFile)) {
    suite->cache_.emplace(key, Entry{std::move(value), false});
  }
  suite->writer_ = std::thread([raw = suite.get()] { raw->runWriter(); });
  return suite;
}

std::map<std::string, SqliteSettingsSuite::Value> SqliteSettingsSuite::readAll(
    const std::filesystem::path& databaseFile) {
  std::map<std::string, Value> values;
  sqlite3* connection = nullptr;
  if (sqlite3_open_v2(databaseFile.c_str(), &connection, SQLITE_OPEN_READONLY, nullptr) !=
      SQLITE_OK) {
    sqlite3_close(connection);
    return values;
  }
  sqlite3_busy_timeout(connection, 2000);
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(connection, "SELECT key, value FROM settings", -1, &statement, nullptr) ==
      SQLITE_OK) {
    while (sqlite3_step(statement) == SQLITE_ROW) {
      const std::string key(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
      switch (sqlite3_column_type(statement, 1)) {
        case SQLITE_INTEGER:
          values[key] = static_cast<std::int64_t>(sqlite3_column_int64(statement, 1));
          break;
        case SQLITE_FLOAT:
          values[key] = sqlite3_column_double(statement, 1);
          break;
        default: {
          const auto* text = sqlite3_column_text(statement, 1);
          values[key] = std::string(text != nullptr ? reinterpret_cast<const char*>(text) : "");
        }
      }
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close(connection);
  return values;
}

SqliteSettingsSuite::SqliteSettingsSuite(std::filesystem::path databaseFile,
                                         std::chrono::milliseconds flushDelay)
    : databaseFile_(std::move(databaseFile)), flushDelay_(flushDelay) {}

SqliteSettingsSuite::~SqliteSettingsSuite() {
  {
    const std::scoped_lock lock(cacheMutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (writer_.joinable()) {
    writer_.join();
  }
  flush();
  const std::scoped_lock lock(databaseMutex_);
  closeDatabase();
}

template <typename Assign>
void SqliteSettingsSuite::write(std::string_view key, Assign assign) {
  bool wasIdle = false;
  {
    const std::scoped_lock lock(cacheMutex_);
    auto found = cache_.find(key);
    if (found == cache_.end()) {
      found = cache_.emplace(std::string(key), Entry{}).first;
    }
    assign(found->second.value);
    found->second.pending = true;
    wasIdle = !anyPending_;
    anyPending_ = true;
  }
  if (wasIdle) {
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
  const std::scoped_lock lock(cacheMutex_);
  auto found = cache_.find(key);
  if (found == cache_.end()) {
    return std::nullopt;
  }
  return found->second.value;
}

bool SqliteSettingsSuite::flush() {
  const std::scoped_lock lock(databaseMutex_);
  return storePending();
}

bool SqliteSettingsSuite::openDatabase() {
  if (sqlite3_open_v2(databaseFile_.c_str(), &database_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      nullptr) != SQLITE_OK) {
    closeDatabase();
    return false;
  }
  sqlite3_busy_timeout(database_, 2000);
  sqlite3_exec(database_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
  if (sqlite3_exec(database_, kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
    closeDatabase();
    return false;
  }
  databaseInode_ = inodeOf(databaseFile_);
  return true;
}

void SqliteSettingsSuite::closeDatabase() {
  if (database_ != nullptr) {
    sqlite3_close_v2(database_);
    database_ = nullptr;
  }
}

bool SqliteSettingsSuite::storePending() {
  // A file deleted (or replaced) underneath is opened, and so created, afresh.
  if (database_ == nullptr || inodeOf(databaseFile_) != databaseInode_) {
    closeDatabase();
    if (!openDatabase()) {
      return false;
    }
    // The new file holds nothing yet: store every value again.
    const std::scoped_lock lock(cacheMutex_);
    for (auto& [key, entry] : cache_) {
      entry.pending = true;
    }
    anyPending_ = !cache_.empty();
  }

  std::vector<std::pair<std::string, Value>> batch;
  {
    const std::scoped_lock lock(cacheMutex_);
    if (!anyPending_) {
      return true;
    }
    for (auto& [key, entry] : cache_) {
      if (entry.pending) {
        batch.emplace_back(key, entry.value);
        entry.pending = false;
      }
    }
    anyPending_ = false;
  }

  bool stored = sqlite3_exec(database_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_stmt* statement = nullptr;
  stored = stored && sqlite3_prepare_v2(database_, kUpsert, -1, &statement, nullptr) == SQLITE_OK;
  const double now = unixSeconds();
  for (std::size_t i = 0; stored && i < batch.size(); ++i) {
    const auto& [key, value] = batch[i];
    sqlite3_bind_text(statement, 1, key.c_str(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (const auto* integer = std::get_if<std::int64_t>(&value)) {
      sqlite3_bind_int64(statement, 2, *integer);
      sqlite3_bind_text(statement, 3, "integer", -1, SQLITE_STATIC);
    } else if (const auto* real = std::get_if<double>(&value)) {
      sqlite3_bind_double(statement, 2, *real);
      sqlite3_bind_text(statement, 3, "double", -1, SQLITE_STATIC);
    } else {
      const auto& text = std::get<std::string>(value);
      sqlite3_bind_text(statement, 2, text.c_str(), static_cast<int>(text.size()), SQLITE_STATIC);
      sqlite3_bind_text(statement, 3, "string", -1, SQLITE_STATIC);
    }
    sqlite3_bind_double(statement, 4, now);
    stored = sqlite3_step(statement) == SQLITE_DONE;
    sqlite3_reset(statement);
  }
  sqlite3_finalize(statement);
  stored = stored && sqlite3_exec(database_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
  if (!stored) {
    sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
    // Keep the batch pending (unless written again meanwhile) and try again later.
    const std::scoped_lock lock(cacheMutex_);
    for (const auto& [key, value] : batch) {
      cache_[key].pending = true;
    }
    anyPending_ = true;
  }
  return stored;
}

void SqliteSettingsSuite::runWriter() {
  std::unique_lock lock(cacheMutex_);
  while (!stopping_) {
    wake_.wait(lock, [this] { return anyPending_ || stopping_; });
    if (stopping_) {
      break;
    }
    // Let repeated writes of the same keys gather into one store.
    wake_.wait_for(lock, flushDelay_, [this] { return stopping_; });
    lock.unlock();
    {
      const std::scoped_lock database(databaseMutex_);
      storePending();
    }
    lock.lock();
  }
}

}  // namespace flowmere::common
