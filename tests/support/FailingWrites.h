// Makes every write to a store's file fail at once, the way a full disk or a
// damaged file does, without waiting on a lock: a second connection adds
// triggers that abort each insert, update and delete of the table, and
// removes them again when the object goes.
#pragma once

#include <sqlite3.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "FsRoot.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/KxLastError.h"
#include "kxdb/VorakRecords.h"

namespace kxtest {

class FailingWrites {
 public:
  // `file` as the store names it under "/data/vendor/kx/".
  explicit FailingWrites(const std::string& file) {
    const std::string path = kxhost::devicePath("/data/vendor/kx/" + file);
    if (sqlite3_open_v2(path.c_str(), &mDb, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
      throw std::runtime_error("cannot open " + path);
    for (const char* op : {"INSERT", "UPDATE", "DELETE"}) {
      exec(std::string("CREATE TRIGGER fail_") + op + " BEFORE " + op +
           " ON Vorak BEGIN SELECT RAISE(ABORT, 'injected write failure'); END;");
    }
  }
  ~FailingWrites() {
    for (const char* op : {"INSERT", "UPDATE", "DELETE"}) exec(std::string("DROP TRIGGER fail_") + op);
    sqlite3_close(mDb);
  }
  FailingWrites(const FailingWrites&) = delete;
  FailingWrites& operator=(const FailingWrites&) = delete;

 private:
  void exec(const std::string& sql) { sqlite3_exec(mDb, sql.c_str(), nullptr, nullptr, nullptr); }

  sqlite3* mDb = nullptr;
};

// Whether the store reports failed writes: a failed write-back returns
// KXDB_FAILURE and a failed deletion is recorded in kxdb::lastError(). Needs
// the device root's "/data/vendor/kx/" directory.
inline bool storeReportsFailedWrites() {
  const char kFile[] = "FailureProbe.db";
  bool reported = false;
  {
    KxDatabase<_vorak_User_Launched_Data> probe(1, kFile, "Vorak");
    if (probe.KxDatabaseInit() != KXDB_SUCCESS) return false;
    auto stored = probe.allocateDR(1);
    stored[0]->appName = "probe";
    probe.writeDeallocateDR(stored);
    KxDBDataRowKey key("probe", 0);
    auto rows = probe.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
    FailingWrites failing(kFile);
    auto fresh = probe.allocateDR(1);
    fresh[0]->appName = "probe";
    probe.cacheRow(fresh);
    const bool writeBackReported = probe.KxDatabaseWriteCachedToDisk() == KXDB_FAILURE;
    kxdb::clearLastError();
    probe.deleteDeallocateDR(rows);
    reported = writeBackReported && *kxdb::lastError() != '\0';
    probe.deallocateDR(rows);
  }
  const std::string path = kxhost::devicePath(std::string("/data/vendor/kx/") + kFile);
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
  return reported;
}

}  // namespace kxtest
