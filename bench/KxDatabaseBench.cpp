// The table store against the same work done directly on SQLite (same
// schema, one prepared statement, one transaction), in the same run. Both
// sides open, fill and close outside the timed region, so that only the
// write-back or the read itself is compared; freeing the written rows is
// part of the store's write-back and is timed there.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <vector>

#include "FsRoot.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"
#include "kxhost/LogCapture.h"

namespace {

using MeterDb = KxDatabase<_vorak_Meter_Data>;
using MeterRow = KxDBDataRow<_vorak_Meter_Data>;

constexpr char kName[] = "com.example.app";

void fillStore(MeterDb& db, int n) {
  for (int done = 0; done < n;) {
    auto rows = db.allocateDR(static_cast<unsigned long>(std::min(100, n - done)));
    for (auto* r : rows) r->appName = kName, r->blob = {done, done}, ++done;
    db.cacheRow(rows);
  }
}

void BM_StoreWriteBack(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    auto db = std::make_unique<MeterDb>(0, "", "Vorak");
    db->KxDatabaseInit();
    fillStore(*db, n);
    state.ResumeTiming();
    db->KxDatabaseWriteCachedToDisk();
    state.PauseTiming();
    db.reset();  // an empty write-back and the close, untimed like the direct close
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}

sqlite3* openDirect() {
  sqlite3* db = nullptr;
  sqlite3_open_v2(":memory:", &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  sqlite3_exec(db, "CREATE TABLE Vorak(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB)", nullptr,
               nullptr, nullptr);
  return db;
}

// The direct side's input: the same rows as the store's, allocated one by
// one, so that both sides write from (and leave SQLite) the same heap.
std::vector<MeterRow*> makeRows(int n) {
  std::vector<MeterRow*> rows;
  rows.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    auto* r = new MeterRow;
    r->appName = kName;
    r->blob = {i, i};
    rows.push_back(r);
  }
  return rows;
}

void freeRows(std::vector<MeterRow*>& rows) {
  for (auto* r : rows) delete r;
  rows.clear();
}

// Binds like the store: text and blob without a copy, intcol1 and rsvdName
// left unbound (the store skips unset values).
void directInsert(sqlite3* db, const std::vector<MeterRow*>& rows) {
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO Vorak(intcol1, appName, rsvdName, blob) VALUES (?,?,?,?)", -1, &stmt, nullptr);
  sqlite3_exec(db, "BEGIN IMMEDIATE TRANSACTION;", nullptr, nullptr, nullptr);
  for (const MeterRow* r : rows) {
    sqlite3_bind_text(stmt, 2, r->appName.data(), static_cast<int>(r->appName.size()), SQLITE_STATIC);
    sqlite3_bind_blob(stmt, 4, &r->blob, sizeof r->blob, SQLITE_STATIC);
    sqlite3_step(stmt);
    sqlite3_reset(stmt);
  }
  sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr);
  sqlite3_finalize(stmt);
}

void BM_DirectWriteBack(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    sqlite3* db = openDirect();
    auto rows = makeRows(n);
    state.ResumeTiming();
    directInsert(db, rows);
    state.PauseTiming();
    freeRows(rows);
    sqlite3_close(db);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_StoreRead(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  MeterDb db(0, "", "Vorak");
  db.KxDatabaseInit();
  fillStore(db, n);
  db.KxDatabaseWriteCachedToDisk();
  KxDBDataRowKey key(kName, 0);
  for (auto _ : state) {
    auto rows = db.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
    benchmark::DoNotOptimize(rows.data());
    db.deallocateDR(rows);
  }
  state.SetItemsProcessed(state.iterations() * n);
}

// The same rows read into the same row objects from the same columns,
// without the store.
void BM_DirectRead(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  sqlite3* db = openDirect();
  auto input = makeRows(n);
  directInsert(db, input);
  freeRows(input);
  for (auto _ : state) {
    std::vector<MeterRow*> rows;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "SELECT *, rowid FROM Vorak WHERE (appName) = ('com.example.app') ", -1, &stmt, nullptr);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      auto* row = new MeterRow;
      rows.push_back(row);
      if (sqlite3_column_type(stmt, 0) != SQLITE_NULL) row->intcol1 = sqlite3_column_int(stmt, 0);
      row->appName = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1));
      if (const unsigned char* rsvd = sqlite3_column_text(stmt, 2)) row->rsvdName = reinterpret_cast<const char*>(rsvd);
      // A blob is copied only as far as it is stored, as the store does.
      const void* blob = sqlite3_column_blob(stmt, 3);
      const size_t stored = static_cast<size_t>(sqlite3_column_bytes(stmt, 3));
      std::memcpy(&row->blob, blob, std::min(stored, sizeof row->blob));
      row->rowid = sqlite3_column_int64(stmt, 4);
    }
    sqlite3_finalize(stmt);
    benchmark::DoNotOptimize(rows.data());
    for (auto* r : rows) delete r;
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * n);
}

// A device root in a fresh temporary directory, removed afterwards.
class BenchRoot {
 public:
  BenchRoot() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "kxbench.XXXXXX").string();
    if (mkdtemp(&tmpl[0]) != nullptr) mDir = tmpl;
    std::filesystem::create_directories(mDir + "/data/vendor/kx");
    kxhost::setFsRoot(mDir);
  }
  ~BenchRoot() {
    kxhost::setFsRoot("");
    std::error_code ec;
    std::filesystem::remove_all(mDir, ec);
  }
  std::string path(const char* file) const { return mDir + "/data/vendor/kx/" + file; }

 private:
  std::string mDir;
};

// Opening a file of n rows, as the feature does at start-up: the store,
// which checks the file before use, against a plain open of the same file
// with the same pragma and table creation. Both close untimed.
void BM_StoreOpenFile(benchmark::State& state) {
  BenchRoot root;
  {
    MeterDb db(0, "Vorak.db", "Vorak");
    db.KxDatabaseInit();
    fillStore(db, static_cast<int>(state.range(0)));
  }
  for (auto _ : state) {
    auto db = std::make_unique<MeterDb>(0, "Vorak.db", "Vorak");
    benchmark::DoNotOptimize(db->KxDatabaseInit());
    state.PauseTiming();
    db.reset();
    state.ResumeTiming();
  }
}

void BM_DirectOpenFile(benchmark::State& state) {
  BenchRoot root;
  {
    MeterDb db(0, "Vorak.db", "Vorak");
    db.KxDatabaseInit();
    fillStore(db, static_cast<int>(state.range(0)));
  }
  const std::string path = root.path("Vorak.db");
  for (auto _ : state) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "CREATE TABLE IF NOT EXISTS Vorak(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB)",
                 nullptr, nullptr, nullptr);
    state.PauseTiming();
    sqlite3_close(db);
    state.ResumeTiming();
  }
}

}  // namespace


BENCHMARK(BM_StoreWriteBack)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectWriteBack)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StoreRead)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectRead)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StoreOpenFile)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectOpenFile)->Arg(10000)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
#ifdef __GLIBC__
  // Keep freed heap memory mapped. Each write-back iteration frees over a
  // megabyte of rows and SQLite pages; handing it back to the kernel makes
  // the next timed write pay page faults whose number depends on where the
  // untimed setup left the top of the heap, not on the work compared.
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
#endif
  kxhost::LogCapture quiet;  // keep the store's lines off the report
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
