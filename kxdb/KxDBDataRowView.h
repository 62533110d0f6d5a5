// One row of a query's result, read from the statement's columns only as far
// as the caller asks: rows that are only looked at need no row object.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include "kxdb/KxdbTypes.h"

template <typename T>
class KxDBDataRowView {
 public:
  // Columns of "SELECT *, rowid": intcol1, appName, rsvdName, blob, rowid.
  explicit KxDBDataRowView(sqlite3_stmt* stmt) : mStmt(stmt) {}
  KxDBDataRowView(const KxDBDataRowView&) = delete;
  KxDBDataRowView& operator=(const KxDBDataRowView&) = delete;

  int64_t rowid() const { return sqlite3_column_int64(mStmt, 4); }
  int32_t intcol1() const {
    return sqlite3_column_type(mStmt, 0) != SQLITE_NULL ? sqlite3_column_int(mStmt, 0) : KXDB_INTCOL_UNSET;
  }
  std::string_view appName() const { return text(1); }
  std::string_view rsvdName() const { return text(2); }
  // Copied on first use.
  const T& blob() {
    if (!mHaveBlob) copyBlob(&mBlob, mStmt);
    mHaveBlob = true;
    return mBlob;
  }

  // The store writes blobs of exactly sizeof(T); a shorter one (a file from
  // elsewhere) is zero-padded instead of read past its end.
  static void copyBlob(T* out, sqlite3_stmt* stmt) {
    const void* blob = sqlite3_column_blob(stmt, 3);
    const size_t stored = blob != nullptr ? static_cast<size_t>(sqlite3_column_bytes(stmt, 3)) : 0;
    const size_t n = KXDB_memscpy(out, sizeof(T), blob != nullptr ? blob : "", stored);
    if (n < sizeof(T)) std::memset(reinterpret_cast<char*>(out) + n, 0, sizeof(T) - n);
  }

 private:
  std::string_view text(int col) const {
    const unsigned char* value = sqlite3_column_text(mStmt, col);
    if (value == nullptr) return {};
    return std::string_view(reinterpret_cast<const char*>(value));
  }

  sqlite3_stmt* mStmt;
  T mBlob;
  bool mHaveBlob = false;
};
