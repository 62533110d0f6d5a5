// A typed row store over one SQLite table with a write-back row cache.
//
// Every table has the same schema (intcol1, appName, rsvdName, blob); the
// row type T only gives the blob its fixed size and meaning. Queries go
// straight to SQLite; new and changed rows pass through the FIFO cache and
// are written in one transaction per write-back.
#pragma once

#include <sqlite3.h>

#include <cstring>
#include <exception>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "FsRoot.h"
#include "kxdb/KxDBDataRow.h"
#include "kxdb/KxDBDataRowKey.h"
#include "kxdb/KxDBDataTable.h"
#include "kxdb/KxLog.h"
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
  kxdbError createKxdbTables();
  kxdbError closeKxdb();

  kxdbError KxDatabaseWriteCachedToDisk() {
    return writeCachedDRToDisk() != KXDB_SUCCESS ? KXDB_FAILURE : KXDB_SUCCESS;
  }

  // Queries.
  vecT readAllocateDR(KxDBDataRowKey& key, unsigned long count, kxdbOrderByCol col, kxdbOrderByDir dir);
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

 private:
  std::string dbName() const { return mDbFileName.empty() ? std::string(":memory:") : mDbDir + mDbFileName; }
  const char* table() const { return this->mTableName.c_str(); }
  // Runs a fixed statement; a failure is logged with SQLite's message.
  bool execLogged(const char* sql);
  // Prepares `sql` into `stmt`; a failure is logged with SQLite's message.
  bool prepareLogged(SqliteStatement& stmt, const std::string& sql) {
    if (stmt.prepare(mDb, sql) == SQLITE_OK) return true;
    KXLOGE("KXDB", "sql:ERROR:Dbt=%s info=%s\n", table(), sqlite3_errmsg(mDb));
    return false;
  }
  // Logs a SQLite result other than `expected` with its code.
  void logIfFailed(int rc, int expected = SQLITE_OK) {
    if (rc != expected) KXLOGE("KXDB", "sql:ERROR:Dbt=%s info=%d\n", table(), rc);
  }
  void transactionStep(const char* sql);
  void beginImmediate() { transactionStep("BEGIN IMMEDIATE TRANSACTION;"); }
  void commit() { transactionStep("COMMIT TRANSACTION;"); }
  bool takeCachedRow(std::list<Row*>& written);
  static void freeWritten(std::list<Row*>& written);
  void writeRow(Row* row, sqlite3_stmt* insert, sqlite3_stmt* update);
  static void fillRow(Row* row, sqlite3_stmt* stmt);

  sqlite3* mDb = nullptr;
  std::string mDbDir;
  std::string mDbFileName;
  // Serialises this store's write transactions (write-back and deletion of
  // given rows). They share one connection, on which a second BEGIN would
  // fail and its ROLLBACK undo the first writer's open transaction. The
  // cache mutex is never taken while this one is held across SQLite calls.
  std::mutex mWriteMutex;
};

// ---- opening, table creation, closing --------------------------------------

template <typename T>
kxdbError KxDatabase<T>::openKxdb() {
  const std::string name = dbName();
  const std::string path = kxhost::devicePath(name);
  int rc = sqlite3_open_v2(path.c_str(), &mDb, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc != SQLITE_OK) {
    KXLOGE("KXDB", "ERROR:Db=%s sql open failed, err=%d\n", name.c_str(), rc);
    closeKxdb();
    return KXDB_FAILURE;
  }
  // Another connection to the same file (a tool, a second store) holds the
  // write lock only briefly; wait for it rather than fail the transaction.
  sqlite3_busy_timeout(mDb, 2000);
  if (!mDbFileName.empty()) {
    char* err = nullptr;
    if (sqlite3_exec(mDb, "PRAGMA journal_mode=WAL", nullptr, nullptr, &err) != SQLITE_OK)
      KXLOGE("KXDB", "sql:ERROR:Dbt=%s info=%s\n", name.c_str(), err != nullptr ? err : "");
    sqlite3_free(err);
  }
  return createKxdbTables() != KXDB_SUCCESS ? KXDB_FAILURE : KXDB_SUCCESS;
}

template <typename T>
kxdbError KxDatabase<T>::createKxdbTables() {
  if (mDb == nullptr) return KXDB_SUCCESS;
  try {
    const std::string sql = "CREATE TABLE IF NOT EXISTS " + this->mTableName +
                            "(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB)";
    char* err = nullptr;
    if (sqlite3_exec(mDb, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
      KXLOGE("KXDB", "ERROR:Dbt=%s info=%s\n", table(), err != nullptr ? err : "");
      sqlite3_free(err);
      return KXDB_FAILURE;
    }
  } catch (const std::exception& e) {
    KXLOGE("KXDB", "Caught exception: %s in %s", e.what(), __func__);
  } catch (...) {
    KXLOGE("KXDB", "Caught Exception in %s", __func__);
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

// ---- queries ----------------------------------------------------------------

namespace kxdb_detail {

// A text value as an SQL literal. Quotes inside are doubled, so that a name
// can never end the literal early; names without quotes come out unchanged.
inline std::string quoted(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '\'';
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  out += '\'';
  return out;
}

}  // namespace kxdb_detail

template <typename T>
void KxDatabase<T>::build_query_for_where_clause(KxDBDataRowKey& key, std::string& query) {
  try {
    std::string cols, values;
    auto add = [&](const char* col, const std::string& value) {
      if (!cols.empty()) {
        cols += ',';
        values += ',';
      }
      cols += col;
      values += value;
    };
    if (!key.appName.empty()) add("appName", kxdb_detail::quoted(key.appName));
    if (!key.rsvdName.empty()) add("rsvdName", kxdb_detail::quoted(key.rsvdName));
    if (key.intcol1 != KXDB_INTCOL_UNSET) add("intcol1", std::to_string(key.intcol1));
    if (cols.empty()) return;
    query += "WHERE (" + cols + ") = (" + values + ") ";
  } catch (const std::exception& e) {
    KXLOGE("KXDB", "Caught exception: %s", e.what());
  } catch (...) {
    KXLOGE("KXDB", "Error in std::string operations");
  }
}

template <typename T>
void KxDatabase<T>::fillRow(Row* row, sqlite3_stmt* stmt) {
  if (sqlite3_column_type(stmt, 0) != SQLITE_NULL) row->intcol1 = sqlite3_column_int(stmt, 0);
  const unsigned char* app = sqlite3_column_text(stmt, 1);
  row->appName.assign(app != nullptr ? reinterpret_cast<const char*>(app) : "");
  const unsigned char* rsvd = sqlite3_column_text(stmt, 2);
  if (rsvd != nullptr) row->rsvdName.assign(reinterpret_cast<const char*>(rsvd));
  // The store writes blobs of exactly sizeof(T); a shorter one (a file from
  // elsewhere) is zero-padded instead of read past its end.
  const void* blob = sqlite3_column_blob(stmt, 3);
  size_t stored = static_cast<size_t>(sqlite3_column_bytes(stmt, 3));
  size_t n = KXDB_memscpy(&row->blob, sizeof(T), blob != nullptr ? blob : "", blob != nullptr ? stored : 0);
  if (n < sizeof(T)) std::memset(reinterpret_cast<char*>(&row->blob) + n, 0, sizeof(T) - n);
  row->rowid = sqlite3_column_int64(stmt, 4);
}

template <typename T>
typename KxDatabase<T>::vecT KxDatabase<T>::readAllocateDR(KxDBDataRowKey& key, unsigned long count,
                                                           kxdbOrderByCol col, kxdbOrderByDir dir) {
  vecT rows;
  if (mDb == nullptr) return rows;
  if (count > kMaxReadRows) {
    KXLOGW("KXDB", "Dbt=%s Restrict reqCnt to %zu\n", table(), kMaxReadRows);
    count = kMaxReadRows;
  } else if (count == 0) {
    count = kMaxReadRows;
  }
  try {
    std::string sql = "SELECT *, rowid FROM " + this->mTableName + " ";
    build_query_for_where_clause(key, sql);
    if (col != KXDB_ORDER_BY_NONE)
      sql += std::string(" ORDER BY ") + kKxdbOrderByColText[col] + " " + kKxdbOrderByDirText[dir];
    SqliteStatement stmt;
    if (!prepareLogged(stmt, sql)) return rows;
    while (rows.size() < count) {
      if (sqlite3_step(stmt.get()) != SQLITE_ROW) {
        logIfFailed(sqlite3_reset(stmt.get()));
        break;
      }
      Row* row = new (std::nothrow) Row;
      if (row == nullptr) {
        KXLOGE("KXDB", "ERROR:Dbt=%s new operator failure, allocated=%zu\n", table(), static_cast<size_t>(0));
        break;
      }
      rows.push_back(row);
      fillRow(row, stmt.get());
    }
    logIfFailed(stmt.finalize());
  } catch (const std::exception& e) {
    KXLOGE("KXDB", "Caught exception: %s in %s", e.what(), __func__);
    deallocateDR(rows);
  } catch (...) {
    KXLOGE("KXDB", "Error in std::string operations in %s", __func__);
    deallocateDR(rows);
  }
  return rows;
}

template <typename T>
int KxDatabase<T>::getCountDR(KxDBDataRowKey& key) {
  if (mDb == nullptr) return 0;
  int count = 0;
  try {
    std::string sql = "SELECT COUNT(*) FROM " + this->mTableName + " ";
    build_query_for_where_clause(key, sql);
    SqliteStatement stmt;
    if (!prepareLogged(stmt, sql)) return 0;
    if (sqlite3_step(stmt.get()) == SQLITE_ROW) count = sqlite3_column_int(stmt.get(), 0);
    logIfFailed(stmt.finalize());
  } catch (const std::exception& e) {
    KXLOGE("KXDB", "Caught exception: %s in %s", e.what(), __func__);
    return 0;
  } catch (...) {
    KXLOGE("KXDB", "Caught Exception in %s", __func__);
    return 0;
  }
  return count;
}

template <typename T>
int KxDatabase<T>::deleteAllDR(KxDBDataRowKey& key) {
  if (mDb == nullptr) return 0;
  int deleted = 0;
  try {
    std::string sql = "DELETE FROM " + this->mTableName + " ";
    build_query_for_where_clause(key, sql);
    SqliteStatement stmt;
    if (!prepareLogged(stmt, sql)) return 0;
    const int rc = sqlite3_step(stmt.get());
    logIfFailed(rc, SQLITE_DONE);
    if (rc == SQLITE_DONE) deleted = sqlite3_changes(mDb);
    logIfFailed(stmt.finalize());
  } catch (const std::exception& e) {
    KXLOGE("KXDB", "Caught exception: %s in %s", e.what(), __func__);
    return 0;
  } catch (...) {
    KXLOGE("KXDB", "Error in std::string operations in %s", __func__);
    return 0;
  }
  return deleted;
}

template <typename T>
std::vector<std::string> KxDatabase<T>::getTxtColUniqList(kxdbTxtCol col, kxdbOrderByCol orderCol,
                                                          kxdbOrderByDir dir) {
  std::vector<std::string> values;
  if (mDb == nullptr) return values;
  const std::string column = kKxdbTxtColText[col];
  long count = 0;
  {
    SqliteStatement stmt;
    if (!prepareLogged(stmt, "SELECT COUNT(DISTINCT " + column + ") FROM " + this->mTableName)) return values;
    if (sqlite3_step(stmt.get()) == SQLITE_ROW) count = sqlite3_column_int64(stmt.get(), 0);
    logIfFailed(stmt.finalize());
  }
  if (count == 0) return values;
  if (count < 0 || count > static_cast<long>(kMaxDistinctValues)) {
    KXLOGW("KXDB", "Dbt=%s Restrict Cnt to %zu\n", table(), kMaxDistinctValues);
    count = kMaxDistinctValues;
  }
  std::string sql = "SELECT DISTINCT " + column + " FROM " + this->mTableName + " ";
  if (orderCol != KXDB_ORDER_BY_NONE)
    sql += std::string(" ORDER BY ") + kKxdbOrderByColText[orderCol] + " " + kKxdbOrderByDirText[dir];
  SqliteStatement stmt;
  if (!prepareLogged(stmt, sql)) return values;
  values.reserve(static_cast<size_t>(count));
  for (uint16_t i = 0; i < count; ++i) {
    if (sqlite3_step(stmt.get()) != SQLITE_ROW) {
      logIfFailed(sqlite3_reset(stmt.get()));
      break;
    }
    const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
    values.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
  }
  logIfFailed(stmt.finalize());
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
  rows.reserve(n);
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
  unsigned handed = cacheRow(rows);
  if (handed != 0) writeCachedDRToDisk();
  return static_cast<int>(handed);
}

template <typename T>
bool KxDatabase<T>::execLogged(const char* sql) {
  char* err = nullptr;
  const bool ok = sqlite3_exec(mDb, sql, nullptr, nullptr, &err) == SQLITE_OK;
  if (!ok) KXLOGE("KXDB", "sql:ERROR:Dbt=%s info=%s\n", table(), err != nullptr ? err : "");
  sqlite3_free(err);
  return ok;
}

// Runs a transaction statement. A failure is logged and rolled back: after a
// failed BEGIN the work goes on in autocommit mode, after a failed COMMIT the
// open transaction is abandoned.
template <typename T>
void KxDatabase<T>::transactionStep(const char* sql) {
  if (!execLogged(sql)) execLogged("ROLLBACK TRANSACTION;");
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
// which is why written rows stay alive until the write-back ends.
template <typename T>
void KxDatabase<T>::writeRow(Row* row, sqlite3_stmt* insert, sqlite3_stmt* update) {
  sqlite3_stmt* stmt = row->rowid != 0 ? update : insert;
  if (row->intcol1 != KXDB_INTCOL_UNSET) logIfFailed(sqlite3_bind_int(stmt, 1, row->intcol1));
  if (!row->appName.empty())
    logIfFailed(sqlite3_bind_text(stmt, 2, row->appName.data(), static_cast<int>(row->appName.size()), SQLITE_STATIC));
  if (!row->rsvdName.empty())
    logIfFailed(sqlite3_bind_text(stmt, 3, row->rsvdName.data(), static_cast<int>(row->rsvdName.size()), SQLITE_STATIC));
  logIfFailed(sqlite3_bind_blob(stmt, 4, &row->blob, static_cast<int>(sizeof(T)), SQLITE_STATIC));
  // Rowids are bound 32 bits wide; the tables never grow past 2^31 rows.
  if (stmt == update) logIfFailed(sqlite3_bind_int(stmt, 5, static_cast<int>(row->rowid)));
  logIfFailed(sqlite3_step(stmt), SQLITE_DONE);
  logIfFailed(sqlite3_reset(stmt));
}

// Rows stay alive until every statement that may still point at them (the
// bindings are kept from row to row) has been finalized.
template <typename T>
void KxDatabase<T>::freeWritten(std::list<Row*>& written) {
  for (Row* row : written) delete row;
  written.clear();
}

template <typename T>
kxdbError KxDatabase<T>::writeCachedDRToDisk() {
  if (mDb == nullptr) return KXDB_SUCCESS;
  std::list<Row*> written;
  try {
    std::lock_guard<std::mutex> writeLock(mWriteMutex);
    // A failed preparation keeps the cache for the next write-back. Unlike a
    // leaked statement, the holders also finalize the insert statement when
    // the update fails to prepare, so the connection can still be closed.
    SqliteStatement insert, update;
    if (insert.prepare(mDb, "INSERT INTO " + this->mTableName +
                                "(intcol1, appName, rsvdName, blob) VALUES (?,?,?,?)") != SQLITE_OK) {
      KXLOGE("KXDB", "ERROR:Dbt=%s info=%s\n", table(), sqlite3_errmsg(mDb));
      return KXDB_FAILURE;
    }
    if (update.prepare(mDb, "UPDATE " + this->mTableName + " " +
                                "SET (intcol1, appName, rsvdName, blob) = (?,?,?,?) WHERE (rowid) = (?)") !=
        SQLITE_OK) {
      KXLOGE("KXDB", "ERROR:Dbt=%s info=%s\n", table(), sqlite3_errmsg(mDb));
      return KXDB_FAILURE;
    }
    beginImmediate();
    while (takeCachedRow(written)) writeRow(written.back(), insert.get(), update.get());
    commit();
    int rcUpdate = update.finalize();
    logIfFailed(rcUpdate);
    int rcInsert = insert.finalize();
    logIfFailed(rcInsert);
    freeWritten(written);
    return rcUpdate == SQLITE_OK && rcInsert == SQLITE_OK ? KXDB_SUCCESS : KXDB_FAILURE;
  } catch (const std::exception& e) {
    KXLOGE("KXDB", "Caught exception: %s in %s", e.what(), __func__);
  } catch (...) {
    KXLOGE("KXDB", "Caught Exception in %s", __func__);
  }
  freeWritten(written);
  return KXDB_SUCCESS;
}

template <typename T>
int KxDatabase<T>::deleteDeallocateDR(vecT& rows) {
  if (mDb == nullptr) return deallocateDR(rows);
  try {
    std::lock_guard<std::mutex> writeLock(mWriteMutex);
    SqliteStatement stmt;
    if (!prepareLogged(stmt, "DELETE FROM " + this->mTableName + " " + "WHERE (rowid) = (?)")) return 0;
    beginImmediate();
    for (Row* row : rows) {
      if (row == nullptr || row->rowid == 0) continue;  // never stored
      logIfFailed(sqlite3_bind_int(stmt.get(), 1, static_cast<int>(row->rowid)));
      logIfFailed(sqlite3_step(stmt.get()), SQLITE_DONE);
      logIfFailed(sqlite3_reset(stmt.get()));
    }
    commit();
    const int rc = stmt.finalize();
    logIfFailed(rc);
    if (rc != SQLITE_OK) return 0;
  } catch (const std::exception& e) {
    KXLOGE("KXDB", "Caught exception: %s in %s", e.what(), __func__);
    return 0;
  } catch (...) {
    KXLOGE("KXDB", "Error in std::string operations in %s", __func__);
    return 0;
  }
  return deallocateDR(rows);
}

template <typename T>
int KxDatabase<T>::deallocateDR(vecT& rows) {
  const int n = static_cast<int>(rows.size());
  for (Row* row : rows) delete row;
  rows.clear();
  return n;
}
