// Owning holder of a prepared SQLite statement, and sqlite3_exec with its
// message copied out.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>

class SqliteStatement {
 public:
  SqliteStatement() = default;
  ~SqliteStatement() { sqlite3_finalize(mStmt); }
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  // On failure `error`, if given, receives SQLite's message. The message
  // belongs to the connection, which other threads share, so it is copied
  // under the connection's mutex before another call can replace it.
  int prepare(sqlite3* db, const std::string& sql, std::string* error = nullptr) {
    sqlite3_mutex* mutex = sqlite3_db_mutex(db);
    sqlite3_mutex_enter(mutex);
    const int rc = sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size() + 1), &mStmt, nullptr);
    if (rc != SQLITE_OK && error != nullptr) *error = sqlite3_errmsg(db);
    sqlite3_mutex_leave(mutex);
    return rc;
  }
  // Finalizes now and reports SQLite's result.
  int finalize() {
    int rc = sqlite3_finalize(mStmt);
    mStmt = nullptr;
    return rc;
  }
  sqlite3_stmt* get() const { return mStmt; }

 private:
  sqlite3_stmt* mStmt = nullptr;
};

// Runs `sql`; on failure `error` receives SQLite's message, if it gave one.
// The message is freed here whatever happens to the copy.
inline int sqliteExec(sqlite3* db, const char* sql, std::string& error) {
  char* message = nullptr;
  const int rc = sqlite3_exec(db, sql, nullptr, nullptr, &message);
  const std::unique_ptr<char, decltype(&sqlite3_free)> held(message, &sqlite3_free);
  error = message != nullptr ? message : "";
  return rc;
}
