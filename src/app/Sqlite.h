// A thin RAII layer over SQLite: a database with a statement cache, typed binding and reading,
// and a transaction guard. Every failure throws StoreError; a step never fails silently.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace velko::app {

/// A failure of the catalogue store. `code` is SQLite's primary result code.
class StoreError : public std::runtime_error {
public:
  StoreError(int code, const std::string& text) : std::runtime_error(text), code_(code) {}
  int code() const { return code_; }

private:
  int code_;
};

class Statement {
public:
  Statement(sqlite3* db, std::string_view sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  // Parameters are numbered from 1, as in SQLite.
  Statement& bind(int index, std::int64_t value);
  Statement& bind(int index, int value) { return bind(index, std::int64_t{value}); }
  Statement& bind(int index, bool value) { return bind(index, std::int64_t{value}); }
  Statement& bind(int index, double value);
  Statement& bind(int index, std::string_view text); ///< copied by SQLite
  Statement& bind(int index, const char* text) { return bind(index, std::string_view(text)); }
  Statement& bind(int index, const std::string& text) { return bind(index, std::string_view(text)); }
  Statement& bindBlob(int index, std::string_view bytes);
  Statement& bindNull(int index);
  template <class T> Statement& bind(int index, const std::optional<T>& value) {
    return value ? bind(index, *value) : bindNull(index);
  }

  /// Binds each argument in turn from parameter 1.
  template <class... A> Statement& bindAll(const A&... args) {
    int i = 0;
    (bind(++i, args), ...);
    return *this;
  }

  /// Advances to the next row; false when done. Throws StoreError.
  bool step();
  /// Runs a statement that returns no rows.
  void run();
  /// Clears bindings and rewinds, for the next use.
  void reset();

  // Columns are numbered from 0.
  bool isNull(int column) const;
  std::int64_t int64(int column) const;
  double real(int column) const;
  std::string text(int column) const;
  std::string_view blob(int column) const; ///< valid until the next step or reset
  std::optional<std::int64_t> optInt64(int column) const;
  std::optional<double> optReal(int column) const;
  std::optional<std::string> optText(int column) const;

private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

/// A prepared statement borrowed from the cache; rewound when the handle goes.
class StatementRef {
public:
  explicit StatementRef(Statement& s) : s_(&s) {}
  ~StatementRef() { s_->reset(); }
  StatementRef(const StatementRef&) = delete;
  StatementRef& operator=(const StatementRef&) = delete;
  Statement* operator->() const { return s_; }
  Statement& operator*() const { return *s_; }

private:
  Statement* s_;
};

class Database {
public:
  /// Opens (creating when missing) the database file. Throws StoreError.
  explicit Database(const std::string& path);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// Runs one or more statements that take no parameters.
  void exec(std::string_view sql);
  /// The cached statement for this SQL text, prepared on first use.
  StatementRef prepare(std::string_view sql);
  std::int64_t lastInsertRowid() const;
  int changes() const;
  sqlite3* handle() const { return db_; }

private:
  sqlite3* db_ = nullptr;
  std::unordered_map<std::string, std::unique_ptr<Statement>> cache_;
};

/// BEGIN IMMEDIATE on construction; ROLLBACK on destruction unless committed.
class Transaction {
public:
  explicit Transaction(Database& db);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit();

private:
  Database& db_;
  bool done_ = false;
};

/// Throws StoreError with SQLite's message when `rc` is not SQLITE_OK.
void check(sqlite3* db, int rc, std::string_view what);

} // namespace velko::app
