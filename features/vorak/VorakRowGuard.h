// Rows taken from a table belong to the taker until they are handed back.
// The guard hands them back (unwritten) when a scope ends early, so an
// exception or an early return never leaks them; a write that consumes the
// rows leaves the vector empty and the guard with nothing to do.
#pragma once

#include "kxdb/KxDatabase.h"

template <typename T>
class VorakRowGuard {
 public:
  using Rows = typename KxDBDataTable<T>::vecT;

  VorakRowGuard(KxDatabase<T>* db, Rows rows) : mDb(db), mRows(std::move(rows)) {}
  ~VorakRowGuard() { release(); }
  VorakRowGuard(const VorakRowGuard&) = delete;
  VorakRowGuard& operator=(const VorakRowGuard&) = delete;

  Rows& rows() { return mRows; }
  // Frees the rows unwritten.
  void release() {
    if (!mRows.empty()) mDb->deallocateDR(mRows);
  }

 private:
  KxDatabase<T>* mDb;
  Rows mRows;
};
