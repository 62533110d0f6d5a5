// One public operation of a store, from entry to return.
#pragma once

#include <sqlite3.h>

#include <atomic>
#include <exception>
#include <string>

#include "kxdb/KxFailFast.h"
#include "kxdb/KxLastError.h"
#include "kxdb/KxLog.h"
#include "kxdb/KxResult.h"

namespace kxdb {

// Failures found anywhere inside an operation, helpers included, are logged
// under the operation's own name (what the host's log readers grep for) and
// recorded as the calling thread's last error, which entry clears. A refusal
// to wait for a lock inside a FailFastScope is logged once per store until an
// operation of that store succeeds again: the launch path meets the same
// foreign lock at every launch, and one line says all there is to say.
class KxOperation {
 public:
  KxOperation(const char* name, const std::string& table, std::atomic<bool>& refusalLogged);
  ~KxOperation();
  KxOperation(const KxOperation&) = delete;
  KxOperation& operator=(const KxOperation&) = delete;

  const char* name() const { return mName; }
  bool failed() const { return mFailed; }

  // Records a failure; false when its log line is to be left out (a
  // repeated refusal). For callers that log in their own words.
  bool record(int rc, const char* message);
  // Record and log "sql:ERROR:Dbt=%s info=%s\n" with `message`.
  void sqlMessage(int rc, const char* message, int line = __builtin_LINE());
  // Record and log "sql:ERROR:Dbt=%s info=%d\n" with `rc`.
  void sqlCode(int rc, int line = __builtin_LINE());
  // Record and log "ERROR:Dbt=%s info=%s\n" with `message`.
  void info(int rc, const char* message, int line = __builtin_LINE());

  // The lines an exception escaping an operation's body leaves: one that
  // names the exception, or, for anything else thrown, the operation's own.
  enum class Thrown { kCaughtException, kStringOperations };
  // Runs `body`. An exception escaping it (every throw inside a store is an
  // allocation's) is recorded as out of memory and logged; false then.
  template <typename Body>
  bool guard(Thrown thrown, Body&& body);

 private:
  const char* mName;
  const std::string& mTable;
  std::atomic<bool>& mRefusalLogged;  // the store's; see the class comment
  bool mFailed = false;
};

inline KxOperation::KxOperation(const char* name, const std::string& table, std::atomic<bool>& refusalLogged)
    : mName(name), mTable(table), mRefusalLogged(refusalLogged) {
  clearLastError();
}

inline KxOperation::~KxOperation() {
  if (!mFailed) mRefusalLogged.store(false, std::memory_order_relaxed);
}

inline bool KxOperation::record(int rc, const char* message) {
  mFailed = true;
  setLastError(mName, message, rc);
  if (failFast() && isLockBusy(rc)) return !mRefusalLogged.exchange(true, std::memory_order_relaxed);
  return true;
}

inline void KxOperation::sqlMessage(int rc, const char* message, int line) {
  if (record(rc, message))
    KXLOG_AT(ANDROID_LOG_ERROR, "KXDB", mName, line, "sql:ERROR:Dbt=%s info=%s\n", mTable.c_str(), message);
}

inline void KxOperation::sqlCode(int rc, int line) {
  if (record(rc, sqlite3_errstr(rc)))
    KXLOG_AT(ANDROID_LOG_ERROR, "KXDB", mName, line, "sql:ERROR:Dbt=%s info=%d\n", mTable.c_str(), rc);
}

inline void KxOperation::info(int rc, const char* message, int line) {
  if (record(rc, message))
    KXLOG_AT(ANDROID_LOG_ERROR, "KXDB", mName, line, "ERROR:Dbt=%s info=%s\n", mTable.c_str(), message);
}

template <typename Body>
bool KxOperation::guard(Thrown thrown, Body&& body) {
  try {
    body();
    return true;
  } catch (const std::exception& e) {
    record(SQLITE_NOMEM, e.what());
    KXLOGE_AS(mName, "KXDB", "Caught exception: %s in %s", e.what(), mName);
  } catch (...) {
    record(SQLITE_NOMEM, "exception");
    if (thrown == Thrown::kCaughtException) KXLOGE_AS(mName, "KXDB", "Caught Exception in %s", mName);
    else KXLOGE_AS(mName, "KXDB", "Error in std::string operations in %s", mName);
  }
  return false;
}

}  // namespace kxdb
