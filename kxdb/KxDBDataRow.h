// One row of a table: the four columns plus SQLite's rowid.
#pragma once

#include <cstdint>
#include <string>

#include "kxdb/KxdbTypes.h"

template <typename T>
struct KxDBDataRow {
  int64_t rowid = 0;                   // 0: never stored, written back as an INSERT
  int32_t intcol1 = KXDB_INTCOL_UNSET;
  std::string appName;                 // empty: no value
  std::string rsvdName;                // empty: no value
  T blob;                              // not cleared: writers fill every byte
};
