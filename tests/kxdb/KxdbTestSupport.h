// Shared fixture pieces of the table store tests.
#pragma once

#include <filesystem>
#include <string>

#include "FsRoot.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"
#include "support/TempDir.h"

namespace kxtest {

using MeterDb = KxDatabase<_vorak_Meter_Data>;
using MeterRow = KxDBDataRow<_vorak_Meter_Data>;

// A device root under a temporary directory, with "/data/vendor/kx/" made.
class DeviceRoot {
 public:
  DeviceRoot() {
    std::filesystem::create_directories(mDir.sub("data/vendor/kx"));
    kxhost::setFsRoot(mDir.path());
  }
  ~DeviceRoot() { kxhost::setFsRoot(""); }
  std::string dbPath(const std::string& file) const { return mDir.sub("data/vendor/kx/" + file); }
  const TempDir& dir() const { return mDir; }

 private:
  TempDir mDir;
};

// Caches and writes back one fresh sample row.
inline void putSample(MeterDb& db, const std::string& name, int64_t ion, int64_t rss, int32_t intcol1 = KXDB_INTCOL_UNSET) {
  auto rows = db.allocateDR(1);
  rows[0]->appName = name;
  rows[0]->intcol1 = intcol1;
  rows[0]->blob = {ion, rss};
  db.writeDeallocateDR(rows);
}

}  // namespace kxtest
