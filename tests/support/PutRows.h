// Stores rows for a test's or benchmark's starting state.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

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

}  // namespace kxtest
