// Shared fixture pieces of the table store tests.
#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <string>
#include <vector>

#include "FsRoot.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"
#include "support/DeviceRoot.h"
#include "support/PutRows.h"
#include "support/TempDir.h"

namespace kxtest {

using MeterDb = KxDatabase<_vorak_Meter_Data>;
using MeterRow = KxDBDataRow<_vorak_Meter_Data>;

// Caches and writes back one fresh sample row.
inline void putSample(MeterDb& db, const std::string& name, int64_t ion, int64_t rss, int32_t intcol1 = KXDB_INTCOL_UNSET) {
  auto rows = db.allocateDR(1);
  rows[0]->appName = name;
  rows[0]->intcol1 = intcol1;
  rows[0]->blob = {ion, rss};
  db.writeDeallocateDR(rows);
}

// Names of every stored row, in rowid order.
inline std::vector<std::string> storedNames(MeterDb& db) {
  return kxtest::readRows(db, KxDBDataRowKey(), [](const auto& r) { return r.appName; });
}

// Another connection to a store's file, as another process or a shell
// would hold it.
class OtherConnection {
 public:
  explicit OtherConnection(const std::string& path) {
    sqlite3_open_v2(path.c_str(), &mDb, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  }
  ~OtherConnection() { sqlite3_close_v2(mDb); }
  OtherConnection(const OtherConnection&) = delete;
  OtherConnection& operator=(const OtherConnection&) = delete;

  // SQLite's result of running `sql`.
  int exec(const std::string& sql) { return sqlite3_exec(mDb, sql.c_str(), nullptr, nullptr, nullptr); }

 private:
  sqlite3* mDb = nullptr;
};

// The connection that the next store opens, caught through SQLite's
// auto-extension hook: some limits (max_page_count) belong to a connection,
// so a fault is injected on the store's own.
class StoreConnection {
 public:
  StoreConnection() { sqlite3_auto_extension(reinterpret_cast<void (*)()>(&caught)); }
  ~StoreConnection() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(&caught)); }
  StoreConnection(const StoreConnection&) = delete;
  StoreConnection& operator=(const StoreConnection&) = delete;

  int exec(const std::string& sql) { return sqlite3_exec(sLast, sql.c_str(), nullptr, nullptr, nullptr); }

 private:
  static int caught(sqlite3* db, char**, const void*) {
    sLast = db;
    return SQLITE_OK;
  }
  static inline sqlite3* sLast = nullptr;
};

}  // namespace kxtest
