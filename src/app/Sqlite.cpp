#include "app/Sqlite.h"

#include <sqlite3.h>

namespace velko::app {

void check(sqlite3* db, int rc, std::string_view what) {
  if (rc == SQLITE_OK || rc == SQLITE_ROW || rc == SQLITE_DONE) {
    return;
  }
  std::string text(what);
  text += ": ";
  text += db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
  throw StoreError(rc & 0xff, text);
}

Statement::Statement(sqlite3* db, std::string_view sql) : db_(db) {
  check(db_,
        sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                           &stmt_, nullptr),
        "preparing a catalogue statement");
}

Statement::~Statement() { sqlite3_finalize(stmt_); }

Statement& Statement::bind(int index, std::int64_t value) {
  check(db_, sqlite3_bind_int64(stmt_, index, value), "binding");
  return *this;
}

Statement& Statement::bind(int index, double value) {
  check(db_, sqlite3_bind_double(stmt_, index, value), "binding");
  return *this;
}

Statement& Statement::bind(int index, std::string_view text) {
  check(db_,
        sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8),
        "binding");
  return *this;
}

Statement& Statement::bindBlob(int index, std::string_view bytes) {
  check(db_, sqlite3_bind_blob64(stmt_, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT),
        "binding");
  return *this;
}

Statement& Statement::bindNull(int index) {
  check(db_, sqlite3_bind_null(stmt_, index), "binding");
  return *this;
}

bool Statement::step() {
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) {
    return true;
  }
  if (rc == SQLITE_DONE) {
    return false;
  }
  check(db_, rc, "reading or writing the catalogue");
  return false;
}

void Statement::run() {
  while (step()) {
  }
}

void Statement::reset() {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

bool Statement::isNull(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}
std::int64_t Statement::int64(int column) const { return sqlite3_column_int64(stmt_, column); }
double Statement::real(int column) const { return sqlite3_column_double(stmt_, column); }
std::string Statement::text(int column) const {
  const auto* p = sqlite3_column_text(stmt_, column);
  return p ? std::string(reinterpret_cast<const char*>(p),
                         static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)))
           : std::string();
}
std::string_view Statement::blob(int column) const {
  const void* p = sqlite3_column_blob(stmt_, column);
  return p ? std::string_view(static_cast<const char*>(p),
                              static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)))
           : std::string_view();
}
std::optional<std::int64_t> Statement::optInt64(int column) const {
  return isNull(column) ? std::nullopt : std::optional(int64(column));
}
std::optional<double> Statement::optReal(int column) const {
  return isNull(column) ? std::nullopt : std::optional(real(column));
}
std::optional<std::string> Statement::optText(int column) const {
  return isNull(column) ? std::nullopt : std::optional(text(column));
}

Database::Database(const std::string& path) {
  const int rc = sqlite3_open_v2(path.c_str(), &db_,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
  if (rc != SQLITE_OK) {
    std::string text = "cannot open the catalogue " + path + ": " +
                       (db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
    sqlite3_close(db_);
    db_ = nullptr;
    throw StoreError(rc, text);
  }
  sqlite3_extended_result_codes(db_, 0);
}

Database::~Database() {
  cache_.clear();
  sqlite3_close(db_);
}

void Database::exec(std::string_view sql) {
  char* message = nullptr;
  const std::string text(sql);
  const int rc = sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &message);
  if (rc != SQLITE_OK) {
    std::string what = message ? message : sqlite3_errstr(rc);
    sqlite3_free(message);
    throw StoreError(rc & 0xff, "catalogue: " + what);
  }
}

StatementRef Database::prepare(std::string_view sql) {
  auto it = cache_.find(std::string(sql));
  if (it == cache_.end()) {
    it = cache_.emplace(std::string(sql), std::make_unique<Statement>(db_, sql)).first;
  }
  return StatementRef(*it->second);
}

std::int64_t Database::lastInsertRowid() const { return sqlite3_last_insert_rowid(db_); }
int Database::changes() const { return sqlite3_changes(db_); }

Transaction::Transaction(Database& db) : db_(db) { db_.exec("BEGIN IMMEDIATE"); }

Transaction::~Transaction() {
  if (!done_) {
    // A failed COMMIT may already have ended the transaction; rolling back then is harmless.
    sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
}

void Transaction::commit() {
  db_.exec("COMMIT");
  done_ = true;
}

} // namespace velko::app
