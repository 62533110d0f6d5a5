// How the store reads SQLite's result codes when deciding what a failure
// means for the rows involved.
#pragma once

#include <sqlite3.h>

namespace kxdb {

// Another connection holds the lock that was needed; trying later may work.
inline bool isLockBusy(int rc) {
  rc &= 0xff;
  return rc == SQLITE_BUSY || rc == SQLITE_LOCKED;
}

// The row itself can never be stored (a constraint it breaks, a value too
// big): retrying it cannot help, unlike a full disk or a lock.
inline bool isRowFault(int rc) {
  rc &= 0xff;
  return rc == SQLITE_CONSTRAINT || rc == SQLITE_TOOBIG;
}

// SQLite's own verdict that a file's content is not a sound database.
inline bool isDamage(int rc) {
  rc &= 0xff;
  return rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB;
}

}  // namespace kxdb
