// A typed row store over one SQLite table with a write-back row cache.
//
// Every table has the same schema (intcol1, appName, rsvdName, blob); the
// row type T only gives the blob its fixed size and meaning. Queries go
// straight to SQLite; new and changed rows pass through the FIFO cache and
// are written in one transaction per write-back.
//
// Failures: every operation that reaches the database clears the calling
// thread's kxdb::lastError() on entry and records its failure there, so
// after a call it is empty exactly when that call succeeded (for
// writeDeallocateDR: when its write-back committed every row). Log lines
// name the public operation that failed.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <filesystem>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "FsRoot.h"
#include "kxdb/KxBusyHandler.h"
#include "kxdb/KxDBDataRow.h"
#include "kxdb/KxDBDataRowKey.h"
#include "kxdb/KxDBDataRowView.h"
#include "kxdb/KxDBDataTable.h"
#include "kxdb/KxFailFast.h"
#include "kxdb/KxFileHealth.h"
#include "kxdb/KxLastError.h"
#include "kxdb/KxLog.h"
#include "kxdb/KxNameCheck.h"
#include "kxdb/KxOperation.h"
#include "kxdb/KxResult.h"
#include "kxdb/KxdbTypes.h"
#include "kxdb/SqliteStatement.h"

template <typename... T>
class KxDatabase;

// Every use in the system names exactly one row type.
template <typename T>
class KxDatabase<T> : public KxDBDataTable<T> {
 public:
  using Row = KxDBDataRow<T>;
  using vecT = typename KxDBDataTable<T>::vecT;

  static constexpr size_t kMaxReadRows = 10000;
  static constexpr size_t kMaxDistinctValues = 1000;
  static constexpr size_t kMaxAllocRows = 100;
  // Rows kept cached while write-backs fail (a full disk, a lock held
  // elsewhere): about a megabyte of rows, and never fewer than one
  // allocation. Samples keep arriving at every launch, and a store that
  // cannot write for days must not grow without bound inside the process
  // that it is meant to free memory for; past the bound the oldest go.
  static constexpr size_t kMaxCachedRows = std::max<size_t>(kMaxAllocRows, (size_t{1} << 20) / sizeof(Row));

  // The capacity is accepted for the callers' sake and deliberately unused:
  // a table is never limited by it. The database is not opened here.
  template <size_t N>
  KxDatabase(unsigned long capacity, std::string dbFileName, const char (&tableName)[N])
      : KxDBDataTable<T>(tableName), mDbDir("/data/vendor/kx/"), mDbFileName(std::move(dbFileName)) {
    (void)capacity;
  }

  ~KxDatabase() {
    writeCachedDRToDisk();
    closeKxdb();
  }

  kxdbError KxDatabaseInit() { return openKxdb(); }

  kxdbError openKxdb();
  kxdbError createKxdbTables() {
    kxdb::KxOperation op(__func__, this->mTableName, mRefusalLogged);
    return createTable(op);
  }
  kxdbError closeKxdb();

  kxdbError KxDatabaseWriteCachedToDisk() {
    return writeCachedDRToDisk() != KXDB_SUCCESS ? KXDB_FAILURE : KXDB_SUCCESS;
  }

  // Queries.
  vecT readAllocateDR(KxDBDataRowKey& key, unsigned long count, kxdbOrderByCol col, kxdbOrderByDir dir);
  // Runs the query of readAllocateDR and hands each row to `onRow` as a
  // KxDBDataRowView<T>&, valid during that call, instead of allocating it;
  // returns the number of rows. For callers that only look at the rows.
  template <typename OnRow>
  size_t readEachDR(KxDBDataRowKey& key, unsigned long count, kxdbOrderByCol col, kxdbOrderByDir dir,
                    OnRow&& onRow);
  int getCountDR(KxDBDataRowKey& key);
  int deleteAllDR(KxDBDataRowKey& key);
  std::vector<std::string> getTxtColUniqList(kxdbTxtCol col, kxdbOrderByCol orderCol, kxdbOrderByDir dir);
  void build_query_for_where_clause(KxDBDataRowKey& key, std::string& query);

  // Rows and the write-back cache.
  vecT getRow(unsigned long n);
  vecT allocateDR(unsigned long n) { return getRow(n); }
  unsigned cacheRow(vecT& rows);
  int writeDeallocateDR(vecT& rows);
  kxdbError writeCachedDRToDisk();
  int deleteDeallocateDR(vecT& rows);
  int deallocateDR(vecT& rows);
  int freeRow(vecT& rows) { return deallocateDR(rows); }

  bool isOpen() const { return mDb != nullptr; }
  // Whether rows wait in the cache for a write-back.
  bool hasCachedRows() {
    std::lock_guard<std::mutex> lock(this->mCacheMutex);
    return !this->mCacheList.empty();
  }
  // Pauses slept waiting for locks held elsewhere, since construction.
  unsigned long lockWaits() const { return mBusy.waits(); }

 private:
  using Operation = kxdb::KxOperation;
  enum class RowOutcome { kWritten, kDropped, kStoreFault };

  std::string dbName() const { return mDbFileName.empty() ? std::string(":memory:") : mDbDir + mDbFileName; }
  const char* table() const { return this->mTableName.c_str(); }

  bool namesUsable(Operation& op) const;
  bool openChecked(Operation& op);
  bool connect(Operation& op, const std::string& name, const std::string& path);
  bool startAfresh(Operation& op, const std::string& name, const std::string& path, const std::string& why);
  kxdbError createTable(Operation& op);

  // Prepares `sql` into `stmt`; a failure is logged with SQLite's message.
  bool prepareLogged(Operation& op, SqliteStatement& stmt, const std::string& sql);
  // Runs a fixed statement; a failure is logged with SQLite's message.
  bool execLogged(Operation& op, const char* sql);
  bool beginWrite(Operation& op);
  bool commitWrite(Operation& op);
  void rollbackIfOpen(Operation& op);

  kxdbError writeBack(Operation& op);
  bool takeCachedRow(std::list<Row*>& written);
  RowOutcome writeRow(Operation& op, Row* row, sqlite3_stmt* insert, sqlite3_stmt* update);
  void keepCached(Operation& op, std::list<Row*>& rows);
  static void freeRows(std::list<Row*>& rows);
  static void fillRow(Row* row, sqlite3_stmt* stmt);
  std::string keyedStatement(const char* head, KxDBDataRowKey& key);
  template <typename OnRow>
  void selectRows(Operation& op, KxDBDataRowKey& key, unsigned long count, kxdbOrderByCol col, kxdbOrderByDir dir,
                  OnRow&& onRow);

  sqlite3* mDb = nullptr;
  std::string mDbDir;
  std::string mDbFileName;
  // Serialises this store's write transactions (write-back and deletion of
  // given rows). They share one connection, on which a second BEGIN would
  // fail and its ROLLBACK undo the first writer's open transaction. The
  // cache mutex is never taken while this one is held across SQLite calls.
  std::mutex mWriteMutex;
  kxdb::KxBusyHandler mBusy;
  // Set while a fail-fast refusal of this store has been logged and no
  // operation has succeeded since; see KxOperation.
  std::atomic<bool> mRefusalLogged{false};
  unsigned long mDroppedRows = 0;  // by the cache bound; guarded by mCacheMutex
};

// ---- opening, table creation, closing --------------------------------------

template <typename T>
kxdbError KxDatabase<T>::openKxdb() {
  Operation op(__func__, this->mTableName, mRefusalLogged);
  bool opened = false;
  op.guard(Operation::Thrown::kCaughtException, [&] {
    if (!namesUsable(op)) return;
    const kxdb::KxBusyHandler::OpenWait openWait(mBusy);
    opened = openChecked(op) && createTable(op) == KXDB_SUCCESS;
  });
  if (opened) return KXDB_SUCCESS;
  // A store that did not open completely is left closed, so that its
  // operations do nothing instead of failing one by one.
  closeKxdb();
  return KXDB_FAILURE;
}

template <typename T>
bool KxDatabase<T>::namesUsable(Operation& op) const {
  if (const char* why = kxdb::tableNameProblem(this->mTableName)) {
    op.record(SQLITE_MISUSE, why);
    KXLOGE_AS(op.name(), "KXDB", "ERROR:Dbt=%s unusable table name: %s\n", table(), why);
    return false;
  }
  if (const char* why = kxdb::fileNameProblem(mDbFileName)) {
    op.record(SQLITE_CANTOPEN, why);
    KXLOGE_AS(op.name(), "KXDB", "ERROR:Db=%s unusable file name: %s\n", dbName().c_str(), why);
    return false;
  }
  return true;
}

// A file database is checked before anything is written to it: a damaged
// file is moved aside and started afresh, a file that cannot be checked
// (locked elsewhere) fails the open and is left as it is.
template <typename T>
bool KxDatabase<T>::openChecked(Operation& op) {
  const std::string name = dbName();
  const std::string path = kxhost::devicePath(name);
  if (mDbFileName.empty()) return connect(op, name, path);
  std::error_code ec;
  const auto type = std::filesystem::status(path, ec).type();
  if (type != std::filesystem::file_type::not_found && type != std::filesystem::file_type::regular &&
      type != std::filesystem::file_type::none) {
    // A directory cannot be moved aside without risking what it holds.
    op.record(SQLITE_CANTOPEN, "not a regular file");
    KXLOGE_AS(op.name(), "KXDB", "ERROR:Db=%s is not a regular file, cannot open it as a database\n", name.c_str());
    return false;
  }
  if (!connect(op, name, path)) return false;
  const kxdb::KxHealth health = kxdb::checkHealth(mDb, this->mTableName);
  if (health.state == kxdb::KxHealth::kUnchecked) {
    op.record(health.rc, health.detail.c_str());
    KXLOGE_AS(op.name(), "KXDB", "ERROR:Db=%s cannot be checked at open: %s (%d)\n", name.c_str(), health.detail.c_str(), health.rc);
    return false;
  }
  if (health.state == kxdb::KxHealth::kDamaged && !startAfresh(op, name, path, health.detail)) return false;
  std::string err;
  if (sqliteExec(mDb, "PRAGMA journal_mode=WAL", err) != SQLITE_OK)
    KXLOGE_AS(op.name(), "KXDB", "sql:ERROR:Dbt=%s info=%s\n", name.c_str(), err.c_str());
  return true;
}

template <typename T>
bool KxDatabase<T>::connect(Operation& op, const std::string& name, const std::string& path) {
  const int rc = sqlite3_open_v2(path.c_str(), &mDb, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc != SQLITE_OK) {
    op.record(rc, sqlite3_errstr(rc));
    KXLOGE_AS(op.name(), "KXDB", "ERROR:Db=%s sql open failed, err=%d\n", name.c_str(), rc);
    closeKxdb();
    return false;
  }
  mBusy.install(mDb);
  return true;
}

// Keeps the damaged file for diagnosis and opens a new one in its place.
template <typename T>
bool KxDatabase<T>::startAfresh(Operation& op, const std::string& name, const std::string& path,
                                const std::string& why) {
  // Closing must not checkpoint the journal into the file or delete it:
  // both are kept as found.
  sqlite3_db_config(mDb, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  if (closeKxdb() != KXDB_SUCCESS) return false;
  std::string error;
  const std::string suffix = kxdb::moveAside(path, error);
  if (suffix.empty()) {
    op.record(SQLITE_CANTOPEN, error.c_str());
    KXLOGE_AS(op.name(), "KXDB", "ERROR:Db=%s damaged (%s) and cannot be moved aside: %s\n", name.c_str(), why.c_str(),
           error.c_str());
    return false;
  }
  KXLOGE_AS(op.name(), "KXDB", "ERROR:Db=%s damaged (%s): moved to %s%s, starting afresh\n", name.c_str(), why.c_str(),
         name.c_str(), suffix.c_str());
  return connect(op, name, path);
}

template <typename T>
kxdbError KxDatabase<T>::createTable(Operation& op) {
  if (mDb == nullptr) return KXDB_SUCCESS;
  try {
    const std::string sql = "CREATE TABLE IF NOT EXISTS " + this->mTableName +
                            "(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB)";
    std::string err;
    const int rc = sqliteExec(mDb, sql.c_str(), err);
    if (rc != SQLITE_OK) {
      op.info(rc, err.c_str());
      return KXDB_FAILURE;
    }
  } catch (const std::exception& e) {
    KXLOGE_AS(op.name(), "KXDB", "Caught exception: %s in %s", e.what(), op.name());
  } catch (...) {
    KXLOGE_AS(op.name(), "KXDB", "Caught Exception in %s", op.name());
  }
  return KXDB_SUCCESS;
}

template <typename T>
kxdbError KxDatabase<T>::closeKxdb() {
  if (mDb == nullptr) return KXDB_SUCCESS;
  int rc = sqlite3_close(mDb);
  if (rc != SQLITE_OK) {
    KXLOGE("KXDB", "ERROR:Db=%s sql close failed, err=%d\n", dbName().c_str(), rc);
    return KXDB_FAILURE;
  }
  // Reset so that a store whose open failed is treated as not open.
  mDb = nullptr;
  return KXDB_SUCCESS;
}

// ---- statements and transactions --------------------------------------------

template <typename T>
bool KxDatabase<T>::prepareLogged(Operation& op, SqliteStatement& stmt, const std::string& sql) {
  std::string error;
  const int rc = stmt.prepare(mDb, sql, &error);
  if (rc == SQLITE_OK) return true;
  op.sqlMessage(rc, error.c_str());
  return false;
}

template <typename T>
bool KxDatabase<T>::execLogged(Operation& op, const char* sql) {
  std::string err;
  const int rc = sqliteExec(mDb, sql, err);
  if (rc != SQLITE_OK) op.sqlMessage(rc, !err.empty() ? err.c_str() : sqlite3_errstr(rc));
  return rc == SQLITE_OK;
}

// Takes the write lock for a transaction. Waiting for a lock held elsewhere
// happens here, between attempts, and not in the busy handler: that one
// sleeps holding the connection's mutex and would hold up every thread
// using this store, the launch path's reads among them.
template <typename T>
bool KxDatabase<T>::beginWrite(Operation& op) {
  const bool mayWait = !kxdb::failFast();
  for (int attempt = 0;; ++attempt) {
    std::string err;
    int rc;
    {
      kxdb::FailFastScope notInside;
      rc = sqliteExec(mDb, "BEGIN IMMEDIATE TRANSACTION;", err);
    }
    const bool retry = rc != SQLITE_OK && mayWait && kxdb::isLockBusy(rc) && mBusy.pause(attempt);
    if (rc != SQLITE_OK && !retry) op.sqlMessage(rc, !err.empty() ? err.c_str() : sqlite3_errstr(rc));
    if (!retry) return rc == SQLITE_OK;
  }
}

template <typename T>
bool KxDatabase<T>::commitWrite(Operation& op) {
  if (execLogged(op, "COMMIT TRANSACTION;")) return true;
  rollbackIfOpen(op);
  return false;
}

// SQLite ends the transaction itself after some failures (a full disk, an
// I/O error); a ROLLBACK then would only fail.
template <typename T>
void KxDatabase<T>::rollbackIfOpen(Operation& op) {
  if (sqlite3_get_autocommit(mDb) == 0) execLogged(op, "ROLLBACK TRANSACTION;");
}

// ---- queries ----------------------------------------------------------------

namespace kxdb_detail {

// Appends a text value as an SQL literal. Quotes inside are doubled, so that
// a name can never end the literal early; names without quotes come out
// unchanged.
inline void appendQuoted(std::string& out, const std::string& text) {
  out += '\'';
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  out += '\'';
}

}  // namespace kxdb_detail

// Built in place in `query`, which every caller has just made and which
// then needs no second buffer: the clause is on every query's path.
template <typename T>
void KxDatabase<T>::build_query_for_where_clause(KxDBDataRowKey& key, std::string& query) {
  const bool byApp = !key.appName.empty();
  const bool byRsvd = !key.rsvdName.empty();
  const bool byInt = key.intcol1 != KXDB_INTCOL_UNSET;
  if (!byApp && !byRsvd && !byInt) return;
  try {
    query += "WHERE (";
    const char* sep = "";
    auto next = [&] {
      query += sep;
      sep = ",";
    };
    if (byApp) next(), query += "appName";
    if (byRsvd) next(), query += "rsvdName";
    if (byInt) next(), query += "intcol1";
    query += ") = (";
    sep = "";
    if (byApp) next(), kxdb_detail::appendQuoted(query, key.appName);
    if (byRsvd) next(), kxdb_detail::appendQuoted(query, key.rsvdName);
    if (byInt) next(), query += std::to_string(key.intcol1);
    query += ") ";
  } catch (const std::exception& e) {
    KXLOGE("KXDB", "Caught exception: %s", e.what());
  } catch (...) {
    KXLOGE("KXDB", "Error in std::string operations");
  }
}

template <typename T>
void KxDatabase<T>::fillRow(Row* row, sqlite3_stmt* stmt) {
  const KxDBDataRowView<T> view(stmt);
  row->intcol1 = view.intcol1();
  row->appName.assign(view.appName());
  row->rsvdName.assign(view.rsvdName());
  KxDBDataRowView<T>::copyBlob(&row->blob, stmt);
  row->rowid = view.rowid();
}

template <typename T>
std::string KxDatabase<T>::keyedStatement(const char* head, KxDBDataRowKey& key) {
  // One allocation for the statement and its clause: every query builds one.
  std::string sql;
  sql.reserve(std::strlen(head) + this->mTableName.size() + 64 + key.appName.size() + key.rsvdName.size());
  sql += head;
  sql += this->mTableName;
  sql += ' ';
  build_query_for_where_clause(key, sql);
  return sql;
}

// Steps the query of readAllocateDR, handing each row to `onRow` until it
// returns false or `count` rows (after the store's cap) were taken.
template <typename T>
template <typename OnRow>
void KxDatabase<T>::selectRows(Operation& op, KxDBDataRowKey& key, unsigned long count, kxdbOrderByCol col,
                               kxdbOrderByDir dir, OnRow&& onRow) {
  if (count > kMaxReadRows) {
    KXLOG_AT(ANDROID_LOG_WARN, "KXDB", op.name(), __LINE__, "Dbt=%s Restrict reqCnt to %zu\n", table(), kMaxReadRows);
    count = kMaxReadRows;
  } else if (count == 0) {
    count = kMaxReadRows;
  }
  std::string sql = keyedStatement("SELECT *, rowid FROM ", key);
  if (col != KXDB_ORDER_BY_NONE) {
    sql += " ORDER BY ";
    sql += kKxdbOrderByColText[col];
    sql += ' ';
    sql += kKxdbOrderByDirText[dir];
  }
  SqliteStatement stmt;
  if (!prepareLogged(op, stmt, sql)) return;
  for (unsigned long taken = 0; taken < count; ++taken) {
    if (sqlite3_step(stmt.get()) != SQLITE_ROW) {
      const int rc = sqlite3_reset(stmt.get());
      if (rc != SQLITE_OK) op.sqlCode(rc);
      break;
    }
    if (!onRow(stmt.get())) break;
  }
  const int rc = stmt.finalize();
  if (rc != SQLITE_OK && !op.failed()) op.sqlCode(rc);
}

template <typename T>
typename KxDatabase<T>::vecT KxDatabase<T>::readAllocateDR(KxDBDataRowKey& key, unsigned long count,
                                                           kxdbOrderByCol col, kxdbOrderByDir dir) {
  Operation op(__func__, this->mTableName, mRefusalLogged);
  vecT rows;
  if (mDb == nullptr) return rows;
  const bool whole = op.guard(Operation::Thrown::kStringOperations, [&] {
    selectRows(op, key, count, col, dir, [&](sqlite3_stmt* stmt) {
      Row* row = new (std::nothrow) Row;
      if (row == nullptr) {
        op.record(SQLITE_NOMEM, "new operator failure");
        KXLOGE_AS(op.name(), "KXDB", "ERROR:Dbt=%s new operator failure, allocated=%zu\n", table(), static_cast<size_t>(0));
        return false;
      }
      rows.push_back(row);
      fillRow(row, stmt);
      return true;
    });
  });
  if (!whole) deallocateDR(rows);
  return rows;
}

// Logs under readAllocateDR: it runs that operation's query, and the host's
// log readers know the failures of reads by that name.
template <typename T>
template <typename OnRow>
size_t KxDatabase<T>::readEachDR(KxDBDataRowKey& key, unsigned long count, kxdbOrderByCol col,
                                 kxdbOrderByDir dir, OnRow&& onRow) {
  Operation op("readAllocateDR", this->mTableName, mRefusalLogged);
  size_t rows = 0;
  if (mDb == nullptr) return rows;
  op.guard(Operation::Thrown::kStringOperations, [&] {
    selectRows(op, key, count, col, dir, [&](sqlite3_stmt* stmt) {
      KxDBDataRowView<T> view(stmt);
      ++rows;
      onRow(view);
      return true;
    });
  });
  return rows;
}

template <typename T>
int KxDatabase<T>::getCountDR(KxDBDataRowKey& key) {
  Operation op(__func__, this->mTableName, mRefusalLogged);
  if (mDb == nullptr) return 0;
  int count = 0;
  op.guard(Operation::Thrown::kCaughtException, [&] {
    const std::string sql = keyedStatement("SELECT COUNT(*) FROM ", key);
    SqliteStatement stmt;
    if (!prepareLogged(op, stmt, sql)) return;
    if (sqlite3_step(stmt.get()) == SQLITE_ROW) count = sqlite3_column_int(stmt.get(), 0);
    const int rc = stmt.finalize();
    if (rc != SQLITE_OK) op.sqlCode(rc);
  });
  return count;
}

// Runs without an explicit transaction, so a lock held elsewhere is waited
// for (boundedly) by the busy handler.
template <typename T>
int KxDatabase<T>::deleteAllDR(KxDBDataRowKey& key) {
  Operation op(__func__, this->mTableName, mRefusalLogged);
  if (mDb == nullptr) return 0;
  int deleted = 0;
  op.guard(Operation::Thrown::kStringOperations, [&] {
    const std::string sql = keyedStatement("DELETE FROM ", key);
    SqliteStatement stmt;
    if (!prepareLogged(op, stmt, sql)) return;
    const int rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_DONE) deleted = sqlite3_changes(mDb);
    else op.sqlCode(rc);
    const int rcFinal = stmt.finalize();
    if (rcFinal != SQLITE_OK && !op.failed()) op.sqlCode(rcFinal);
  });
  return deleted;
}

template <typename T>
std::vector<std::string> KxDatabase<T>::getTxtColUniqList(kxdbTxtCol col, kxdbOrderByCol orderCol,
                                                          kxdbOrderByDir dir) {
  Operation op(__func__, this->mTableName, mRefusalLogged);
  std::vector<std::string> values;
  if (mDb == nullptr) return values;
  const std::string column = kKxdbTxtColText[col];
  long count = 0;
  {
    SqliteStatement stmt;
    if (!prepareLogged(op, stmt, "SELECT COUNT(DISTINCT " + column + ") FROM " + this->mTableName)) return values;
    if (sqlite3_step(stmt.get()) == SQLITE_ROW) count = sqlite3_column_int64(stmt.get(), 0);
    const int rc = stmt.finalize();
    if (rc != SQLITE_OK) op.sqlCode(rc);
  }
  if (count == 0) return values;
  if (count > static_cast<long>(kMaxDistinctValues)) {
    KXLOGW("KXDB", "Dbt=%s Restrict Cnt to %zu\n", table(), kMaxDistinctValues);
    count = kMaxDistinctValues;
  }
  std::string sql = "SELECT DISTINCT " + column + " FROM " + this->mTableName + " ";
  if (orderCol != KXDB_ORDER_BY_NONE)
    sql += std::string(" ORDER BY ") + kKxdbOrderByColText[orderCol] + " " + kKxdbOrderByDirText[dir];
  SqliteStatement stmt;
  if (!prepareLogged(op, stmt, sql)) return values;
  for (uint16_t i = 0; i < count; ++i) {
    if (sqlite3_step(stmt.get()) != SQLITE_ROW) {
      const int rc = sqlite3_reset(stmt.get());
      if (rc != SQLITE_OK) op.sqlCode(rc);
      break;
    }
    const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
    values.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
  }
  const int rc = stmt.finalize();
  if (rc != SQLITE_OK && !op.failed()) op.sqlCode(rc);
  return values;
}

// ---- rows and the write-back cache ------------------------------------------

template <typename T>
typename KxDatabase<T>::vecT KxDatabase<T>::getRow(unsigned long n) {
  vecT rows;
  if (n == 0) return rows;
  if (n > kMaxAllocRows) {
    KXLOGW("KXDB", "Dbt=%s Restrict reqCnt to %zu\n", table(), kMaxAllocRows);
    n = kMaxAllocRows;
  }
  for (unsigned long i = 0; i < n; ++i) {
    Row* row = new (std::nothrow) Row;
    if (row == nullptr) {
      KXLOGE("KXDB", "ERROR:Dbt=%s new operator failure, allocated=%zu\n", table(), rows.size());
      break;
    }
    rows.push_back(row);
  }
  return rows;
}

template <typename T>
unsigned KxDatabase<T>::cacheRow(vecT& rows) {
  const unsigned handed = static_cast<unsigned>(rows.size());
  {
    std::lock_guard<std::mutex> lock(this->mCacheMutex);
    for (Row* row : rows)
      if (row != nullptr) this->mCacheList.push_back(row);
  }
  rows.clear();
  return handed;
}

template <typename T>
int KxDatabase<T>::writeDeallocateDR(vecT& rows) {
  kxdb::clearLastError();
  unsigned handed = cacheRow(rows);
  if (handed != 0) writeCachedDRToDisk();
  return static_cast<int>(handed);
}

// Moves the head of the cache, node and all, to the tail of `written`. The
// lock covers one row only, so other threads keep caching while a
// write-back runs; relinking the node instead of freeing it here and
// growing another container keeps the per-row cost to the row's write.
template <typename T>
bool KxDatabase<T>::takeCachedRow(std::list<Row*>& written) {
  std::lock_guard<std::mutex> lock(this->mCacheMutex);
  if (this->mCacheList.empty()) return false;
  written.splice(written.end(), this->mCacheList, this->mCacheList.begin());
  return true;
}

// Bindings are deliberately not cleared between rows: a skipped parameter
// keeps the previous row's value. Text and blob are bound without a copy,
// which is why written rows stay alive until the statements are finalized.
// A failed bind is not stepped, since the row would be written with the
// previous row's value in that column.
template <typename T>
typename KxDatabase<T>::RowOutcome KxDatabase<T>::writeRow(Operation& op, Row* row, sqlite3_stmt* insert,
                                                           sqlite3_stmt* update) {
  sqlite3_stmt* stmt = row->rowid != 0 ? update : insert;
  int rc = SQLITE_OK;
  if (row->intcol1 != KXDB_INTCOL_UNSET) rc = sqlite3_bind_int(stmt, 1, row->intcol1);
  if (rc == SQLITE_OK && !row->appName.empty())
    rc = sqlite3_bind_text(stmt, 2, row->appName.data(), static_cast<int>(row->appName.size()), SQLITE_STATIC);
  if (rc == SQLITE_OK && !row->rsvdName.empty())
    rc = sqlite3_bind_text(stmt, 3, row->rsvdName.data(), static_cast<int>(row->rsvdName.size()), SQLITE_STATIC);
  if (rc == SQLITE_OK) rc = sqlite3_bind_blob(stmt, 4, &row->blob, static_cast<int>(sizeof(T)), SQLITE_STATIC);
  // Bound 64 bits wide, unlike the 32-bit binder of old: a rowid past 2^31
  // (possible in a file written by another program) must not update or
  // delete another row.
  if (rc == SQLITE_OK && stmt == update) rc = sqlite3_bind_int64(stmt, 5, row->rowid);
  if (rc == SQLITE_OK) {
    // The step's own code is the row's outcome; the reset only readies the
    // statement for the next row (a failed one repeats the step's error).
    rc = sqlite3_step(stmt);
    sqlite3_reset(stmt);
  }
  if (rc == SQLITE_DONE) return RowOutcome::kWritten;
  op.sqlCode(rc);
  return kxdb::isRowFault(rc) ? RowOutcome::kDropped : RowOutcome::kStoreFault;
}

// Rows stay alive until every statement that may still point at them (the
// bindings are kept from row to row) has been finalized.
template <typename T>
void KxDatabase<T>::freeRows(std::list<Row*>& rows) {
  for (Row* row : rows) delete row;
  rows.clear();
}

// Puts rows that were not committed back at the head of the cache, in their
// order, for the next write-back, and holds the cache to its bound.
template <typename T>
void KxDatabase<T>::keepCached(Operation& op, std::list<Row*>& rows) {
  if (!rows.empty())
    KXLOGE_AS(op.name(), "KXDB", "ERROR:Dbt=%s %zu rows not written, kept cached\n",
             table(), rows.size());
  std::lock_guard<std::mutex> lock(this->mCacheMutex);
  this->mCacheList.splice(this->mCacheList.begin(), rows);
  if (this->mCacheList.size() <= kMaxCachedRows) return;
  const size_t drop = this->mCacheList.size() - kMaxCachedRows;
  for (size_t i = 0; i < drop; ++i) {
    delete this->mCacheList.front();
    this->mCacheList.pop_front();
  }
  mDroppedRows += drop;
  KXLOG_AT(ANDROID_LOG_ERROR, "KXDB", op.name(), __LINE__,
           "ERROR:Dbt=%s cache full while writes fail: dropped %zu oldest rows, %lu in all\n", table(), drop,
           mDroppedRows);
}

// Returns KXDB_FAILURE whenever a row handed to the store was not committed:
// the transaction could not begin or commit, a row met a fault of the store
// (lock, full disk, I/O error, damage), or a row broke a constraint of its
// own. Only such a row is dropped (logged); otherwise every row that was not
// committed goes back to the cache, so that nothing is lost silently.
template <typename T>
kxdbError KxDatabase<T>::writeCachedDRToDisk() {
  Operation op(__func__, this->mTableName, mRefusalLogged);
  if (mDb != nullptr) return writeBack(op);
  // Departs from reporting success here: rows that a store which is not
  // open keeps cached have not been written, and a caller that frees their
  // source on success would lose them.
  std::list<Row*> none;
  {
    std::lock_guard<std::mutex> lock(this->mCacheMutex);
    if (this->mCacheList.empty()) return KXDB_SUCCESS;
  }
  op.record(SQLITE_MISUSE, "database not open");
  keepCached(op, none);
  return KXDB_FAILURE;
}

template <typename T>
kxdbError KxDatabase<T>::writeBack(Operation& op) {
  std::list<Row*> written, dropped;
  kxdbError result = KXDB_FAILURE;
  op.guard(Operation::Thrown::kCaughtException, [&] {
    std::lock_guard<std::mutex> writeLock(mWriteMutex);
    SqliteStatement insert, update;
    std::string error;
    int rc = insert.prepare(mDb, "INSERT INTO " + this->mTableName +
                                     "(intcol1, appName, rsvdName, blob) VALUES (?,?,?,?)", &error);
    if (rc == SQLITE_OK)
      rc = update.prepare(mDb, "UPDATE " + this->mTableName + " " +
                                   "SET (intcol1, appName, rsvdName, blob) = (?,?,?,?) WHERE (rowid) = (?)", &error);
    if (rc != SQLITE_OK) {
      op.info(rc, error.c_str());
      keepCached(op, written);
      return;
    }
    // Departs from going on in autocommit mode after a failed BEGIN: rows
    // written one by one would be half stored and freed although some
    // failed; they stay cached for the next write-back instead.
    bool committed = beginWrite(op);
    while (committed && takeCachedRow(written)) {
      const RowOutcome outcome = writeRow(op, written.back(), insert.get(), update.get());
      if (outcome == RowOutcome::kDropped) dropped.splice(dropped.end(), written, std::prev(written.end()));
      committed = outcome != RowOutcome::kStoreFault;
    }
    if (committed) committed = commitWrite(op);
    else rollbackIfOpen(op);
    for (SqliteStatement* stmt : {&update, &insert}) {
      rc = stmt->finalize();
      if (rc != SQLITE_OK && committed) op.sqlCode(rc);
    }
    if (!committed) keepCached(op, written);
    freeRows(written);
    result = !op.failed() ? KXDB_SUCCESS : KXDB_FAILURE;
  });
  // Departs from reporting success after an exception: the rows in hand
  // were not committed, so they go back to the cache like any others.
  if (!written.empty()) {
    rollbackIfOpen(op);
    keepCached(op, written);
  }
  freeRows(dropped);
  return result;
}

// Either every given row is deleted, or none is and the rows stay with the
// caller (the result is then 0).
template <typename T>
int KxDatabase<T>::deleteDeallocateDR(vecT& rows) {
  Operation op(__func__, this->mTableName, mRefusalLogged);
  if (mDb == nullptr) return deallocateDR(rows);
  bool deleted = false;
  op.guard(Operation::Thrown::kStringOperations, [&] {
    std::lock_guard<std::mutex> writeLock(mWriteMutex);
    SqliteStatement stmt;
    if (!prepareLogged(op, stmt, "DELETE FROM " + this->mTableName + " " + "WHERE (rowid) = (?)")) return;
    if (!beginWrite(op)) return;
    for (Row* row : rows) {
      if (row == nullptr || row->rowid == 0) continue;  // never stored
      // 64 bits wide, as in the write-back.
      int rc = sqlite3_bind_int64(stmt.get(), 1, row->rowid);
      if (rc == SQLITE_OK) rc = sqlite3_step(stmt.get());
      sqlite3_reset(stmt.get());
      if (rc != SQLITE_DONE) {
        op.sqlCode(rc);
        break;
      }
    }
    if (op.failed()) rollbackIfOpen(op);
    else commitWrite(op);
    const int rc = stmt.finalize();
    if (rc != SQLITE_OK && !op.failed()) op.sqlCode(rc);
    deleted = !op.failed();
  });
  return deleted ? deallocateDR(rows) : 0;
}

template <typename T>
int KxDatabase<T>::deallocateDR(vecT& rows) {
  const int n = static_cast<int>(rows.size());
  for (Row* row : rows) delete row;
  rows.clear();
  return n;
}
