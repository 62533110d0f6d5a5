// The checks a store makes on its database file at open, and what it does
// with a file that fails them.
#pragma once

#include <sqlite3.h>

#include <strings.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "kxdb/KxResult.h"
#include "kxdb/SqliteStatement.h"

namespace kxdb {

struct KxHealth {
  enum State {
    kHealthy,
    kDamaged,    // not a database, corrupt, or the table has other columns
    kUnchecked,  // the check itself failed: locked elsewhere, I/O error
  };
  State state;
  int rc;              // SQLite's result, for kUnchecked
  std::string detail;  // what was found, for anything but kHealthy
};

// Past this many kept files the last slot is reused.
inline constexpr int kMaxKept = 10;

namespace detail {

inline constexpr const char* kColumns[] = {"intcol1", "appName", "rsvdName", "blob"};

inline KxHealth failure(sqlite3* db, int rc) {
  return {isDamage(rc) ? KxHealth::kDamaged : KxHealth::kUnchecked, rc, sqlite3_errmsg(db)};
}

// SQLite reports up to a hundred problems, the first after a heading line;
// those two are enough to say what happened.
inline KxHealth quickCheck(sqlite3* db) {
  SqliteStatement check;
  int rc = check.prepare(db, "PRAGMA quick_check");
  if (rc != SQLITE_OK) return failure(db, rc);
  rc = sqlite3_step(check.get());
  if (rc != SQLITE_ROW) return failure(db, rc);
  std::string text;
  for (int lines = 0; rc == SQLITE_ROW && lines < 2; ++lines, rc = sqlite3_step(check.get())) {
    const unsigned char* line = sqlite3_column_text(check.get(), 0);
    text += (text.empty() ? "" : " ") + std::string(line != nullptr ? reinterpret_cast<const char*>(line) : "");
  }
  if (text == "ok") return {KxHealth::kHealthy, SQLITE_OK, ""};
  // One log line: SQLite's report may span lines.
  std::replace(text.begin(), text.end(), '\n', ' ');
  return {KxHealth::kDamaged, SQLITE_CORRUPT, "quick_check: " + text};
}

// Column names compare as SQL compares them, without regard to case.
inline KxHealth columnCheck(sqlite3* db, const std::string& table) {
  SqliteStatement info;
  int rc = info.prepare(db, "SELECT name FROM pragma_table_info(?1)");
  if (rc != SQLITE_OK) return failure(db, rc);
  sqlite3_bind_text(info.get(), 1, table.data(), static_cast<int>(table.size()), SQLITE_STATIC);
  std::vector<std::string> found;
  while ((rc = sqlite3_step(info.get())) == SQLITE_ROW)
    found.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(info.get(), 0)));
  if (rc != SQLITE_DONE) return failure(db, rc);
  bool same = found.empty() || found.size() == std::size(kColumns);
  for (size_t i = 0; same && i < found.size(); ++i) same = strcasecmp(found[i].c_str(), kColumns[i]) == 0;
  if (same) return {KxHealth::kHealthy, SQLITE_OK, ""};
  std::string columns;
  for (const std::string& name : found) columns += (columns.empty() ? "" : ", ") + name;
  return {KxHealth::kDamaged, SQLITE_SCHEMA, "table " + table + " has columns (" + columns + ")"};
}

}  // namespace detail

// Runs SQLite's quick check on the connection's file and compares the
// columns of `table`, if it exists, with the store's schema. A file that
// another connection keeps locked is unchecked, never damaged: only SQLite's
// verdict on the content counts as damage, so a lock never costs data.
inline KxHealth checkHealth(sqlite3* db, const std::string& table) {
  KxHealth health = detail::quickCheck(db);
  return health.state == KxHealth::kHealthy ? detail::columnCheck(db, table) : health;
}

// Moves `path`, with its "-wal" and "-shm" files, to "<path>.corrupt.<n>"
// for the first n from 1 not yet taken, so the file is kept for diagnosis
// under a name that says why; past kMaxKept the last slot is reused, so a
// file damaged at every start cannot fill the disk. Returns the suffix
// used, or "" with the reason in `error`.
inline std::string moveAside(const std::string& path, std::string& error) {
  namespace fs = std::filesystem;
  std::error_code ec;
  std::string suffix;
  for (int n = 1; n <= kMaxKept; ++n) {
    suffix = ".corrupt." + std::to_string(n);
    if (!fs::exists(path + suffix, ec)) break;
  }
  fs::rename(path, path + suffix, ec);
  if (ec) {
    error = ec.message();
    return "";
  }
  // A journal left behind would be replayed into the fresh file of that
  // name, and a stale one in the slot into the kept file: each goes with its
  // file, or goes.
  for (const char* journal : {"-wal", "-shm"}) {
    std::error_code moved;
    fs::remove(path + suffix + journal, moved);
    fs::rename(path + journal, path + suffix + journal, moved);
    if (moved) fs::remove(path + journal, moved);
  }
  return suffix;
}

}  // namespace kxdb
