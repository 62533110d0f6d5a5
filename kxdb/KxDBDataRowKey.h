// Selection key of queries and deletions: a field takes part when it is set.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "kxdb/KxLog.h"
#include "kxdb/KxdbTypes.h"

struct KxDBDataRowKey {
  int32_t intcol1 = KXDB_INTCOL_UNSET;
  std::string appName;
  std::string rsvdName;

  KxDBDataRowKey() = default;

  // Keeps only the name: the integer is deliberately without effect, and
  // callers that select on intcol1 or rsvdName assign the field afterwards.
  KxDBDataRowKey(const std::string& name, int /*intcol1*/) {
    intcol1 = KXDB_INTCOL_UNSET;
    try {
      appName = name;
    } catch (const std::exception& e) {
      KXLOGE("KXDB", "Exception caught: %s in %s", e.what(), "KxDBDataRowKey");
      return;
    } catch (...) {
      KXLOGE("KXDB", "Exception caught in %s", "KxDBDataRowKey");
      return;
    }
    intcol1 = KXDB_INTCOL_UNSET;
  }
};
