// Owning holder of a prepared SQLite statement.
#pragma once

#include <sqlite3.h>

#include <string>

class SqliteStatement {
 public:
  SqliteStatement() = default;
  ~SqliteStatement() { sqlite3_finalize(mStmt); }
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  int prepare(sqlite3* db, const std::string& sql) {
    return sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size() + 1), &mStmt, nullptr);
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
