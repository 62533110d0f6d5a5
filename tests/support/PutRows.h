// Stores rows for a test's or benchmark's starting state, and reads them
// back as plain values.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "kxdb/KxDatabase.h"

namespace kxtest {

// Writes `copies` rows named `name`, each blob zeroed and then handed to
// `fill`. False when the store gives out no row; rows already written stay.
template <typename T, typename Fill>
bool putRows(KxDatabase<T>& db, const std::string& name, int copies, Fill fill) {
  while (copies > 0) {
    auto rows = db.allocateDR(std::min(copies, 100));
    if (rows.empty()) return false;
    copies -= static_cast<int>(rows.size());
    for (auto* row : rows) {
      std::memset(&row->blob, 0, sizeof(row->blob));
      row->appName = name;
      fill(row->blob);
    }
    db.writeDeallocateDR(rows);
  }
  return true;
}

// Every row that `key` selects, as `map(row)` gives it, in table order; the
// rows themselves are freed.
template <typename T, typename Map>
auto readRows(KxDatabase<T>& db, const KxDBDataRowKey& key, Map map) {
  KxDBDataRowKey k = key;
  auto rows = db.readAllocateDR(k, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
  std::vector<std::decay_t<decltype(map(*rows.front()))>> out;
  for (auto* row : rows) out.push_back(map(*row));
  db.deallocateDR(rows);
  return out;
}

}  // namespace kxtest
