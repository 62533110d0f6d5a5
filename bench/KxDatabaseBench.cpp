// The table store against the same work done directly on SQLite (same
// schema, one prepared statement, one transaction), in the same run.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"
#include "kxhost/LogCapture.h"

namespace {

using MeterDb = KxDatabase<_vorak_Meter_Data>;

void fillStore(MeterDb& db, int n) {
  for (int done = 0; done < n;) {
    auto rows = db.allocateDR(static_cast<unsigned long>(std::min(100, n - done)));
    for (auto* r : rows) r->appName = "com.example.app", r->blob = {done, done}, ++done;
    db.cacheRow(rows);
  }
}

void BM_StoreWriteBack(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    MeterDb db(0, "", "Vorak");
    db.KxDatabaseInit();
    fillStore(db, n);
    state.ResumeTiming();
    db.KxDatabaseWriteCachedToDisk();
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

void directInsert(sqlite3* db, int n) {
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO Vorak(intcol1, appName, rsvdName, blob) VALUES (?,?,?,?)", -1, &stmt, nullptr);
  sqlite3_exec(db, "BEGIN IMMEDIATE TRANSACTION;", nullptr, nullptr, nullptr);
  static const char kName[] = "com.example.app";
  for (int i = 0; i < n; ++i) {
    _vorak_Meter_Data blob{i, i};
    sqlite3_bind_text(stmt, 2, kName, sizeof kName - 1, SQLITE_STATIC);
    sqlite3_bind_blob(stmt, 4, &blob, sizeof blob, SQLITE_TRANSIENT);
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
    state.ResumeTiming();
    directInsert(db, n);
    state.PauseTiming();
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
  KxDBDataRowKey key("com.example.app", 0);
  for (auto _ : state) {
    auto rows = db.readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
    benchmark::DoNotOptimize(rows.data());
    db.deallocateDR(rows);
  }
  state.SetItemsProcessed(state.iterations() * n);
}

// The same rows read into the same row objects, without the store.
void BM_DirectRead(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  sqlite3* db = openDirect();
  directInsert(db, n);
  for (auto _ : state) {
    std::vector<KxDBDataRow<_vorak_Meter_Data>*> rows;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "SELECT *, rowid FROM Vorak WHERE (appName) = ('com.example.app') ", -1, &stmt, nullptr);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      auto* row = new KxDBDataRow<_vorak_Meter_Data>;
      row->appName = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1));
      std::memcpy(&row->blob, sqlite3_column_blob(stmt, 3), sizeof row->blob);
      row->rowid = sqlite3_column_int64(stmt, 4);
      rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    benchmark::DoNotOptimize(rows.data());
    for (auto* r : rows) delete r;
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * n);
}

}  // namespace

BENCHMARK(BM_StoreWriteBack)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectWriteBack)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StoreRead)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectRead)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
  kxhost::LogCapture quiet;  // keep the store's lines off the report
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
