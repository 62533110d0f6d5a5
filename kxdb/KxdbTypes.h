// Result codes, ordering and column selectors of the table store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

enum kxdbError { KXDB_SUCCESS = 0, KXDB_FAILURE = -1 };

enum kxdbOrderByCol {
  KXDB_ORDER_BY_NONE = 0,
  KXDB_ORDER_BY_APPNAME = 1,
  KXDB_ORDER_BY_RSVDNAME = 2,
  KXDB_ORDER_BY_INTCOL1 = 3,
};

enum kxdbOrderByDir { KXDB_DIR_NONE = 0, KXDB_DIR_ASC = 1, KXDB_DIR_DESC = 2 };

enum kxdbTxtCol { KXDB_TXTCOL_NONE = 0, KXDB_TXTCOL_APPNAME = 1, KXDB_TXTCOL_RSVDNAME = 2 };

// intcol1 value meaning "no value".
constexpr int32_t KXDB_INTCOL_UNSET = 2147483647;

// SQL texts indexed by the enum values above; the values are not range-checked.
constexpr const char* kKxdbOrderByColText[] = {"", "appName", "rsvdName", "intcol1"};
constexpr const char* kKxdbOrderByDirText[] = {"", "ASC", "DESC"};
constexpr const char* kKxdbTxtColText[] = {"", "appName", "rsvdName"};

// Bounded copy into fixed-size blob fields: copies and returns the smaller size.
inline size_t KXDB_memscpy(void* dst, size_t dstSize, const void* src, size_t srcSize) {
  size_t n = dstSize < srcSize ? dstSize : srcSize;
  std::memcpy(dst, src, n);
  return n;
}
