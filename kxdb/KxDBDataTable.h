// The row cache of a table and its name.
#pragma once

#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "kxdb/KxDBDataRow.h"
#include "kxdb/KxLog.h"

template <typename T>
class KxDBDataTable {
 public:
  // Rows handed between the store and its users; a vecT owns the rows it
  // points at until it is given back to one of the releasing operations.
  using vecT = std::vector<KxDBDataRow<T>*>;

  template <size_t N>
  explicit KxDBDataTable(const char (&tableName)[N]) : mTableName(tableName) {}

  ~KxDBDataTable() {
    if (!mCacheList.empty())
      KXLOGE("KXDB", "ERROR:Dbt=%s blstSz=%d, clstSz=%d\n", mTableName.c_str(), 0,
             static_cast<int>(mCacheList.size()));
    std::lock_guard<std::mutex> lock(mCacheMutex);
    for (KxDBDataRow<T>* row : mCacheList) delete row;
    mCacheList.clear();
  }

  KxDBDataTable(const KxDBDataTable&) = delete;
  KxDBDataTable& operator=(const KxDBDataTable&) = delete;

  const std::string& getTableName() const { return mTableName; }

 protected:
  // FIFO of rows waiting for write-back; owns them. Rows are appended at the
  // tail and written from the head.
  std::list<KxDBDataRow<T>*> mCacheList;
  // Guards mCacheList and nothing else; never held during SQLite calls.
  std::mutex mCacheMutex;
  std::string mTableName;
};
